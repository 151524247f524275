#pragma once
// The writer's end of the cross-process wake-up channel (wire in Quarn/KickChannel.h, shared
// words in Quarn/KickArea.h).
//
// Listens on the "kick" socket of the table's root directory, on the activity, and welcomes each
// reader process with an acknowledgement slot in the kick area, the area itself and the two
// wake-up eventfds. Connected readers are counted (`numReaders`, with a handler so that the
// notification writer can publish the count); a reader whose connection hangs up (it exited or
// was killed) is dropped at once, its slot freed, and no longer holds pruning back.
//
// Waking sleepers costs the writer the same whatever their number. After every append it stores
// its sequence in the area and loads the sleep word (no system call while nobody sleeps); with
// sleepers it takes them all and writes the exclusive eventfd once. Every sleeping reader watches
// that eventfd with EPOLLEXCLUSIVE, so the kernel wakes one of them, not all; the one woken passes
// the wake-up on to the others through the broadcast eventfd (Quarn/ReaderKickSm.h) at its own
// cost. A write during a wake-up that is still under way finds no sleeper and costs nothing: a
// burst of writes wakes each sleeper once.
//
// Single-threaded: everything runs on the activity's thread, like the writer that calls it.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "Quarn/KickArea.h"
#include "Quarn/KickChannel.h"
#include "Quarn/WriterKick.h"

namespace Quarn {

class WriterKickSm final : public WriterKick {
 public:
  // The writer's last appended sequence; asked when a reader is welcomed.
  using SequenceFn = std::function<std::uint64_t()>;
  using NumReadersHandler = std::function<void(std::uint32_t numReaders)>;

  // Replaces a stale socket file left by an earlier writer. Raises Jorv::RuntimeException if the
  // kick area, the eventfds or the socket cannot be made (for example, the root directory is
  // missing).
  WriterKickSm(std::string rootPath, SequenceFn writerSequence, NumReadersHandler onNumReaders = {},
               Kiv::Activity& activity = Kiv::Activity::current());
  ~WriterKickSm() override;  // closes every connection and removes the socket file if still ours
  WriterKickSm(WriterKickSm const&) = delete;
  WriterKickSm& operator=(WriterKickSm const&) = delete;

  void doKickSleepers(std::uint64_t sequence) override;
  // The lowest sequence acknowledged by the readers that hold a slot, never above the writer's
  // last.
  std::uint64_t lowestSequence() const override;
  std::uint32_t numReaders() const override { return std::uint32_t(readers_.size()); }
  // Readers asleep now, as the sleep word counts them.
  std::uint32_t numSleepers() const noexcept;
  // Wake-ups written (each one a single system call, whatever the number of sleepers).
  std::uint64_t wakeups() const noexcept { return wakeups_; }
  std::string const& socketPath() const noexcept { return socketPath_; }
  // The kick area as this writer maps it (Quarn/KickArea.h), for inspection.
  char* area() const noexcept { return area_; }

 private:
  struct Reader {
    std::unique_ptr<Kick::Connection> connection;
    std::uint32_t slot = KickArea::maxReaders;  // maxReaders: none (not counted for pruning)
  };

  void handleAccept();
  void handleHangup(std::uint64_t readerId);
  void pauseAccepting(char const* why);
  void wake();

  std::string socketPath_;
  SequenceFn writerSequence_;
  NumReadersHandler onNumReaders_;
  Kiv::Activity& activity_;
  int areaFd_ = -1;
  char* area_ = nullptr;
  int wakeFd_[2] = {-1, -1};  // exclusive, broadcast
  int listenFd_ = -1;
  dev_t socketDev_ = 0;
  ino_t socketIno_ = 0;
  Kiv::FdWatch listenWatch_;
  Kiv::Timer acceptRetry_;
  std::uint64_t nextReaderId_ = 1;
  std::unordered_map<std::uint64_t, Reader> readers_;
  std::vector<std::uint32_t> freeSlots_;  // last in, first out
  bool slotsExhaustedReported_ = false;
  std::uint64_t lastSequence_ = 0;  // the writer's, as this end last heard it
  std::uint64_t wakeups_ = 0;
};

}  // namespace Quarn
