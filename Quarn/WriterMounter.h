#pragma once
// Watches a shared writer's root directory for readers' corruption reports, and keeps its fenix
// file: a fenix file that is damaged or gone is written again at once.
//
// On every event of its MounterSm the report file ("corruption-detected") is read; a report that
// differs from the last one handled makes the writer validate the whole table. A valid table gets
// its fenix file written again, which wakes every reader's mounter so that it re-checks and
// re-attaches; an invalid one is traced and handed to `recover` (the writer starts a new
// incarnation, whose fenix file wakes the readers the same way). Nothing escapes to the
// activity: an exception from recovery is traced, and the next write or report tries again.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Jorv/Platform.h"
#include "Kiv/Activity.h"
#include "Mem/Shared.h"
#include "Quarn/MounterSm.h"

namespace Quarn {

class WriterMounter {
 public:
  using Validate = std::function<bool()>;
  using Fenix = std::function<std::uint32_t()>;
  using Recover = std::function<void(std::string const& why)>;

  // Raises Jorv::Exception when the root directory cannot be watched. The fenix file is written
  // with `fileMode` (the writer's).
  WriterMounter(Jorv::DebugHandler& dh, std::string rootPath, Validate validate, Recover recover,
                Fenix fenix, Kiv::Activity& activity,
                unsigned fileMode = Mem::defaultFileMode);

  void notify(std::string const& eventName);
  std::string const& lastReport() const noexcept { return lastReport_; }

 private:
  Jorv::DebugHandler& dh_;
  void writeFenix(std::uint32_t fenix);

  std::string rootPath_;
  unsigned fileMode_;
  Validate validate_;
  Recover recover_;
  Fenix fenix_;
  std::string lastReport_;
  std::unique_ptr<MounterSm> sm_;  // last: its handler uses everything above
};

}  // namespace Quarn
