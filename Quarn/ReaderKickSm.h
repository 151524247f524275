#pragma once
// A reader process's end of the wake-up channel (wire in Quarn/KickChannel.h, shared words in
// Quarn/KickArea.h).
//
// Connects to the writer's "kick" socket and keeps trying, through a timer on the activity with
// a growing back-off, while the writer is not there or after it went away; `connectNow()` lets
// the owner try at once (for example when its mounter sees the writer's files appear). The
// writer answers with a welcome: an acknowledgement slot, the kick area and the two wake-up
// eventfds. `onConnected(connected, connections)` reports every change (connected: welcomed),
// with the number of connections made so far; after a (re)connection the writer knows nothing of
// this reader, so the owner acknowledges its position again. `onKicked(writerSequence)` reports
// a wake-up, always from the activity.
//
// `sendSequence(seq)` acknowledges that everything up to `seq` is consumed (the writer may prune
// it); `sleepAt(seq)` does the same and sleeps until the writer appends beyond `seq` (at once, if
// it already has). Both are stores to the kick area, no message; both are dropped while
// disconnected.
//
// Waiting never blocks the activity: the eventfds are watched edge-triggered and never read (the
// writer's counter only grows, so every write is an edge for every watcher). A sleeper watches
// the exclusive one with EPOLLEXCLUSIVE, so a writer's wake-up reaches one sleeping process; that
// process passes it on through the broadcast eventfd, which every reader watches, before it reads
// on. An event that finds this reader awake, or asleep in a generation the writer has not taken,
// is not for it and changes nothing. A sleeper also arms a fallback timer: should a wake-up be
// lost (a damaged sleep word, a process killed while passing it on), it sees the writer's
// sequence move within `fallbackInterval` and reads on; it never polls faster.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "Quarn/KickChannel.h"

namespace Quarn {

class ReaderKickSm {
 public:
  struct Handlers {
    std::function<void(bool connected, std::uint32_t connections)> onConnected;
    std::function<void(std::uint64_t writerSequence)> onKicked;
  };
  static constexpr double minRetryInterval = 0.01;  // seconds
  static constexpr double maxRetryInterval = 1.0;
  static constexpr double fallbackInterval = 1.0;

  // Tries to connect at once; the connection is reported from the activity, once welcomed.
  ReaderKickSm(std::string rootPath, Handlers handlers,
               Kiv::Activity& activity = Kiv::Activity::current());
  ~ReaderKickSm();  // takes itself out of the sleepers
  ReaderKickSm(ReaderKickSm const&) = delete;
  ReaderKickSm& operator=(ReaderKickSm const&) = delete;

  bool connected() const noexcept { return area_ != nullptr; }
  bool sleeping() const noexcept { return sleeping_; }
  std::uint32_t connections() const noexcept { return connections_; }
  std::string const& socketPath() const noexcept { return socketPath_; }

  void connectNow();
  void sendSequence(std::uint64_t sequence);
  void sleepAt(std::uint64_t sequence);

 private:
  bool tryConnect();
  void scheduleRetry();
  void handleWelcome(Kick::Message const& welcome, Kick::Descriptors& fds);
  void handleHangup();
  void release() noexcept;  // unmaps the area, closes and unwatches the eventfds
  void handleWake(bool exclusive);
  void handleFallback();
  // Leaves the sleepers; true when the writer had already taken this sleep (woken it).
  bool withdraw();
  void kicked();

  std::string socketPath_;
  Handlers handlers_;
  Kiv::Activity& activity_;
  std::unique_ptr<Kick::Connection> connection_;
  std::uint32_t connections_ = 0;
  double retryInterval_ = minRetryInterval;
  Kiv::Timer retry_;
  char* area_ = nullptr;
  std::uint32_t slot_ = 0;
  bool hasSlot_ = false;
  int wakeFd_[2] = {-1, -1};  // exclusive, broadcast
  Kiv::FdWatch wakeWatch_[2];
  bool sleeping_ = false;
  bool counted_ = false;  // this sleep is in the sleep word's count
  std::uint32_t sleepGeneration_ = 0;
  std::uint64_t sleptAt_ = 0;
  Kiv::Timer fallback_;
  Kiv::Timer kickSoon_;  // reports a kick found while going to sleep
  bool announceFailureReported_ = false;
};

}  // namespace Quarn
