#include "Quarn/WriterMounter.h"

#include <cerrno>
#include <exception>

#include "Mem/Shared.h"
#include "Quarn/Fenix.h"
#include "Quarn/Files.h"

namespace Quarn {

WriterMounter::WriterMounter(Jorv::DebugHandler& dh, std::string rootPath, Validate validate,
                             Recover recover, Fenix fenix, Kiv::Activity& activity,
                             unsigned fileMode)
    : dh_(dh),
      rootPath_(std::move(rootPath)),
      fileMode_(fileMode),
      validate_(std::move(validate)),
      recover_(std::move(recover)),
      fenix_(std::move(fenix)),
      sm_(std::make_unique<MounterSm>(
          rootPath_, [this](std::string const& event) { notify(event); }, activity)) {}

void WriterMounter::notify(std::string const& eventName) {
  KIV_TRACE(dh_, 8, "WriterMounter::notify() eventName: ", eventName);
  // Readers mount only the incarnation the fenix file names: a damaged or deleted one would
  // keep every new reader out until this writer restarts.
  if (std::uint32_t const fenix = fenix_(); FenixFile::read(rootPath_) != fenix) {
    KIV_TRACE(dh_, 0, "WriterMounter::notify() fenix file of ", rootPath_,
              " damaged or missing, writing fenixId ", fenix, " again");
    writeFenix(fenix);
  }
  std::string const report = Util::fileRead(rootPath_ + "/corruption-detected");
  if (report.empty() || report == lastReport_) return;
  KIV_TRACE(dh_, 1, "WriterMounter::notify() corruptDetected: ", report);
  lastReport_ = report;
  if (!validate_()) {
    KIV_TRACE(dh_, 0, "WriterMounter::notify() failed quarn validation");
    try {
      recover_("WriterMounter::notify() failed quarn validation");
    } catch (std::exception const& e) {
      KIV_TRACE(dh_, 0, "WriterMounter::notify() recovery of ", rootPath_, " failed: ", e.what());
    }
    return;
  }
  writeFenix(fenix_());
  KIV_TRACE(dh_, 3, "WriterMounter::notify() quarn validation ok");
}

void WriterMounter::writeFenix(std::uint32_t fenix) {
  if (!FenixFile::write(rootPath_, fenix, fileMode_)) {
    KIV_TRACE(dh_, 0, "WriterMounter::notify() cannot write the fenix file of ", rootPath_, ": ",
              Mem::errorText(errno));
  }
}

}  // namespace Quarn
