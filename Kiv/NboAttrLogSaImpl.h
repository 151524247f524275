#pragma once
// Definitions of Kiv::NboAttrLog::Sa<E> (Kiv/NboAttrLogSa.h, which includes this header at its
// end) and of AttrLogInterface<E>'s operations. Not to be included on its own.

#include <any>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "Kiv/NboAttrLogSa.h"

namespace Kiv::NboAttrLog {

namespace detail {

template <class A>
struct IsTypedCollection : std::false_type {};
template <class O, class C, C O::*M>
struct IsTypedCollection<TypedCollectionAttribute<O, C, M>> : std::true_type {};
template <class A>
constexpr bool isCollectionAttr = IsTypedCollection<std::remove_cvref_t<A>>::value;

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

template <class E>
struct SaShape {
  using Attrs = decltype(E::attributes());
  static constexpr Attrs attrs = E::attributes();
  static constexpr std::size_t N = std::tuple_size_v<Attrs>;
  static constexpr std::uint32_t nondestructingBit = 1;

  template <std::size_t I>
  static constexpr bool logged() {
    using A = std::tuple_element_t<I, Attrs>;
    if constexpr (IsTypedCollection<A>::value) {
      return true;
    } else if constexpr (isWritableValue<A>()) {
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
  // A null pointer to the key attribute's value type (only when hasKey()).
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

  using CollAttr = typename FirstCollection<Attrs>::Type;
  static constexpr bool isCollection = !std::is_void_v<CollAttr>;
  using Key = typename CollTypes<CollAttr>::Key;
  using Member = typename CollTypes<CollAttr>::Member;
  static constexpr AttributeId collId = [] {
    AttributeId id = 0;
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      ((IsTypedCollection<std::tuple_element_t<I, Attrs>>::value
            ? (id = std::get<I>(attrs).decl.id, 0)
            : 0),
       ...);
    }(std::make_index_sequence<N>());
    return id;
  }();
  static std::uint32_t collBit() {
    std::uint32_t b = 0;
    forEachLogged([&](auto const& a, std::uint32_t bit) {
      if constexpr (isCollectionAttr<decltype(a)>) b = bit;
    });
    return b;
  }
};

}  // namespace detail

template <class E>
Sa<E>::Sa(E& entity, std::uint32_t flags) : entity_(&entity), notifiee_(*this) {
  flags_ = flags;
  notifiee_.isRegisteredNotifieeIs(false);
}

template <class E>
Sa<E>::~Sa() {
  Sa::detach();
}

template <class E>
TypeInfo const& Sa<E>::typeInfo() {
  static TypeInfo const info{E::typeName, &checkArgument, &create,
                             &validate,   &newReader,     &newWriter};
  return info;
}

template <class E>
template <class Announce>
auto Sa<E>::attach(E& entity, Out& out, std::uint32_t mask, std::uint32_t flags, SaBase* parent,
                   Announce const& announce) -> Ptr<Self> {
  static_assert(std::is_base_of_v<Sa, Self>);
  Ptr<Self> sa(new Self(entity, (flags & ~notificationMask) | (mask & notificationMask)));
  sa->attachOut(out, parent);
  announce(sa->entityId());
  sa->registerNotifiee();
  sa->kivInstantiateSerialize();
  return sa;
}

// ---- writing side ----

template <class E>
void Sa<E>::doNotification(AttributeId id, void const* key) {
  if (!out_) return;
  if (id == Entity::isNondestructingId) {
    attributeChanged(id, Shape::nondestructingBit);
    return;
  }
  Shape::forEachLogged([&](auto const& a, std::uint32_t bit) {
    if (a.decl.id != id) return;
    if constexpr (detail::isCollectionAttr<decltype(a)>) {
      if (key) memberChanged(*static_cast<Key const*>(key));
    } else {
      attributeChanged(id, bit);
    }
  });
}

template <class E>
void Sa<E>::kivInstantiateSerialize() {
  if (!parent_) doSerializeOrphan();
  if (!flowOut_) flowOut_ = std::make_unique<FlowOut>();
  flowOut_->kivDirtyBitSet0().bitIs(Shape::nondestructingBit);
  Shape::forEachLogged(
      [&](auto const&, std::uint32_t bit) { flowOut_->kivDirtyBitSet0().bitIs(bit); });
  flowOut_->attributeIdIs(0);
  if (!out_->blocked() && handleAttrFlowOut(0) == 0 && !flowOut_->hasDirtyAttributes()) {
    flowOutDel();
    return;
  }
  flowOutIs(*out_, out_->channel().description(), out_->blocked(), flowOut_->attributeId());
}

template <class E>
void Sa<E>::doSerializeOrphan() {
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

template <class E>
AttributeId Sa<E>::handleAttrFlowOut(AttributeId start) {
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
      if (flowOut_ && id == Shape::collId && rewalk_) {
        rewalk_ = false;  // members changed behind the bookmark: walk once more
        flowOut_->kivDirtyBitSet0().bitIs(bit);
      }
      if (out_->blocked()) stop = id;
    };
    step(Entity::isNondestructingId, Shape::nondestructingBit, [&] {
      writeAttribute(Entity::isNondestructingId);
      return true;
    });
    Shape::forEachLogged([&](auto const& a, std::uint32_t bit) {
      step(a.decl.id, bit, [&] {
        if constexpr (detail::isCollectionAttr<decltype(a)>) {
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

template <class E>
void Sa<E>::doRemountSelf(Out& out) {
  detach();
  attachOut(out, nullptr);
  registerNotifiee();
  kivInstantiateSerialize();
}

template <class E>
void Sa<E>::freeResyncState(FlowOut& f) {
  if constexpr (Shape::isCollection) {
    if (f.attributeId() == Shape::collId) f.bookmark().reset();
  }
}

template <class E>
void Sa<E>::detach() noexcept {
  notifiee_.isRegisteredNotifieeIs(false);
  notifiee_.notifierIs(nullptr);
  if constexpr (Shape::isCollection) {
    auto children = std::move(children_);
    children_.clear();
    for (auto& [key, child] : children) child->detach();
  }
  SaBase::detach();
}

template <class E>
void Sa<E>::registerNotifiee() {
  notifiee_.notifierIs(Ptr<E const>(entity_.ptr()));
  notifiee_.isRegisteredNotifieeIs((flags_ & notificationMask) != 0);
}

template <class E>
void Sa<E>::attributeChanged(AttributeId id, std::uint32_t bit) {
  if (isFlowIn(id)) return;  // applied from this channel: never echoed
  if (!outputLive()) return;
  checkLocalWrite();
  if (mustDefer()) {
    deferAttribute(bit, id);
    return;
  }
  writeAttribute(id);
}

template <class E>
void Sa<E>::writeAttribute(AttributeId id) {
  if (id == Entity::isNondestructingId) {
    out_->attributeRecord(*this, std::int32_t(id),
                          [&] { nboWrite(*out_, entity_->isNondestructing()); });
  }
  Shape::forEachLogged([&](auto const& a, std::uint32_t) {
    if constexpr (!detail::isCollectionAttr<decltype(a)>) {
      if (a.decl.id == id) {
        out_->attributeRecord(*this, std::int32_t(id), [&] { nboWrite(*out_, a.get(*entity_)); });
      }
    }
  });
}

// ---- members of a collection, writing side ----

template <class E>
template <class K, class M>
void Sa<E>::memberSerialize(K const& key, Ptr<M> const& member) {
  auto it = children_.find(key);
  if (it != children_.end() && (!member || &it->second->entity() != member.ptr())) {
    out_->attributeRecord(*this, -std::int32_t(Shape::collId), [&] { nboWrite(*out_, key); });
    memberAdapterDel(key);
    it = children_.end();
  }
  if (member && it == children_.end()) memberAdapterAttach(key, *member);
}

template <class E>
bool Sa<E>::membersSerialize() {
  if constexpr (Shape::isCollection) {
    auto& coll = Shape::CollAttr::of(*entity_);
    std::any& bookmark = flowOut_->bookmark();
    bool deletions = false;
    auto it = coll.begin();
    if (!bookmark.has_value()) {
      out_->transactionMarker(*this, std::int32_t(Shape::collId), tokenBegin,
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
    out_->transactionMarker(*this, std::int32_t(Shape::collId), tokenEnd,
                            std::uint32_t(coll.size()));
  }
  return true;
}

template <class E>
template <class M>
void Sa<E>::memberSerializeSing(Key const& key, Ptr<M> const& member) {
  if (outputLive()) memberWrite(key, member);
}

template <class E>
bool Sa<E>::membersSerializeColl() {
  if (!outputLive()) return true;
  deferAttribute(Shape::collBit(), Shape::collId);
  return false;
}

template <class E>
template <class M>
Ptr<typename M::KivNboAttrLogSa> Sa<E>::memberAdapter(Key const& key) const {
  auto it = children_.find(key);
  return it == children_.end() ? nullptr
                               : static_cast<typename M::KivNboAttrLogSa*>(it->second.ptr());
}

template <class E>
template <class M>
Ptr<typename M::KivNboAttrLogSa> Sa<E>::memberAdapterIs(Key const& key) {
  if (Ptr<M> member = Shape::CollAttr::of(*entity_).member(key)) {
    if (!children_.count(key)) memberAdapterAttach(key, *member);
  }
  return memberAdapter<M>(key);
}

template <class E>
void Sa<E>::memberAdapterDel(Key const& key) {
  auto it = children_.find(key);
  if (it == children_.end()) return;
  Ptr<SaBase> gone = it->second;
  children_.erase(it);
  gone->detach();
}

template <class E>
Ptr<SaBase> Sa<E>::memberAdapterFor(Entity const& member) {
  if constexpr (Shape::isCollection) {
    auto& coll = Shape::CollAttr::of(*entity_);
    for (auto it = coll.begin(); it != coll.end(); ++it) {
      if (it.ptr().ptr() == &member) return memberAdapterIs<Member>(it.key());
    }
  }
  return nullptr;
}

template <class E>
template <class M>
void Sa<E>::memberAdapterAttach(Key const& key, M& member) {
  try {
    children_[key] = Sa<M>::attach(
        member, *out_, flags_ & notificationMask, flags_ & ~(notificationMask | reactorActive),
        this, [&](std::uint32_t id) {
          out_->attributeRecord(*this, std::int32_t(Shape::collId), [&] {
            nboWrite(*out_, key);
            out_->put32(id);
          });
        });
  } catch (EntityIdUnavailableException const&) {
    notificationExceptionIs(Shape::collId);
  } catch (AttrLogRecordException const&) {
    notificationExceptionIs(Shape::collId);
  }
}

template <class E>
template <class K>
void Sa<E>::memberChanged(K const& key) {
  if constexpr (Shape::isCollection) {
    if (isFlowIn(Shape::collId) || !outputLive()) return;
    memberWrite(key, Shape::CollAttr::of(*entity_).member(key));
  }
}

template <class E>
template <class M>
void Sa<E>::memberWrite(Key const& key, Ptr<M> const& member) {
  checkLocalWrite();
  if (mustDefer()) {
    // A paused walk does not go back: a member that sorts before its bookmark would be passed
    // over, so the walk that ends runs once more.
    if (flowOut_ && flowOut_->bookmark().has_value()) rewalk_ = true;
    deferAttribute(Shape::collBit(), Shape::collId);
    return;
  }
  memberSerialize(key, member);
}

// ---- reading side ----

template <class E>
void Sa<E>::handleAttrDeserialization(AttributeId id, std::uint32_t, std::uint32_t, In& in) {
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
  Shape::forEachLogged([&](auto const& a, std::uint32_t) {
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

template <class E>
void Sa<E>::handleAttrTransaction(AttributeId id, std::uint8_t type, std::uint32_t) {
  if constexpr (Shape::isCollection) {
    // The end of a walk: members the writer did not announce on this connection are stale.
    if (in_ && type == tokenEnd && id == Shape::collId) {
      auto& coll = Shape::CollAttr::of(*entity_);
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

template <class E>
void Sa<E>::memberBound(Key const& key, std::uint32_t id, In& in) {
  if constexpr (Shape::isCollection) {
    auto& coll = Shape::CollAttr::of(*entity_);
    Ptr<Member> member;
    {
      FlowInGuard flowIn(*this, Shape::collId);
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

template <class E>
void Sa<E>::memberDeleted(Key const& key, In& in) {
  if constexpr (Shape::isCollection) {
    auto it = readMembers_.find(key);
    if (it != readMembers_.end()) {
      in.unbind(it->second);
      readMembers_.erase(it);
    }
    FlowInGuard flowIn(*this, Shape::collId);
    Shape::CollAttr::of(*entity_).memberRemove(key);
  }
}

// ---- type information ----

template <class E>
void Sa<E>::checkArgument(String8 const& argument) {
  if constexpr (Shape::hasKey()) {
    using K = std::remove_pointer_t<decltype(Shape::keyTag())>;
    (void)K(std::string_view(argument));
  }
}

template <class E>
Ptr<Entity> Sa<E>::create(String8 const& argument) {
  if constexpr (Shape::hasKey()) {
    using K = std::remove_pointer_t<decltype(Shape::keyTag())>;
    return newPtr<E>(K(std::string_view(argument)));
  } else {
    return newPtr<E>(Name(argument));
  }
}

template <class E>
void Sa<E>::validate(In& in, MsgHeader const& h, Cursor& c) {
  std::int32_t const sid = h.attributeId;
  if (sid == std::int32_t(Entity::isNondestructingId)) {
    nboRead(c, static_cast<bool const*>(nullptr));
    return;
  }
  bool known = false;
  Shape::forEachLogged([&](auto const& a, std::uint32_t) {
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

template <class E>
Ptr<SaBase> Sa<E>::newReader(Entity& e, In& in) {
  Ptr<Self> sa(new Self(static_cast<E&>(e), 0));
  sa->in_ = &in;
  sa->entityId_ = in.header().entityId;
  return sa;
}

template <class E>
Ptr<SaBase> Sa<E>::newWriter(Entity& e, Out& out) {
  return static_cast<E&>(e).kivNboAttrLogSaIs(notifyAll, 0, out, nullptr);
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
  Out* out = adapter.out()  ? adapter.out()
             : adapter.in() ? &adapter.in()->channel().out()
                            : nullptr;
  return out ? kivNboAttrLogSa(*out) : nullptr;
}

}  // namespace Kiv::NboAttrLog
