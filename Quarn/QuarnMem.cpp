#include "Quarn/QuarnMem.h"

#include <sys/stat.h>

#include <cstdio>

namespace Quarn {
namespace {

std::unique_ptr<Mem::Region> makeRegion(std::string const& rootPath, std::string const& fileName,
                                        bool local, unsigned fileMode = Mem::defaultFileMode) {
  if (local) return std::make_unique<Mem::Local>();
  return std::make_unique<Mem::Shared>(fileName, rootPath, fileMode);
}

}  // namespace

QuarnMem::QuarnMem(Jorv::DebugHandler& dh, std::string const& rootPath, std::string const& fileName,
                   bool local)
    : local_(local),
      rootPath_(rootPath),
      fileName_(fileName),
      region_(makeRegion(rootPath, fileName, local)) {
  KIV_TRACE(dh, 8, "QuarnMem::QuarnMem() prefix: ", local ? std::string() : rootPath, " ",
            region_->name());
}

bool QuarnMem::attachReadOnly() {
  auto* const shared = local_ ? nullptr : dynamic_cast<Mem::Shared*>(region_.get());
  return shared != nullptr && shared->attachReadOnly();
}

bool QuarnMem::onDisk() const {
  auto const* const shared = local_ ? nullptr : dynamic_cast<Mem::Shared const*>(region_.get());
  struct stat st {};
  return shared != nullptr && ::stat(shared->path().c_str(), &st) == 0;
}

void QuarnMem::fileModeIs(unsigned mode) {
  fileMode_ = mode;
  if (!local_ && !region_->attached()) region_ = makeRegion(rootPath_, fileName_, false, mode);
}

std::string QuarnMem::stagedName() const {
  return fileName_ + ".new";
}

bool QuarnMem::stageReplacement(std::size_t bytes) {
  if (local_) return region_->resize(bytes);
  auto fresh = std::make_unique<Mem::Shared>(stagedName(), rootPath_, fileMode_);
  fresh->remove();  // a leftover of a writer that died between stage and commit
  if (!fresh->attach(bytes)) return false;
  region_ = std::move(fresh);  // unmaps the old file; its other mappings stay as they are
  staged_ = true;
  return true;
}

bool QuarnMem::commitReplacement() {
  if (!staged_) return true;
  std::string const from = region_->name();
  auto final = std::make_unique<Mem::Shared>(fileName_, rootPath_, fileMode_);
  if (::rename(from.c_str(), final->path().c_str()) != 0) return false;
  staged_ = false;
  // The same inode under its final name: the formatted contents are already there.
  if (!final->attach(region_->mappedSize())) return false;
  region_ = std::move(final);
  return true;
}

}  // namespace Quarn
