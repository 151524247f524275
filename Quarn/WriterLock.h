#pragma once
// The writer lock of a table's root directory: an exclusive flock on its "last-owner" file,
// which records the process id of the writer that took it last.

#include <string>

namespace Quarn::Util {

// Blocks until the lock is free. Returns the descriptor to pass to `releaseWriterLock`, or -1
// when the file cannot be opened.
int acquireWriterLock(std::string const& rootPath);
void releaseWriterLock(int fd) noexcept;

class AutoLock {
 public:
  explicit AutoLock(std::string const& rootPath) : fd_(acquireWriterLock(rootPath)) {}
  ~AutoLock() { releaseWriterLock(fd_); }
  AutoLock(AutoLock const&) = delete;
  AutoLock& operator=(AutoLock const&) = delete;
  bool locked() const noexcept { return fd_ >= 0; }

 private:
  int fd_;
};

}  // namespace Quarn::Util
