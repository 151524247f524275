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
// `Mem::Local` is the same interface over private anonymous memory (grown with mremap); its name
// prints as "[ANONYMOUS]" and it has no existence before it is mapped.

#include <cstddef>
#include <string>

namespace Mem {

// The size of one memory page.
std::size_t pageSize() noexcept;
// `bytes` rounded up to a whole number of pages.
std::size_t roundUpToWholePage(std::size_t bytes) noexcept;
// The directory that holds shared table files unless a caller names another: $QUARN_ROOT when
// set and not empty, else "/dev/shm/quarn".
std::string defaultRootDir();
// Creates `dir` and its missing parents (existing ones are fine). False on failure.
bool makeDirs(std::string const& dir);

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
  // smaller (never shrinking it). Replaces an earlier mapping. False on failure (errno kept).
  virtual bool attach(std::size_t bytes) = 0;
  // Changes the object's size to `bytes` and remaps it; the base may move. On failure the old
  // mapping and size stay as they were.
  virtual bool resize(std::size_t bytes) = 0;
  // Unmaps; the object stays.
  virtual void detach() noexcept = 0;
  // Unmaps and deletes the backing object. True when it is gone.
  virtual bool remove() noexcept = 0;

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
  // The file `fileName` in directory `rootDir` (empty: `defaultRootDir()`).
  explicit Shared(std::string fileName, std::string rootDir = {});
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

 private:
  bool mapFd(int fd, std::size_t bytes, bool writable);

  std::string path_;
  bool readOnly_ = false;
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
