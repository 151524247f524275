#pragma once
// GroupQuarnRestartSm: takes a restarted agent's group state back from the tables its previous
// life left in shared memory, before the table writer may touch them.
//
// The review runs in three phases, in slices paced by a clock:
//   1. groups      (`group` table):     get or create each Group, copy the record onto it (one
//      created is filled before its arrival is notified: groupFrom, groupIntfFrom);
//   2. interfaces  (`groupIntf` table): get or create each GroupIntf of a group the agent now
//      holds; a record whose group is gone is stale: removed from the table in the writer role
//      (KivQuarn::KivQuarnType::writer), left in place otherwise, and created nowhere;
//   3. initialise  (`group` table):     mark every reviewed Group initialized.
// Then Status::initialized is set, which lifts the writer's guard; no further slice is asked for.
//
// Slices. `doReview` runs one slice on each clock tick: it sets `reviewStopTime` to now +
// `reviewQuantum` and goes on with the unfinished phase. A phase tests the time only after a
// record it handled (records it passes over never end a slice), so every slice handles at least
// one record: after the first, then after 2, 4, ... and from then on every kTimeCheckEvery
// records (a clock read per record was several percent of the review). When the time is up it
// moves to the next record, keeps that record's key in the one `reviewBookmark` shared by the
// phases (for the group table: the address with the default interface) and asks the clock for a
// tick at `now`, so the activity's other work has its turn first; the next slice resumes at the
// bookmarked record (or where it stood, when it went meanwhile). The walks take the tables in
// slot order: a sequential read of the table's memory, and the records in the order the previous
// life first wrote them, so the interfaces of a group tend to come together and find its
// collections in cache.
// A phase that reaches the end of its table resets the bookmark to the default key and sets its
// flag, so a phase always begins from scratch with the default bookmark. Corruption met while
// walking is reported by the table front and ends that walk.
//
// Trace lines (handle "PimBidir::GroupQuarnRestart") begin with the state machine's text form,
// "GroupQuarnRestart(0x<address>)::", which leaves the line's stream in hexadecimal: numbers
// later on the line (the completion counts) print in hexadecimal without prefix. The suspension
// line and the interface lines show addresses of key copies, not the keys' text.

#include <cstdint>
#include <iosfwd>

#include "Bidir/GroupIntfKey.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Kiv/Attribute.h"
#include "Kiv/Clock.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reactor.h"
#include "KivQuarn/KivQuarnType.h"

namespace Routing::Pim::Bidir::Quarn {

class GroupQuarnRestartSm : public Kiv::StateMachine {
 public:
  static constexpr char const* typeName = "Routing::Pim::Bidir::Quarn::GroupQuarnRestartSm";

  struct Attr {
    enum : Kiv::AttributeId {
      kivFwkActivity = Kiv::kFirstTypeAttributeId,
      status,
      quarnStatus,
      role,
      clock,
      initializedGroups,
      reviewedGroups,
      reviewedGroupIntfs,
      reviewBookmark,
      reviewQuantum,
      reviewStopTime,
      initialized,
    };
  };

  // Runs one slice of the review on each tick while alive.
  class KivClock : public Kiv::Reactor<Kiv::Clock::Notifiee, GroupQuarnRestartSm> {
   public:
    KivClock(Kiv::Clock const* clock, GroupQuarnRestartSm* sm) : Reactor(sm) { notifierIs(clock); }
    void onTime() override;
  };

  // Holds the registration with the table root; it handles no notification.
  class KivQuarnStatus : public Kiv::Reactor<Status::Notifiee, GroupQuarnRestartSm> {
   public:
    KivQuarnStatus(Kiv::Ptr<Status> const& quarnStatus, GroupQuarnRestartSm* sm) : Reactor(sm) {
      notifierIs(quarnStatus);
    }
  };

  GroupQuarnRestartSm(Kiv::Ptr<Bidir::Status> const& status, Kiv::Ptr<Status> const& quarnStatus,
                      KivQuarn::KivQuarnType role, Kiv::Ptr<Kiv::Clock const> const& clock);
  ~GroupQuarnRestartSm() override;

  Kiv::Ptr<Bidir::Status> const& status() const noexcept { return status_; }
  Kiv::Ptr<Status> const& quarnStatus() const noexcept { return quarnStatus_; }
  KivQuarn::KivQuarnType role() const noexcept { return role_; }
  Kiv::Ptr<Kiv::Clock const> const& clock() const noexcept { return clock_; }
  bool initializedGroups() const noexcept { return initializedGroups_; }
  bool reviewedGroups() const noexcept { return reviewedGroups_; }
  bool reviewedGroupIntfs() const noexcept { return reviewedGroupIntfs_; }
  GroupIntfKey const& reviewBookmark() const noexcept { return reviewBookmark_; }
  double reviewQuantum() const noexcept { return reviewQuantum_; }
  void reviewQuantumIs(double seconds) noexcept { reviewQuantum_ = seconds; }
  double reviewStopTime() const noexcept { return reviewStopTime_; }
  bool initialized() const noexcept { return initialized_; }

  // The attribute declaration; attributeString, introspection and the generic attribute
  // operation follow it.
  static constexpr auto attributes() {
    using Kind = Kiv::AttributeKind;
    using S = GroupQuarnRestartSm;
    return std::tuple{
        Kiv::handle("kivFwkActivity", Attr::kivFwkActivity, "Kiv::Activity"),
        Kiv::property<&S::status>("status", Attr::status, "Routing::Pim::Bidir::Status",
                                  Kind::settableReference),
        Kiv::property<&S::quarnStatus>("quarnStatus", Attr::quarnStatus, Status::typeName,
                                       Kind::settableReference),
        Kiv::property<&S::role>("role", Attr::role, "KivQuarn::KivQuarnType"),
        Kiv::property<&S::clock>("clock", Attr::clock, "Kiv::Clock", Kind::settableReference),
        Kiv::property<&S::initializedGroups>("initializedGroups", Attr::initializedGroups, "Bool"),
        Kiv::property<&S::reviewedGroups>("reviewedGroups", Attr::reviewedGroups, "Bool"),
        Kiv::property<&S::reviewedGroupIntfs>("reviewedGroupIntfs", Attr::reviewedGroupIntfs,
                                              "Bool"),
        Kiv::property<&S::reviewBookmark>("reviewBookmark", Attr::reviewBookmark,
                                          GroupIntfKey::typeName),
        Kiv::property<&S::reviewQuantum, &S::reviewQuantumIs>("reviewQuantum",
                                                              Attr::reviewQuantum, "Seconds"),
        Kiv::property<&S::reviewStopTime>("reviewStopTime", Attr::reviewStopTime, "Seconds"),
        Kiv::property<&S::initialized>("initialized", Attr::initialized, "Bool"),
    };
  }
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

  // One slice (see the class comment); only its entry line while not initialized. Without a
  // clock nothing paces the review: the owner calls doReview until Status::initialized.
  void doReview();
  void doReviewGroups();
  void doReviewGroupIntfs();
  void doInitializeGroups();
  // Marks the state machine initialized and asks the clock for a tick at now.
  void handleInitialized();

  Kiv::AttributeTable const& attributeTable() const override;

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  double now() const;
  // Where a walk of the group table begins: the bookmarked group, or the first record.
  Status::GroupIterator groupReviewStart() const;
  // Where the bookmarked record stood when the last slice ended (nothing when the bookmark has
  // changed since): a slice resumes there if that record went meanwhile.
  ::Quarn::IterHint bookmarkHint() const;
  // The common walk of the phases: from the bookmarked record (or the first), `handle(record)`
  // answers whether the record was handled (false: passed over); sets `done` at the end.
  template <class Iterator, class Handle, class BookmarkOf>
  void reviewWalk(Iterator it, Handle const& handle, BookmarkOf const& bookmarkOf, bool& done);

  Kiv::Ptr<Bidir::Status> const status_;
  Kiv::Ptr<Status> const quarnStatus_;
  KivQuarn::KivQuarnType const role_;
  Kiv::Ptr<Kiv::Clock const> const clock_;
  bool initializedGroups_ = false;
  bool reviewedGroups_ = false;
  bool reviewedGroupIntfs_ = false;
  GroupIntfKey reviewBookmark_;
  ::Quarn::IterHint bookmarkHint_;
  GroupIntfKey bookmarkHintOf_;
  static constexpr std::uint32_t kTimeCheckEvery = 64;
  double reviewQuantum_ = 0.1;
  double reviewStopTime_ = 0.0;
  bool initialized_ = false;
  Kiv::ReactorPtr<KivClock> kivClock_{*this};
  Kiv::ReactorPtr<KivQuarnStatus> kivQuarnStatus_{*this};
};

// The text form: "GroupQuarnRestart(0x<address>)::", leaving `os` in hexadecimal.
std::ostream& operator<<(std::ostream& os, GroupQuarnRestartSm const& sm);

// Builds the state machine, runs doReview() (which only traces its entry) and handleInitialized().
Kiv::Ptr<GroupQuarnRestartSm> groupQuarnRestartSmFactory(
    Kiv::Ptr<Bidir::Status> const& status, Kiv::Ptr<Status> const& quarnStatus,
    KivQuarn::KivQuarnType role, Kiv::Ptr<Kiv::Clock const> const& clock);

}  // namespace Routing::Pim::Bidir::Quarn
