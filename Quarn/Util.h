#pragma once
// Small helpers of the table library shared by writer and readers: the key/header hash, fenix id
// packing, the writer lock of a table's root directory, file helpers, and the root path of a
// table.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Quarn {

// The directory of one table: <root directory>/<table name>. The root directory defaults to
// Mem::defaultRootDir() ($QUARN_ROOT or "/dev/shm/quarn").
class RootPath {
 public:
  explicit RootPath(std::string_view tableName, std::string rootDir = {});

  std::string const& str() const noexcept { return path_; }
  std::string const& rootDir() const noexcept { return rootDir_; }
  // <root path>/<name>
  std::string file(std::string_view name) const;

 private:
  std::string rootDir_;
  std::string path_;
};

namespace Util {

// Deterministic 32-bit hash of `length` bytes; the same in every process and build.
std::uint32_t hash(void const* bytes, std::size_t length) noexcept;
inline std::uint32_t hash(std::string_view text) noexcept {
  return hash(text.data(), text.size());
}

// Packs the low 16 bits of a process id and an instance counter into a fenix id that is never 0.
std::uint32_t encodeFenix(std::uint32_t pidLow16, std::uint32_t instanceId) noexcept;
// The process-wide instance counter used by `encodeFenix`: returns 0 first, then 1, 2, ...
std::uint32_t nextInstanceId() noexcept;

// The writer lock of a table's root directory: an exclusive flock on its "last-owner" file,
// which records the process id of the writer that took it last. Blocks until the lock is free.
// Returns the descriptor to pass to `releaseWriterLock`, or -1 when the file cannot be opened.
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

// Whole content of a file; empty when it does not exist.
std::string fileRead(std::string const& path);
// Replaces `path` with `content` atomically (a temporary file renamed over it), so that a reader
// sees either the old or the new content. Creates missing directories. False on failure.
bool fileWriteAtomic(std::string const& path, std::string_view content);
// Records a corruption report for the writer in <rootPath>/corruption-detected.
bool writeCorruptionFile(std::string const& rootPath, std::string_view text);
// Size of a file on disk; 0 when it does not exist.
std::size_t memSize(std::string const& path);

}  // namespace Util

// The "fenix" file of a table: its 32-bit incarnation id, 4 bytes little-endian, replaced
// atomically so that a reader never sees a half-written id.
struct FenixFile {
  // 0 when the file is missing or malformed.
  static std::uint32_t read(std::string const& rootPath);
  static bool write(std::string const& rootPath, std::uint32_t fenix);
};

}  // namespace Quarn
