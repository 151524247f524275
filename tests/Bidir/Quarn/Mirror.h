#pragma once
// Whether a Status holds exactly what the group tables hold: one Group per group record and one
// GroupIntf per interface record of a present group, every field equal. Interface records whose
// group record is absent are stale and expected nowhere. Answers "" or the first difference, so a
// child process can report it too.

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
  std::size_t groupIntfs = 0;
  for (auto const& g : status.groupIter()) {
    if (tables.group(g.groupAddr()) != recordOf(g)) {
      os << "group " << g.groupAddr() << ": " << recordOf(g) << " vs " << tables.group(g.groupAddr());
      return os.str();
    }
    for (auto const& i : g.groupIntfIter()) {
      BQ::GroupIntf const local = recordOf(g.groupAddr(), i);
      if (tables.groupIntf(local.key) != local) {
        os << "intf " << local.key << ": " << local << " vs " << tables.groupIntf(local.key);
        return os.str();
      }
      ++groupIntfs;
    }
  }
  if (status.groupCount() != tables.groupCount()) {
    os << status.groupCount() << " groups vs " << tables.groupCount() << " records";
    return os.str();
  }
  std::size_t live = 0;
  for (auto it = tables.groupIntfIterator(); it; ++it) {
    live += tables.group(it.key().groupAddr()) != BQ::Group();
  }
  if (groupIntfs != live) {
    os << groupIntfs << " interfaces vs " << live << " records";
    return os.str();
  }
  return {};
}

}  // namespace MirrorTest
