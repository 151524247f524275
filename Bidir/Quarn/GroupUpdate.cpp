#include "Bidir/Quarn/GroupUpdate.h"

#include "Vesp/BlockTimer.h"

namespace Routing::Pim::Bidir::Quarn {

namespace {

void copyOnto(Bidir::Group& group, Group const& record) {
  // The setters take a reference: packed doubles are copied out first (they may be misaligned).
  group.creationTimeIs(double(record.creationTime));
  group.upJoinStateIs(record.upJoinState);
  group.inactiveIs(record.inactive);
}

void copyOnto(Bidir::GroupIntf& groupIntf, GroupIntf const& record) {
  groupIntf.forwardIs(record.forward);
  groupIntf.joinStateIs(record.joinState);
  groupIntf.lastJoinReceivedIs(double(record.lastJoinReceived));
  groupIntf.localReceiverIncludeIs(record.localReceiverInclude);
  groupIntf.iAmDfIs(record.iAmDf);
}

}  // namespace

void doUpdateGroup(Kiv::Ptr<Bidir::Group> const& group, Group const& record) {
  VESP_BLOCK("doUpdateGroup");
  if (group) copyOnto(*group, record);
}

void doUpdateGroupIntf(Kiv::Ptr<Bidir::GroupIntf> const& groupIntf, GroupIntf const& record) {
  VESP_BLOCK("doUpdateGroupIntf");
  if (groupIntf) copyOnto(*groupIntf, record);
}

Kiv::Ptr<Bidir::Group> groupFrom(Bidir::Status& status, Group const& record) {
  Lanx::IpGenAddr const key = record.key;
  if (Kiv::Ptr<Bidir::Group> existing = status.group(key)) {
    copyOnto(*existing, record);
    return existing;
  }
  // In the collection but not yet announced: nobody watches it while it is filled.
  Kiv::Ptr<Bidir::Group> const created = status.newGroup(key);
  copyOnto(*created, record);
  status.groupNotify(key);
  return created;
}

Kiv::Ptr<Bidir::GroupIntf> groupIntfFrom(Bidir::Group& group, GroupIntf const& record) {
  Lanx::IntfId const intfId = record.key.intfId();
  if (Kiv::Ptr<Bidir::GroupIntf> existing = group.groupIntf(intfId)) {
    copyOnto(*existing, record);
    return existing;
  }
  Kiv::Ptr<Bidir::GroupIntf> const created = group.newGroupIntf(intfId);
  copyOnto(*created, record);
  group.groupIntfNotify(intfId);
  return created;
}

}  // namespace Routing::Pim::Bidir::Quarn
