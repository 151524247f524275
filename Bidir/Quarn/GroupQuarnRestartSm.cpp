#include "Bidir/Quarn/GroupQuarnRestartSm.h"

#include <algorithm>
#include <cstdint>
#include <ostream>

#include "Bidir/Quarn/GroupUpdate.h"
#include "Kiv/GenericAttribute.h"
#include "Jorv/Trace.h"

namespace Routing::Pim::Bidir::Quarn {

namespace {

constexpr auto kAttributes = Kiv::declarations(GroupQuarnRestartSm::attributes());
constexpr Kiv::AttributeTable kTable{GroupQuarnRestartSm::typeName, kAttributes,
                                     &Kiv::kEntityAttributeTable};

Jorv::TraceHandle& th() {
  static Jorv::TraceHandle& handle = Jorv::traceHandle("PimBidir::GroupQuarnRestart");
  return handle;
}

#define RESTART_TRACE(level, ...) KIV_TRACE(th(), level, *this, __VA_ARGS__)

GroupIntfKey bookmarkOfGroup(Lanx::IpGenAddr const& address) {
  return GroupIntfKey(address, Lanx::IntfId());
}

}  // namespace

std::ostream& operator<<(std::ostream& os, GroupQuarnRestartSm const& sm) {
  // The hexadecimal state is left on: later numbers of the same line print in hexadecimal.
  return os << "GroupQuarnRestart(0x" << std::hex << reinterpret_cast<std::uintptr_t>(&sm)
            << ")::";
}

// ---- reactors

void GroupQuarnRestartSm::KivClock::onTime() {
  if (!kivAlive()) return;
  Kiv::liveRef(owner())->doReview();
}

// ---- state machine

GroupQuarnRestartSm::GroupQuarnRestartSm(Kiv::Ptr<Bidir::Status> const& status,
                                         Kiv::Ptr<Status> const& quarnStatus,
                                         KivQuarn::KivQuarnType role,
                                         Kiv::Ptr<Kiv::Clock const> const& clock)
    : Kiv::StateMachine("GroupQuarnRestartSm"),
      status_(status),
      quarnStatus_(quarnStatus),
      role_(role),
      clock_(clock) {
  if (clock_) kivClock_.reactorIs(Kiv::newPtr<KivClock>(clock_.ptr(), this));
  if (quarnStatus_) kivQuarnStatus_.reactorIs(Kiv::newPtr<KivQuarnStatus>(quarnStatus_, this));
}

GroupQuarnRestartSm::~GroupQuarnRestartSm() {
  kivDoZombieReactors(true);
}

Kiv::AttributeTable const& GroupQuarnRestartSm::attributeTable() const {
  return kTable;
}

Kiv::Value GroupQuarnRestartSm::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

double GroupQuarnRestartSm::now() const {
  return clock_ ? clock_->now() : Kiv::Activity::now();
}

void GroupQuarnRestartSm::doReview() {
  RESTART_TRACE(8, "doReview");
  if (!initialized_ || !status_) return;
  RESTART_TRACE(3, "doReview(), Reviewing groups");
  reviewStopTime_ = now() + reviewQuantum_;
  doReviewGroups();
  if (reviewedGroups_) doReviewGroupIntfs();
  if (reviewedGroupIntfs_) doInitializeGroups();
  if (initializedGroups_) {
    RESTART_TRACE(3, "doReview(), Quarn groups: ", quarnStatus_ ? quarnStatus_->groupCount() : 0,
                  ", Status groups: ", status_->groupCount());
    status_->initializedIs(true);
    return;
  }
  GroupIntfKey const bookmark = reviewBookmark_;
  RESTART_TRACE(3, "doReview(), Suspending review at ", static_cast<void const*>(&bookmark));
  if (clock_) clock_->timeMinIs(now());
}

template <class Iterator, class Handle, class BookmarkOf>
void GroupQuarnRestartSm::reviewWalk(Iterator it, Handle const& handle,
                                     BookmarkOf const& bookmarkOf, bool& done) {
  // The clock is read after the first record handled, then after 2, 4, ... up to every
  // kTimeCheckEvery records: a slice overruns its quantum by at most that many records, and a
  // zero quantum still ends each slice after one.
  std::uint32_t untilCheck = 1, checkEvery = 1;
  // The table front reports corruption met while advancing and ends the walk there.
  while (it) {
    bool const handled = handle(*it);
    ++it;
    if (!handled || !it || --untilCheck != 0) continue;
    if (now() >= reviewStopTime_) {
      reviewBookmark_ = bookmarkOf(it.key());
      bookmarkHint_ = it.hint();
      bookmarkHintOf_ = reviewBookmark_;
      return;
    }
    checkEvery = std::min(2 * checkEvery, kTimeCheckEvery);
    untilCheck = checkEvery;
  }
  reviewBookmark_ = GroupIntfKey();
  bookmarkHint_ = ::Quarn::IterHint();
  bookmarkHintOf_ = GroupIntfKey();
  done = true;
}

::Quarn::IterHint GroupQuarnRestartSm::bookmarkHint() const {
  return bookmarkHintOf_ == reviewBookmark_ ? bookmarkHint_ : ::Quarn::IterHint();
}

Status::GroupIterator GroupQuarnRestartSm::groupReviewStart() const {
  if (!quarnStatus_) return {};
  return !reviewBookmark_
             ? quarnStatus_->groupSlotIterator()
             : quarnStatus_->groupSlotIterator(reviewBookmark_.groupAddr(), bookmarkHint());
}

void GroupQuarnRestartSm::doReviewGroups() {
  RESTART_TRACE(8, "doReviewGroups");
  if (reviewedGroups_) return;
  reviewWalk(
      groupReviewStart(),
      [this](Group const& record) {
        groupFrom(*status_, record);
        RESTART_TRACE(4, "doReviewGroups(), Updated group ", record.key);
        return true;
      },
      bookmarkOfGroup, reviewedGroups_);
}

void GroupQuarnRestartSm::doReviewGroupIntfs() {
  RESTART_TRACE(8, "doReviewGroupIntfs");
  if (reviewedGroupIntfs_) return;
  Status::GroupIntfIterator start;
  if (quarnStatus_) {
    start = !reviewBookmark_
                ? quarnStatus_->groupIntfSlotIterator()
                : quarnStatus_->groupIntfSlotIterator(reviewBookmark_, bookmarkHint());
  }
  // Interface records of one group mostly come together in slot order: the last record's group
  // serves while it is still the Status's group of that address.
  Kiv::Ptr<Bidir::Group> group;
  reviewWalk(
      start,
      [this, &group](GroupIntf const& record) {
        if (!group || group->parent() != status_.ptr() ||
            group->groupAddr() != record.key.groupAddr()) {
          group = status_->group(record.key.groupAddr());
        }
        if (!group) {
          // Stale: its group went before its interface records did. Only the writer removes it.
          if (role_ == KivQuarn::KivQuarnType::writer) quarnStatus_->groupIntfDel(record.key);
          return false;
        }
        RESTART_TRACE(6, "doReviewGroupIntfs", static_cast<void const*>(&record.key),
                      ", Updating intf in quarn");
        groupIntfFrom(*group, record);
        return true;
      },
      [](GroupIntfKey const& key) { return key; }, reviewedGroupIntfs_);
}

void GroupQuarnRestartSm::doInitializeGroups() {
  RESTART_TRACE(8, "doInitializeGroups");
  if (initializedGroups_) return;
  reviewWalk(
      groupReviewStart(),
      [this](Group const& record) {
        Kiv::Ptr<Bidir::Group> const group = status_->group(record.key);
        if (!group) return false;
        RESTART_TRACE(4, "doInitializeGroups(), Initializing group ", record.key);
        group->initializedIs(true);
        return true;
      },
      bookmarkOfGroup, initializedGroups_);
}

void GroupQuarnRestartSm::handleInitialized() {
  RESTART_TRACE(8, "handleInitialized");
  initialized_ = true;
  if (clock_) clock_->timeMinIs(now());
}

Kiv::Ptr<GroupQuarnRestartSm> groupQuarnRestartSmFactory(Kiv::Ptr<Bidir::Status> const& status,
                                                         Kiv::Ptr<Status> const& quarnStatus,
                                                         KivQuarn::KivQuarnType role,
                                                         Kiv::Ptr<Kiv::Clock const> const& clock) {
  Kiv::Ptr<GroupQuarnRestartSm> const sm =
      Kiv::newPtr<GroupQuarnRestartSm>(status, quarnStatus, role, clock);
  sm->doReview();
  sm->handleInitialized();
  return sm;
}

}  // namespace Routing::Pim::Bidir::Quarn
