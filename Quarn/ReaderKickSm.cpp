#include "Quarn/ReaderKickSm.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"

namespace Quarn {
namespace {

Jorv::TraceHandle& trace() {
  return Jorv::Platform::getDebugHandler("Quarn::ReaderKickSm");
}

}  // namespace

ReaderKickSm::ReaderKickSm(std::string rootPath, Handlers handlers, Kiv::Activity& activity)
    : socketPath_(Kick::socketPath(rootPath)),
      handlers_(std::move(handlers)),
      activity_(activity),
      retry_([this] { connectNow(); }, activity),
      announce_(
          [this] {
            if (connected() && handlers_.onConnected) handlers_.onConnected(true, connections_);
          },
          activity) {
  if (tryConnect()) {
    announce_.armIn(0);
  } else {
    scheduleRetry();
  }
}

ReaderKickSm::~ReaderKickSm() = default;

bool ReaderKickSm::tryConnect() {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  Kick::Address address(socketPath_);
  // A Unix-domain connect completes or fails at once; EAGAIN (backlog full) is retried later.
  if (!address.valid() || ::connect(fd, address.get(), address.length()) != 0) {
    KIV_TRACE(trace(), 8, "ReaderKickSm::tryConnect() ", socketPath_, " errno:", errno);
    ::close(fd);
    return false;
  }
  try {
    connection_ = std::make_unique<Kick::Connection>(
        fd, activity_,
        [this](Kick::Message const& m) {
          if (m.type == Kick::Type::kick && handlers_.onKicked) handlers_.onKicked(m.sequence);
        },
        [this] { handleHangup(); });
  } catch (Jorv::Exception const& e) {  // the connection closed its fd
    KIV_TRACE(trace(), 1, "ReaderKickSm::tryConnect() ", e.what());
    return false;
  }
  ++connections_;
  retryInterval_ = minRetryInterval;
  retry_.cancel();
  KIV_TRACE(trace(), 3, "ReaderKickSm::tryConnect() connected to ", socketPath_,
            " connections:", connections_);
  return true;
}

void ReaderKickSm::scheduleRetry() {
  retry_.armIn(retryInterval_);
  retryInterval_ = std::min(retryInterval_ * 2, maxRetryInterval);
}

void ReaderKickSm::connectNow() {
  if (connected()) return;
  if (!tryConnect()) {
    scheduleRetry();
    return;
  }
  if (handlers_.onConnected) handlers_.onConnected(true, connections_);
}

void ReaderKickSm::handleHangup() {
  KIV_TRACE(trace(), 3, "ReaderKickSm::handleHangup() writer went away: ", socketPath_);
  connection_.reset();  // the connection allows its handler to destroy it
  retryInterval_ = minRetryInterval;
  scheduleRetry();
  if (handlers_.onConnected) handlers_.onConnected(false, connections_);
}

void ReaderKickSm::send(Kick::Type type, std::uint64_t sequence) {
  if (connection_) connection_->send({type, Kick::Message::protocolVersion, sequence});
}

void ReaderKickSm::sendSequence(std::uint64_t sequence) {
  send(Kick::Type::ack, sequence);
}

void ReaderKickSm::sleepAt(std::uint64_t sequence) {
  send(Kick::Type::sleep, sequence);
}

}  // namespace Quarn
