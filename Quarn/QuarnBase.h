#pragma once
// The back end behind a table front (`Quarn::QuarnMap`): the writer, a direct reader, a shadow
// copy with values or with keys only, or the placeholder a reader uses before it has attached.
//
// One interface for all of them, so that the front holds exactly one back end and swaps it when
// a reader attaches, detaches or re-attaches. Operations that a kind of back end does not offer
// answer with the front's refusal (the front checks the mode before it calls in); the read
// operations never throw on a detached back end: they find nothing.
//
// Change delivery. Reading back ends report every key whose entry was added, changed or removed
// to a `KeyNotifier` given at construction; the notifier looks the key up to learn which.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Quarn/IterHint.h"

namespace Quarn {

enum class QuarnType : std::uint32_t { writer = 0, shadow = 1, reader = 2, keyshadow = 3 };

// "writer", "shadow", "reader", "keyshadow"; anything else prints as its number.
std::string quarnTypeWord(QuarnType type);

// Receives the keys of changed entries on a reading back end, on the owning activity thread.
template <class Key>
class KeyNotifier {
 public:
  virtual ~KeyNotifier() = default;
  virtual void onKey(Key const& key) = 0;
};

template <class Key, class Wrapper>
class QuarnBase {
 public:
  virtual ~QuarnBase() = default;

  virtual QuarnType type() const = 0;

  // Attaches to the table's files (a writer maps or formats them). False with a trace on failure,
  // and the reason in `initFailure()`.
  virtual bool initialize() = 0;
  // Why the last `initialize` failed, in words; empty when it did not.
  std::string const& initFailure() const noexcept { return initFailure_; }
  virtual void detach() = 0;
  // Attached and, for a shadow, connected: the state the reader mounter waits for.
  virtual bool fullyAttached() const = 0;
  // The incarnation (fenix id) this back end is attached to; 0 when detached.
  virtual std::uint32_t fenixId() const = 0;

  // The stored value of `key`, or a default value with found = false.
  virtual Wrapper lookup(Key const& key, bool& found) = 0;
  // Iteration in the table's order: first entry at or after bucket `bucket`; the entry after key.
  virtual bool first(std::uint32_t bucket, Wrapper& out, IterHint& hint) = 0;
  virtual bool next(Key const& key, Wrapper& out, IterHint& hint) = 0;
  // Iteration in slot order, the order of the entries in the table's memory, for a walk that
  // touches every entry once (for a table one writer filled, it is also the order in which its
  // keys were first written). A writer walks its slots; other back ends answer in their
  // iteration order above, so the hints stay their own. slotAt: the entry of `key`, or when it is
  // gone the first one at or after the position `hint` names (an earlier answer's hint), or the
  // first entry when the hint names none. slotNext: the entry after the one of `key`.
  virtual bool slotFirst(Wrapper& out, IterHint& hint) { return first(0, out, hint); }
  virtual bool slotAt(Key const& key, Wrapper& out, IterHint& hint) {
    bool found = false;
    out = lookup(key, found);
    if (found) {
      hint = IterHint();
      return true;
    }
    return next(key, out, hint);
  }
  virtual bool slotNext(Key const& key, Wrapper& out, IterHint& hint) {
    return next(key, out, hint);
  }

  // Number of entries, the configured size, and the current slot capacity.
  virtual std::uint32_t members() const = 0;
  virtual std::uint32_t maxSize() const = 0;
  virtual std::uint32_t capacity() const = 0;

  virtual std::string mountStatus() const = 0;
  // Counters of a reading back end / of the writer, as text.
  virtual std::string readerCounters() const = 0;
  virtual std::string writerCounters() const = 0;
  // The last notification sequence written (writer) or consumed (reader); 0 when unknown.
  virtual std::uint64_t sequence() const { return 0; }

  // Writer only (the front refuses them on a reading back end before calling in).
  virtual bool validate() = 0;
  virtual bool validateFiles() = 0;
  virtual void cleanup() = 0;

  // The keys the notifier may believe present: a remount reports them again after the new back
  // end's keys, so that the notifier learns which are gone. Default: the keys iteration yields.
  virtual void heldKeys(std::vector<Key>& out) {
    Wrapper w;
    IterHint hint;
    for (bool more = first(0, w, hint); more; more = next(w.key, w, hint)) out.push_back(w.key);
  }

  // A reading back end lets its wake-up channel try to connect at once (the writer's files just
  // appeared) instead of waiting for its back-off.
  virtual void connectNow() {}

  // Shadow controls (no-ops on other back ends).
  virtual void notifying(bool) {}
  virtual void yieldTimeIs(double) {}
  virtual void sampleIs(std::uint32_t) {}

 protected:
  std::string initFailure_;
};

}  // namespace Quarn
