#pragma once
// Memory regions that hold the table files.
//
// `Mem::Region` is the common interface: a region has a name, may exist with some size before it
// is mapped (a file on disk), is mapped at some base address, can be resized (the base may move:
// callers recompute every address derived from `base()` after `resize`), detached and removed.
//
// `Mem::Shared` is a named file under a root directory (by default "/dev/shm/quarn", or the
// directory named by the environment variable QUARN_ROOT, or the directory given to the
// constructor). The writer maps it read-write (`attach`), creating it when missing; readers map
// it read-only (`attachReadOnly`, O_RDONLY + PROT_READ) and follow the writer's growth with
// `remapReadOnly`. A read-only mapping must never extend past the file's current size: map only
// the size that the file's own header announces, which the writer publishes after growing the
// file.
//
// A `Shared` object keeps the descriptor of the file it mapped and sizes, grows and checks that
// file through it, never through its path: the path may meanwhile name another file (deleted
// and re-created), and growing a mapping by another file's size would fault on the first access.
//
// Space. A file system that hands out pages when they are first touched (tmpfs) lets
// ftruncate succeed without space, and the page that cannot be had arrives later as SIGBUS on a
// store. `attach` and `resize` therefore reserve every byte they map (posix_fallocate on the
// descriptor), so that a full file system fails the call with ENOSPC and a mapping never faults
// for lack of space. Only a file system that cannot reserve at all (EOPNOTSUPP) is extended with
// ftruncate alone.
//
// Truncation under a mapping. Another process may shrink a mapped file at any time (damage,
// a re-format); touching a page past the new end raises SIGBUS. Invariant: no access to a
// `Shared` mapping ends the process because of that. The first mapping installs, once per
// process, a SIGBUS handler. A fault in a registered `Shared` mapping at a page that lies wholly
// past the end of the file, as fstat on the mapping's own descriptor reports it at that moment,
// is truncation: the handler maps private zero pages (MAP_FIXED, read-write) from the first page
// past the end of the file to the mapping's end and marks the mapping damaged; the faulting
// access then completes on zeros. Every other SIGBUS is not truncation and is not papered over:
// outside the registered mappings, or inside the file (a page the file system could not supply,
// an I/O error), it goes to the handler that was installed before (the default one ends the
// process). Owners check `damaged()` after reading and treat a damaged mapping as corrupt: it
// holds zeros, not the file. The handler is async-signal-safe: it calls only fstat and mmap,
// keeps errno, and reads a fixed array of atomics (no lock, no allocation). A mapping's entry is
// cleared before the mapping changes and set after it, by the thread that uses the mapping (the
// only one that can fault in it); its descriptor stays open while the entry is set.
//
// `Mem::Local` is the same interface over private anonymous memory (grown with mremap); its name
// prints as "[ANONYMOUS]" and it has no existence before it is mapped.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Mem {

// The mode of files created unless their writer chooses another: readable by all, writable by
// the owner.
inline constexpr unsigned defaultFileMode = 0644;

// The size of one memory page.
std::size_t pageSize() noexcept;
// `bytes` rounded up to a whole number of pages.
std::size_t roundUpToWholePage(std::size_t bytes) noexcept;
// The directory that holds shared table files unless a caller names another: $QUARN_ROOT when
// set and not empty, else "/dev/shm/quarn".
std::string defaultRootDir();
// Creates `dir` and its missing parents (existing ones are fine). False on failure (errno set).
bool makeDirs(std::string const& dir);
// The text of an errno value for messages, first letter in lower case ("no space left on
// device").
std::string errorText(int error);
// Opens `path` read-write (close-on-exec), creating it when missing with `mode` exactly (the
// umask does not narrow it); `created` tells which. -1 on failure (errno set).
int openOrCreate(std::string const& path, unsigned mode, bool& created);
namespace detail {
// Incremented (relaxed) by the truncation handler for every fault it answers.
extern std::atomic<std::uint64_t> damageEvents;
}  // namespace detail

// How many faults past the end of a file the truncation handler has answered in this process.
// An owner of mappings compares it with the count it saw last: while it has not moved, none of
// its mappings can have become damaged, and checking costs one relaxed load. Inline: readers and
// the writer check after every operation. The handler runs on the thread whose access faulted
// (the only thread that uses that mapping), so a signal fence suffices to keep this load after
// every access that came before it in the program.
inline std::uint64_t damageCount() noexcept {
  std::atomic_signal_fence(std::memory_order_acquire);
  return detail::damageEvents.load(std::memory_order_relaxed);
}

class Region {
 public:
  virtual ~Region() = default;
  Region() = default;
  Region(Region const&) = delete;
  Region& operator=(Region const&) = delete;

  virtual std::string name() const = 0;
  // Size of the backing object before or while mapped; 0 when it does not exist.
  virtual std::size_t sizeOnDisk() const = 0;
  // Maps `bytes` read-write, creating the object when missing and extending it when it is
  // smaller (never shrinking it), with the space of every mapped byte reserved. Replaces an
  // earlier mapping. False on failure (errno kept: ENOSPC when the space cannot be had).
  virtual bool attach(std::size_t bytes) = 0;
  // Changes the object's size to `bytes` (the added bytes reserved) and remaps it; the base may
  // move. On failure (errno kept) the old mapping and size stay as they were.
  virtual bool resize(std::size_t bytes) = 0;
  // Unmaps; the object stays.
  virtual void detach() noexcept = 0;
  // Unmaps and deletes the backing object. True when it is gone.
  virtual bool remove() noexcept = 0;

  // Part of the mapping no longer shows the object (see Shared); never for private memory.
  virtual bool truncated() const noexcept { return false; }
  // The size of the mapped object now (private memory: the mapping's).
  virtual std::size_t mappedFileSize() const noexcept { return size_; }
  // Copies [offset, offset + length) of the mapped file into `buffer` through the mapping's own
  // descriptor; false when the region has none or the read comes back short.
  virtual bool readAt(char* buffer, std::size_t length, std::size_t offset) const noexcept {
    (void)buffer, (void)length, (void)offset;
    return false;
  }

  char* base() const noexcept { return base_; }
  std::size_t mappedSize() const noexcept { return size_; }
  bool attached() const noexcept { return base_ != nullptr; }

 protected:
  // Moves the mapping to `bytes` (the base may change); false leaves it as it was.
  bool remap(std::size_t bytes) noexcept;
  void unmap() noexcept;

  char* base_ = nullptr;
  std::size_t size_ = 0;
};

class Shared final : public Region {
 public:
  // The file `fileName` in directory `rootDir` (empty: `defaultRootDir()`). A file that `attach`
  // creates gets `fileMode` exactly (the umask does not narrow it); an existing file keeps its
  // own.
  explicit Shared(std::string fileName, std::string rootDir = {},
                  unsigned fileMode = defaultFileMode);
  ~Shared() override;

  std::string name() const override { return path_; }
  std::string const& path() const noexcept { return path_; }
  std::size_t sizeOnDisk() const override;
  bool attach(std::size_t bytes) override;
  bool resize(std::size_t bytes) override;
  void detach() noexcept override;
  bool remove() noexcept override;

  // Reader side: maps the existing file read-only; `bytes` 0 maps the file's current size. False
  // when the file is missing, empty, smaller than `bytes`, or cannot be mapped.
  bool attachReadOnly(std::size_t bytes = 0);
  // Reader side: remaps a read-only mapping to `bytes` (at most the file's size); the base may
  // move. On failure the old mapping stays.
  bool remapReadOnly(std::size_t bytes);
  bool readOnly() const noexcept { return readOnly_; }

  // The size of the mapped file now, through its descriptor; 0 when not attached.
  std::size_t mappedFileSize() const noexcept override;
  bool readAt(char* buffer, std::size_t length, std::size_t offset) const noexcept override;
  // A fault past the end of the file hit this mapping: part of it now holds zeros.
  bool damaged() const noexcept;
  // Damaged, or the file is now shorter than the mapping (the next access there would fault).
  bool truncated() const noexcept override { return damaged() || mappedFileSize() < size_; }

 private:
  bool mapFd(int fd, std::size_t bytes, bool writable);
  void guard() noexcept;
  void unguard() noexcept;

  std::string path_;
  unsigned fileMode_;
  bool readOnly_ = false;
  int fd_ = -1;
  int guard_ = -1;  // entry in the truncation registry, -1 when none
};

class Local final : public Region {
 public:
  Local() = default;
  ~Local() override;

  std::string name() const override { return "[ANONYMOUS]"; }
  std::size_t sizeOnDisk() const override { return size_; }
  bool attach(std::size_t bytes) override;
  bool resize(std::size_t bytes) override;
  void detach() noexcept override;
  bool remove() noexcept override;
};

}  // namespace Mem
