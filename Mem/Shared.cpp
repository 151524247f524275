#include "Mem/Shared.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <signal.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace Mem {

namespace detail {
std::atomic<std::uint64_t> damageEvents{0};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "the handler increments it");
}  // namespace detail

namespace {

// ---- truncation registry (see Mem/Shared.h): read by the SIGBUS handler, lock-free.

struct Guard {
  std::atomic<bool> used{false};
  std::atomic<std::uintptr_t> begin{0};  // 0: no mapping registered
  std::atomic<std::uintptr_t> end{0};
  std::atomic<int> fd{-1};  // the mapped file's descriptor, open while begin is set
  std::atomic<bool> damaged{false};
};
constexpr int maxGuards = 4096;  // beyond that, mappings are simply not guarded
Guard guards[maxGuards];
struct sigaction previousSigbus {};
std::uintptr_t guardPageSize = 4096;
std::once_flag sigbusInstalled;

// Answers a fault at `addr` past the end of the file of a registered mapping; false for any
// other fault. Async-signal-safe (fstat, mmap).
bool discardPastEnd(std::uintptr_t addr) {
  for (Guard& g : guards) {
    std::uintptr_t const begin = g.begin.load(std::memory_order_acquire);
    if (begin == 0 || addr < begin) continue;
    std::uintptr_t const end = g.end.load(std::memory_order_relaxed);
    if (addr >= end) continue;
    // A page that still holds a byte of the file faulted for another reason (no page to be had,
    // an I/O error): that is not truncation.
    struct stat st {};
    if (::fstat(g.fd.load(std::memory_order_relaxed), &st) != 0) return false;
    std::uintptr_t const offset = (addr & ~(guardPageSize - 1)) - begin;
    auto const fileSize = static_cast<std::uintptr_t>(st.st_size);
    if (fileSize > offset) return false;
    // fileSize <= offset < end - begin: the rounding cannot overflow.
    std::uintptr_t const from = begin + ((fileSize + guardPageSize - 1) & ~(guardPageSize - 1));
    void* p = ::mmap(reinterpret_cast<void*>(from), end - from, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (p == MAP_FAILED) return false;
    g.damaged.store(true, std::memory_order_relaxed);
    detail::damageEvents.fetch_add(1, std::memory_order_relaxed);
    return true;
  }
  return false;
}

void onSigbus(int sig, siginfo_t* info, void* context) {
  int const savedErrno = errno;
  bool const answered = discardPastEnd(reinterpret_cast<std::uintptr_t>(info->si_addr));
  errno = savedErrno;
  if (answered) return;
  // Not a truncated table file: whatever handled SIGBUS before decides.
  if ((previousSigbus.sa_flags & SA_SIGINFO) && previousSigbus.sa_sigaction != nullptr) {
    previousSigbus.sa_sigaction(sig, info, context);
  } else if (previousSigbus.sa_handler != SIG_DFL && previousSigbus.sa_handler != SIG_IGN) {
    previousSigbus.sa_handler(sig);
  } else {
    ::signal(SIGBUS, SIG_DFL);  // the faulting access runs again and ends the process
  }
}

void installSigbusHandler() {
  guardPageSize = static_cast<std::uintptr_t>(pageSize());
  struct sigaction sa {};
  sa.sa_sigaction = onSigbus;
  sa.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&sa.sa_mask);
  ::sigaction(SIGBUS, &sa, &previousSigbus);
}

std::size_t fileSize(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return 0;
  return static_cast<std::size_t>(st.st_size);
}

// Reserves the bytes [from, to) of the file, extending it to `to` when it is shorter; errno set
// on failure. A file system that cannot reserve (EOPNOTSUPP) is only extended.
bool reserve(int fd, std::size_t from, std::size_t to) {
  if (to <= from) return true;
  int error;
  do {
    error = ::posix_fallocate(fd, static_cast<off_t>(from), static_cast<off_t>(to - from));
  } while (error == EINTR);
  if (error == EOPNOTSUPP) {
    return fileSize(fd) >= to || ::ftruncate(fd, static_cast<off_t>(to)) == 0;
  }
  errno = error;
  return error == 0;
}

}  // namespace

std::size_t pageSize() noexcept {
  static std::size_t const size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

std::size_t roundUpToWholePage(std::size_t bytes) noexcept {
  std::size_t const page = pageSize();
  return (bytes + page - 1) / page * page;
}

bool makeDirs(std::string const& dir) {
  std::size_t pos = 0;
  while (pos != std::string::npos) {
    pos = dir.find('/', pos + 1);
    std::string const partial = dir.substr(0, pos);
    if (!partial.empty() && ::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

std::string errorText(int error) {
  std::string text = std::strerror(error);
  if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

int openOrCreate(std::string const& path, unsigned mode, bool& created) {
  // Two rounds: a file removed between the two opens is created in the second.
  for (int round = 0; round < 2; ++round) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    created = fd >= 0;
    if (fd < 0 && errno == EEXIST) fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
      if (errno == ENOENT) continue;
      return -1;
    }
    if (created && ::fchmod(fd, mode) != 0) {
      int const error = errno;
      ::close(fd);
      ::unlink(path.c_str());
      errno = error;
      return -1;
    }
    return fd;
  }
  return -1;
}

std::string defaultRootDir() {
  char const* env = std::getenv("QUARN_ROOT");
  if (env != nullptr && *env != '\0') return env;
  return "/dev/shm/quarn";
}

// ---- Region

bool Region::remap(std::size_t bytes) noexcept {
  void* p = ::mremap(base_, size_, bytes, MREMAP_MAYMOVE);
  if (p == MAP_FAILED) return false;
  base_ = static_cast<char*>(p);
  size_ = bytes;
  return true;
}

void Region::unmap() noexcept {
  if (base_ != nullptr) ::munmap(base_, size_);
  base_ = nullptr;
  size_ = 0;
}

// ---- Shared

Shared::Shared(std::string fileName, std::string rootDir, unsigned fileMode)
    : path_((rootDir.empty() ? defaultRootDir() : rootDir) + "/" + fileName),
      fileMode_(fileMode) {}

Shared::~Shared() {
  detach();
}

std::size_t Shared::sizeOnDisk() const {
  struct stat st {};
  if (::stat(path_.c_str(), &st) != 0) return 0;
  return static_cast<std::size_t>(st.st_size);
}

std::size_t Shared::mappedFileSize() const noexcept {
  return fd_ < 0 ? 0 : fileSize(fd_);
}

bool Shared::readAt(char* buffer, std::size_t length, std::size_t offset) const noexcept {
  std::size_t done = 0;
  while (fd_ >= 0 && done < length) {
    ssize_t const n = ::pread(fd_, buffer + done, length - done, off_t(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += std::size_t(n);
  }
  return fd_ >= 0 && done == length;
}

bool Shared::damaged() const noexcept {
  return guard_ >= 0 && guards[guard_].damaged.load(std::memory_order_relaxed);
}

void Shared::guard() noexcept {
  std::call_once(sigbusInstalled, installSigbusHandler);
  if (guard_ < 0) {
    for (int i = 0; i < maxGuards; ++i) {
      if (!guards[i].used.exchange(true, std::memory_order_acq_rel)) {
        guard_ = i;
        guards[i].damaged.store(false, std::memory_order_relaxed);
        break;
      }
    }
    if (guard_ < 0) return;
  }
  Guard& g = guards[guard_];
  g.fd.store(fd_, std::memory_order_relaxed);
  g.end.store(reinterpret_cast<std::uintptr_t>(base_) + size_, std::memory_order_relaxed);
  g.begin.store(reinterpret_cast<std::uintptr_t>(base_), std::memory_order_release);
}

void Shared::unguard() noexcept {
  if (guard_ >= 0) guards[guard_].begin.store(0, std::memory_order_release);
}

bool Shared::mapFd(int fd, std::size_t bytes, bool writable) {
  void* p =
      ::mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    int const error = errno;
    ::close(fd);
    errno = error;
    return false;
  }
  detach();
  fd_ = fd;
  base_ = static_cast<char*>(p);
  size_ = bytes;
  readOnly_ = !writable;
  guard();
  return true;
}

bool Shared::attach(std::size_t bytes) {
  if (bytes == 0) {
    errno = EINVAL;
    return false;
  }
  if (!makeDirs(path_.substr(0, path_.rfind('/')))) return false;
  // A file created here goes again when its space cannot be had.
  bool created = false;
  int const fd = openOrCreate(path_, fileMode_, created);
  if (fd < 0) return false;
  if (!reserve(fd, 0, bytes)) {
    int const error = errno;
    if (created) ::unlink(path_.c_str());
    ::close(fd);
    errno = error;
    return false;
  }
  return mapFd(fd, bytes, true);
}

bool Shared::resize(std::size_t bytes) {
  if (base_ == nullptr || readOnly_ || bytes == 0 || fd_ < 0) {
    errno = EINVAL;
    return false;
  }
  std::size_t const oldFile = fileSize(fd_);
  bool const sized = bytes > oldFile ? reserve(fd_, oldFile, bytes)
                                     : ::ftruncate(fd_, static_cast<off_t>(bytes)) == 0;
  if (!sized) {
    int const error = errno;
    if (fileSize(fd_) != oldFile) (void)::ftruncate(fd_, static_cast<off_t>(oldFile));
    errno = error;
    return false;
  }
  unguard();
  bool const moved = remap(bytes);
  guard();
  if (moved) return true;
  int const saved = errno;
  (void)::ftruncate(fd_, static_cast<off_t>(oldFile));
  errno = saved;
  return false;
}

bool Shared::attachReadOnly(std::size_t bytes) {
  int const fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::size_t const onDisk = fileSize(fd);
  if (bytes == 0) bytes = onDisk;
  if (bytes == 0 || bytes > onDisk) {
    ::close(fd);
    return false;
  }
  return mapFd(fd, bytes, false);
}

bool Shared::remapReadOnly(std::size_t bytes) {
  if (base_ == nullptr || !readOnly_ || bytes == 0) return false;
  if (bytes > mappedFileSize()) return false;
  unguard();
  bool const ok = remap(bytes);
  guard();
  return ok;
}

void Shared::detach() noexcept {
  if (guard_ >= 0) {
    unguard();
    guards[guard_].damaged.store(false, std::memory_order_relaxed);
    guards[guard_].used.store(false, std::memory_order_release);
    guard_ = -1;
  }
  unmap();
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
  readOnly_ = false;
}

bool Shared::remove() noexcept {
  detach();
  return ::unlink(path_.c_str()) == 0 || errno == ENOENT;
}

// ---- Local

Local::~Local() {
  detach();
}

bool Local::attach(std::size_t bytes) {
  if (bytes == 0) return false;
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return false;
  detach();
  base_ = static_cast<char*>(p);
  size_ = bytes;
  return true;
}

bool Local::resize(std::size_t bytes) {
  if (base_ == nullptr || bytes == 0) return false;
  return remap(bytes);
}

void Local::detach() noexcept {
  unmap();
}

bool Local::remove() noexcept {
  detach();
  return true;
}

}  // namespace Mem
