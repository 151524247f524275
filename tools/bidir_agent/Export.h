#pragma once
// Where the group state machines plug into the simulation: the writer (agent), the reader
// (reader process) and the restart review (agent after a restart). Each returns the state
// machine, held by the caller for as long as it should run; null when this build lacks it.
//
// TEMPORARY ADAPTER: the three state machines land on their own branches; until one is merged
// its function returns null and the run ends unequal. Replaced by direct factory calls once all
// three are in.

#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Kiv/Clock.h"
#include "Kiv/Ptr.h"

#if __has_include("Bidir/Quarn/GroupQuarnWriterSm.h")
#include "Bidir/Quarn/GroupQuarnWriterSm.h"
#define BIDIR_AGENT_HAS_WRITER 1
#endif
#if __has_include("Bidir/Quarn/GroupQuarnReaderSm.h")
#include "Bidir/Quarn/GroupQuarnReaderSm.h"
#define BIDIR_AGENT_HAS_READER 1
#endif
#if __has_include("Bidir/Quarn/GroupQuarnRestartSm.h")
#include "Bidir/Quarn/GroupQuarnRestartSm.h"
#define BIDIR_AGENT_HAS_RESTART 1
#endif

namespace BidirAgent::Export {

namespace Bidir = Routing::Pim::Bidir;
using Held = Kiv::Ptr<Kiv::PtrInterface const>;

inline Held writer(Kiv::Ptr<Bidir::Status const> const& status,
                   Kiv::Ptr<Bidir::Quarn::Status> const& quarn) {
#ifdef BIDIR_AGENT_HAS_WRITER
  return Bidir::Quarn::groupQuarnWriterSmFactory(status, quarn);
#else
  (void)status, (void)quarn;
  return nullptr;
#endif
}

inline Held reader(Kiv::Ptr<Bidir::Status> const& status,
                   Kiv::Ptr<Bidir::Quarn::Status const> const& quarn) {
#ifdef BIDIR_AGENT_HAS_READER
  return Bidir::Quarn::groupQuarnReaderSmFactory(status, quarn);
#else
  (void)status, (void)quarn;
  return nullptr;
#endif
}

// Reviews the tables into `status` in slices paced by `clock`, then sets status->initialized.
// Without the restart state machine, it only sets initialized.
inline Held restart(Kiv::Ptr<Bidir::Status> const& status,
                    Kiv::Ptr<Bidir::Quarn::Status> const& quarn,
                    Kiv::Ptr<Kiv::Clock const> const& clock) {
#ifdef BIDIR_AGENT_HAS_RESTART
  return Bidir::Quarn::groupQuarnRestartSmFactory(status, quarn, KivQuarn::KivQuarnType::writer,
                                                  clock);
#else
  (void)quarn, (void)clock;
  status->initializedIs(true);
  return nullptr;
#endif
}

}  // namespace BidirAgent::Export
