#include "Quarn/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "Mem/Shared.h"

namespace Quarn::Util {

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

bool fileWriteAtomic(std::string const& path, std::string_view content, unsigned fileMode) {
  std::size_t const slash = path.rfind('/');
  if (slash != std::string::npos && !Mem::makeDirs(path.substr(0, slash))) return false;
  std::string const tmp = path + ".tmp." + std::to_string(::getpid());
  int const fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, fileMode);
  if (fd < 0) return false;
  bool ok = ::fchmod(fd, fileMode) == 0 && writeAll(fd, content.data(), content.size());
  ok = ::close(fd) == 0 && ok;
  if (ok && ::rename(tmp.c_str(), path.c_str()) == 0) return true;
  int const error = errno;
  ::unlink(tmp.c_str());
  errno = error;
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

}  // namespace Quarn::Util
