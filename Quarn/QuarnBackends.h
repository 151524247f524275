#pragma once
// The back ends a table front creates for its mode (see Quarn/QuarnBase.h):
// - `WriterBackend`: the table's single writer; a shared one also owns the writer's end of the
//   wake-up channel, whose reader count it feeds to the notification queue.
// - `ReaderBackend`: the lean reading mode, a direct, lock-free reader of the shared files plus
//   the notification queue reader; it keeps no copy of the table and no set of keys (its private
//   memory does not grow with the table). Contract: it reports the key a notified slot holds
//   when it reads the slot (a freed slot still holds the key removed from it), and on attach and
//   after falling behind the queue every key the table holds. So every key the table holds is
//   reported after its last change, and lookups answer the writer's current records. It CANNOT
//   report every removal: a notification names a slot, not a key, and a key removed and its
//   slot reused for another key before the reader reads the slot is never reported (only the
//   new key is); nor is a key removed while the reader was behind the queue. A consumer that
//   must see every removal (a show command, a forwarding-plane programmer) uses "keyshadow" or
//   "shadow".
// The private shadow copy ("shadow", "keyshadow") is Quarn/QuarnShadow.h.
//
// All run on the owning activity's thread. A notifier must not destroy the table front from
// inside `onKey`.

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"
#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "Mem/Shared.h"
#include "Quarn/ConquerReader.h"
#include "Quarn/Exceptions.h"
#include "Quarn/Fenix.h"
#include "Quarn/QuarnBase.h"
#include "Quarn/QuarnReader.h"
#include "Quarn/QuarnShadow.h"
#include "Quarn/QuarnWriter.h"
#include "Quarn/RootPath.h"
#include "Quarn/WriterKickSm.h"
#include "Quarn/WriterLock.h"

namespace Quarn {

// Where a reading back end reports corruption it meets on its own (queue consumption, attach).
using CorruptionHandler = std::function<void(std::string const& text)>;

template <class Key, class Wrapper>
class WriterBackend final : public QuarnBase<Key, Wrapper> {
 public:
  // A shared writer takes the table's writer lock first (a second writer of the table is refused
  // before it touches anything, its wake-up socket included), then creates its root directory
  // and listens for readers; raises Jorv::Exception when any of that fails. Files it creates get
  // `fileMode`.
  WriterBackend(Jorv::DebugHandler& dh, std::string const& name, std::uint32_t size, bool isLocal,
                std::string const& className, std::string const& rootDir, Kiv::Activity& activity,
                unsigned fileMode = Mem::defaultFileMode)
      : lock_(isLocal ? Util::AutoLock()
                      : Util::AutoLock(RootPath(name, rootDir).str(), fileMode)),
        kick_(isLocal ? nullptr : makeKick(RootPath(name, rootDir).str(), activity)),
        writer_(dh, name, size, isLocal, className, kick_.get(), rootDir, fileMode) {
    writer_.writerLockIs(std::move(lock_));
  }

  QuarnWriter<Key, Wrapper>& writer() noexcept { return writer_; }

  QuarnType type() const override { return QuarnType::writer; }
  // Attaches the writer; its failures (another live writer, no space for the files) pass to the
  // caller with their cause.
  bool initialize() override {
    writer_.attach();
    return true;
  }
  // The files stay for the next writer; this object is dropped by its front.
  void detach() override {}
  bool fullyAttached() const override { return true; }
  std::uint32_t fenixId() const override { return writer_.fenix(); }
  Wrapper lookup(Key const& key, bool& found) override { return writer_.lookup(key, found); }
  bool first(std::uint32_t bucket, Wrapper& out, IterHint& hint) override {
    return writer_.first(bucket, out, hint);
  }
  bool next(Key const& key, Wrapper& out, IterHint& hint) override {
    return writer_.next(key, out, hint);
  }
  bool slotFirst(Wrapper& out, IterHint& hint) override { return writer_.slotFirst(out, hint); }
  bool slotAt(Key const& key, Wrapper& out, IterHint& hint) override {
    return writer_.slotAt(key, out, hint);
  }
  bool slotNext(Key const& key, Wrapper& out, IterHint& hint) override {
    return writer_.slotNext(key, out, hint);
  }
  std::uint32_t members() const override { return writer_.size(); }
  std::uint32_t maxSize() const override { return writer_.slots().tableSize(); }
  std::uint32_t capacity() const override { return writer_.capacity(); }
  std::string mountStatus() const override { return writer_.mountStatus(); }
  std::string readerCounters() const override { return {}; }
  std::string writerCounters() const override { return writer_.writerCounters().str(); }
  std::uint64_t sequence() const override { return writer_.conquer().sequence(); }
  bool validate() override { return writer_.validate(); }
  bool validateFiles() override { return writer_.validateFiles(); }
  void cleanup() override { writer_.cleanup(); }

 private:
  std::unique_ptr<WriterKickSm> makeKick(std::string const& rootPath, Kiv::Activity& activity) {
    if (!Mem::makeDirs(rootPath)) {
      throw Jorv::RuntimeException("WriterBackend() cannot create " + rootPath);
    }
    // The writer is constructed after the channel; the handlers run later, on the activity.
    return std::make_unique<WriterKickSm>(
        rootPath, [this] { return writer_.conquer().sequence(); },
        [this](std::uint32_t) { writer_.conquer().updateNumReaders(); }, activity);
  }

  Util::AutoLock lock_;  // until the writer takes it
  std::unique_ptr<WriterKickSm> kick_;
  mutable QuarnWriter<Key, Wrapper> writer_;  // its read accessors are not const
};

template <class Key, class Wrapper>
class ReaderBackend final : public QuarnBase<Key, Wrapper> {
 public:
  // `pollInterval` > 0: the queue is polled instead of followed through the writer's wake-ups
  // (see ConquerReader).
  ReaderBackend(Jorv::DebugHandler& dh, std::string const& rootPath, KeyNotifier<Key>& notifier,
                CorruptionHandler onCorruption, Kiv::Activity& activity, double pollInterval = 0)
      : dh_(dh),
        notifier_(notifier),
        onCorruption_(std::move(onCorruption)),
        reader_(dh, rootPath),
        conquer_(dh, rootPath, &activity, [this] { drain(); }, pollInterval),
        more_([this] { drain(); }, activity),
        release_([this] { conquer_.detach(); }, activity) {}

  QuarnType type() const override { return QuarnType::reader; }

  // Attaches to the incarnation named by the fenix file, reports every key it holds (a
  // re-attach may follow a new writer whose entries differ), then follows the queue.
  bool initialize() override {
    this->initFailure_.clear();
    std::string const& root = reader_.rootPath();
    std::uint32_t const fenix = FenixFile::read(root);
    std::string error;
    if (fenix == 0) {
      error = "QuarnReader::initialize() no fenix in " + root;
    } else if (reader_.initialize(fenix, error) && conquer_.initialize(fenix, error)) {
      try {
        reportAll();
        drain();
        return reader_.attached();
      } catch (CorruptionDetectedException const& e) {
        onCorruption_(e.what());
        error = "QuarnReader::initialize() " + root + ": " + e.what();
      }
    }
    KIV_TRACE(dh_, 3, error);
    this->initFailure_ = error;
    detach();
    return false;
  }
  void detach() override {
    more_.cancel();
    release_.cancel();
    conquer_.detach();
    reader_.detach();
  }
  bool fullyAttached() const override { return reader_.attached(); }
  std::uint32_t fenixId() const override { return reader_.attached() ? reader_.fenix() : 0; }
  Wrapper lookup(Key const& key, bool& found) override {
    return guarded([&] { return reader_.doLookup(key, found); });
  }
  bool first(std::uint32_t bucket, Wrapper& out, IterHint& hint) override {
    return guarded([&] { return reader_.first(bucket, out, hint); });
  }
  bool next(Key const& key, Wrapper& out, IterHint& hint) override {
    return guarded([&] { return reader_.doNext(key, out, hint); });
  }
  std::uint32_t members() const override { return headerField(&SlotTable::Header::occupiedSlots); }
  std::uint32_t maxSize() const override { return headerField(&SlotTable::Header::tableSize); }
  std::uint32_t capacity() const override { return reader_.numSlots(); }
  std::string mountStatus() const override {
    std::ostringstream os;
    os << "reader " << reader_.rootPath() << " fenix:" << fenixId() << " slots:" << capacity()
       << " sequence:" << conquer_.lastSequence()
       << " connected:" << (conquer_.kick() != nullptr && conquer_.kick()->connected());
    return os.str();
  }
  std::string readerCounters() const override {
    std::ostringstream os;
    os << "lookasideReads:" << reader_.slots().lookasideReads() << " notifications:" << notified_
       << " lastSequence:" << conquer_.lastSequence() << " resyncs:" << resyncs_;
    return os.str();
  }
  std::string writerCounters() const override { return {}; }
  std::uint64_t sequence() const override { return conquer_.lastSequence(); }
  bool validate() override { return false; }
  bool validateFiles() override { return false; }
  void cleanup() override {}
  void yieldTimeIs(double seconds) override { conquer_.yieldTimeIs(seconds); }
  void sampleIs(std::uint32_t sample) override { conquer_.sampleIs(sample); }

  void connectNow() override {
    if (conquer_.kick() != nullptr && !conquer_.kick()->connected()) conquer_.kick()->connectNow();
  }

 private:
  std::uint32_t headerField(std::uint32_t const SlotTable::Header::*field) const {
    if (!reader_.attached()) return 0;
    SlotTable::Header const* h = reader_.slots().header();
    return h->load(h->*field);
  }

  // Reports every key of the table.
  void reportAll() {
    Wrapper w;
    IterHint hint;
    for (bool more = reader_.first(0, w, hint); more; more = reader_.doNext(w.key, w, hint)) {
      notifier_.onKey(w.key);
    }
  }

  // Reports the key a notified slot holds now (a freed slot keeps its last key, so the removal
  // of a key whose slot was not reused is reported too; the notifier looks it up to learn which).
  void onSlot(std::uint32_t i) {
    SlotReader& slots = reader_.slots();
    if (i >= slots.numSlots() && !slots.doResize()) return;
    Wrapper w;
    slots.readValue(slots.slot(i), &w, sizeof w);
    reader_.checkIntact();
    ++notified_;
    notifier_.onKey(w.key);
  }

  // Consumes the queue (bounded by the yield time; the rest is continued from a timer). A
  // reader that fell behind a prune re-reports the whole table.
  void drain() {
    if (!reader_.attached()) return;
    try {
      conquer_.conquer([this](std::uint32_t i) { onSlot(i); });
      if (conquer_.outOfSync()) {
        conquer_.outOfSyncIs(false);
        ++resyncs_;
        KIV_TRACE(dh_, 3, "QuarnReader out of sync with the notification queue, re-reporting ",
                  reader_.rootPath());
        reportAll();
      }
      if (!conquer_.drained() && !more_.armed()) more_.armIn(0);
    } catch (CorruptionDetectedException const& e) {
      stop(e.what());
    }
  }

  // Corruption met by a lookup or an iteration passes to the caller; a file truncated under
  // the mapping also stops this back end (nothing read from it can be trusted any more).
  template <class F>
  auto guarded(F&& f) -> decltype(f()) {
    try {
      return f();
    } catch (CorruptionDetectedException const& e) {
      if (reader_.damaged()) {
        more_.cancel();
        reader_.detach();
        release_.armIn(0);
      }
      throw;
    }
  }

  // The queue or the files cannot be followed any more: stop (not fully attached, so the
  // mounter attaches afresh once the writer answers the report) and report. The queue reader
  // goes later, outside the wake-up channel's handler that may be running now.
  void stop(std::string const& text) {
    KIV_TRACE(dh_, 1, "QuarnReader stopping ", reader_.rootPath(), ": ", text);
    more_.cancel();
    reader_.detach();
    release_.armIn(0);
    onCorruption_(text);
  }

  Jorv::DebugHandler& dh_;
  KeyNotifier<Key>& notifier_;
  CorruptionHandler onCorruption_;
  mutable QuarnReader<Key, Wrapper> reader_;  // its read accessors are not const
  ConquerReader conquer_;
  Kiv::Timer more_;
  Kiv::Timer release_;
  std::uint64_t notified_ = 0;
  std::uint64_t resyncs_ = 0;
};

}  // namespace Quarn
