#pragma once
// The writer's half of the wake-up channel between one table writer and its reader processes.
//
// The notification queue writer (ConquerWriter) calls `doKickSleepers` after every append and
// asks `lowestSequence()` when it prunes. Two implementations exist: `NoReaderKick`, for a table
// that no other process can read (a local, private-memory table), and the cross-process channel
// `WriterKickSm` (Quarn/WriterKickSm.h), through which readers connect, sleep and acknowledge the
// sequence they have consumed.

#include <cstdint>
#include <limits>

namespace Quarn {

class WriterKick {
 public:
  static constexpr std::uint64_t noReaders = std::numeric_limits<std::uint64_t>::max();

  virtual ~WriterKick() = default;

  // Wakes the readers that sleep waiting for notifications; `sequence` is the one just appended.
  // Must be cheap (no system call) when no reader sleeps, and cost the same however many do: it
  // runs after every write.
  virtual void doKickSleepers(std::uint64_t sequence) = 0;

  // The lowest sequence acknowledged by the connected readers; `noReaders` when none is connected.
  virtual std::uint64_t lowestSequence() const = 0;

  // The number of connected readers.
  virtual std::uint32_t numReaders() const = 0;
};

// A table without readers: nothing to wake, nobody holds pruning back.
class NoReaderKick final : public WriterKick {
 public:
  void doKickSleepers(std::uint64_t) override {}
  std::uint64_t lowestSequence() const override { return noReaders; }
  std::uint32_t numReaders() const override { return 0; }
};

}  // namespace Quarn
