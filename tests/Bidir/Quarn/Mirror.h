#pragma once
// Whether a Status holds exactly what the group tables hold: one Group per group record and one
// GroupIntf per interface record of a present group, every field equal. Interface records whose
// group record is absent are stale and expected nowhere. Answers "" or the first difference.

#include <sstream>
#include <string>

#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"

namespace MirrorTest {

namespace Bidir = Routing::Pim::Bidir;
namespace BQ = Routing::Pim::Bidir::Quarn;

inline BQ::Group recordOf(Bidir::Group const& g) {
  BQ::Group r;
  r.key = g.groupAddr();
  r.creationTime = g.creationTime();
  r.upJoinState = g.upJoinState();
  r.inactive = g.inactive();
  return r;
}

inline BQ::GroupIntf recordOf(Lanx::IpGenAddr const& group, Bidir::GroupIntf const& i) {
  BQ::GroupIntf r;
  r.key = Bidir::GroupIntfKey(group, i.intfId());
  r.forward = i.forward();
  r.joinState = i.joinState();
  r.lastJoinReceived = i.lastJoinReceived();
  r.localReceiverInclude = i.localReceiverInclude();
  r.iAmDf = i.iAmDf();
  return r;
}

inline std::string mismatch(Bidir::Status const& status, BQ::Status const& tables) {
  std::ostringstream os;
  std::size_t intfs = 0, live = 0;
  for (auto const& g : status.groupIter()) {
    if (tables.group(g.groupAddr()) != recordOf(g)) os << recordOf(g) << " not in the table; ";
    for (auto const& i : g.groupIntfIter()) {
      BQ::GroupIntf const r = recordOf(g.groupAddr(), i);
      if (tables.groupIntf(r.key) != r) os << r << " not in the table; ";
      ++intfs;
    }
  }
  for (auto it = tables.groupIntfIterator(); it; ++it) {
    live += tables.group(it.key().groupAddr()) != BQ::Group();
  }
  if (status.groupCount() != tables.groupCount() || intfs != live) {
    os << status.groupCount() << " groups, " << intfs << " interfaces against "
       << tables.groupCount() << " and " << live << " records";
  }
  return os.str();
}

}  // namespace MirrorTest
