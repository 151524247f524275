#include "Quarn/Util.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "Mem/Shared.h"

namespace Quarn {

RootPath::RootPath(std::string_view tableName, std::string rootDir)
    : rootDir_(rootDir.empty() ? Mem::defaultRootDir() : std::move(rootDir)),
      path_(rootDir_ + "/" + std::string(tableName)) {}

std::string RootPath::file(std::string_view name) const {
  return path_ + "/" + std::string(name);
}

namespace Util {
namespace {

bool writeAll(int fd, char const* data, std::size_t size) {
  while (size > 0) {
    ssize_t const n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

// 64-bit multiply-xorshift over 8-byte words, folded to 32 bits. Byte order is the host's
// (little-endian), which every process of the table shares.
std::uint32_t hash(void const* bytes, std::size_t length) noexcept {
  constexpr std::uint64_t kMul = 0x9E3779B97F4A7C15ull;
  auto const* p = static_cast<unsigned char const*>(bytes);
  std::uint64_t h = 0xCBF29CE484222325ull ^ (length * kMul);
  while (length >= 8) {
    std::uint64_t w;
    std::memcpy(&w, p, 8);
    h = (h ^ w) * kMul;
    h ^= h >> 29;
    p += 8;
    length -= 8;
  }
  if (length > 0) {
    std::uint64_t w = 0;
    std::memcpy(&w, p, length);
    h = (h ^ w) * kMul;
    h ^= h >> 29;
  }
  h *= kMul;
  h ^= h >> 32;
  return static_cast<std::uint32_t>(h);
}

std::uint32_t encodeFenix(std::uint32_t pidLow16, std::uint32_t instanceId) noexcept {
  // The low half counts 1..0xffff so that the id is never 0 (0 means "no id yet").
  return ((pidLow16 & 0xffffu) << 16) | (instanceId % 0xffffu + 1);
}

std::uint32_t nextInstanceId() noexcept {
  static std::atomic<std::uint32_t> counter{0};
  return counter.fetch_add(1, std::memory_order_relaxed);
}

int acquireWriterLock(std::string const& rootPath) {
  if (!Mem::makeDirs(rootPath)) return -1;
  std::string const path = rootPath + "/last-owner";
  int const fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  while (::flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      ::close(fd);
      return -1;
    }
  }
  std::string const pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd, 0) == 0) (void)writeAll(fd, pid.data(), pid.size());
  return fd;
}

void releaseWriterLock(int fd) noexcept {
  if (fd < 0) return;
  ::flock(fd, LOCK_UN);
  ::close(fd);
}

std::string fileRead(std::string const& path) {
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  std::string out;
  char buf[4096];
  for (;;) {
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return out;
}

bool fileWriteAtomic(std::string const& path, std::string_view content) {
  std::size_t const slash = path.rfind('/');
  if (slash != std::string::npos && !Mem::makeDirs(path.substr(0, slash))) return false;
  std::string const tmp = path + ".tmp." + std::to_string(::getpid());
  int const fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = writeAll(fd, content.data(), content.size());
  ok = ::close(fd) == 0 && ok;
  if (ok && ::rename(tmp.c_str(), path.c_str()) == 0) return true;
  ::unlink(tmp.c_str());
  return false;
}

bool writeCorruptionFile(std::string const& rootPath, std::string_view text) {
  return fileWriteAtomic(rootPath + "/corruption-detected", text);
}

std::size_t memSize(std::string const& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  return static_cast<std::size_t>(st.st_size);
}

}  // namespace Util

std::uint32_t FenixFile::read(std::string const& rootPath) {
  std::string const bytes = Util::fileRead(rootPath + "/fenix");
  if (bytes.size() != 4) return 0;
  std::uint32_t fenix;
  std::memcpy(&fenix, bytes.data(), 4);
  return fenix;
}

bool FenixFile::write(std::string const& rootPath, std::uint32_t fenix) {
  char bytes[4];
  std::memcpy(bytes, &fenix, 4);
  return Util::fileWriteAtomic(rootPath + "/fenix", std::string_view(bytes, 4));
}

}  // namespace Quarn
