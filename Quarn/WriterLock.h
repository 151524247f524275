#pragma once
// The writer lock of a table: one live writer per table, across processes.
//
// The lock is an exclusive flock on the table's "last-owner" file, taken without waiting and
// held through one open descriptor for as long as the writer lives; the file records the pid of
// the writer that took it last. The kernel drops the lock with the last descriptor of it, which
// the end of the process closes however it ends (SIGKILL included): a dead writer never blocks
// its successor. The descriptor is close-on-exec; a child forked without exec shares it, and the
// lock, until it exits. Readers and tools never take the lock: they read "last-owner" to name the
// writer (Quarn::quarnLastOwner).

#include <string>

#include "Mem/Shared.h"

namespace Quarn::Util {

// Takes the writer lock of the table at `rootPath` (creating the directory and the file, the
// file with `fileMode` when new) and records this process's pid in it when the file system has
// room for it. Returns the descriptor that holds the lock. Throws Jorv::RuntimeException:
// "Quarn table <rootPath> already has a live writer, pid <pid>" while another writer holds it,
// "cannot lock <rootPath>/last-owner: <errno text>" on any other failure.
int acquireWriterLock(std::string const& rootPath, unsigned fileMode = Mem::defaultFileMode);
// Closes the descriptor; the lock goes with the last descriptor that shares it.
void releaseWriterLock(int fd) noexcept;

// The writer lock held for the life of the object; a default-constructed one holds none.
class AutoLock {
 public:
  AutoLock() = default;
  explicit AutoLock(std::string const& rootPath, unsigned fileMode = Mem::defaultFileMode)
      : fd_(acquireWriterLock(rootPath, fileMode)) {}
  ~AutoLock() { releaseWriterLock(fd_); }
  AutoLock(AutoLock&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  AutoLock& operator=(AutoLock&& other) noexcept {
    if (this != &other) {
      releaseWriterLock(fd_);
      fd_ = other.fd_;
      other.fd_ = -1;
    }
    return *this;
  }
  bool locked() const noexcept { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace Quarn::Util
