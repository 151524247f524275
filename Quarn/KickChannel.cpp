#include "Quarn/KickChannel.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Quarn::Kick {

std::string socketPath(std::string const& rootPath) {
  return rootPath + "/kick";
}

Address::Address(std::string const& path) {
  addr_.sun_family = AF_UNIX;
  std::string target = path;
  if (path.size() >= sizeof addr_.sun_path) {
    auto slash = path.find_last_of('/');
    std::string dir = slash == 0 ? std::string("/") : path.substr(0, slash);
    dirFd_ = ::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (dirFd_ < 0) return;
    target = "/proc/self/fd/" + std::to_string(dirFd_) + path.substr(slash);
    if (target.size() >= sizeof addr_.sun_path) return;  // the file name alone is too long
  }
  std::memcpy(addr_.sun_path, target.c_str(), target.size() + 1);
  length_ = socklen_t(offsetof(sockaddr_un, sun_path) + target.size() + 1);
}

Address::~Address() {
  if (dirFd_ >= 0) ::close(dirFd_);
}

Connection::Connection(int fd, Kiv::Activity& activity, MessageHandler onMessage,
                       HangupHandler onHangup)
    : fd_(fd), onMessage_(std::move(onMessage)), onHangup_(std::move(onHangup)) {
  try {
    watch_ = Kiv::FdWatch(activity, fd_, EPOLLIN | EPOLLRDHUP,
                          [this](std::uint32_t events) { handleEvents(events); });
  } catch (...) {
    ::close(fd_);
    throw;
  }
}

Connection::~Connection() {
  *alive_ = false;
  watch_.reset();
  ::close(fd_);
}

void Connection::send(Message const& message) {
  if (outFill_ != 0 || next_) {
    next_ = message;  // blocked: keep only the newest
    return;
  }
  std::memcpy(out_, &message, sizeof message);
  outDone_ = 0;
  outFill_ = sizeof message;
  if (!flush()) watch_.eventsIs(EPOLLIN | EPOLLRDHUP | EPOLLOUT);
}

bool Connection::flush() {
  for (;;) {
    while (outDone_ < outFill_) {
      ssize_t n = ::send(fd_, out_ + outDone_, outFill_ - outDone_, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN) return false;
        outDone_ = outFill_ = 0;  // broken: the hangup comes through the activity
        next_.reset();
        return true;
      }
      outDone_ += std::size_t(n);
    }
    outDone_ = outFill_ = 0;
    if (!next_) return true;
    std::memcpy(out_, &*next_, sizeof(Message));
    outFill_ = sizeof(Message);
    next_.reset();
  }
}

void Connection::hangup() {
  watch_.reset();
  onHangup_();
}

void Connection::handleEvents(std::uint32_t events) {
  if ((events & EPOLLOUT) && flush()) watch_.eventsIs(EPOLLIN | EPOLLRDHUP);
  if (!(events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR))) return;
  std::shared_ptr<bool> alive = alive_;
  unsigned char buffer[64 * sizeof(Message)];
  for (;;) {
    ssize_t n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return;
    if (n <= 0) return hangup();  // orderly close or error
    for (ssize_t i = 0; i < n;) {
      std::size_t take = std::min(sizeof(Message) - inFill_, std::size_t(n - i));
      std::memcpy(in_ + inFill_, buffer + i, take);
      inFill_ += take;
      i += ssize_t(take);
      if (inFill_ < sizeof(Message)) break;
      inFill_ = 0;
      Message m;
      std::memcpy(&m, in_, sizeof m);
      auto type = std::uint32_t(m.type);
      if (m.version != Message::protocolVersion || type < 1 || type > 3) return hangup();
      onMessage_(m);
      if (!*alive) return;
    }
    // A short read emptied the socket: the watch is level-triggered, so anything that arrives
    // later raises another event. Reading on until EAGAIN would cost one more system call per
    // message, which is a third of a writer's work per write with sleeping readers.
    if (std::size_t(n) < sizeof buffer) return;
  }
}

}  // namespace Quarn::Kick
