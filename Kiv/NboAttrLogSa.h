#pragma once
// Kiv::NboAttrLog::Sa<E>: the attribute-log adapter of entity type E (E::KivNboAttrLogSa),
// generated from E's attribute declaration (E::attributes(), Kiv/Attribute.h). One pattern serves
// every type:
//
//   - replicated attributes: isNondestructing (6), then, in declaration (= identifier) order, every
//     writable stored attribute (settable, counter) and every typed collection. Keys travel as the
//     construction argument of the creation record; constants and computed attributes never.
//   - dirty bits in the same order: 0x1 for isNondestructing, then 0x2, 0x4, ...
//   - wire encodings: nboWrite/nboRead of the attribute's value and input types.
//
// Writing side: a generic notifiee on the entity hears every change. A change applied from the
// same channel is not written back (no echo); otherwise it is written at once, or, while the
// output is blocked or a flow-out is pending, marked dirty and flowed out later, from the
// attribute where the last flow-out stopped (handleAttrFlowOut). A collection sends a member
// record (key and the member's new identifier) and hands the member to a child adapter, which
// then sends the member's attributes; a removed member is sent as a deletion record (negated
// collection identifier, key). A full walk of the collection is one transaction; when the output
// blocks the walk stores the key it stopped at (the FlowOut's bookmark) and resumes there.
//
// Reading side: records are applied through the entity's setters, so local notifiees fire as for
// a local change, and only on a real change. At the end of a collection walk the members that the
// writer did not announce on this connection are removed (they were deleted while disconnected).
//
// Names. E::KivNboAttrLogSa is Sa<E> itself, or, for a collection type that declares its own
// nested KivNboAttrLogSa deriving from Sa<E>, that class: it adds nothing but the collection's
// names for the member operations below (memberSerialize as kiv<Coll>SerializeSing, and so on),
// each forwarding here. Every adapter of E is made as E::KivNboAttrLogSa, so those names are
// there on whatever the framework hands out.
//
// The definitions are in Kiv/NboAttrLogSaImpl.h, included at the end of this header.

#include <cstdint>
#include <map>

#include "Kiv/NboAttrLog.h"

namespace Kiv::NboAttrLog {

namespace detail {
// What E replicates, read from its attribute declaration: the attributes in flow-out order with
// their dirty bits, its key and its collection (if any). Defined in Kiv/NboAttrLogSaImpl.h.
template <class E>
struct SaShape;
}  // namespace detail

template <class E>
class Sa : public SaBase {
  using Shape = detail::SaShape<E>;
  // What adapters of E are made as: Sa<E>, or the collection's naming class derived from it.
  using Self = typename E::KivNboAttrLogSa;
  // The collection's key and member types (int and Entity for a type without a collection).
  using Key = typename Shape::Key;
  using Member = typename Shape::Member;

 public:
  // The generic notifiee on the entity: forwards every notification to the adapter.
  class KivNboAttrLogSaAdapter_ : public E::NotifieeConst {
   public:
    explicit KivNboAttrLogSaAdapter_(Sa& sa) : sa_(sa) { this->genericNotifieeIs(true); }
    void onAttributeNotification(AttributeId id, void const* key) override {
      sa_.doNotification(id, key);
    }
    void onNotificationException(AttributeId id) override { sa_.notificationExceptionIs(id); }

   private:
    Sa& sa_;
  };

  // An adapter of `entity` with state word `flags`, bound to no channel yet.
  Sa(E& entity, std::uint32_t flags);
  ~Sa() override;

  E& entity() const override { return *entity_; }
  // E's entry in the type registry (registered by typeIs<E>()).
  static TypeInfo const& typeInfo();

  // A writing adapter on `out`, announced by `announce(id)` (a member record written by the
  // parent) or, for a root, by its creation record; then every attribute flows out.
  template <class Announce>
  static Ptr<Self> attach(E& entity, Out& out, std::uint32_t mask, std::uint32_t flags,
                          SaBase* parent, Announce const& announce);

  // ---- writing side ----
  void doNotification(AttributeId id, void const* key);
  void kivInstantiateSerialize() override;
  void doSerializeOrphan() override;
  AttributeId handleAttrFlowOut(AttributeId start) override;
  void doRemountSelf(Out& out) override;
  void freeResyncState(FlowOut& f) override;
  void detach() noexcept override;
  // Follows the notification mask: registered while any notification bit is set.
  void registerNotifiee();
  Ptr<SaBase> memberAdapterFor(Entity const& member) override;

  // ---- reading side ----
  void handleAttrDeserialization(AttributeId id, std::uint32_t options, std::uint32_t count,
                                 In& in) override;
  // The end of a collection walk removes the members the writer did not announce.
  void handleAttrTransaction(AttributeId id, std::uint8_t type, std::uint32_t count) override;

 protected:
  // ---- members of a collection (public under the collection's names, see Names above) ----

  // Serialises one member: a deletion record when it is gone (or was replaced), else a child
  // adapter (member record, then the member's attributes) unless it has one already.
  template <class K, class M>
  void memberSerialize(K const& key, Ptr<M> const& member);
  // Walks every member (a transaction), resuming at the bookmark; false when the output blocked
  // (the bookmark then holds the key to resume at).
  bool membersSerialize();
  // The same two from outside a flow-out (the collection's public names): one member is written
  // now unless output must wait, the whole collection always goes as a resumable flow-out; both
  // are no-ops on an adapter that has left its output. False when the walk was deferred.
  template <class M>
  void memberSerializeSing(Key const& key, Ptr<M> const& member);
  bool membersSerializeColl();
  // The member's child adapter, or null.
  template <class M>
  Ptr<typename M::KivNboAttrLogSa> memberAdapter(Key const& key) const;
  // The member's child adapter, made (member record, then its attributes) if it has none; null
  // when the collection has no such member or the member could not be announced.
  template <class M>
  Ptr<typename M::KivNboAttrLogSa> memberAdapterIs(Key const& key);
  // Ends the member's child adapter, if any. Writes nothing (memberSerialize writes deletions).
  void memberAdapterDel(Key const& key);
  std::size_t memberAdapterCount() const noexcept { return children_.size(); }

 private:
  template <class>
  friend class Sa;

  template <class M>
  void memberAdapterAttach(Key const& key, M& member);
  void attributeChanged(AttributeId id, std::uint32_t bit);
  template <class K>
  void memberChanged(K const& key);
  template <class M>
  void memberWrite(Key const& key, Ptr<M> const& member);
  void writeAttribute(AttributeId id);
  void memberBound(Key const& key, std::uint32_t id, In& in);
  void memberDeleted(Key const& key, In& in);

  // TypeInfo's operations for E.
  static void checkArgument(String8 const& argument);
  static Ptr<Entity> create(String8 const& argument);
  static void validate(In& in, MsgHeader const& h, Cursor& c);
  static Ptr<SaBase> newReader(Entity& e, In& in);
  static Ptr<SaBase> newWriter(Entity& e, Out& out);

  Ptr<E> entity_;
  KivNboAttrLogSaAdapter_ notifiee_;
  bool rewalk_ = false;  // a member changed while a walk was paused at its bookmark
  std::map<Key, Ptr<SaBase>> children_;        // writing side: member adapters
  std::map<Key, std::uint32_t> readMembers_;   // reading side: members announced, by identifier
};

// Registers E's adapter type under E's type name, so that creation records can name it.
template <class E>
void typeIs() {
  typeRegister(Sa<E>::typeInfo());
}

}  // namespace Kiv::NboAttrLog

#include "Kiv/NboAttrLogSaImpl.h"
