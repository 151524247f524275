#include "Quarn/WriterLock.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "Jorv/Exception.h"
#include "Mem/Shared.h"

namespace Quarn::Util {
namespace {

[[noreturn]] void cannotLock(std::string const& path, int error) {
  throw Jorv::RuntimeException("cannot lock " + path + ": " + Mem::errorText(error));
}

// The pid a writer recorded in its lock file; 0 when none can be read.
unsigned long recordedPid(int fd) {
  char text[24] = {};
  ssize_t const n = ::pread(fd, text, sizeof text - 1, 0);
  return n > 0 ? std::strtoul(text, nullptr, 10) : 0;
}

// Overwrites the recorded pid in place, then cuts what a longer one left: a reader of the file
// meets one pid or the other, never an empty file. Best effort: on a full file system the lock
// still excludes, only the record may be missing.
void recordPid(int fd) {
  std::string const pid = std::to_string(::getpid()) + "\n";
  if (::pwrite(fd, pid.data(), pid.size(), 0) == static_cast<ssize_t>(pid.size())) {
    (void)::ftruncate(fd, static_cast<off_t>(pid.size()));
  }
}

}  // namespace

int acquireWriterLock(std::string const& rootPath, unsigned fileMode) {
  std::string const path = rootPath + "/last-owner";
  if (!Mem::makeDirs(rootPath)) cannotLock(path, errno);
  // A writer that removes the table's files (cleanup) unlinks this file while it holds the lock:
  // a lock taken on the unlinked file would exclude nobody, so it is taken again on the file the
  // path names now. Bounded: each further round means that another writer came and went.
  for (int round = 0; round < 8; ++round) {
    bool created = false;
    int const fd = Mem::openOrCreate(path, fileMode, created);
    if (fd < 0) cannotLock(path, errno);
    int locked;
    do {
      locked = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (locked != 0 && errno == EINTR);
    if (locked != 0) {
      int const error = errno;
      unsigned long const owner = error == EWOULDBLOCK ? recordedPid(fd) : 0;
      ::close(fd);
      if (error != EWOULDBLOCK) cannotLock(path, error);
      throw Jorv::RuntimeException("Quarn table " + rootPath + " already has a live writer, pid " +
                                   (owner != 0 ? std::to_string(owner) : "unknown"));
    }
    struct stat held {};
    struct stat named {};
    if (::fstat(fd, &held) != 0) {
      int const error = errno;
      ::close(fd);
      cannotLock(path, error);
    }
    if (::stat(path.c_str(), &named) == 0 && named.st_dev == held.st_dev &&
        named.st_ino == held.st_ino) {
      recordPid(fd);
      return fd;
    }
    ::close(fd);
  }
  cannotLock(path, EAGAIN);
}

void releaseWriterLock(int fd) noexcept {
  if (fd >= 0) ::close(fd);
}

}  // namespace Quarn::Util
