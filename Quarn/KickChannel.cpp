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

Descriptors::~Descriptors() {
  for (int fd : fds_) {
    if (fd >= 0) ::close(fd);
  }
}

int Descriptors::take(std::size_t i) noexcept {
  return i < fds_.size() ? std::exchange(fds_[i], -1) : -1;
}

std::size_t Descriptors::count() const noexcept {
  return std::size_t(std::count_if(fds_.begin(), fds_.end(), [](int fd) { return fd >= 0; }));
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

bool Connection::send(Message const& message, int const* fds, std::size_t count) {
  count = std::min<std::size_t>(count, descriptorCount);
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * descriptorCount)] = {};
  iovec iov{const_cast<Message*>(&message), sizeof message};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  if (count != 0) {
    msg.msg_control = control;
    msg.msg_controllen = CMSG_SPACE(sizeof(int) * count);
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int) * count);
    std::memcpy(CMSG_DATA(c), fds, sizeof(int) * count);
  }
  ssize_t n;
  do {
    n = ::sendmsg(fd_, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  return n == ssize_t(sizeof message);
}

void Connection::hangup() {
  watch_.reset();
  onHangup_();
}

void Connection::handleEvents(std::uint32_t events) {
  if (!(events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR))) return;
  std::shared_ptr<bool> alive = alive_;
  for (;;) {
    // Before the welcome is whole, read no further than its end; after it (or on a writer's
    // end) one byte is enough to tell a protocol error.
    bool const expecting = onMessage_ != nullptr && !welcomed_;
    unsigned char byte;
    iovec iov = expecting ? iovec{in_ + inFill_, sizeof in_ - inFill_} : iovec{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * descriptorCount)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t const n = ::recvmsg(fd_, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return;
    // Descriptors are taken before anything else: those not wanted are closed, never leaked.
    bool extra = (msg.msg_flags & MSG_CTRUNC) != 0;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
      std::size_t const k = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (std::size_t i = 0; i < k; ++i) {
        int fd;
        std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
        auto free = std::find(received_.fds_.begin(), received_.fds_.end(), -1);
        if (expecting && free != received_.fds_.end()) {
          *free = fd;
        } else {
          ::close(fd);
          extra = true;
        }
      }
    }
    if (n <= 0 || !expecting || extra) return hangup();  // gone, or a protocol error
    inFill_ += std::size_t(n);
    if (inFill_ < sizeof in_) continue;
    Message m;
    std::memcpy(&m, in_, sizeof m);
    if (m.version != Message::protocolVersion || m.type != Type::welcome) return hangup();
    welcomed_ = true;
    onMessage_(m, received_);
    if (!*alive) return;
  }
}

}  // namespace Quarn::Kick
