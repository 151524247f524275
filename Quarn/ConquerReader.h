#pragma once
// Follows a table's notification queue ("conquer.1"/"conquer.2") in another process and hands
// the index of every changed slot to a consumer, in sequence order, without locks.
//
// Position: the table being read, the next entry position in it, and the last sequence consumed
// (`lastSequence`). Invariants the reader relies on and re-checks:
// - Sequences increase strictly along a table, and currentPos (acquire) covers fully written
//   entries.
// - When the "conquer.1" header's currentTable differs from the table being read, the writer has
//   compacted: the position is found again in the new table by binary search for the first
//   sequence above the last one consumed.
// - The writer reuses a table after two switches. An entry is therefore trusted only if, after
//   reading it, currentTable still names the table, its sequence is above the last one consumed
//   and the entry before it is not (nothing skipped). A violation is first taken for a reuse
//   that happened under us (search again); only a violation that persists raises
//   CorruptionDetectedException.
// - The writer prunes only what every connected reader acknowledged. A reader that finds the
//   queue pruned past its position (minSeq above its last sequence: it was not yet counted when
//   those entries went) has missed changes: `outOfSync()` tells its owner to re-read the table.
//   minSeq is compared on every pass and before every entry is accepted, not only on a table
//   switch: two compactions make the reader's own table current again, refilled.
// - A table that cannot be mapped as far as its header announces is damaged (files only grow
//   within an incarnation): CorruptionDetectedException, never a pass that makes no progress.
//
// Wake-up: with an activity, the reader connects a ReaderKickSm; `conquer()` acknowledges its
// position, and announces sleep when it has drained the queue, so the writer kicks it (the
// `onNotify` handler) after its next append.
//
// Polling instead (`pollInterval` > 0, with an activity): no wake-up channel; `onNotify` runs
// every `pollInterval` seconds while attached. Such a reader is invisible to the writer: not
// counted, acknowledging nothing, holding back no prune, so it may find the queue pruned past
// it (outOfSync) and its owner re-reads the table. Nothing it does changes the table's files.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Jorv/Platform.h"
#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "Mem/Shared.h"
#include "Quarn/ConquerTable.h"
#include "Quarn/ReaderKickSm.h"
#include "Quarn/SlotTable.h"

namespace Quarn {

class ConquerReader {
 public:
  using Consumer = std::function<void(std::uint32_t slotIndex)>;
  static constexpr std::uint32_t defaultSample = 1024;

  // `activity` nullptr: no wake-up channel (the owner polls or is driven otherwise).
  ConquerReader(Jorv::DebugHandler& dh, std::string rootPath, Kiv::Activity* activity,
                std::function<void()> onNotify = {}, double pollInterval = 0);
  ~ConquerReader();

  // Maps and validates both tables against `fenix`, positions at the end of the queue (the
  // owner reads the table itself for the state before) and connects the wake-up channel.
  bool initialize(std::uint32_t fenix, std::string& error);
  void detach();
  bool attached() const noexcept { return mem_[0].attached() && mem_[1].attached(); }

  // Consumes until the queue is drained or the yield time is spent; returns the last sequence
  // consumed. Then acknowledges it, announcing sleep if drained. Detached: consumes nothing.
  std::uint64_t conquer(Consumer const& consumer);
  // One bounded pass (at most `sample` entries); true when it reached the end of the queue.
  bool doConquer(std::uint32_t& count, Consumer const& consumer);
  void findPosition();
  // Maps table `tableId` as far as its header's capacity. False when the file is too small.
  bool doResize(std::uint32_t tableId);
  void handleAck();
  void handleConnected(bool connected, std::uint32_t connections);

  void sampleIs(std::uint32_t sample) noexcept { sample_ = sample == 0 ? 1 : sample; }
  void yieldTimeIs(double seconds) noexcept { yieldTime_ = seconds; }
  std::uint64_t lastSequence() const noexcept { return lastSeq_; }
  std::uint32_t table() const noexcept { return table_; }
  std::uint32_t position() const noexcept { return pos_; }
  bool drained() const noexcept { return drained_; }
  bool outOfSync() const noexcept { return outOfSync_; }
  void outOfSyncIs(bool v) noexcept { outOfSync_ = v; }
  ReaderKickSm* kick() const noexcept { return kick_.get(); }
  bool polling() const noexcept { return pollInterval_ > 0; }

 private:
  ConquerTable::Header const* header(std::uint32_t t) const noexcept {
    return ConquerTable::header(mem_[t].base());
  }
  std::uint32_t currentTable() const;
  std::uint32_t mappedCapacity(std::uint32_t t) const noexcept;
  std::uint64_t sequenceAt(std::uint32_t t, std::uint32_t pos) const noexcept {
    return ConquerTable::sequence(ConquerTable::entry(mem_[t].base(), pos));
  }
  // Binary search of table t for the first entry above lastSeq_; checks for pruned entries.
  void search(std::uint32_t t);
  // True, and out of sync with lastSequence() moved to minSeq, when the writer has pruned
  // entries this reader had not consumed.
  bool prunedPast();
  [[noreturn]] void corruption(std::string const& text) const;

  Jorv::DebugHandler& dh_;
  std::string rootPath_;
  Kiv::Activity* activity_;
  std::function<void()> onNotify_;
  Mem::Shared mem_[2];
  std::uint32_t table_ = 0;
  std::uint32_t pos_ = 0;
  std::uint64_t lastSeq_ = 0;
  std::uint32_t sample_ = defaultSample;
  double yieldTime_ = 0;
  bool drained_ = false;
  bool sleeping_ = false;
  bool outOfSync_ = false;
  double pollInterval_;
  std::unique_ptr<ReaderKickSm> kick_;
  std::unique_ptr<Kiv::Timer> poll_;  // while attached and polling
};

}  // namespace Quarn
