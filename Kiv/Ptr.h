#pragma once
// Intrusive reference counting.
//
// PtrInterface carries the count; Ptr<T> (and Ptr<T const>) holds one reference. When the last
// reference goes, the object's onLastRef() runs, which by default deletes it. Objects
// derived from PtrInterface must therefore live on the heap and be handed to a Ptr right after
// `new`. The count is atomic (increment relaxed, decrement acq_rel) so that a Ptr may be copied or
// released on any thread; the objects themselves are not otherwise thread-safe.
//
// Destruction is final: once the count has reached zero and the object is being freed
// (isDestroying()), a Ptr made from a plain pointer to it is null. Code that runs inside the
// destructor (handlers of members being removed, back pointers of state machines) therefore can
// never take a reference that would bring the count from zero to one and free the object twice.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Kiv {

class PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(PtrInterface const&) : PtrInterface() {}  // a copy starts with no references
  PtrInterface& operator=(PtrInterface const&) { return *this; }

  void newRef() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void deleteRef() const {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      const_cast<PtrInterface*>(this)->onLastRef();
    }
  }
  std::uint32_t references() const noexcept { return refs_.load(std::memory_order_relaxed); }
  // True from the moment destroy() begins: no new reference can be taken.
  bool isDestroying() const noexcept { return destroying_; }

 protected:
  virtual ~PtrInterface() = default;
  // Called when the count drops to zero; the default frees the object.
  virtual void onLastRef() { destroy(); }
  // Frees the object, refusing new references while its destructors run. The only way an object
  // with a count should go.
  void destroy() {
    destroying_ = true;
    delete this;
  }

 private:
  mutable std::atomic<std::uint32_t> refs_{0};
  bool destroying_ = false;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  // Null when `p` is being destroyed (see PtrInterface::isDestroying).
  Ptr(T* p) noexcept : p_(p && !p->isDestroying() ? p : nullptr) { acquire(); }
  Ptr(Ptr const& o) noexcept : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> const& o) noexcept : p_(o.ptr()) {
    acquire();
  }
  ~Ptr() { release(); }

  Ptr& operator=(Ptr const& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) {
    Ptr(p).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) {
    Ptr().swap(*this);
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  bool operator!() const noexcept { return p_ == nullptr; }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  template <class U>
  bool operator==(Ptr<U> const& o) const noexcept {
    return p_ == o.ptr();
  }
  bool operator==(T const* p) const noexcept { return p_ == p; }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }

 private:
  void acquire() const noexcept {
    if (p_) p_->newRef();
  }
  void release() {
    if (T* p = std::exchange(p_, nullptr)) p->deleteRef();
  }

  T* p_ = nullptr;
};

// The reference, or RangeException "null ValidPtr" when there is none: what factories return.
template <class T>
Ptr<T> validPtr(Ptr<T> p);

// Constructs a T and returns the first reference to it (validated as by validPtr).
template <class T, class... Args>
Ptr<T> newPtr(Args&&... args) {
  return validPtr(Ptr<T>(new T(std::forward<Args>(args)...)));
}

}  // namespace Kiv

#include "Kiv/Exception.h"

namespace Kiv {

template <class T>
Ptr<T> validPtr(Ptr<T> p) {
  if (!p) throwRangeException("null ValidPtr");
  return p;
}

}  // namespace Kiv

template <class T>
struct std::hash<Kiv::Ptr<T>> {
  std::size_t operator()(Kiv::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
