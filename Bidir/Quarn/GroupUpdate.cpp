#include "Bidir/Quarn/GroupUpdate.h"

#include "Vesp/BlockTimer.h"

namespace Routing::Pim::Bidir::Quarn {

void doUpdateGroup(Kiv::Ptr<Bidir::Group> const& group, Group const& record) {
  VESP_BLOCK("doUpdateGroup");
  if (!group) return;
  // The setters take a reference: packed doubles are copied out first (they may be misaligned).
  group->creationTimeIs(double(record.creationTime));
  group->upJoinStateIs(record.upJoinState);
  group->inactiveIs(record.inactive);
}

void doUpdateGroupIntf(Kiv::Ptr<Bidir::GroupIntf> const& groupIntf, GroupIntf const& record) {
  VESP_BLOCK("doUpdateGroupIntf");
  if (!groupIntf) return;
  groupIntf->forwardIs(record.forward);
  groupIntf->joinStateIs(record.joinState);
  groupIntf->lastJoinReceivedIs(double(record.lastJoinReceived));
  groupIntf->localReceiverIncludeIs(record.localReceiverInclude);
  groupIntf->iAmDfIs(record.iAmDf);
}

}  // namespace Routing::Pim::Bidir::Quarn
