#pragma once
// A reader process's end of the wake-up channel (wire format in Quarn/KickChannel.h).
//
// Connects to the writer's "kick" socket and keeps trying, through a timer on the activity with
// a growing back-off, while the writer is not there or after it went away; `connectNow()` lets
// the owner try at once (for example when its mounter sees the writer's files appear).
// `onConnected(connected, connections)` reports every change of the connection, with the number
// of connections made so far; after a (re)connection the writer knows nothing of this reader, so
// the owner acknowledges its position again. `onKicked(writerSequence)` reports a wake-up.
//
// `sendSequence(seq)` acknowledges that everything up to `seq` is consumed (the writer may prune
// it); `sleepAt(seq)` does the same and asks for one kick once the writer appends beyond `seq`
// (at once, if it already has). Both are dropped while disconnected.

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

  // Tries to connect at once (without calling onConnected from inside the constructor: a
  // connection made here is reported from the activity).
  ReaderKickSm(std::string rootPath, Handlers handlers,
               Kiv::Activity& activity = Kiv::Activity::current());
  ~ReaderKickSm();
  ReaderKickSm(ReaderKickSm const&) = delete;
  ReaderKickSm& operator=(ReaderKickSm const&) = delete;

  bool connected() const noexcept { return connection_ != nullptr; }
  std::uint32_t connections() const noexcept { return connections_; }
  std::string const& socketPath() const noexcept { return socketPath_; }

  void connectNow();
  void sendSequence(std::uint64_t sequence);
  void sleepAt(std::uint64_t sequence);

 private:
  bool tryConnect();
  void scheduleRetry();
  void handleHangup();
  void send(Kick::Type type, std::uint64_t sequence);

  std::string socketPath_;
  Handlers handlers_;
  Kiv::Activity& activity_;
  std::unique_ptr<Kick::Connection> connection_;
  std::uint32_t connections_ = 0;
  double retryInterval_ = minRetryInterval;
  Kiv::Timer retry_;
  Kiv::Timer announce_;  // reports a connection made by the constructor
};

}  // namespace Quarn
