#pragma once
// Kiv::NboAttrLog: the attribute log, which replicates entities between processes as a byte
// stream in network byte order.
//
// Wire format. The stream is a sequence of records, each a MsgHeader (20 bytes) followed by
// `length` bytes of body:
//
//   u32 length | i32 attributeId | u32 entityId | u32 parentId | u8 flags | 3 bytes zero
//
// `entityId` and `parentId` are the entity's two channel identifiers: its own, and that of the
// entity whose collection holds it (0 for a root). Identifiers are allocated by the writing side
// of a connection, from 1 up, and announced in the stream before use: a root by a creation record,
// a collection member by its collection's member record. They are valid for one connection only.
//
// flags 1 (record): body = token 1 (begin), payload, token 3 (end). The payload is
//   attributeId 136  creation: section 1 the type name (string), section 3 the construction
//                    argument (string), section 4 the new entity identifier (u32); each section
//                    is token 2 and the section number (u8) before its value
//   attributeId 135  sync mode (u32): 1 the full state follows, 2 the full state has been sent
//   attributeId >0   the attribute's value in its wire encoding (NboAttrLog/Codec below); for a
//                    collection, the member's key then the member's new entity identifier
//   attributeId <0   deletion of the member of collection -attributeId whose key follows
// flags 2 (transaction marker): body = token 1 or 3 and a u32 count. Records between a begin and
//   its end (markers nest) are applied together when the outermost end arrives, never partly.
//
// Values: unsigned integers big-endian; Boolean one byte 0 or 1; strings a u32 byte count and the
// bytes. Every length and identifier read is checked against the record and the connection's
// bindings before use; a record that fails the checks is an error of the connection (see In).
//
// Transport. A Channel is one connected Unix-domain stream socket, non-blocking, driven by a
// Kiv::Activity, with an Out (this side's adapters write) and an In (the peer's records are
// applied). Out keeps a bounded buffer: once `highWater` bytes wait for the socket the output is
// blocked, and adapters record changes as dirty bits in a FlowOut instead of writing; when the
// socket drains below half the mark, Out runs the pending flow-outs in the order they blocked.
// A Server listens and accepts any number of peers; a Client connects and reconnects. On every
// new connection the writing side re-sends each served entity (creation record, every attribute,
// every member) between sync modes 1 and 2; the reading side removes the members that the writer
// no longer has at the end of each collection walk, so it ends equal to the writer.

#include <any>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Kiv/Activity.h"
#include "Kiv/Attribute.h"
#include "Kiv/Entity.h"
#include "Kiv/Exception.h"
#include "Kiv/Ptr.h"
#include "Kiv/String8.h"

namespace Kiv::NboAttrLog {

inline constexpr std::uint8_t tokenBegin = 1;
inline constexpr std::uint8_t tokenSection = 2;
inline constexpr std::uint8_t tokenEnd = 3;
inline constexpr std::int32_t syncModeId = 135;
inline constexpr std::int32_t createId = 136;
inline constexpr std::uint8_t flagRecord = 1;
inline constexpr std::uint8_t flagTransaction = 2;
inline constexpr std::uint32_t syncModeFull = 1;
inline constexpr std::uint32_t syncModeDone = 2;
inline constexpr std::uint32_t kMaxRecordBytes = 4096;        // body of one record
inline constexpr std::uint32_t kMaxEntityId = 1u << 24;       // identifiers 1..kMaxEntityId
inline constexpr std::size_t kMaxPendingBytes = 16u << 20;    // one transaction's records
inline constexpr unsigned kMaxTransactionDepth = 16;
inline constexpr std::size_t kMaxCreatedRoots = 1024;

struct MsgHeader {
  static constexpr std::size_t wireSize = 20;
  std::uint32_t length = 0;
  std::int32_t attributeId = 0;
  std::uint32_t entityId = 0;
  std::uint32_t parentId = 0;
  std::uint8_t flags = 0;
};

class Out;
class In;
class Channel;
class SaBase;

// Bounded reader of one record's body. Every read past the end raises AttrLogRecordException
// "truncated record".
class Cursor {
 public:
  explicit Cursor(std::span<std::uint8_t const> bytes) : p_(bytes.data()), end_(p_ + bytes.size()) {}
  std::uint8_t u8();
  std::uint16_t u16();
  std::uint32_t u32();
  std::string_view bytes(std::size_t n);
  std::uint8_t const* position() const noexcept { return p_; }
  String8 string();
  // Reads one byte and raises "bad token" unless it is `token`.
  void token(std::uint8_t token);
  void section(std::uint8_t section);
  std::size_t left() const noexcept { return std::size_t(end_ - p_); }
  void expectEnd() const;  // raises "trailing bytes in record" unless all was read

 private:
  std::uint8_t const* p_;
  std::uint8_t const* end_;
};

// Codecs of the built-in types; value types add `nboWrite(Out&, T const&)` and
// `nboRead(Cursor&, T const* tag)` beside themselves (found by argument-dependent lookup).
void nboWrite(Out& out, bool v);
void nboWrite(Out& out, std::uint8_t v);
void nboWrite(Out& out, std::uint16_t v);
void nboWrite(Out& out, std::uint32_t v);
void nboWrite(Out& out, std::string_view v);
bool nboRead(Cursor& in, bool const*);
std::uint8_t nboRead(Cursor& in, std::uint8_t const*);
std::uint16_t nboRead(Cursor& in, std::uint16_t const*);
std::uint32_t nboRead(Cursor& in, std::uint32_t const*);
String8 nboRead(Cursor& in, String8 const*);

// One bit per replicated attribute, in flow-out order (bit 0: isNondestructing).
class KivDirtyBitSet0 {
 public:
  void bitIs(std::uint32_t bit) noexcept { bits_ |= bit; }
  void bitDel(std::uint32_t bit) noexcept { bits_ &= ~bit; }
  bool bit(std::uint32_t bit) const noexcept { return (bits_ & bit) != 0; }
  bool any() const noexcept { return bits_ != 0; }
  std::uint32_t value() const noexcept { return bits_; }

 private:
  std::uint32_t bits_ = 0;
};

// Deferred output of one adapter: what is still to be written once the output drains.
class FlowOut {
 public:
  KivDirtyBitSet0& kivDirtyBitSet0() noexcept { return dirty_; }
  bool hasDirtyAttributes() const noexcept { return dirty_.any(); }
  AttributeId attributeId() const noexcept { return attributeId_; }
  void attributeIdIs(AttributeId id) noexcept { attributeId_ = id; }
  bool blocked() const noexcept { return blocked_; }
  void blockedIs(bool v) noexcept { blocked_ = v; }
  // A collection's resume point: the key of the member at which its walk stopped.
  std::any& bookmark() noexcept { return bookmark_; }
  String8 const& connection() const noexcept { return connection_; }

 private:
  friend class SaBase;
  friend class Out;
  KivDirtyBitSet0 dirty_;
  AttributeId attributeId_ = 0;
  bool blocked_ = false;
  bool queued_ = false;
  std::any bookmark_;
  String8 connection_;
};

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

// The writing half of a channel.
class Out {
 public:
  Out(Channel& channel, std::size_t highWater);
  ~Out();
  Out(Out const&) = delete;
  Out& operator=(Out const&) = delete;

  Channel& channel() const noexcept { return channel_; }
  // Bytes waiting in this side's buffer (not yet accepted by the socket).
  std::size_t buffered() const noexcept { return buf_.size() - head_; }
  std::size_t highWater() const noexcept { return highWater_; }
  void highWaterIs(std::size_t bytes) noexcept { highWater_ = bytes; }
  bool blocked() const noexcept;
  bool flowOutPending() const noexcept { return !queue_.empty(); }
  std::uint64_t bytesWritten() const noexcept { return written_; }  // accepted by the socket
  std::uint64_t recordsWritten() const noexcept { return records_; }

  // Record building: begin, values through nboWrite, end. Records are written whole.
  void recordBegin(MsgHeader const& header);
  void recordEnd();
  void put8(std::uint8_t v) { buf_.push_back(v); }
  void put16(std::uint16_t v);
  void put32(std::uint32_t v);
  void putBytes(std::string_view v) { buf_.insert(buf_.end(), v.begin(), v.end()); }
  // A whole attribute record: header for (sa, id), token 1, `body` (writes the value), token 3.
  template <class F>
  void attributeRecord(SaBase const& sa, std::int32_t id, F const& body) {
    recordBegin(MsgHeader{0, id, sa.entityId(), sa.parentEntityId(), flagRecord});
    put8(tokenBegin);
    body();
    put8(tokenEnd);
    recordEnd();
  }
  void transactionMarker(SaBase const& sa, std::int32_t id, std::uint8_t token, std::uint32_t count);
  void syncModeIs(std::uint32_t mode);

  // Identifiers are not reused on one connection (a reader may still hold a removed one); past
  // the reader's range the entity cannot be sent until the next connection starts afresh.
  std::uint32_t newEntityId() {
    if (nextEntityId_ > kMaxEntityId) {
      throw EntityIdUnavailableException("attribute log: entity identifiers of this connection "
                                         "exhausted");
    }
    return nextEntityId_++;
  }
  void rootIs(Ptr<SaBase> const& sa) { roots_.push_back(sa); }
  // Starts a full-state send: sync mode 1 now, 2 once every flow-out has finished.
  void fullStateBegin();
  SaBase* adapter(Entity const* e) const;
  // Queues `sa` to flow out when the output drains.
  void flowOutEnqueue(SaBase& sa);
  // Runs queued flow-outs while the output is not blocked.
  void runFlowOuts();
  // Sends what the socket accepts now.
  void flush();

 private:
  friend class SaBase;
  friend class Channel;
  void compact();
  void armFlush();

  Channel& channel_;
  std::size_t highWater_;
  std::vector<std::uint8_t> buf_;
  std::size_t head_ = 0;
  std::size_t recordStart_ = 0;
  std::uint64_t written_ = 0;
  std::uint64_t records_ = 0;
  std::uint32_t nextEntityId_ = 1;
  bool syncDonePending_ = false;
  bool flushArmed_ = false;
  bool runningFlowOuts_ = false;
  Activity::Id flushTimer_ = 0;
  std::unordered_map<Entity const*, SaBase*> adapters_;
  std::vector<Ptr<SaBase>> roots_;  // adapters of served entities owned by this output
  std::deque<Ptr<SaBase>> queue_;
};

// The reading half of a channel: parses records, checks each before anything is applied, and
// applies records (or whole transactions) through the entities' reading adapters.
class In {
 public:
  explicit In(Channel& channel);
  ~In();
  In(In const&) = delete;
  In& operator=(In const&) = delete;

  Channel& channel() const noexcept { return channel_; }
  // Hands bytes from the stream to the parser. Raises AttrLogRecordException (or the range error
  // of a bad value) at the first bad record; nothing of that record, or of the transaction it is
  // part of, is applied. Re-entrant calls (from a handler) only queue their bytes.
  void feed(std::span<std::uint8_t const> bytes);
  // The stream ended: raises "stream cut mid-transaction" if a transaction is open (its records
  // are dropped) or "stream cut mid-record" inside a record.
  void endOfStream();

  std::uint32_t syncMode() const noexcept { return syncMode_; }
  std::uint64_t recordsApplied() const noexcept { return applied_; }
  // The record being applied (valid inside handleAttrDeserialization).
  Cursor& cursor() { return *cursor_; }
  MsgHeader const& header() const noexcept { return header_; }

  // Validation-time bookkeeping of identifiers (see TypeInfo::validate).
  struct Known {
    TypeInfo const* type;
    std::uint32_t parentId;
  };
  void announce(std::uint32_t id, TypeInfo const* type, std::uint32_t parentId);
  void unannounce(std::uint32_t id) noexcept { known_.erase(id); }
  // A collection member announced under `key` (its encoded bytes) of collection entity `parentId`;
  // a member announced again under the same key, or deleted, releases its old identifier.
  void announceMember(std::uint32_t parentId, std::string_view key, std::uint32_t id,
                      TypeInfo const* type);
  void memberGone(std::uint32_t parentId, std::string_view key) noexcept;
  // Apply-time bindings of identifiers to reading adapters.
  void bind(std::uint32_t id, Ptr<SaBase> const& sa) { bound_[id] = sa; }
  void unbind(std::uint32_t id) noexcept { bound_.erase(id); }
  SaBase* bound(std::uint32_t id) const;

 private:
  void process();
  void validate(MsgHeader const& h, std::span<std::uint8_t const> body);
  void apply(MsgHeader const& h, std::span<std::uint8_t const> body);

  Channel& channel_;
  std::vector<std::uint8_t> buf_;
  std::vector<std::uint8_t> later_;
  std::size_t head_ = 0;
  bool processing_ = false;
  unsigned depth_ = 0;
  std::vector<std::pair<MsgHeader, std::vector<std::uint8_t>>> pending_;
  std::size_t pendingBytes_ = 0;
  std::uint32_t syncMode_ = 0;
  std::uint64_t applied_ = 0;
  std::unordered_map<std::uint32_t, Known> known_;
  std::map<std::pair<std::uint32_t, std::string>, std::uint32_t> memberIds_;
  std::unordered_map<std::uint32_t, Ptr<SaBase>> bound_;
  MsgHeader header_;
  Cursor* cursor_ = nullptr;
};

class Endpoint;

// One connected socket with its Out and In. Owned by its Endpoint; closing it (peer gone, bad
// input, local request) is reported to the endpoint from a fresh activity round, never from
// inside the handler that found it.
class Channel {
 public:
  Channel(Endpoint& endpoint, int fd, String8 description);
  ~Channel();
  Channel(Channel const&) = delete;
  Channel& operator=(Channel const&) = delete;

  Out& out() noexcept { return out_; }
  In& in() noexcept { return in_; }
  Endpoint& endpoint() const noexcept { return endpoint_; }
  String8 const& description() const noexcept { return description_; }
  bool open() const noexcept { return fd_ >= 0; }
  // Closes the socket; the endpoint hears of it in the next round. `error` empty: an orderly end.
  void close(String8 const& error);
  String8 const& error() const noexcept { return error_; }

  // The change being applied from this channel, so that its writing adapters do not echo it.
  bool flowIn(Entity const* e, AttributeId id) const noexcept {
    return flowInEntity_ == e && flowInId_ == id;
  }

 private:
  friend class Out;
  friend class SaBase;
  void onEvents(std::uint32_t events);
  void watchOut(bool on);

  Endpoint& endpoint_;
  int fd_;
  String8 description_;
  String8 error_;
  Out out_;
  In in_;
  FdWatch watch_;
  bool watchingOut_ = false;
  Entity const* flowInEntity_ = nullptr;
  AttributeId flowInId_ = 0;
  Activity::Id closeTimer_ = 0;
};

// The entities a process serves (writes) and reads over its channels, and the channels.
//
// `serve(entity)`: every channel gets an adapter for it (creation record, then every change).
// `read(entity)`: a creation record from the peer with the entity's type name and name binds to
// it instead of making a new entity; records of types not registered are errors. Entities the peer
// creates that match no read root are kept in `created()`.
class Endpoint {
 public:
  struct Options {
    std::size_t highWater = 16 * 1024;
    double reconnectSeconds = 0.05;  // Client: the delay before a new connection attempt
  };

  explicit Endpoint(Activity& activity, Options options);
  virtual ~Endpoint();
  Endpoint(Endpoint const&) = delete;
  Endpoint& operator=(Endpoint const&) = delete;

  Activity& activity() const noexcept { return activity_; }
  Options const& options() const noexcept { return options_; }
  void serve(Ptr<Entity> const& entity);
  void read(Ptr<Entity> const& entity);
  Ptr<Entity> readRoot(std::string_view typeName, std::string_view name) const;
  std::vector<Ptr<Entity>> const& created() const noexcept { return created_; }
  Ptr<Entity> bindRoot(TypeInfo const& type, String8 const& argument);

  std::vector<Channel*> channels() const;
  // Makes a channel for an already connected socket (owned from now on) and attaches the served
  // entities to it.
  Channel& adopt(int fd, String8 const& description);
  // Connections made so far (the first one included), and errors seen on them.
  std::uint64_t connections() const noexcept { return connections_; }
  std::uint64_t errors() const noexcept { return errors_; }
  String8 const& lastError() const noexcept { return lastError_; }
  // True when some channel has received the peer's full state (sync mode 2) since it opened.
  bool synced() const;

  // Called by a channel (deferred) once it has closed.
  void channelClosed(Channel* channel);
  void errorIs(String8 const& error);

 protected:
  virtual void onChannelClosed() {}
  void channelsClear() { channels_.clear(); }
  // Attaches every served entity to a new channel's `out`, between sync modes 1 and 2.
  void attachServed(Out& out);
  // Attaches one served entity: a new adapter, or (Client) its adapter re-mounted.
  virtual void attachOne(Ptr<Entity> const& entity, Out& out);
  std::vector<Ptr<Entity>> served_;

 private:
  Activity& activity_;
  Options options_;
  std::vector<Ptr<Entity>> readRoots_;
  std::vector<Ptr<Entity>> created_;
  std::vector<std::unique_ptr<Channel>> channels_;
  std::uint64_t connections_ = 0;
  std::uint64_t errors_ = 0;
  String8 lastError_;
};

// Listens on a Unix-domain socket path (replacing a stale socket file) and accepts any number of
// peers. Removes the path when destroyed.
class Server : public Endpoint {
 public:
  Server(Activity& activity, std::string path, Options options);
  Server(Activity& activity, std::string path) : Server(activity, std::move(path), Options{}) {}
  ~Server() override;

 private:
  void onAccept();
  std::string path_;
  int listenFd_ = -1;
  FdWatch watch_;
};

// Connects to a Unix-domain socket path and keeps one connection: after a loss (or while the
// server is absent) it tries again every `reconnectSeconds`. Served entities keep their adapters
// across connections; each new connection re-mounts them (doRemountSelf).
class Client : public Endpoint {
 public:
  Client(Activity& activity, std::string path, Options options);
  Client(Activity& activity, std::string path) : Client(activity, std::move(path), Options{}) {}
  ~Client() override;
  Channel* channel() const;

 private:
  void tryConnect();
  void onChannelClosed() override;
  void attachOne(Ptr<Entity> const& entity, Out& out) override;
  std::string path_;
  Activity::Id retryTimer_ = 0;
  std::unordered_map<Entity const*, Ptr<SaBase>> adapters_;
};

// A connected pair of sockets for in-process use (tests): both ends non-blocking.
void socketPair(int fds[2]);

template <class E>
class Sa;

// The attribute-log operations of an entity type E (a base of E; defined in Kiv/NboAttrLogSa.h).
// `E::KivNboAttrLogSa` is the type's adapter, generated from E's attribute declaration (a
// collection type may declare its own, derived from Sa<E>, to name its member operations).
template <class E>
class AttrLogInterface {
 public:
  using KivNboAttrLogSa = Sa<E>;

  static constexpr bool kivHasAttrLogInterface() noexcept { return true; }
  // The adapter of this entity on `out`, created (creation record or member record, then every
  // attribute) when there is none. An existing adapter is returned; if its notification bits
  // differ from `mask`'s they are replaced, its other state bits kept.
  // (Each returns Ptr<E::KivNboAttrLogSa>, spelled `auto` here because E is not complete yet.)
  auto kivNboAttrLogSaIs(std::uint32_t mask, std::uint32_t flags, Out& out, SaBase* parent);
  auto kivNboAttrLogSa(Out const& out) const;
  void kivNboAttrLogSaDel(Out& out);
  // This entity's adapter on the channel that `adapter` serves (either direction).
  auto kivNboAttrLogSaForMsgChannel(SaBase const& adapter) const;

 protected:
  AttrLogInterface() = default;
  ~AttrLogInterface() = default;
};

}  // namespace Kiv::NboAttrLog
