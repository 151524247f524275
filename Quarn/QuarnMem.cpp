#include "Quarn/QuarnMem.h"

namespace Quarn {
namespace {

std::unique_ptr<Mem::Region> makeRegion(std::string const& rootPath, std::string const& fileName,
                                        bool local) {
  if (local) return std::make_unique<Mem::Local>();
  return std::make_unique<Mem::Shared>(fileName, rootPath);
}

}  // namespace

QuarnMem::QuarnMem(Jorv::DebugHandler& dh, std::string const& rootPath, std::string const& fileName,
                   bool local)
    : local_(local), region_(makeRegion(rootPath, fileName, local)) {
  KIV_TRACE(dh, 8, "QuarnMem::QuarnMem() prefix: ", local ? std::string() : rootPath, " ",
            region_->name());
}

}  // namespace Quarn
