#include "Quarn/WriterKickSm.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
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
    if (area_ != nullptr) ::munmap(area_, KickArea::size);
    for (int fd : {areaFd_, wakeFd_[0], wakeFd_[1], listenFd_}) {
      if (fd >= 0) ::close(fd);
    }
    return Jorv::RuntimeException(text);
  };
  // The area is reserved before it is touched (a page that cannot be had would otherwise arrive
  // as SIGBUS) and sealed, so that no reader can shrink it under the others' mappings.
  areaFd_ = ::memfd_create("quarn-kick", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (areaFd_ < 0) throw failure("cannot create the kick area for");
  if (::ftruncate(areaFd_, KickArea::size) != 0 ||
      (errno = ::posix_fallocate(areaFd_, 0, KickArea::size)) != 0) {
    throw failure("cannot size the kick area for");
  }
  if (::fcntl(areaFd_, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
    throw failure("cannot seal the kick area for");
  }
  void* const p = ::mmap(nullptr, KickArea::size, PROT_READ | PROT_WRITE, MAP_SHARED, areaFd_, 0);
  if (p == MAP_FAILED) throw failure("cannot map the kick area for");
  area_ = static_cast<char*>(p);
  // Fresh memory is zeros: sequence 0, generation 0, no sleeper, every slot at 0.
  auto* header = reinterpret_cast<KickArea::Header*>(area_);
  std::memcpy(header->magic, KickArea::magic, sizeof header->magic);
  header->version = KickArea::version;
  header->maxReaders = KickArea::maxReaders;
  for (int& fd : wakeFd_) {
    fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) throw failure("cannot create a wake-up eventfd for");
  }
  freeSlots_.reserve(KickArea::maxReaders);
  for (std::uint32_t i = KickArea::maxReaders; i-- > 0;) freeSlots_.push_back(i);

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
    errno = EINVAL;
    throw failure("cannot watch");
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
  ::close(wakeFd_[0]);
  ::close(wakeFd_[1]);
  ::munmap(area_, KickArea::size);
  ::close(areaFd_);
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
      reader.connection = std::make_unique<Kick::Connection>(fd, activity_, nullptr,
                                                             [this, id] { handleHangup(id); });
    } catch (Jorv::Exception const& e) {  // the connection closed its fd
      pauseAccepting(e.what());
      break;
    }
    if (!freeSlots_.empty()) {
      reader.slot = freeSlots_.back();
      freeSlots_.pop_back();
      // Holds pruning at 0 until the reader acknowledges what it has read.
      Mem::Atomics::store64Release(KickArea::slot(area_, reader.slot), 0);
    } else if (!slotsExhaustedReported_) {
      slotsExhaustedReported_ = true;
      KIV_TRACE(trace(), 0, "WriterKickSm::handleAccept() ", socketPath_, ": more than ",
                KickArea::maxReaders,
                " readers; the others are not counted for pruning and resynchronise when "
                "they fall behind a prune");
    }
    // The sequence a newcomer compares its position with when it goes to sleep: current even if
    // nothing has been appended since this writer started.
    lastSequence_ = std::max(lastSequence_, writerSequence_());
    Mem::Atomics::store64SeqCst(KickArea::sequenceWord(area_), lastSequence_);
    int const fds[Kick::descriptorCount] = {areaFd_, wakeFd_[0], wakeFd_[1]};
    Kick::Message const welcome{Kick::Type::welcome, Kick::Message::protocolVersion,
                                reader.slot < KickArea::maxReaders ? reader.slot
                                                                   : Kick::Message::noSlot};
    if (!reader.connection->send(welcome, fds, Kick::descriptorCount)) {
      KIV_TRACE(trace(), 1, "WriterKickSm::handleAccept() cannot welcome a reader: ",
                std::strerror(errno));
      if (reader.slot < KickArea::maxReaders) freeSlots_.push_back(reader.slot);
      continue;
    }
    KIV_TRACE(trace(), 3, "WriterKickSm::handleAccept() reader:", id, " slot:", reader.slot,
              " numReaders:", numReaders() + 1);
    readers_.emplace(id, std::move(reader));
    changed = true;
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
  // A reader that went while counted as a sleeper leaves the count one too high: the next
  // append wakes the others once more and the count starts again from 0.
  if (it->second.slot < KickArea::maxReaders) freeSlots_.push_back(it->second.slot);
  readers_.erase(it);  // destroys the connection whose handler runs: it allows that
  KIV_TRACE(trace(), 3, "WriterKickSm::handleHangup() reader:", readerId,
            " numReaders:", numReaders());
  if (onNumReaders_) onNumReaders_(numReaders());
}

void WriterKickSm::doKickSleepers(std::uint64_t sequence) {
  // Publish, then look (both sequentially consistent; Quarn/KickArea.h).
  lastSequence_ = sequence;
  Mem::Atomics::store64SeqCst(KickArea::sequenceWord(area_), sequence);
  if (KickArea::sleepers(Mem::Atomics::load64SeqCst(KickArea::sleepWord(area_))) != 0) wake();
}

void WriterKickSm::wake() {
  char* const word = KickArea::sleepWord(area_);
  std::uint64_t seen = Mem::Atomics::load64SeqCst(word);
  bool taken = false;
  for (int i = 0; i < KickArea::casAttempts && !taken; ++i) {
    if (KickArea::sleepers(seen) == 0) return;  // they took themselves out meanwhile
    taken = Mem::Atomics::compareExchange64SeqCst(
        word, seen, KickArea::sleepWordOf(KickArea::generation(seen) + 1, 0));
  }
  if (!taken) {
    // Something keeps changing the word: move the generation on regardless, so that the
    // sleepers see they were woken; the count stays and the next append takes it.
    Mem::Atomics::fetchAdd64SeqCst(word, KickArea::sleepWordOf(1, 0));
  }
  std::uint64_t const one = 1;
  ssize_t n = ::write(wakeFd_[0], &one, sizeof one);
  if (n < 0 && errno == EAGAIN) {
    // Only a counter pushed to its limit by someone else refuses a write: empty it.
    std::uint64_t drained;
    (void)!::read(wakeFd_[0], &drained, sizeof drained);
    n = ::write(wakeFd_[0], &one, sizeof one);
  }
  if (n != ssize_t(sizeof one)) {
    KIV_TRACE(trace(), 1, "WriterKickSm::wake() ", socketPath_, ": ", std::strerror(errno));
  }
  ++wakeups_;
}

std::uint32_t WriterKickSm::numSleepers() const noexcept {
  return KickArea::sleepers(Mem::Atomics::load64SeqCst(KickArea::sleepWord(area_)));
}

std::uint64_t WriterKickSm::lowestSequence() const {
  std::uint64_t lowest = noReaders;
  for (auto const& [id, reader] : readers_) {
    if (reader.slot >= KickArea::maxReaders) continue;
    lowest = std::min(lowest, Mem::Atomics::load64Acquire(KickArea::slot(area_, reader.slot)));
  }
  // A slot is the reader's to write: a value beyond what was ever appended cannot be true, and
  // must not let a prune drop entries that other readers have not read.
  return std::min(lowest, lowest == noReaders ? lowest : lastSequence_);
}

}  // namespace Quarn
