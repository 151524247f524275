#include "Mem/Shared.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Mem {
namespace {

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

std::size_t fileSize(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return 0;
  return static_cast<std::size_t>(st.st_size);
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

Shared::Shared(std::string fileName, std::string rootDir)
    : path_((rootDir.empty() ? defaultRootDir() : rootDir) + "/" + fileName) {}

Shared::~Shared() {
  detach();
}

std::size_t Shared::sizeOnDisk() const {
  struct stat st {};
  if (::stat(path_.c_str(), &st) != 0) return 0;
  return static_cast<std::size_t>(st.st_size);
}

bool Shared::mapFd(int fd, std::size_t bytes, bool writable) {
  void* p =
      ::mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) return false;
  detach();
  base_ = static_cast<char*>(p);
  size_ = bytes;
  readOnly_ = !writable;
  return true;
}

bool Shared::attach(std::size_t bytes) {
  if (bytes == 0) return false;
  if (!makeDirs(path_.substr(0, path_.rfind('/')))) return false;
  Fd fd(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (fd.get() < 0) return false;
  if (fileSize(fd.get()) < bytes && ::ftruncate(fd.get(), static_cast<off_t>(bytes)) != 0) {
    return false;
  }
  return mapFd(fd.get(), bytes, true);
}

bool Shared::resize(std::size_t bytes) {
  if (base_ == nullptr || readOnly_ || bytes == 0) return false;
  Fd fd(::open(path_.c_str(), O_RDWR | O_CLOEXEC));
  if (fd.get() < 0) return false;
  std::size_t const oldFile = fileSize(fd.get());
  if (::ftruncate(fd.get(), static_cast<off_t>(bytes)) != 0) return false;
  if (remap(bytes)) return true;
  int const saved = errno;
  (void)::ftruncate(fd.get(), static_cast<off_t>(oldFile));
  errno = saved;
  return false;
}

bool Shared::attachReadOnly(std::size_t bytes) {
  Fd fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return false;
  std::size_t const onDisk = fileSize(fd.get());
  if (bytes == 0) bytes = onDisk;
  if (bytes == 0 || bytes > onDisk) return false;
  return mapFd(fd.get(), bytes, false);
}

bool Shared::remapReadOnly(std::size_t bytes) {
  if (base_ == nullptr || !readOnly_ || bytes == 0) return false;
  if (bytes > sizeOnDisk()) return false;
  return remap(bytes);
}

void Shared::detach() noexcept {
  unmap();
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
