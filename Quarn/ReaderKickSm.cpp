#include "Quarn/ReaderKickSm.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"
#include "Quarn/KickArea.h"

namespace Quarn {
namespace {

Jorv::TraceHandle& trace() {
  return Jorv::Platform::getDebugHandler("Quarn::ReaderKickSm");
}

// Maps the kick area a writer handed over, after checking that it can be trusted to stay whole
// (sealed against shrinking, as large as the layout) and that it is one. nullptr when not.
char* mapArea(int fd, std::string& why) {
  struct stat st {};
  int const seals = ::fcntl(fd, F_GET_SEALS);
  if (::fstat(fd, &st) != 0 || st.st_size < off_t(KickArea::size)) {
    why = "kick area too small";
  } else if (seals < 0 || !(seals & F_SEAL_SHRINK)) {
    why = "kick area not sealed against shrinking";
  } else {
    void* const p = ::mmap(nullptr, KickArea::size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) {
      why = std::string("cannot map the kick area: ") + std::strerror(errno);
      return nullptr;
    }
    KickArea::Header header;
    std::memcpy(&header, p, sizeof header);
    if (std::memcmp(header.magic, KickArea::magic, sizeof header.magic) == 0 &&
        header.version == KickArea::version && header.maxReaders == KickArea::maxReaders) {
      return static_cast<char*>(p);
    }
    ::munmap(p, KickArea::size);
    why = "not a kick area of this version";
  }
  return nullptr;
}

}  // namespace

ReaderKickSm::ReaderKickSm(std::string rootPath, Handlers handlers, Kiv::Activity& activity)
    : socketPath_(Kick::socketPath(rootPath)),
      handlers_(std::move(handlers)),
      activity_(activity),
      retry_([this] { connectNow(); }, activity),
      fallback_([this] { handleFallback(); }, activity),
      kickSoon_([this] { kicked(); }, activity) {
  if (!tryConnect()) scheduleRetry();
}

ReaderKickSm::~ReaderKickSm() {
  if (sleeping_) withdraw();
  release();
}

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
        [this](Kick::Message const& m, Kick::Descriptors& fds) { handleWelcome(m, fds); },
        [this] { handleHangup(); });
  } catch (Jorv::Exception const& e) {  // the connection closed its fd
    KIV_TRACE(trace(), 1, "ReaderKickSm::tryConnect() ", e.what());
    return false;
  }
  retry_.cancel();
  KIV_TRACE(trace(), 5, "ReaderKickSm::tryConnect() connected to ", socketPath_);
  return true;
}

void ReaderKickSm::scheduleRetry() {
  retry_.armIn(retryInterval_);
  retryInterval_ = std::min(retryInterval_ * 2, maxRetryInterval);
}

void ReaderKickSm::connectNow() {
  if (connection_ == nullptr && !tryConnect()) scheduleRetry();
}

void ReaderKickSm::handleWelcome(Kick::Message const& welcome, Kick::Descriptors& fds) {
  std::string why;
  int const areaFd = fds.take(Kick::area);
  if (areaFd < 0 || fds.count() != 2) {
    why = "welcome without its descriptors";
  } else {
    area_ = mapArea(areaFd, why);
  }
  if (areaFd >= 0) ::close(areaFd);  // the mapping stays
  if (area_ != nullptr) {
    wakeFd_[0] = fds.take(Kick::exclusiveWake);
    wakeFd_[1] = fds.take(Kick::broadcastWake);
    try {
      // Edge-triggered and never read: each write of the writer's (or a passing reader's) is
      // an edge. Only the exclusive watch makes the kernel stop at the first sleeper.
      wakeWatch_[0] = Kiv::FdWatch(activity_, wakeFd_[0], EPOLLIN | EPOLLET | EPOLLEXCLUSIVE,
                                   [this](std::uint32_t) { handleWake(true); });
      wakeWatch_[1] = Kiv::FdWatch(activity_, wakeFd_[1], EPOLLIN | EPOLLET,
                                   [this](std::uint32_t) { handleWake(false); });
    } catch (Jorv::Exception const& e) {
      why = e.what();
      release();
    }
  }
  if (area_ == nullptr) {
    KIV_TRACE(trace(), 0, "ReaderKickSm::handleWelcome() ", socketPath_, ": ", why);
    connection_.reset();  // runs inside its handler: the connection allows that
    scheduleRetry();
    return;
  }
  hasSlot_ = welcome.value < KickArea::maxReaders;
  slot_ = hasSlot_ ? std::uint32_t(welcome.value) : 0;
  ++connections_;
  retryInterval_ = minRetryInterval;
  KIV_TRACE(trace(), 3, "ReaderKickSm::handleWelcome() connected to ", socketPath_,
            " slot:", welcome.value, " connections:", connections_);
  if (handlers_.onConnected) handlers_.onConnected(true, connections_);
}

void ReaderKickSm::release() noexcept {
  sleeping_ = counted_ = false;
  fallback_.cancel();
  kickSoon_.cancel();
  for (int i = 0; i < 2; ++i) {
    wakeWatch_[i].reset();
    if (wakeFd_[i] >= 0) ::close(std::exchange(wakeFd_[i], -1));
  }
  if (area_ != nullptr) ::munmap(std::exchange(area_, nullptr), KickArea::size);
}

void ReaderKickSm::handleHangup() {
  KIV_TRACE(trace(), 3, "ReaderKickSm::handleHangup() writer went away: ", socketPath_);
  bool const wasConnected = connected();
  release();
  connection_.reset();  // the connection allows its handler to destroy it
  retryInterval_ = minRetryInterval;
  scheduleRetry();
  if (wasConnected && handlers_.onConnected) handlers_.onConnected(false, connections_);
}

void ReaderKickSm::sendSequence(std::uint64_t sequence) {
  if (!connected()) return;
  if (sleeping_) withdraw();
  if (hasSlot_) Mem::Atomics::store64Release(KickArea::slot(area_, slot_), sequence);
}

void ReaderKickSm::sleepAt(std::uint64_t sequence) {
  if (!connected()) return;
  if (sleeping_) withdraw();
  if (hasSlot_) Mem::Atomics::store64Release(KickArea::slot(area_, slot_), sequence);
  sleeping_ = true;
  sleptAt_ = sequence;
  // Join the sleepers of the current generation. A count at its limit (a damaged word) needs no
  // increment: the writer wakes whenever it is not 0.
  char* const word = KickArea::sleepWord(area_);
  std::uint64_t seen = Mem::Atomics::load64SeqCst(word);
  for (int i = 0; i < KickArea::casAttempts && !counted_; ++i) {
    std::uint32_t const n = KickArea::sleepers(seen);
    sleepGeneration_ = KickArea::generation(seen);
    counted_ = n == UINT32_MAX ||
               Mem::Atomics::compareExchange64SeqCst(
                   word, seen, KickArea::sleepWordOf(sleepGeneration_, n + 1));
  }
  if (!counted_ && !announceFailureReported_) {
    announceFailureReported_ = true;
    KIV_TRACE(trace(), 0, "ReaderKickSm::sleepAt() ", socketPath_,
              ": the sleep word keeps changing; sleeping on the fallback timer");
  }
  // Then look: an append that came before the writer could see this sleeper is seen here.
  if (Mem::Atomics::load64SeqCst(KickArea::sequenceWord(area_)) > sequence) {
    withdraw();
    kickSoon_.armIn(0);
    return;
  }
  fallback_.armIn(fallbackInterval);
}

bool ReaderKickSm::withdraw() {
  bool taken = false;
  if (counted_) {
    char* const word = KickArea::sleepWord(area_);
    std::uint64_t seen = Mem::Atomics::load64SeqCst(word);
    for (int i = 0; i < KickArea::casAttempts; ++i) {
      if (KickArea::generation(seen) != sleepGeneration_) {
        taken = true;  // the writer took this sleep with its generation
        break;
      }
      std::uint32_t const n = KickArea::sleepers(seen);
      if (n == 0 || n == UINT32_MAX ||
          Mem::Atomics::compareExchange64SeqCst(
              word, seen, KickArea::sleepWordOf(sleepGeneration_, n - 1))) {
        break;
      }
    }
  }
  sleeping_ = counted_ = false;
  fallback_.cancel();
  return taken;
}

void ReaderKickSm::handleWake(bool exclusive) {
  if (!sleeping_) return;  // awake and reading already: the wake-up is for the sleepers
  // The kernel stopped at this sleeper: the others of the generation wait for it to pass the
  // wake-up on, which costs this reader the system call the writer did not make.
  if (exclusive) {
    std::uint64_t const one = 1;
    (void)!::write(wakeFd_[1], &one, sizeof one);
  }
  if (counted_ &&
      KickArea::generation(Mem::Atomics::load64SeqCst(KickArea::sleepWord(area_))) ==
          sleepGeneration_) {
    return;  // a wake-up for an earlier generation: this sleep was not taken
  }
  sleeping_ = counted_ = false;
  fallback_.cancel();
  kicked();
}

void ReaderKickSm::handleFallback() {
  if (!sleeping_) return;
  if (Mem::Atomics::load64SeqCst(KickArea::sequenceWord(area_)) <= sleptAt_) {
    fallback_.armIn(fallbackInterval);
    return;
  }
  KIV_TRACE(trace(), 1, "ReaderKickSm::handleFallback() ", socketPath_,
            ": the writer appended past ", sleptAt_, " and no wake-up came");
  withdraw();
  kicked();
}

void ReaderKickSm::kicked() {
  // Last: the handler may destroy this object.
  if (handlers_.onKicked) {
    handlers_.onKicked(
        area_ != nullptr ? Mem::Atomics::load64SeqCst(KickArea::sequenceWord(area_)) : 0);
  }
}

}  // namespace Quarn
