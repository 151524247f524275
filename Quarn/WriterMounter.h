#pragma once
// Watches a shared writer's root directory for readers' corruption reports, and keeps its fenix
// file: a fenix file that is damaged or gone is written again at once.
//
// On every event of its MounterSm the report file ("corruption-detected") is read; a report that
// differs from the last one handled makes the writer validate the whole table. A valid table gets
// its fenix file written again, which wakes every reader's mounter so that it re-checks and
// re-attaches; an invalid one raises CorruptionDetectedException out of the activity to the
// writer's owner (the events still queued in that read of the watch are dropped with it).

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Jorv/Platform.h"
#include "Kiv/Activity.h"
#include "Quarn/MounterSm.h"

namespace Quarn {

class WriterMounter {
 public:
  using Validate = std::function<bool()>;
  using Fenix = std::function<std::uint32_t()>;

  // Raises Jorv::Exception when the root directory cannot be watched.
  WriterMounter(Jorv::DebugHandler& dh, std::string rootPath, Validate validate, Fenix fenix,
                Kiv::Activity& activity);

  void notify(std::string const& eventName);
  std::string const& lastReport() const noexcept { return lastReport_; }

 private:
  Jorv::DebugHandler& dh_;
  std::string rootPath_;
  Validate validate_;
  Fenix fenix_;
  std::string lastReport_;
  std::unique_ptr<MounterSm> sm_;  // last: its handler uses everything above
};

}  // namespace Quarn
