#pragma once
// One memory object of a table: a named file under the table's root path ("slots", "buckets",
// "conquer.1", "conquer.2"), or private anonymous memory for a local table. Owns its mapping.

#include <memory>
#include <string>

#include "Jorv/Platform.h"
#include "Mem/Shared.h"

namespace Quarn {

class QuarnMem {
 public:
  // `rootPath` is the table's directory; ignored when `local`.
  QuarnMem(Jorv::DebugHandler& dh, std::string const& rootPath, std::string const& fileName,
           bool local);

  // The mode of the files this object creates from now on (Mem::Shared); ignored when local.
  void fileModeIs(unsigned mode);

  // File path, or "[ANONYMOUS]".
  std::string name() const { return region_->name(); }
  bool local() const noexcept { return local_; }
  std::size_t sizeOnDisk() const { return region_->sizeOnDisk(); }
  // The file exists under its name, empty or not (never for a local region).
  bool onDisk() const;
  bool attach(std::size_t bytes) { return region_->attach(bytes); }
  // Maps the existing file read-only at its current size (never for a local region, which has
  // no file). False when it is missing, empty or cannot be mapped (errno kept).
  bool attachReadOnly();
  bool resize(std::size_t bytes) { return region_->resize(bytes); }
  // Replacing a shared file instead of resizing it under readers that map it (a reader touching
  // a page beyond a shrunk file's end dies of SIGBUS): `stageReplacement` maps a fresh file of
  // `bytes` under a temporary name in place of the current mapping; once the caller has
  // formatted it, `commitReplacement` renames it over the file's name. A reader's mapping of the
  // old file stays valid (that inode is no longer written) until it re-attaches. A local region
  // is simply resized. Both return false on failure (errno kept); nothing was renamed then.
  bool stageReplacement(std::size_t bytes);
  bool commitReplacement();
  void detach() noexcept { region_->detach(); }
  bool remove() noexcept { return region_->remove(); }
  // The file was truncated under this mapping, or part of the mapping already holds zeros
  // instead of it (Mem/Shared.h).
  bool damaged() const noexcept { return region_->truncated(); }
  // The size of the mapped file now, through the mapping's own descriptor.
  std::size_t mappedFileSize() const noexcept { return region_->mappedFileSize(); }
  bool readAt(char* buffer, std::size_t length, std::size_t offset) const noexcept {
    return region_->readAt(buffer, length, offset);
  }
  char* base() const noexcept { return region_->base(); }
  std::size_t mappedSize() const noexcept { return region_->mappedSize(); }

 private:
  std::string stagedName() const;

  bool local_;
  unsigned fileMode_ = Mem::defaultFileMode;
  std::string rootPath_;
  std::string fileName_;
  bool staged_ = false;
  std::unique_ptr<Mem::Region> region_;
};

}  // namespace Quarn
