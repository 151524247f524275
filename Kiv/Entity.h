#pragma once
// Kiv::Entity: the base of every entity of the state model.
//
// An entity is reference counted (PtrInterface), has a name, and a parent link: a raw, never
// owning back pointer to the entity whose collection holds it, together with the identifier of
// that collection attribute. The owner sets and clears the link (Collection does it on insert and
// erase), so the link never outlives the membership. Once the owner's destruction has begun the
// link reads as null: the owner removes its members from its destructor, and their watchers must
// not reach (or take a reference to) an entity whose count is already zero.
//
// Change notification. Watchers derive from an entity's NotifieeConst (read-only) or Notifiee
// (writable) class, register with one notifier (`notifierIs`) and can be switched off and on
// (`isRegisteredNotifieeIs`). A registered notifiee holds a reference to its notifier, so a
// watched entity stays alive until its watchers let go. Every notification goes through one walk
// (Entity::walk), whose invariants are:
//   - nothing is walked, and nothing is allocated, when no notifiee is registered;
//   - the walk visits a snapshot of the registration list taken before the first call, holding a
//     reference to the notifier and to each reference-counted notifiee for the duration, so
//     handlers may register, unregister or drop references freely; an entry that left the list
//     meanwhile (or was destroyed: destruction leaves the list) is skipped;
//   - each call runs under a guard: if the handler throws, that notifiee's
//     onNotificationException(attributeId) is called and the walk goes on with the next one;
//   - up to kInlineNotifiees snapshot entries live on the stack (no heap allocation).
// Handlers run synchronously on the calling (activity) thread; the entity takes no locks.
//
// Lifecycle hooks: when the last reference goes an entity is deleted, unless it is
// nondestructing, in which case it records zeroReferences and stays until isNondestructingIs(false)
// is called while it still has no reference.

#include <cstddef>
#include <cstdint>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kiv/Attribute.h"
#include "Kiv/Ptr.h"
#include "Kiv/String8.h"
#include "Kiv/Value.h"

namespace Kiv {

using Name = String8;

template <class Key, class Member, class KeyHash, class OnMember>
class Collection;
class TypeDescriptor;

// A request of the generic attribute interface: the attribute, the operation (0 read, 128 write;
// 128 to 255 modify), an index (collections only) and a value (writes). Index and value are
// borrowed for the call.
struct AttributeRequest {
  static constexpr unsigned read = 0;
  static constexpr unsigned write = 128;
  AttributeId id;
  unsigned op = read;
  Value const* index = nullptr;
  Value const* value = nullptr;

  bool modifying() const noexcept { return op >= 128 && op <= 255; }
};

// The framework attributes: the base table of every entity type's attribute table.
extern AttributeTable const kEntityAttributeTable;

class Entity : public PtrInterface {
 public:
  // The framework's own attribute identifiers (below kFirstTypeAttributeId).
  static constexpr AttributeId fwkKeyId = 0;
  static constexpr AttributeId nameId = 1;
  static constexpr AttributeId parentId = 2;
  static constexpr AttributeId versionId = 3;
  static constexpr AttributeId referencesId = 4;
  static constexpr AttributeId zeroReferencesId = 5;
  static constexpr AttributeId isNondestructingId = 6;

  static constexpr std::size_t kInlineNotifiees = 8;

  class NotifieeConst;

  explicit Entity(Name name = Name()) : name_(std::move(name)) { liveEntityAdd(this); }
  Entity(Entity const&) = delete;
  Entity& operator=(Entity const&) = delete;

  Name const& name() const noexcept { return name_; }

  // The entity whose collection holds this one, or nullptr (also while that one is destroyed).
  Entity* parent() const noexcept {
    return parent_ && !parent_->isDestroying() ? parent_ : nullptr;
  }
  // The collection attribute of the parent that holds this entity (0 when it has no parent).
  AttributeId memberAttributeId() const noexcept { return parent() ? memberAttributeId_ : 0; }
  // Sets or clears (nullptr) the parent link; when it changes, notifies onParent() and then calls
  // parentChanged(). An exception from parentChanged() leaves the new link in place and passes on.
  void parentIs(Entity* parent, AttributeId memberAttributeId);
  // The names from the root of the entity tree down to this entity, joined by "/" (an entity
  // without a parent: its name alone).
  String8 fullPath() const;

  bool isNondestructing() const noexcept { return isNondestructing_; }
  // May delete this entity: when switched off while it has no reference left.
  void isNondestructingIs(bool value);
  bool zeroReferences() const noexcept { return zeroReferences_; }
  void zeroReferencesIs(bool value);

  // The name of attribute `id` of this entity's type (own names first, then the base entity's),
  // or "unknown".
  String8 attributeString(AttributeId id) const;
  // The attribute declarations of the dynamic type.
  virtual AttributeTable const& attributeTable() const;

  std::size_t notifieeCount() const noexcept { return notifiees_.size(); }

  // The descriptor of the dynamic type (Kiv/Type.h).
  virtual TypeDescriptor const& fwkType() const;

  // The generic attribute operation. On a read-only instance (the const overload) a modifying
  // operation is refused with ConstException before the attribute is looked at. Otherwise the
  // type's own attributes are served from its declaration (Kiv/GenericAttribute.h) and the
  // framework's by the base entity: read of name, parent, references, zeroReferences and
  // isNondestructing, write of isNondestructing. Refusals are the Kiv::Exception types; the
  // instance is unchanged when one is thrown.
  Value attributeOp(AttributeRequest const& request);
  Value attributeOp(AttributeRequest const& request) const;

  // The live entity at `address`, or null. Every entity is registered from construction to
  // destruction, so a printed reference (Kiv/EntityText.h) is resolved without ever following
  // the number itself; an entity that has lost its last reference (its destructor is due) is not
  // handed out. Call it on the thread that owns the entities, like any other entity operation.
  static Ptr<Entity> liveEntity(std::uintptr_t address);

 protected:
  ~Entity() override;
  void onLastRef() override;
  // Hook for entity types that follow their own placement in the tree (for example to move
  // resources named after their path); runs after the onParent() notifiees. Empty by default.
  virtual void parentChanged() {}

  // The type's part of attributeOp (modifying operations on a read-only instance never get
  // here); the default is the base entity's.
  virtual Value attributeOpOwn(AttributeRequest const& request);
  Value attributeOpBase(AttributeRequest const& request);

  // Calls `op(args...)` on every registered notifiee through the walk. `N` is the entity's
  // NotifieeConst class; only notifiees of that class can register with this entity.
  template <class N, class... P, class... A>
  void notify(AttributeId id, void (N::*op)(P...), A const&... args) const;

  // Setter helper: stores `value` and notifies `op` only when it differs from `field`.
  template <class T, class N>
  bool attributeIs(T& field, T const& value, AttributeId id, void (N::*op)());

  // Counter helper: adds `increment` modulo 256; stores and notifies only when the value changes
  // (an increment of 0 is silent).
  template <class N>
  bool counterInc(std::uint8_t& field, std::uint8_t increment, AttributeId id, void (N::*op)());

 private:
  template <class Key, class Member, class KeyHash, class OnMember>
  friend class Collection;
  friend class NotifieeConst;

  // A reference that keeps this entity alive while handlers run (any of them may drop the last
  // other one); null while it has none (under construction, or being destroyed).
  Ptr<Entity const> keepAlive() const noexcept { return references() > 0 ? this : nullptr; }

  using Call = void (*)(void const* context, NotifieeConst& notifiee);
  void walk(AttributeId id, Call call, void const* context) const;
  void notifieeAdd(NotifieeConst* n) const { notifiees_.push_back(n); }
  void notifieeDel(NotifieeConst* n) const noexcept;
  static void liveEntityAdd(Entity const* e);
  static void liveEntityDel(Entity const* e) noexcept;

  Name name_;
  Entity* parent_ = nullptr;
  AttributeId memberAttributeId_ = 0;
  bool isNondestructing_ = false;
  bool zeroReferences_ = false;
  mutable std::vector<NotifieeConst*> notifiees_;
};

// The watcher base of every entity. Operations are empty by default; in slot order the framework's
// own come first, each entity type's NotifieeConst appends its own. A notifiee is usually held by
// Ptr; it may also be a plain member of its owner (never referenced by a Ptr), in which case the
// owner's destruction of it unregisters it, including in the middle of a walk.
class Entity::NotifieeConst : public PtrInterface {
 public:
  virtual void onParent() {}
  virtual void onVersion() {}
  virtual void onNotificationException(AttributeId) {}
  virtual void onZeroReferences() {}
  virtual void onIsNondestructing() {}
  // Heard instead of the typed handler by a generic notifiee (genericNotifieeIs(true)), such as an
  // attribute-log adapter that serves any entity type from its attribute declaration: `id` is the
  // attribute notified, `key` the member key of a keyed collection notification (else null).
  virtual void onAttributeNotification(AttributeId /*id*/, void const* /*key*/) {}

  bool isRegisteredNotifiee() const noexcept { return isRegisteredNotifiee_; }
  // Switches delivery off (leaves the notifier's list, keeps the notifier) or back on.
  void isRegisteredNotifieeIs(bool value);
  // The watcher's name for traces: its type name unless a derived class says otherwise.
  virtual String8 name() const;

 protected:
  NotifieeConst() = default;
  ~NotifieeConst() override;
  NotifieeConst(NotifieeConst const&) = delete;
  NotifieeConst& operator=(NotifieeConst const&) = delete;

  Entity const* notifierBase() const noexcept { return notifier_.ptr(); }
  void genericNotifieeIs(bool value) noexcept { generic_ = value; }
  // Leaves the current notifier's list and joins `notifier`'s (if registered).
  void notifierBaseIs(Entity const* notifier);

 private:
  friend class Entity;
  Ptr<Entity const> notifier_;
  bool isRegisteredNotifiee_ = true;
  bool generic_ = false;
  bool inList_ = false;  // invariant: true exactly when this is in notifier_->notifiees_
};

// Typed notifier plumbing, written once for every entity type E:
//   class NotifieeConst : public Kiv::NotifieeConstOf<E, Kiv::Entity::NotifieeConst> { on...() };
//   using Notifiee = Kiv::NotifieeOf<E, NotifieeConst>;
template <class E, class Base>
class NotifieeConstOf : public Base {
 public:
  using Notifier = E;
  Ptr<E const> notifier() const { return static_cast<E const*>(this->notifierBase()); }
  void notifierIs(Ptr<E const> const& notifier) { this->notifierBaseIs(notifier.ptr()); }
};

template <class E, class ConstNotifiee>
class NotifieeOf : public ConstNotifiee {
 public:
  // Registration only goes through notifierIs(Ptr<E>) below, so the notifier is writable.
  Ptr<E> notifier() const { return const_cast<E*>(ConstNotifiee::notifier().ptr()); }
  void notifierIs(Ptr<E> const& notifier) { ConstNotifiee::notifierIs(notifier); }
};

// Bit-reversed key hash: the member key hash of collections whose keys hash with `hash()`.
// Reversing puts the well-mixed low bits first, which gives an even spread in map order.
template <class Key>
struct BitReversedHash {
  std::uint32_t operator()(Key const& key) const noexcept;
};

std::uint32_t bitReverse(std::uint32_t v) noexcept;

// ---- implementation ----

template <class Key>
std::uint32_t BitReversedHash<Key>::operator()(Key const& key) const noexcept {
  return bitReverse(key.hash());
}

template <class N, class... P, class... A>
void Entity::notify(AttributeId id, void (N::*op)(P...), A const&... args) const {
  static_assert(std::is_base_of_v<NotifieeConst, N>);
  if (notifiees_.empty()) return;
  auto call = [&](NotifieeConst& n) {
    if (n.generic_) {
      void const* key = nullptr;
      if constexpr (sizeof...(A) > 0) key = &std::get<0>(std::forward_as_tuple(args...));
      n.onAttributeNotification(id, key);
    } else {
      (static_cast<N&>(n).*op)(args...);
    }
  };
  using CallType = decltype(call);
  walk(
      id,
      [](void const* context, NotifieeConst& n) { (*static_cast<CallType const*>(context))(n); },
      &call);
}

template <class T, class N>
bool Entity::attributeIs(T& field, T const& value, AttributeId id, void (N::*op)()) {
  if (field == value) return false;
  field = value;
  notify(id, op);
  return true;
}

template <class N>
bool Entity::counterInc(std::uint8_t& field, std::uint8_t increment, AttributeId id,
                        void (N::*op)()) {
  return attributeIs(field, static_cast<std::uint8_t>(field + increment), id, op);
}

}  // namespace Kiv
