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

#include <map>
#include <typeinfo>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Kiv/NboAttrLog.h"

namespace Kiv::NboAttrLog {

namespace detail {

template <class A>
struct IsTypedCollection : std::false_type {};
template <class O, class C, C O::*M>
struct IsTypedCollection<TypedCollectionAttribute<O, C, M>> : std::true_type {};

template <class A>
constexpr bool isWritableValue() {
  if constexpr (requires { A::writable(); }) {
    return A::writable();
  } else {
    return false;
  }
}

// Marks a walk that has finished its members and goes on with the removed ones.
struct DeletionPhase {};

template <class Tuple, std::size_t I = 0>
struct FirstCollection {
  using Type = void;
};
template <class Tuple, std::size_t I>
  requires(I < std::tuple_size_v<Tuple>)
struct FirstCollection<Tuple, I> {
  using A = std::tuple_element_t<I, Tuple>;
  using Type = std::conditional_t<IsTypedCollection<A>::value, A,
                                  typename FirstCollection<Tuple, I + 1>::Type>;
};

}  // namespace detail

template <class E>
class Sa : public SaBase {
  // What adapters of E are made as: Sa<E>, or the collection's naming class derived from it.
  using Self = typename E::KivNboAttrLogSa;
  using Attrs = decltype(E::attributes());
  static constexpr Attrs attrs = E::attributes();
  static constexpr std::size_t N = std::tuple_size_v<Attrs>;

  template <std::size_t I>
  static constexpr bool logged() {
    using A = std::tuple_element_t<I, Attrs>;
    if constexpr (detail::IsTypedCollection<A>::value) {
      return true;
    } else if constexpr (detail::isWritableValue<A>()) {
      constexpr AttributeKind k = std::get<I>(attrs).decl.kind;
      return k == AttributeKind::settable || k == AttributeKind::counter;
    } else {
      return false;
    }
  }
  template <std::size_t I>
  static constexpr std::uint32_t bitOf() {
    std::uint32_t n = 0;
    [&]<std::size_t... J>(std::index_sequence<J...>) { ((n += logged<J>() ? 1 : 0), ...); }(
        std::make_index_sequence<I>());
    return 2u << n;
  }
  // Calls f(attr, bit) for every replicated attribute of the type, in order.
  template <class F>
  static void forEachLogged(F&& f) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      (
          [&] {
            if constexpr (logged<I>()) f(std::get<I>(attrs), bitOf<I>());
          }(),
          ...);
    }(std::make_index_sequence<N>());
  }
  static constexpr std::uint32_t kNondestructingBit = 1;

  template <std::size_t I = 0>
  static constexpr bool hasKey() {
    if constexpr (I == N) {
      return false;
    } else if constexpr (requires { typename std::tuple_element_t<I, Attrs>::ValueType; }) {
      return std::get<I>(attrs).decl.kind == AttributeKind::key || hasKey<I + 1>();
    } else {
      return hasKey<I + 1>();
    }
  }
  template <std::size_t I = 0>
  static auto keyTag() {
    if constexpr (requires { typename std::tuple_element_t<I, Attrs>::ValueType; }) {
      if constexpr (std::get<I>(attrs).decl.kind == AttributeKind::key) {
        return static_cast<typename std::tuple_element_t<I, Attrs>::ValueType*>(nullptr);
      } else {
        return keyTag<I + 1>();
      }
    } else {
      return keyTag<I + 1>();
    }
  }

  using CollAttr = typename detail::FirstCollection<Attrs>::Type;
  static constexpr bool isCollection = !std::is_void_v<CollAttr>;

  template <class A>
  struct CollTypes {
    using Key = int;
    using Member = Entity;
  };
  template <class A>
    requires(!std::is_void_v<A>)
  struct CollTypes<A> {
    using Key = typename A::CollectionType::KeyType;
    using Member = typename A::CollectionType::MemberType;
  };
  using Key = typename CollTypes<CollAttr>::Key;
  using Member = typename CollTypes<CollAttr>::Member;
  static constexpr AttributeId kCollId = [] {
    AttributeId id = 0;
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      ((detail::IsTypedCollection<std::tuple_element_t<I, Attrs>>::value
            ? (id = std::get<I>(attrs).decl.id, 0)
            : 0),
       ...);
    }(std::make_index_sequence<N>());
    return id;
  }();

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

  Sa(E& entity, std::uint32_t flags) : entity_(&entity), notifiee_(*this) {
    flags_ = flags;
    notifiee_.isRegisteredNotifieeIs(false);
  }
  ~Sa() override { Sa::detach(); }

  E& entity() const override { return *entity_; }

  static TypeInfo const& typeInfo() {
    static TypeInfo const info{E::typeName, &checkArgument, &create,
                               &validate,   &newReader,     &newWriter};
    return info;
  }

  // A writing adapter on `out`, announced by `announce(id)` (a member record written by the
  // parent) or, for a root, by its creation record; then every attribute flows out.
  template <class Announce>
  static Ptr<Self> attach(E& entity, Out& out, std::uint32_t mask, std::uint32_t flags,
                          SaBase* parent, Announce const& announce) {
    static_assert(std::is_base_of_v<Sa, Self>);
    Ptr<Self> sa(new Self(entity, (flags & ~notificationMask) | (mask & notificationMask)));
    sa->attachOut(out, parent);
    announce(sa->entityId());
    sa->registerNotifiee();
    sa->kivInstantiateSerialize();
    return sa;
  }

  // ---- writing side ----

  void doNotification(AttributeId id, void const* key) {
    if (!out_) return;
    if (id == Entity::isNondestructingId) {
      attributeChanged(id, kNondestructingBit);
      return;
    }
    forEachLogged([&](auto const& a, std::uint32_t bit) {
      if (a.decl.id != id) return;
      if constexpr (detail::IsTypedCollection<std::remove_cvref_t<decltype(a)>>::value) {
        if (key) memberChanged(*static_cast<Key const*>(key));
      } else {
        attributeChanged(id, bit);
      }
    });
  }

  void kivInstantiateSerialize() override {
    if (!parent_) doSerializeOrphan();
    if (!flowOut_) flowOut_ = std::make_unique<FlowOut>();
    flowOut_->kivDirtyBitSet0().bitIs(kNondestructingBit);
    forEachLogged([&](auto const&, std::uint32_t bit) { flowOut_->kivDirtyBitSet0().bitIs(bit); });
    flowOut_->attributeIdIs(0);
    if (!out_->blocked() && handleAttrFlowOut(0) == 0 && !flowOut_->hasDirtyAttributes()) {
      flowOutDel();
      return;
    }
    flowOutIs(*out_, out_->channel().description(), out_->blocked(), flowOut_->attributeId());
  }

  void doSerializeOrphan() override {
    out_->recordBegin(MsgHeader{0, createId, entityId_, 0, flagRecord});
    out_->put8(tokenBegin);
    out_->put8(tokenSection);
    out_->put8(1);
    nboWrite(*out_, std::string_view(E::typeName));
    out_->put8(tokenSection);
    out_->put8(3);
    nboWrite(*out_, std::string_view(entity_->name()));
    out_->put8(tokenSection);
    out_->put8(4);
    out_->put32(entityId_);
    out_->put8(tokenEnd);
    out_->recordEnd();
  }

  AttributeId handleAttrFlowOut(AttributeId start) override {
    if (start <= Entity::zeroReferencesId && handleFrameworkFlowOut(start) != 0) return start;
    if (!flowOut_) return 0;
    for (int pass = 0; pass < 2; ++pass) {
      AttributeId stop = 0;
      auto step = [&](AttributeId id, std::uint32_t bit, auto const& write) {
        if (stop || id < start) return;
        flowOut_->attributeIdIs(id);
        if (!flowOut_->kivDirtyBitSet0().bit(bit)) return;
        if (!write()) {
          stop = id;  // a collection walk stopped at its bookmark
          return;
        }
        if (flowOut_) flowOut_->kivDirtyBitSet0().bitDel(bit);
        if (flowOut_ && id == kCollId && rewalk_) {
          rewalk_ = false;  // members changed behind the bookmark: walk once more
          flowOut_->kivDirtyBitSet0().bitIs(bit);
        }
        if (out_->blocked()) stop = id;
      };
      step(Entity::isNondestructingId, kNondestructingBit, [&] {
        writeAttribute(Entity::isNondestructingId);
        return true;
      });
      forEachLogged([&](auto const& a, std::uint32_t bit) {
        step(a.decl.id, bit, [&] {
          if constexpr (detail::IsTypedCollection<std::remove_cvref_t<decltype(a)>>::value) {
            return membersSerialize();
          } else {
            writeAttribute(a.decl.id);
            return true;
          }
        });
      });
      if (stop) return stop;
      if (!flowOut_ || !flowOut_->hasDirtyAttributes()) return 0;
      start = 0;  // dirtied before the point where the last flow-out resumed
    }
    return 0;
  }

  void doRemountSelf(Out& out) override {
    detach();
    attachOut(out, nullptr);
    registerNotifiee();
    kivInstantiateSerialize();
  }

  void freeResyncState(FlowOut& f) override {
    if constexpr (isCollection) {
      if (f.attributeId() == kCollId) f.bookmark().reset();
    }
  }

  void detach() noexcept override {
    notifiee_.isRegisteredNotifieeIs(false);
    notifiee_.notifierIs(nullptr);
    if constexpr (isCollection) {
      auto children = std::move(children_);
      children_.clear();
      for (auto& [key, child] : children) child->detach();
    }
    SaBase::detach();
  }

  // Follows the notification mask: registered while any notification bit is set.
  void registerNotifiee() {
    notifiee_.notifierIs(Ptr<E const>(entity_.ptr()));
    notifiee_.isRegisteredNotifieeIs((flags_ & notificationMask) != 0);
  }

 protected:
  // ---- members of a collection (public under the collection's names, see Names above) ----

  // Serialises one member: a deletion record when it is gone (or was replaced), else a child
  // adapter (member record, then the member's attributes) unless it has one already.
  template <class K, class M>
  void memberSerialize(K const& key, Ptr<M> const& member) {
    auto it = children_.find(key);
    if (it != children_.end() && (!member || &it->second->entity() != member.ptr())) {
      out_->attributeRecord(*this, -std::int32_t(kCollId), [&] { nboWrite(*out_, key); });
      memberAdapterDel(key);
      it = children_.end();
    }
    if (member && it == children_.end()) memberAdapterAttach(key, *member);
  }

  // Walks every member (a transaction), resuming at the bookmark; false when the output blocked
  // (the bookmark then holds the key to resume at).
  bool membersSerialize() {
    if constexpr (isCollection) {
      auto& coll = CollAttr::of(*entity_);
      std::any& bookmark = flowOut_->bookmark();
      bool deletions = false;
      auto it = coll.begin();
      if (!bookmark.has_value()) {
        out_->transactionMarker(*this, std::int32_t(kCollId), tokenBegin,
                                std::uint32_t(coll.size()));
      } else if (bookmark.type() == typeid(detail::DeletionPhase)) {
        deletions = true;
      } else {
        it = coll.lowerBound(std::any_cast<Key const&>(bookmark));
      }
      bookmark.reset();
      for (; !deletions && it != coll.end(); ++it) {
        if (out_->blocked()) {
          bookmark = it.key();
          return false;
        }
        memberSerialize(it.key(), it.ptr());
      }
      // Members removed while the walk was deferred.
      for (auto c = children_.begin(); c != children_.end();) {
        Ptr<Member> now = coll.member(c->first);
        if (now && now.ptr() == &c->second->entity()) {
          ++c;
          continue;
        }
        if (out_->blocked()) {
          bookmark = detail::DeletionPhase{};
          return false;
        }
        Key key = c->first;
        ++c;
        memberSerialize(key, Ptr<Member>());  // a deletion record
      }
      out_->transactionMarker(*this, std::int32_t(kCollId), tokenEnd,
                              std::uint32_t(coll.size()));
    }
    return true;
  }

  // The same two from outside a flow-out (the collection's public names): one member is written
  // now unless output must wait, the whole collection always goes as a resumable flow-out; both
  // are no-ops on an adapter that has left its output. False when the walk was deferred.
  template <class M>
  void memberSerializeSing(Key const& key, Ptr<M> const& member) {
    if (outputLive()) memberWrite(key, member);
  }
  bool membersSerializeColl() {
    if (!outputLive()) return true;
    deferAttribute(collBit(), kCollId);
    return false;
  }

  // The member's child adapter, or null.
  template <class M>
  Ptr<typename M::KivNboAttrLogSa> memberAdapter(Key const& key) const {
    auto it = children_.find(key);
    return it == children_.end() ? nullptr
                                 : static_cast<typename M::KivNboAttrLogSa*>(it->second.ptr());
  }
  // The member's child adapter, made (member record, then its attributes) if it has none; null
  // when the collection has no such member or the member could not be announced.
  template <class M>
  Ptr<typename M::KivNboAttrLogSa> memberAdapterIs(Key const& key) {
    if (Ptr<M> member = CollAttr::of(*entity_).member(key)) {
      if (!children_.count(key)) memberAdapterAttach(key, *member);
    }
    return memberAdapter<M>(key);
  }
  // Ends the member's child adapter, if any. Writes nothing (memberSerialize writes deletions).
  void memberAdapterDel(Key const& key) {
    auto it = children_.find(key);
    if (it == children_.end()) return;
    Ptr<SaBase> gone = it->second;
    children_.erase(it);
    gone->detach();
  }
  std::size_t memberAdapterCount() const noexcept { return children_.size(); }

 public:
  Ptr<SaBase> memberAdapterFor(Entity const& member) override {
    if constexpr (isCollection) {
      auto& coll = CollAttr::of(*entity_);
      for (auto it = coll.begin(); it != coll.end(); ++it) {
        if (it.ptr().ptr() == &member) return memberAdapterIs<Member>(it.key());
      }
    }
    return nullptr;
  }

 private:
  template <class M>
  void memberAdapterAttach(Key const& key, M& member) {
    try {
      children_[key] = Sa<M>::attach(
          member, *out_, flags_ & notificationMask, flags_ & ~(notificationMask | reactorActive),
          this, [&](std::uint32_t id) {
            out_->attributeRecord(*this, std::int32_t(kCollId), [&] {
              nboWrite(*out_, key);
              out_->put32(id);
            });
          });
    } catch (EntityIdUnavailableException const&) {
      notificationExceptionIs(kCollId);
    } catch (AttrLogRecordException const&) {
      notificationExceptionIs(kCollId);
    }
  }

 public:
  // ---- reading side ----

  void handleAttrDeserialization(AttributeId id, std::uint32_t, std::uint32_t, In& in) override {
    ActiveGuard active(*this);
    checkRemoteWrite();
    Cursor& c = in.cursor();
    std::int32_t const sid = std::int32_t(id);
    if (sid == syncModeId) {
      syncModeIs(c.u32());
      return;
    }
    if (sid == std::int32_t(Entity::isNondestructingId)) {
      bool v = nboRead(c, static_cast<bool const*>(nullptr));
      FlowInGuard flowIn(*this, id);
      entity_->isNondestructingIs(v);
      return;
    }
    forEachLogged([&](auto const& a, std::uint32_t) {
      using A = std::remove_cvref_t<decltype(a)>;
      if constexpr (detail::IsTypedCollection<A>::value) {
        using K = typename A::CollectionType::KeyType;
        if (sid == std::int32_t(a.decl.id)) {
          K key = nboRead(c, static_cast<K const*>(nullptr));
          memberBound(key, c.u32(), in);
        } else if (sid == -std::int32_t(a.decl.id)) {
          K key = nboRead(c, static_cast<K const*>(nullptr));
          memberDeleted(key, in);
        }
      } else if (sid == std::int32_t(a.decl.id)) {
        auto v = nboRead(c, static_cast<typename A::InputType const*>(nullptr));
        FlowInGuard flowIn(*this, id);
        a.set(*entity_, v);
      }
    });
  }

  void handleAttrTransaction(AttributeId id, std::uint8_t type, std::uint32_t) override {
    if constexpr (isCollection) {
      // The end of a walk: members the writer did not announce on this connection are stale.
      if (in_ && type == tokenEnd && id == kCollId) {
        auto& coll = CollAttr::of(*entity_);
        FlowInGuard flowIn(*this, id);
        for (auto it = coll.begin(); it != coll.end();) {
          if (readMembers_.count(it.key())) {
            ++it;
          } else {
            coll.memberRemove(it);
          }
        }
      }
    }
  }


 private:
  void attributeChanged(AttributeId id, std::uint32_t bit) {
    if (isFlowIn(id)) return;  // applied from this channel: never echoed
    if (!outputLive()) return;
    checkLocalWrite();
    if (mustDefer()) {
      deferAttribute(bit, id);
      return;
    }
    writeAttribute(id);
  }

  template <class K>
  void memberChanged(K const& key) {
    if constexpr (isCollection) {
      if (isFlowIn(kCollId) || !outputLive()) return;
      memberWrite(key, CollAttr::of(*entity_).member(key));
    }
  }
  template <class M>
  void memberWrite(Key const& key, Ptr<M> const& member) {
    checkLocalWrite();
    if (mustDefer()) {
      // A paused walk does not go back: a member that sorts before its bookmark would be passed
      // over, so the walk that ends runs once more.
      if (flowOut_ && flowOut_->bookmark().has_value()) rewalk_ = true;
      deferAttribute(collBit(), kCollId);
      return;
    }
    memberSerialize(key, member);
  }

  void writeAttribute(AttributeId id) {
    if (id == Entity::isNondestructingId) {
      out_->attributeRecord(*this, std::int32_t(id),
                            [&] { nboWrite(*out_, entity_->isNondestructing()); });
    }
    forEachLogged([&](auto const& a, std::uint32_t) {
      if constexpr (!detail::IsTypedCollection<std::remove_cvref_t<decltype(a)>>::value) {
        if (a.decl.id == id) {
          out_->attributeRecord(*this, std::int32_t(id), [&] { nboWrite(*out_, a.get(*entity_)); });
        }
      }
    });
  }

  void memberBound(Key const& key, std::uint32_t id, In& in) {
    if constexpr (isCollection) {
      auto& coll = CollAttr::of(*entity_);
      Ptr<Member> member;
      {
        FlowInGuard flowIn(*this, kCollId);
        member = coll.memberIs(key);
      }
      auto [it, inserted] = readMembers_.try_emplace(key, id);
      if (!inserted) {
        in.unbind(it->second);
        it->second = id;
      }
      Ptr<Sa<Member>> child(new typename Member::KivNboAttrLogSa(*member, 0));
      child->in_ = &in;
      child->entityId_ = id;
      child->parent_ = this;
      in.bind(id, child);
    }
  }

  void memberDeleted(Key const& key, In& in) {
    if constexpr (isCollection) {
      auto it = readMembers_.find(key);
      if (it != readMembers_.end()) {
        in.unbind(it->second);
        readMembers_.erase(it);
      }
      FlowInGuard flowIn(*this, kCollId);
      CollAttr::of(*entity_).memberRemove(key);
    }
  }

  // ---- type information ----

  static void checkArgument(String8 const& argument) {
    if constexpr (hasKey()) {
      using K = std::remove_pointer_t<decltype(keyTag())>;
      (void)K(std::string_view(argument));
    }
  }
  static Ptr<Entity> create(String8 const& argument) {
    if constexpr (hasKey()) {
      using K = std::remove_pointer_t<decltype(keyTag())>;
      return newPtr<E>(K(std::string_view(argument)));
    } else {
      return newPtr<E>(Name(argument));
    }
  }
  static void validate(In& in, MsgHeader const& h, Cursor& c) {
    std::int32_t const sid = h.attributeId;
    if (sid == std::int32_t(Entity::isNondestructingId)) {
      nboRead(c, static_cast<bool const*>(nullptr));
      return;
    }
    bool known = false;
    forEachLogged([&](auto const& a, std::uint32_t) {
      using A = std::remove_cvref_t<decltype(a)>;
      if constexpr (detail::IsTypedCollection<A>::value) {
        using K = typename A::CollectionType::KeyType;
        using M = typename A::CollectionType::MemberType;
        if (sid == std::int32_t(a.decl.id) || sid == -std::int32_t(a.decl.id)) {
          known = true;
          std::uint8_t const* keyStart = c.position();
          nboRead(c, static_cast<K const*>(nullptr));
          std::string_view keyBytes(reinterpret_cast<char const*>(keyStart),
                                    std::size_t(c.position() - keyStart));
          if (sid > 0) {
            in.announceMember(h.entityId, keyBytes, c.u32(), &Sa<M>::typeInfo());
          } else {
            in.memberGone(h.entityId, keyBytes);
          }
        }
      } else if (sid == std::int32_t(a.decl.id)) {
        known = true;
        nboRead(c, static_cast<typename A::InputType const*>(nullptr));
      }
    });
    if (!known) {
      throw AttrLogRecordException("unknown attribute " + std::to_string(sid) + " of " +
                                   std::string(E::typeName));
    }
  }
  static Ptr<SaBase> newReader(Entity& e, In& in) {
    Ptr<Self> sa(new Self(static_cast<E&>(e), 0));
    sa->in_ = &in;
    sa->entityId_ = in.header().entityId;
    return sa;
  }
  static Ptr<SaBase> newWriter(Entity& e, Out& out) {
    return static_cast<E&>(e).kivNboAttrLogSaIs(notifyAll, 0, out, nullptr);
  }

  template <class>
  friend class Sa;

  static std::uint32_t collBit() {
    std::uint32_t b = 0;
    forEachLogged([&](auto const& a, std::uint32_t bit) {
      if constexpr (detail::IsTypedCollection<std::remove_cvref_t<decltype(a)>>::value) b = bit;
    });
    return b;
  }

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

// ---- AttrLogInterface ----

template <class E>
auto AttrLogInterface<E>::kivNboAttrLogSaIs(std::uint32_t mask, std::uint32_t flags, Out& out,
                                            SaBase* parent) {
  using Adapter = typename E::KivNboAttrLogSa;
  E& self = static_cast<E&>(*this);
  Ptr<Adapter> sa = kivNboAttrLogSa(out);
  if (!sa && parent) {
    // A member is announced by its collection's adapter, which keeps it as a child.
    sa = Ptr<Adapter>(static_cast<Adapter*>(parent->memberAdapterFor(self).ptr()));
    if (!sa) {
      throw RangeException(std::string(E::typeName) + " " + self.name() +
                           " is not a member of the parent adapter's collection");
    }
  }
  if (!sa) {
    sa = Sa<E>::attach(self, out, mask, flags, nullptr, [](std::uint32_t) {});
    out.rootIs(sa);
  } else if ((sa->flags() & SaBase::notificationMask) != (mask & SaBase::notificationMask)) {
    // An existing adapter takes the requested notification bits and keeps its other state.
    sa->flagsIs((sa->flags() & ~SaBase::notificationMask) | (mask & SaBase::notificationMask));
    sa->registerNotifiee();
  }
  return sa;
}

template <class E>
auto AttrLogInterface<E>::kivNboAttrLogSa(Out const& out) const {
  using Adapter = typename E::KivNboAttrLogSa;
  return Ptr<Adapter>(static_cast<Adapter*>(out.adapter(static_cast<E const*>(this))));
}

template <class E>
void AttrLogInterface<E>::kivNboAttrLogSaDel(Out& out) {
  if (auto sa = kivNboAttrLogSa(out)) sa->detach();
}

template <class E>
auto AttrLogInterface<E>::kivNboAttrLogSaForMsgChannel(SaBase const& adapter) const {
  Out* out = adapter.out() ? adapter.out() : adapter.in() ? &adapter.in()->channel().out() : nullptr;
  return out ? kivNboAttrLogSa(*out) : nullptr;
}

}  // namespace Kiv::NboAttrLog
