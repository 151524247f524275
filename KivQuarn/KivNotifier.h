#pragma once
// The notifier of a table bound to an entity: it turns the engine's per-key change events (a
// reading table reports every key whose entry was added, changed or removed) into a call of one
// member function of the owning entity, which fans the key out to the owner's notifiees.
//
// The key is copied before the call: the engine may hand over a reference into a record it
// reuses, and a notifiee may cause further reports while it runs.

namespace KivQuarn {

template <class Key, class Wrapper, class Owner>
class KivNotifier {
 public:
  using Notify = void (Owner::*)(Key const&) const;

  KivNotifier(Owner& owner, Notify notify) noexcept : owner_(&owner), notify_(notify) {}

  void onKey(Key const& key) const {
    Key const copy = key;
    (owner_->*notify_)(copy);
  }

  Owner* owner() const noexcept { return owner_; }

 private:
  Owner* owner_;
  Notify notify_;
};

}  // namespace KivQuarn
