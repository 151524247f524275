#pragma once
// The reverse copy of the group state export: a table record's non-key fields onto the agent's
// entity. Used by the table reader and the restart review; each call is one block of the fast
// trace facility ("doUpdateGroup", "doUpdateGroupIntf"), so their cost is visible per process.
//
// Setters run in a fixed order (group: creationTime, upJoinState, inactive; interface: forward,
// joinState, lastJoinReceived, localReceiverInclude, iAmDf) and notify only on change. Keys are not
// copied: the entity already has its key. A null entity makes the call do nothing.

#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"
#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Kiv/Ptr.h"

namespace Routing::Pim::Bidir::Quarn {

void doUpdateGroup(Kiv::Ptr<Bidir::Group> const& group, Group const& record);
void doUpdateGroupIntf(Kiv::Ptr<Bidir::GroupIntf> const& groupIntf, GroupIntf const& record);

}  // namespace Routing::Pim::Bidir::Quarn
