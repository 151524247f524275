#pragma once
// Kiv::NboAttrLog adapter base: what every entity type's adapter (Sa<E>, Kiv/NboAttrLogSa.h) has
// in common, and the registry of the types a channel can create and apply records to.
//
// An adapter serves one entity on one channel, in one direction: a writing adapter is bound to
// the channel's Out and writes the entity's changes; a reading adapter is bound to its In and
// applies the peer's records to the entity. Adapters are reference counted; the channel's halves
// hold the ones they serve, a collection's adapter holds its members' adapters.

#include <cstdint>
#include <memory>
#include <string_view>

#include "Kiv/Attribute.h"
#include "Kiv/Entity.h"
#include "Kiv/NboAttrLogWire.h"
#include "Kiv/Ptr.h"
#include "Kiv/String8.h"
#include "Jorv/Trace.h"

namespace Kiv::NboAttrLog {

class Out;
class In;
class Channel;
class FlowOut;
class SaBase;

// The attribute log's trace handle, "Kiv::NboAttrLog".
Jorv::TraceHandle& logTrace();

// Refuses a peer's write to `entity`, which this side holds read-only: Jorv::RuntimeException
// "write-update from readonly proxy: " and the entity's full path.
[[noreturn]] void throwReadOnlyWrite(Entity const& entity);

// What the channel knows of an entity type it can create and apply records to. Filled in by
// Sa<E> (Kiv/NboAttrLogSa.h); registered by name with typeIs<E>().
struct TypeInfo {
  std::string_view name;
  // Checks a construction argument (raises on a bad one) and makes the entity from it.
  void (*checkArgument)(String8 const& argument);
  Ptr<Entity> (*create)(String8 const& argument);
  // Checks one record addressed to an entity of this type, before anything is applied; a
  // collection record registers the member identifier it announces (In::announce).
  void (*validate)(In& in, MsgHeader const& header, Cursor& body);
  // The reading-side adapter of `entity` on `in`.
  Ptr<SaBase> (*newReader)(Entity& entity, In& in);
  // The writing-side adapter of `entity` on `out` (kivNboAttrLogSaIs of the entity's type).
  Ptr<SaBase> (*newWriter)(Entity& entity, Out& out);
};

void typeRegister(TypeInfo const& info);
TypeInfo const* typeFind(std::string_view name);

// The adapters' common state and the framework's half of their operations.
class SaBase : public PtrInterface {
 public:
  // State word: the low half is the adapter's state, the high half its notification mask.
  static constexpr std::uint32_t reactorActive = 0x1;
  static constexpr std::uint32_t readOnlyProxy = 0x2;
  static constexpr std::uint32_t remoteWritable = 0x4;  // a read-only proxy that accepts writes
  static constexpr std::uint32_t notificationMask = 0xffff0000u;
  static constexpr std::uint32_t notifyAll = notificationMask;

  std::uint32_t flags() const noexcept { return flags_; }
  void flagsIs(std::uint32_t f) noexcept { flags_ = f; }
  std::uint32_t entityId() const noexcept { return entityId_; }
  std::uint32_t parentEntityId() const noexcept;
  Out* out() const noexcept { return out_; }
  In* in() const noexcept { return in_; }
  SaBase* parent() const noexcept { return parent_; }
  virtual Entity& entity() const = 0;
  // Output is live for writing: attached to an open connection.
  bool outputLive() const noexcept;

  FlowOut* flowOut() noexcept { return flowOut_.get(); }
  FlowOut* flowOutIs(Out& out, String8 const& connection, bool blocked, AttributeId id);
  void flowOutDel() noexcept;

  virtual void kivInstantiateSerialize() = 0;
  virtual void doSerializeOrphan() = 0;
  // Writes dirty attributes from `attributeId` on; returns where it stopped, or 0 when done.
  virtual AttributeId handleAttrFlowOut(AttributeId attributeId) = 0;
  virtual void handleAttrDeserialization(AttributeId attributeId, std::uint32_t options,
                                         std::uint32_t count, In& in) = 0;
  virtual void handleAttrTransaction(AttributeId attributeId, std::uint8_t transactionType,
                                     std::uint32_t count);
  virtual void doRemountSelf(Out& out) = 0;
  virtual void freeResyncState(FlowOut& flowOut);
  void syncModeIs(std::uint32_t mode);
  void kivDoZombieReactors(bool) noexcept {}
  void hasNotificationActiveIs(bool v) noexcept { hasNotificationActive_ = v; }
  bool hasNotificationActive() const noexcept { return hasNotificationActive_; }
  Entity const* kivNotifierEntity() const { return &entity(); }
  // Leaves the output: unregisters from the entity and drops members' adapters.
  virtual void detach() noexcept;
  // A collection adapter's child adapter for `member` (made and announced if it has none), or
  // null when this adapter is no collection's or `member` is not one of its members.
  virtual Ptr<SaBase> memberAdapterFor(Entity const& member);

 protected:
  SaBase() = default;
  ~SaBase() override;
  // Framework attributes (identifiers up to 5) have nothing to flow out; 0 means finished.
  AttributeId handleFrameworkFlowOut(AttributeId) noexcept { return 0; }
  // Binds this adapter to `out` with a fresh identifier (registered in out's adapter table).
  void attachOut(Out& out, SaBase* parent);
  // Marks `bit` dirty and queues the flow-out (creating it), for `id`.
  void deferAttribute(std::uint32_t bit, AttributeId id);
  // True when a change must be deferred rather than written now.
  bool mustDefer() const noexcept;
  // A notifiee's failure, handed to the framework: traced and counted by the channel.
  void notificationExceptionIs(AttributeId id) noexcept;
  // Marks the entity as being written from the channel for `id` while the guard lives.
  class FlowInGuard {
   public:
    FlowInGuard(SaBase& sa, AttributeId id);
    ~FlowInGuard();
    FlowInGuard(FlowInGuard const&) = delete;
    FlowInGuard& operator=(FlowInGuard const&) = delete;

   private:
    Channel* channel_;
    Entity const* entity_;
    AttributeId id_;
  };
  // The active mark around applying one record; raises "entity reactor is already active".
  class ActiveGuard {
   public:
    explicit ActiveGuard(SaBase& sa);
    ~ActiveGuard() { sa_.flags_ &= ~reactorActive; }
    ActiveGuard(ActiveGuard const&) = delete;
    ActiveGuard& operator=(ActiveGuard const&) = delete;

   private:
    SaBase& sa_;
  };
  void checkRemoteWrite() const;
  // A local change to write through a read-only proxy that cannot take writes: ConstException.
  void checkLocalWrite() const;
  bool isFlowIn(AttributeId id) const noexcept;

  std::uint32_t flags_ = 0;
  std::uint32_t entityId_ = 0;
  Out* out_ = nullptr;
  In* in_ = nullptr;
  SaBase* parent_ = nullptr;
  std::unique_ptr<FlowOut> flowOut_;
  bool hasNotificationActive_ = false;

 private:
  friend class Out;
};

}  // namespace Kiv::NboAttrLog
