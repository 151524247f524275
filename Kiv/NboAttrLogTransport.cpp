#include "Kiv/NboAttrLogTransport.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "Jorv/Exception.h"

namespace Kiv::NboAttrLog {

namespace {

void setNonBlocking(int fd) {
  int fl = ::fcntl(fd, F_GETFL);
  ::fcntl(fd, F_SETFL, fl | O_NONBLOCK);
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

}  // namespace

// ---- Channel ----

Channel::Channel(Endpoint& endpoint, int fd, String8 description)
    : endpoint_(endpoint),
      fd_(fd),
      description_(std::move(description)),
      out_(*this, endpoint.options().highWater),
      in_(*this) {
  setNonBlocking(fd_);
  watch_ = FdWatch(endpoint.activity(), fd_, EPOLLIN, [this](std::uint32_t ev) { onEvents(ev); });
}

Channel::~Channel() {
  if (closeTimer_) endpoint_.activity().timerDel(closeTimer_);
  watch_.reset();
  if (fd_ >= 0) ::close(fd_);
}

void Channel::watchOut(bool on) {
  if (on == watchingOut_ || fd_ < 0) return;
  watchingOut_ = on;
  watch_.eventsIs(on ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

void Channel::close(String8 const& error) {
  if (fd_ < 0) return;
  error_ = error;
  watch_.reset();
  ::close(fd_);
  fd_ = -1;
  if (!error.empty()) endpoint_.errorIs(description_ + ": " + error);
  Endpoint* ep = &endpoint_;
  Channel* self = this;
  closeTimer_ = endpoint_.activity().timerIs(Activity::now(), [ep, self] {
    self->closeTimer_ = 0;
    ep->channelClosed(self);
  });
}

void Channel::closeAfter(char const* call, int err) {
  if (err == ECONNRESET || err == EPIPE) {
    KIV_TRACE(logTrace(), 1, description_, ": ", call, ": ", std::strerror(err),
              " (the peer went away)");
    close(String8());
    return;
  }
  close(String8(std::string(call) + ": " + std::strerror(err)));
}

void Channel::onEvents(std::uint32_t events) {
  if (events & EPOLLOUT) out_.flush();
  if (!open() || !(events & (EPOLLIN | EPOLLHUP | EPOLLERR))) return;
  std::uint8_t buf[readChunk];
  for (int rounds = 0; rounds < 16 && open(); ++rounds) {
    ssize_t n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
    try {
      if (n > 0) {
        in_.feed(std::span<std::uint8_t const>(buf, std::size_t(n)));
        if (std::size_t(n) < sizeof buf) break;
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (n == 0) {
        in_.endOfStream();
        close(String8());
      } else {
        closeAfter("recv", errno);
      }
    } catch (std::exception const& e) {
      // Bad input: nothing of the offending record or transaction was applied. Closing makes the
      // peer reconnect and send its full state again.
      close(e.what());
    }
  }
}

Ptr<Entity> Channel::bindRoot(TypeInfo const& type, String8 const& argument) {
  if (Ptr<Entity> e = endpoint_.readRoot(type.name, argument)) return e;
  for (auto const& e : created_) {
    if (e->attributeTable().typeName == type.name && e->name() == argument) return e;
  }
  if (created_.size() >= kMaxCreatedRoots) {
    throw AttrLogRecordException("too many root entities: " + std::to_string(kMaxCreatedRoots));
  }
  Ptr<Entity> e = type.create(argument);
  created_.push_back(e);
  return e;
}

// ---- Endpoint ----

Endpoint::Endpoint(Activity& activity, Options options) : activity_(activity), options_(options) {}

Endpoint::~Endpoint() {
  channels_.clear();
}

void Endpoint::serve(Ptr<Entity> const& entity) {
  served_.push_back(entity);
  for (auto& ch : channels_) {
    if (!ch->open()) continue;
    attachOne(entity, ch->out());
    ch->out().runFlowOuts();
  }
}

void Endpoint::read(Ptr<Entity> const& entity) {
  readRoots_.push_back(entity);
}

namespace {

Ptr<Entity> findRoot(std::vector<Ptr<Entity>> const& roots, std::string_view typeName,
                     std::string_view name) {
  for (auto const& e : roots) {
    if (e->attributeTable().typeName == typeName && e->name() == name) return e;
  }
  return nullptr;
}

}  // namespace

Ptr<Entity> Endpoint::readRoot(std::string_view typeName, std::string_view name) const {
  return findRoot(readRoots_, typeName, name);
}

Ptr<Entity> Endpoint::servedRoot(std::string_view typeName, std::string_view name) const {
  return findRoot(served_, typeName, name);
}

std::vector<Ptr<Entity>> Endpoint::created() const {
  std::vector<Ptr<Entity>> all;
  for (auto const& c : channels_) all.insert(all.end(), c->created().begin(), c->created().end());
  return all;
}

std::size_t Endpoint::peakEntities() const {
  std::size_t most = closedPeakEntities_;
  for (auto const& c : channels_) most = std::max(most, c->in().peakEntities());
  return most;
}

std::size_t Endpoint::peakBytesHeld() const {
  std::size_t most = closedPeakBytesHeld_;
  for (auto const& c : channels_) most = std::max(most, c->in().peakBytesHeld());
  return most;
}

std::vector<Channel*> Endpoint::channels() const {
  std::vector<Channel*> v;
  for (auto const& c : channels_) {
    if (c->open()) v.push_back(c.get());
  }
  return v;
}

bool Endpoint::synced() const {
  for (auto const& c : channels_) {
    if (c->open() && c->in().syncMode() == syncModeDone) return true;
  }
  return false;
}

void Endpoint::errorIs(String8 const& error) {
  ++errors_;
  lastError_ = error;
  KIV_TRACE(logTrace(), 0, error);
}

Channel& Endpoint::adopt(int fd, String8 const& description) {
  channels_.push_back(std::make_unique<Channel>(*this, fd, description));
  ++connections_;
  Channel& ch = *channels_.back();
  attachServed(ch.out());
  return ch;
}

void Endpoint::attachServed(Out& out) {
  out.fullStateBegin();
  for (auto const& e : served_) attachOne(e, out);
  out.runFlowOuts();
}

void Endpoint::attachOne(Ptr<Entity> const& e, Out& out) {
  if (TypeInfo const* type = typeFind(e->attributeTable().typeName)) type->newWriter(*e, out);
}

void Endpoint::channelClosed(Channel* channel) {
  auto it = std::find_if(channels_.begin(), channels_.end(),
                         [channel](auto const& c) { return c.get() == channel; });
  if (it == channels_.end()) return;
  std::unique_ptr<Channel> dead = std::move(*it);
  channels_.erase(it);
  closedPeakEntities_ = std::max(closedPeakEntities_, dead->in().peakEntities());
  closedPeakBytesHeld_ = std::max(closedPeakBytesHeld_, dead->in().peakBytesHeld());
  dead.reset();  // with it the roots made for its peer, and every binding it held
  onChannelClosed();
}

// ---- Server and Client ----

namespace {

sockaddr_un unixAddress(std::string const& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.size() >= sizeof a.sun_path) {
    throw Jorv::RuntimeException("NboAttrLog: socket path too long: " + path);
  }
  std::memcpy(a.sun_path, path.data(), path.size());
  return a;
}

}  // namespace

Server::Server(Activity& activity, std::string path, Options options)
    : Endpoint(activity, options), path_(std::move(path)) {
  sockaddr_un a = unixAddress(path_);
  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) {
    throw Jorv::RuntimeException(std::string("NboAttrLog::Server: socket failed: ") +
                                 std::strerror(errno));
  }
  ::unlink(path_.c_str());
  auto fail = [&](std::string const& what) {
    std::string err = std::strerror(errno);
    ::close(listenFd_);
    ::unlink(path_.c_str());
    throw Jorv::RuntimeException("NboAttrLog::Server: " + what + ": " + err);
  };
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    fail("cannot listen on " + path_);
  }
  // Connecting takes write permission on the socket file, so its mode says who may connect. It
  // is set before listen(): until then every connection attempt is refused, so none is made under
  // the mode that the umask gave.
  if (options.group && ::chown(path_.c_str(), uid_t(-1), *options.group) != 0) {
    fail("cannot give " + path_ + " to group " + std::to_string(*options.group));
  }
  if (::chmod(path_.c_str(), options.group ? 0660 : 0600) != 0) {
    fail("cannot set the mode of " + path_);
  }
  if (::listen(listenFd_, 16) != 0) fail("cannot listen on " + path_);
  watch_ = FdWatch(activity, listenFd_, EPOLLIN, [this](std::uint32_t) { onAccept(); });
}

Server::~Server() {
  channelsClear();
  watch_.reset();
  ::close(listenFd_);
  ::unlink(path_.c_str());
}

void Server::onAccept() {
  for (;;) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    if (channels().size() >= options().maxConnections) {
      ::close(fd);
      errorIs("peer of " + path_ + ": too many connections: " +
              std::to_string(options().maxConnections));
      continue;
    }
    adopt(fd, "peer of " + path_);
  }
}

Client::Client(Activity& activity, std::string path, Options options)
    : Endpoint(activity, options), path_(std::move(path)) {
  tryConnect();
}

Client::~Client() {
  if (retryTimer_) activity().timerDel(retryTimer_);
  channelsClear();  // the outputs go first: they detach the adapters dropped below
}

Channel* Client::channel() const {
  auto v = channels();
  return v.empty() ? nullptr : v.front();
}

void Client::tryConnect() {
  retryTimer_ = 0;
  sockaddr_un a = unixAddress(path_);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
    waitReason_.clear();
    adopt(fd, "connection to " + path_);
    return;
  }
  int const err = errno;
  if (fd >= 0) ::close(fd);
  if (fd < 0) {
    waitFor("socket failed: " + std::string(std::strerror(err)), true);
  } else if (err == EACCES || err == EPERM) {
    waitFor("permission denied", true);
  } else {
    // No socket file, nobody listening on it, or a full backlog: the server is not there yet.
    bool const absent = err == ENOENT || err == ECONNREFUSED || err == EAGAIN;
    waitFor(std::strerror(err), !absent);
  }
  retryLater();
}

void Client::waitFor(String8 const& why, bool error) {
  String8 const reason = "connection to " + path_ + ": " + why;
  if (reason == waitReason_) return;  // said once, until it changes or a connection is made
  waitReason_ = reason;
  if (error) {
    errorIs(reason);
  } else {
    KIV_TRACE(logTrace(), 3, reason, ", trying again");
  }
}

void Client::retryLater() {
  if (!retryTimer_) {
    retryTimer_ = activity().timerIs(Activity::now() + options().reconnectSeconds,
                                     [this] { tryConnect(); });
  }
}

void Client::onChannelClosed() {
  retryLater();
}

void Client::attachOne(Ptr<Entity> const& e, Out& out) {
  auto it = adapters_.find(e.ptr());
  if (it != adapters_.end()) {
    it->second->doRemountSelf(out);
    out.rootIs(it->second);
  } else if (TypeInfo const* type = typeFind(e->attributeTable().typeName)) {
    adapters_.emplace(e.ptr(), type->newWriter(*e, out));
  }
}

void socketPair(int fds[2]) {
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) {
    throw Jorv::RuntimeException(std::string("NboAttrLog: socketpair failed: ") +
                                 std::strerror(errno));
  }
}

}  // namespace Kiv::NboAttrLog
