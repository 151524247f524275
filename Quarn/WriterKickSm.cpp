#include "Quarn/WriterKickSm.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"

namespace Quarn {
namespace {

Jorv::TraceHandle& trace() {
  return Jorv::Platform::getDebugHandler("Quarn::WriterKickSm");
}

constexpr int listenBacklog = 128;
constexpr double acceptRetryInterval = 0.1;  // seconds

}  // namespace

WriterKickSm::WriterKickSm(std::string rootPath, SequenceFn writerSequence,
                           NumReadersHandler onNumReaders, Kiv::Activity& activity)
    : socketPath_(Kick::socketPath(rootPath)),
      writerSequence_(std::move(writerSequence)),
      onNumReaders_(std::move(onNumReaders)),
      activity_(activity),
      acceptRetry_([this] { listenWatch_.eventsIs(EPOLLIN); }, activity) {
  auto failure = [this](char const* what) {
    std::string text = std::string("WriterKickSm::WriterKickSm() ") + what + " " + socketPath_ +
                       ": " + std::strerror(errno);
    if (listenFd_ >= 0) ::close(listenFd_);
    return Jorv::RuntimeException(text);
  };
  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) throw failure("cannot create socket");
  Kick::Address address(socketPath_);
  if (!address.valid()) throw failure("cannot address");
  ::unlink(socketPath_.c_str());  // a stale socket of an earlier writer: one writer per table
  if (::bind(listenFd_, address.get(), address.length()) != 0) throw failure("cannot bind");
  struct stat st {};
  if (::stat(socketPath_.c_str(), &st) == 0) {
    socketDev_ = st.st_dev;
    socketIno_ = st.st_ino;
  }
  if (::listen(listenFd_, listenBacklog) != 0) throw failure("cannot listen on");
  try {
    listenWatch_ =
        Kiv::FdWatch(activity_, listenFd_, EPOLLIN, [this](std::uint32_t) { handleAccept(); });
  } catch (...) {
    ::close(listenFd_);
    throw;
  }
  KIV_TRACE(trace(), 3, "WriterKickSm::WriterKickSm() listening on ", socketPath_);
}

WriterKickSm::~WriterKickSm() {
  readers_.clear();
  listenWatch_.reset();
  ::close(listenFd_);
  // A newer writer may have replaced the file already; only remove our own.
  struct stat st {};
  if (::stat(socketPath_.c_str(), &st) == 0 && st.st_dev == socketDev_ && st.st_ino == socketIno_) {
    ::unlink(socketPath_.c_str());
  }
}

void WriterKickSm::handleAccept() {
  bool changed = false;
  for (;;) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno != EAGAIN) pauseAccepting(std::strerror(errno));
      break;  // EAGAIN: all accepted
    }
    std::uint64_t id = nextReaderId_++;
    Reader reader;
    try {
      reader.connection = std::make_unique<Kick::Connection>(
          fd, activity_, [this, id](Kick::Message const& m) { handleMessage(id, m); },
          [this, id] { handleHangup(id); });
    } catch (Jorv::Exception const& e) {  // the connection closed its fd
      pauseAccepting(e.what());
      break;
    }
    readers_.emplace(id, std::move(reader));
    changed = true;
    KIV_TRACE(trace(), 3, "WriterKickSm::handleAccept() reader:", id, " numReaders:", numReaders());
  }
  if (changed && onNumReaders_) onNumReaders_(numReaders());
}

// Out of descriptors or memory: the listening socket stays readable, so stop watching it for a
// moment instead of spinning; waiting readers stay in the backlog and nothing is lost.
void WriterKickSm::pauseAccepting(char const* why) {
  KIV_TRACE(trace(), 1, "WriterKickSm::handleAccept() cannot accept a reader: ", why);
  listenWatch_.eventsIs(0);
  acceptRetry_.armIn(acceptRetryInterval);
}

void WriterKickSm::handleHangup(std::uint64_t readerId) {
  auto it = readers_.find(readerId);
  if (it == readers_.end()) return;
  if (it->second.sleeping) --sleepers_;
  readers_.erase(it);  // destroys the connection whose handler runs: it allows that
  KIV_TRACE(trace(), 3, "WriterKickSm::handleHangup() reader:", readerId,
            " numReaders:", numReaders());
  if (onNumReaders_) onNumReaders_(numReaders());
}

void WriterKickSm::handleMessage(std::uint64_t readerId, Kick::Message const& message) {
  auto it = readers_.find(readerId);
  if (it == readers_.end()) return;
  Reader& reader = it->second;
  reader.acknowledged = message.sequence;
  KIV_TRACE(trace(), 8, "WriterKickSm::handleMessage() reader:", readerId,
            " type:", std::uint32_t(message.type), " sequence:", message.sequence);
  switch (message.type) {
    case Kick::Type::ack:
      if (reader.sleeping) {
        reader.sleeping = false;
        --sleepers_;
      }
      break;
    case Kick::Type::sleep:
      if (!reader.sleeping) {
        reader.sleeping = true;
        ++sleepers_;
      }
      if (writerSequence_() > message.sequence) kick(reader);  // appended while it decided
      break;
    case Kick::Type::kick:
      break;  // only the writer kicks; a reader that sends one is ignored
  }
}

void WriterKickSm::kick(Reader& reader) {
  reader.sleeping = false;
  --sleepers_;
  reader.connection->send({Kick::Type::kick, Kick::Message::protocolVersion, writerSequence_()});
}

void WriterKickSm::doKickSleepers() {
  if (sleepers_ == 0) return;
  for (auto& [id, reader] : readers_) {
    if (reader.sleeping) kick(reader);
  }
}

std::uint64_t WriterKickSm::lowestSequence() const {
  std::uint64_t lowest = noReaders;
  for (auto const& [id, reader] : readers_) lowest = std::min(lowest, reader.acknowledged);
  return lowest;
}

}  // namespace Quarn
