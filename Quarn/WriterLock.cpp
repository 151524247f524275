#include "Quarn/WriterLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "Mem/Shared.h"
#include "Quarn/Files.h"

namespace Quarn::Util {

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

}  // namespace Quarn::Util
