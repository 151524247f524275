#pragma once
// The writer's end of the cross-process wake-up channel (wire format in Quarn/KickChannel.h).
//
// Listens on the "kick" socket of the table's root directory, on the activity. Each connected
// reader process is counted (`numReaders`, with a handler so that the notification writer can
// publish the count) and remembered with the last sequence it acknowledged, 0 until it
// acknowledges anything, and whether it sleeps. A reader whose connection hangs up (it exited or
// was killed) is dropped at once and no longer holds pruning back.
//
// No lost wake-up: a reader announces sleep together with the sequence it has consumed; if the
// writer's last appended sequence (asked from `SequenceFn`) is already beyond it when the
// announcement is handled, the reader is kicked at once; otherwise the next `doKickSleepers()`
// kicks it. `doKickSleepers()` costs no system call while no reader sleeps.
//
// Single-threaded: everything runs on the activity's thread, like the writer that calls it.

#include <sys/types.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "Quarn/KickChannel.h"
#include "Quarn/WriterKick.h"

namespace Quarn {

class WriterKickSm final : public WriterKick {
 public:
  using SequenceFn = std::function<std::uint64_t()>;
  using NumReadersHandler = std::function<void(std::uint32_t numReaders)>;

  // Replaces a stale socket file left by an earlier writer. Raises Jorv::RuntimeException if the
  // socket cannot be created, bound or listened on (for example, the root directory is missing).
  WriterKickSm(std::string rootPath, SequenceFn writerSequence, NumReadersHandler onNumReaders = {},
               Kiv::Activity& activity = Kiv::Activity::current());
  ~WriterKickSm() override;  // closes every connection and removes the socket file if still ours
  WriterKickSm(WriterKickSm const&) = delete;
  WriterKickSm& operator=(WriterKickSm const&) = delete;

  void doKickSleepers() override;
  std::uint64_t lowestSequence() const override;
  std::uint32_t numReaders() const override { return std::uint32_t(readers_.size()); }
  std::uint32_t numSleepers() const noexcept { return sleepers_; }
  std::string const& socketPath() const noexcept { return socketPath_; }

 private:
  struct Reader {
    std::unique_ptr<Kick::Connection> connection;
    std::uint64_t acknowledged = 0;
    bool sleeping = false;
  };

  void handleAccept();
  void handleMessage(std::uint64_t readerId, Kick::Message const& message);
  void handleHangup(std::uint64_t readerId);
  void pauseAccepting(char const* why);
  void kick(Reader& reader);

  std::string socketPath_;
  SequenceFn writerSequence_;
  NumReadersHandler onNumReaders_;
  Kiv::Activity& activity_;
  int listenFd_ = -1;
  dev_t socketDev_ = 0;
  ino_t socketIno_ = 0;
  Kiv::FdWatch listenWatch_;
  Kiv::Timer acceptRetry_;
  std::uint64_t nextReaderId_ = 1;
  std::unordered_map<std::uint64_t, Reader> readers_;
  std::uint32_t sleepers_ = 0;
};

}  // namespace Quarn
