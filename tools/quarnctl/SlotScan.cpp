#include "SlotScan.h"

namespace Quarnctl {

SlotScan::SlotScan(std::string const& dir)
    : dir_(dir), slots_(Jorv::Platform::getDebugHandler("quarnctl"), dir) {
  std::string error;
  if (!slots_.attach(error) || !slots_.validate(0, error)) throw Failure(error);
}

void SlotScan::checkIntact() const {
  if (slots_.damaged()) {
    throw Failure("the slot file of " + dir_ + " was truncated while it was read");
  }
}

}  // namespace Quarnctl
