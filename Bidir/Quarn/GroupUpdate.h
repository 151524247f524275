#pragma once
// The reverse copy of the group state export: a table record's non-key fields onto the agent's
// entity. `doUpdateGroup` and `doUpdateGroupIntf` serve the table reader, one record at a time:
// each call is one block of the fast trace facility ("doUpdateGroup", "doUpdateGroupIntf"), so
// their cost is visible per process.
//
// Setters run in a fixed order (group: creationTime, upJoinState, inactive; interface: forward,
// joinState, lastJoinReceived, localReceiverInclude, iAmDf) and notify only on change. Keys are not
// copied: the entity already has its key. A null entity makes the call do nothing.
//
// `groupFrom` and `groupIntfFrom` serve a bulk copy (the restart review) and are not timed per
// call: get or create the entity of the record's key, with the record's state. One that
// is created is filled before its arrival is notified, so its watchers meet it whole and none of
// its attribute changes is walked; an existing one is updated as by doUpdateGroup(Intf).

#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"
#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Bidir/Status.h"
#include "Kiv/Ptr.h"

namespace Routing::Pim::Bidir::Quarn {

void doUpdateGroup(Kiv::Ptr<Bidir::Group> const& group, Group const& record);
void doUpdateGroupIntf(Kiv::Ptr<Bidir::GroupIntf> const& groupIntf, GroupIntf const& record);
Kiv::Ptr<Bidir::Group> groupFrom(Bidir::Status& status, Group const& record);
Kiv::Ptr<Bidir::GroupIntf> groupIntfFrom(Bidir::Group& group, GroupIntf const& record);

}  // namespace Routing::Pim::Bidir::Quarn
