#pragma once
// A reader's private shadow copy of a shared table (modes "shadow" and "keyshadow"): it tells
// exactly which entries were added, changed or removed, reports each net change of a key once
// to its `KeyNotifier`, and answers lookups from private memory.
//
// Parts: a `QuarnReader` on the shared files, a `ConquerReader` on the notification queue, a
// store (Quarn/ShadowStore.h) indexed by the writer's slot index, and a `Syncer` that runs full
// passes over the slot table.
//
// Life: not connected -> initializing (first full pass, possibly in slices) -> synchronized
// (each notified slot index is re-read with doSlot) -> out of sync (the queue was pruned past
// this reader: another full pass, comparing with what the store holds) -> synchronized ...
// -> detached. The queue reader is positioned at the end of the queue before the first pass
// reads anything, so a change made during the pass is either seen by the pass or delivered by
// the queue afterwards; doSlot re-reads the slot's current state, so applying it twice is
// harmless.
//
// Slices: a pass yields after `sample` slots once it has run longer than the yield time (0 =
// never yields) and continues from a timer on the activity; queue notifications wait until the
// pass is done. With notifications off (`notifying(false)`) both pause; switching them on again
// resumes where they stopped.
//
// Lookups. "shadow" answers from the store: the values reported so far, never the shared
// files. "keyshadow" keeps keys only and answers from the shared table, so a lookup sees the
// writer's current record even before its notification arrives (a group looked up for an
// interface reported by another table is found if the writer wrote it first). Every key such a
// lookup finds is then held by the store: when the store had not yet learned of it in its slot,
// the slot is brought in line at once (`adopt`), and what that changes, with the key itself, is
// reported from the activity shortly after, not from inside the caller's lookup. So the store
// reports the removal of every key that a lookup ever handed out, however far behind the queue
// the reader was.
//
// Corruption met while reading the shared table stops the shadow (not connected, so the table
// front's mounter attaches again) and is handed to the corruption handler. The store stays as it
// was (lookups answer the last consistent state) until the remount, which reports every key it
// held that the new back end lacks.
//
// Single-threaded: everything runs on the owning activity's thread. The notifier must not
// destroy the shadow or its front from inside `onKey`.

#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Jorv/Platform.h"
#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "Quarn/ConquerReader.h"
#include "Quarn/Exceptions.h"
#include "Quarn/Fenix.h"
#include "Quarn/QuarnBase.h"
#include "Quarn/QuarnReader.h"
#include "Quarn/ShadowStore.h"

namespace Quarn {

// Runs full passes over slot indexes [0, numSlots) in slices bounded by sample and yield time.
class Syncer {
 public:
  struct Hooks {
    std::function<void(std::uint32_t slotIndex, bool resync)> doSlot;
    std::function<void(bool resync)> complete;
    std::function<void(std::string const& text)> corrupted;
  };
  static constexpr std::uint32_t defaultSample = 1024;

  Syncer(Jorv::DebugHandler& dh, Hooks hooks, Kiv::Activity& activity);

  // Starts a pass from slot 0 (replacing a pass in progress).
  void sync(std::uint32_t numSlots, bool resync);
  // Runs one slice of the current pass.
  void doSync();
  // The slice timer's expiry.
  void timeout();
  // Abandons the current pass.
  void stop();
  void notifying(bool on);
  bool notifying() const noexcept { return notifying_; }
  void yieldTimeIs(double seconds) noexcept { yieldTime_ = seconds < 0 ? 0 : seconds; }
  void sampleIs(std::uint32_t sample) noexcept { sample_ = sample == 0 ? 1 : sample; }
  double yieldTime() const noexcept { return yieldTime_; }
  std::uint32_t sample() const noexcept { return sample_; }
  bool syncing() const noexcept { return active_; }
  std::uint32_t currentSlot() const noexcept { return current_; }
  std::uint32_t slices() const noexcept { return slices_; }

 private:
  Jorv::DebugHandler& dh_;
  Hooks hooks_;
  Kiv::Timer timer_;
  std::uint32_t numSlots_ = 0;
  std::uint32_t current_ = 0;
  std::uint32_t sample_ = defaultSample;
  std::uint32_t slices_ = 0;  // of the current or last pass
  double yieldTime_ = 0;
  bool resync_ = false;
  bool active_ = false;
  bool notifying_ = true;
};

template <class Key, class Wrapper>
class QuarnShadow final : public QuarnBase<Key, Wrapper> {
 public:
  enum class State { notConnected, initializing, synchronized, outOfSync, detached };
  using CorruptionHandler = std::function<void(std::string const& text)>;

  // `mode` is QuarnType::shadow or QuarnType::keyshadow (any other fails `initialize`);
  // `rootPath` is the table's directory. `pollInterval` > 0: the queue is polled instead of
  // followed through the writer's wake-ups (see ConquerReader).
  QuarnShadow(Jorv::DebugHandler& dh, std::string const& rootPath, QuarnType mode,
              KeyNotifier<Key>& notifier, Kiv::Activity& activity,
              CorruptionHandler onCorruption = {}, double pollInterval = 0)
      : dh_(dh),
        mode_(mode),
        notifier_(notifier),
        onCorruption_(std::move(onCorruption)),
        reader_(dh, rootPath),
        conquer_(
            dh, rootPath, &activity, [this] { drain(); }, pollInterval),
        syncer_(dh,
                {[this](std::uint32_t i, bool resync) { store_->doSlot(i, resync, false); },
                 [this](bool resync) { syncComplete(resync); },
                 [this](std::string const& text) { corruption(text); }},
                activity),
        more_([this] { drain(); }, activity),
        release_([this] { conquer_.detach(); }, activity),
        deferredTimer_([this] { reportDeferred(); }, activity) {
    if (mode == QuarnType::shadow) {
      store_ = std::make_unique<Shadow::ShadowStore<Key, Wrapper>>(dh, reader_, notifier);
    } else if (mode == QuarnType::keyshadow) {
      store_ = std::make_unique<Shadow::KeyShadowStore<Key, Wrapper>>(dh, reader_, notifier);
    }
  }
  ~QuarnShadow() override { teardown(); }
  QuarnShadow(QuarnShadow const&) = delete;
  QuarnShadow& operator=(QuarnShadow const&) = delete;

  QuarnType type() const override { return mode_; }
  State state() const noexcept { return state_; }
  static char const* stateWord(State s) noexcept;

  // Attaches to the incarnation named by the fenix file and starts the first full pass (which
  // completes inside this call when the yield time is 0).
  bool initialize() override;
  bool doInitialize();
  // Another full pass that reports only the differences to what the store holds.
  void resync();
  void detach() override;
  bool fullyAttached() const override {
    return state_ == State::initializing || state_ == State::synchronized ||
           state_ == State::outOfSync;
  }
  std::uint32_t fenixId() const override { return fullyAttached() ? reader_.fenix() : 0; }

  // See "Lookups" above.
  Wrapper lookup(Key const& key, bool& found) override;
  // The same as `lookup`.
  Wrapper directLookup(Key const& key, bool& found) { return lookup(key, found); }
  bool first(std::uint32_t bucket, Wrapper& out, IterHint& hint) override {
    return store_ != nullptr && store_->first(bucket, out, hint);
  }
  bool next(Key const& key, Wrapper& out, IterHint& hint) override {
    return store_ != nullptr && store_->next(key, out, hint);
  }
  std::uint32_t members() const override { return store_ != nullptr ? store_->occupied() : 0; }
  void heldKeys(std::vector<Key>& out) override {
    if (store_ != nullptr) store_->keys(out);
    out.insert(out.end(), deferred_.begin(), deferred_.end());
  }
  std::uint32_t maxSize() const override {
    if (!reader_.attached()) return 0;
    SlotTable::Header const* h = reader_.slots().header();
    return h->load(h->tableSize);
  }
  std::uint32_t capacity() const override { return store_ != nullptr ? store_->numSlots() : 0; }
  std::string mountStatus() const override;
  std::string readerCounters() const override;
  std::string writerCounters() const override { return {}; }
  std::uint64_t sequence() const override { return conquer_.lastSequence(); }
  bool validate() override { return false; }
  bool validateFiles() override { return false; }
  void cleanup() override {}

  void connectNow() override {
    if (conquer_.kick() != nullptr && !conquer_.kick()->connected()) conquer_.kick()->connectNow();
  }
  void notifying(bool on) override;
  void yieldTimeIs(double seconds) override;
  void sampleIs(std::uint32_t sample) override;

  Syncer const& syncer() const noexcept { return syncer_; }
  ConquerReader& conquerReader() noexcept { return conquer_; }
  Shadow::StoreIntf<Key, Wrapper>* store() noexcept { return store_.get(); }

 private:
  // Applies the queue's notifications once the store is synchronized.
  void drain();
  void syncComplete(bool resync);
  void corruption(std::string const& text);
  // Brings store slot `i` in line for `key`, found there by a lookup (see "Lookups").
  void adopt(std::uint32_t i, Key const& key);
  void reportDeferred();
  // Stops every activity and releases the shared files; the store is emptied silently.
  void teardown();
  std::uint32_t passLength() {
    std::uint32_t const shared = Mem::Atomics::highWord(reader_.slots().header()->numSlotsUnit());
    return std::max(shared, store_->numSlots());
  }

  Jorv::DebugHandler& dh_;
  QuarnType mode_;
  KeyNotifier<Key>& notifier_;
  CorruptionHandler onCorruption_;
  mutable QuarnReader<Key, Wrapper> reader_;  // its read accessors are not const
  ConquerReader conquer_;
  std::unique_ptr<Shadow::StoreIntf<Key, Wrapper>> store_;
  Syncer syncer_;
  Kiv::Timer more_;
  // Detaches the queue reader after corruption, outside the wake-up channel's handler that may
  // have been running when it was found.
  Kiv::Timer release_;
  // Keys whose report a lookup's adoption put off, and the timer that reports them.
  std::vector<Key> deferred_;
  Kiv::Timer deferredTimer_;
  State state_ = State::notConnected;
  std::uint64_t notified_ = 0;
  std::uint64_t resyncs_ = 0;
};

// The shadow back end a table front creates for mode shadow or keyshadow.
template <class Key, class Wrapper>
std::unique_ptr<QuarnBase<Key, Wrapper>> makeQuarnShadow(
    Jorv::DebugHandler& dh, std::string const& rootPath, QuarnType mode, KeyNotifier<Key>& notifier,
    Kiv::Activity& activity,
    typename QuarnShadow<Key, Wrapper>::CorruptionHandler onCorruption = {},
    double pollInterval = 0) {
  return std::make_unique<QuarnShadow<Key, Wrapper>>(dh, rootPath, mode, notifier, activity,
                                                     std::move(onCorruption), pollInterval);
}

// ---- implementation

template <class Key, class Wrapper>
char const* QuarnShadow<Key, Wrapper>::stateWord(State s) noexcept {
  switch (s) {
    case State::notConnected:
      return "notConnected";
    case State::initializing:
      return "initializing";
    case State::synchronized:
      return "synchronized";
    case State::outOfSync:
      return "outOfSync";
    case State::detached:
      return "detached";
  }
  return "unknown";
}

template <class Key, class Wrapper>
bool QuarnShadow<Key, Wrapper>::initialize() {
  teardown();
  std::string& why = this->initFailure_;
  why.clear();
  std::string const& root = reader_.rootPath();
  std::uint32_t const fenix = FenixFile::read(root);
  std::string error;
  if (fenix == 0 || !reader_.initialize(fenix, error)) {
    why = "QuarnShadow::initialize() quarn.initialize() Failed " +
          (fenix == 0 ? "no fenix in " + root : error);
  } else if (!conquer_.initialize(fenix, error)) {
    why = "QuarnShadow::initialize() conquer_.initialize() Failed " + error;
  } else if (store_ != nullptr &&
             !store_->initialize(fenix, reader_.numBuckets(), reader_.numSlots())) {
    why = std::string(mode_ == QuarnType::shadow ? "ShadowStore" : "KeyShadowStore") +
          "::initialize() cannot map private memory for " + std::to_string(reader_.numSlots()) +
          " slots";
  } else {
    KIV_TRACE(dh_, 3, "QuarnShadow::initialize() Synchronizing into local shadow.");
    if (doInitialize()) return true;
    why = "QuarnShadow::initialize() first pass over " + root + " stopped";
  }
  KIV_TRACE(dh_, 1, why);
  teardown();
  state_ = State::notConnected;
  return false;
}

template <class Key, class Wrapper>
bool QuarnShadow<Key, Wrapper>::doInitialize() {
  if (store_ == nullptr) {
    KIV_TRACE(dh_, 0, "QuarnShadow::doInitialize() bad reader ", quarnTypeWord(mode_));
    return false;
  }
  KIV_TRACE(dh_, 3, "QuarnShadow::doInitialize() now connected, seq:", conquer_.lastSequence());
  state_ = State::initializing;
  try {
    syncer_.sync(passLength(), false);
  } catch (CorruptionDetectedException const& e) {
    corruption(e.what());
  }
  return fullyAttached();
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::resync() {
  KIV_TRACE(dh_, 3, "QuarnShadow::resync() Out-of-sync, re-synchronizing local shadow ",
            reader_.rootPath());
  ++resyncs_;
  state_ = State::outOfSync;
  more_.cancel();
  syncer_.sync(passLength(), true);
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::syncComplete(bool resync) {
  KIV_TRACE(dh_, 3, "QuarnShadow::syncComplete() Synchronizing into local shadow. done",
            resync ? " (resync)" : "");
  bool const first = state_ == State::initializing;
  state_ = State::synchronized;
  store_->tryShrink();
  if (first) KIV_TRACE(dh_, 3, "QuarnShadow::initialized() slot capacity ", capacity());
  drain();
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::drain() {
  if (state_ != State::synchronized || !syncer_.notifying()) return;
  try {
    conquer_.conquer([this](std::uint32_t i) {
      ++notified_;
      store_->doSlot(i, false, true);
    });
    if (conquer_.outOfSync()) {
      conquer_.outOfSyncIs(false);
      resync();
      return;
    }
    if (!conquer_.drained() && !more_.armed()) more_.armIn(0);
  } catch (CorruptionDetectedException const& e) {
    corruption(e.what());
  }
}

template <class Key, class Wrapper>
Wrapper QuarnShadow<Key, Wrapper>::lookup(Key const& key, bool& found) {
  found = false;
  if (store_ == nullptr) return Wrapper{};
  if (mode_ != QuarnType::keyshadow || !reader_.attached()) return store_->lookup(key, found);
  std::uint32_t slot = noIndex;
  Wrapper const out = reader_.doLookup(key, found, &slot);
  if (found && !store_->holds(slot, key)) adopt(slot, key);
  return out;
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::adopt(std::uint32_t i, Key const& key) {
  KIV_TRACE(dh_, 8, "QuarnShadow::adopt() slot:", i, " ", KeyText<Key>{key});
  store_->adopt(i, deferred_);
  // The slot may hold another key by now: the caller's key is reported too, so that it looks
  // again and learns whichever it is.
  deferred_.push_back(key);
  if (!deferredTimer_.armed()) deferredTimer_.armIn(0);
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::reportDeferred() {
  if (!syncer_.notifying()) return;  // notifying(true) comes back for them
  std::vector<Key> keys;
  keys.swap(deferred_);
  for (Key const& key : keys) notifier_.onKey(key);
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::corruption(std::string const& text) {
  KIV_TRACE(dh_, 1, "QuarnShadow::corruption() stopping shadow of ", reader_.rootPath(), ": ",
            text);
  syncer_.stop();
  more_.cancel();
  reader_.detach();
  // The store is kept: it is what the notifier was told, and the remount that follows reports
  // its keys again so that the notifier learns of every key that went meanwhile.
  release_.armIn(0);
  state_ = State::notConnected;
  if (onCorruption_) onCorruption_(text);
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::teardown() {
  syncer_.stop();
  more_.cancel();
  release_.cancel();
  deferredTimer_.cancel();
  deferred_.clear();
  conquer_.detach();
  reader_.detach();
  if (store_ != nullptr) store_->flush();
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::detach() {
  if (state_ == State::detached) {
    KIV_TRACE(dh_, 5, "QuarnShadow::detach() already detached");
    return;
  }
  teardown();
  state_ = State::detached;
  KIV_TRACE(dh_, 3, "QuarnShadow::detach() detached");
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::notifying(bool on) {
  syncer_.notifying(on);  // resumes an interrupted pass
  if (store_ != nullptr) store_->notifying(on);
  if (on && !deferred_.empty() && !deferredTimer_.armed()) deferredTimer_.armIn(0);
  if (on) drain();
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::yieldTimeIs(double seconds) {
  KIV_TRACE(dh_, 5, "QuarnShadow()::yieldTimeIs() yieldTime: ", seconds);
  syncer_.yieldTimeIs(seconds);
  conquer_.yieldTimeIs(seconds);
}

template <class Key, class Wrapper>
void QuarnShadow<Key, Wrapper>::sampleIs(std::uint32_t sample) {
  KIV_TRACE(dh_, 5, "QuarnShadow()::sampleIs() sample: ", sample);
  syncer_.sampleIs(sample);
  conquer_.sampleIs(sample);
}

template <class Key, class Wrapper>
std::string QuarnShadow<Key, Wrapper>::mountStatus() const {
  std::ostringstream os;
  os << quarnTypeWord(mode_) << " " << reader_.rootPath() << " state:" << stateWord(state_)
     << " fenix:" << fenixId() << " slots:" << capacity() << " members:" << members()
     << " sequence:" << conquer_.lastSequence()
     << " connected:" << (conquer_.kick() != nullptr && conquer_.kick()->connected());
  if (syncer_.syncing()) os << " syncing at slot:" << syncer_.currentSlot();
  return os.str();
}

template <class Key, class Wrapper>
std::string QuarnShadow<Key, Wrapper>::readerCounters() const {
  std::ostringstream os;
  os << "lookasideReads:" << reader_.slots().lookasideReads() << " notifications:" << notified_
     << " lastSequence:" << conquer_.lastSequence() << " resyncs:" << resyncs_;
  return os.str();
}

}  // namespace Quarn
