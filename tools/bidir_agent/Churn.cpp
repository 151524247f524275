// The agent's churn (see Agent.h), paced on the changes that reach the tables.
//
// Per group interface: joins (to the DF of the link: joinState joined, lastJoinReceived stamped,
// which is what the reader's lag is measured on), prunes (joined -> prunePending), the
// prune-pending timer expiring (-> noInfo), joins expiring after the hold time, local receivers
// coming and going (localReceiverInclude), `forward` following oList(); per group: the upstream
// state following joinDesired(), `inactive` flapping, groups going away and coming back, late
// groups arriving (the first life only: the tables grow meanwhile); per RP:
// a DF election moving (an RPA-RPF record whose RPF interface changes), which moves iAmDf on two
// interfaces of every group of that RP.

#include <algorithm>

#include "Agent.h"
#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"

namespace BidirAgent {

namespace {

constexpr double kJoinHoldSeconds = 8;  // a join not refreshed for this long expires
// Groups go and come back alternately, one step every kGroupChurnEvery. A creation takes the
// table slots that the last removals freed (the writer reuses them at once), so a reader that
// falls behind meets slots holding another key than the one it last saw there: the reader must
// keep keys to report the removal.
constexpr double kGroupChurnEvery = 0.25;

}  // namespace

// Paced on the exported changes: each round issues events until the changes due by now have
// reached the tables, then lets the activity run (readers' wake-up channel, the DF table).
void Agent::churn() {
  double const start = now();
  holdBase_ = start;
  std::uint64_t const base = exported_->changes;
  double nextReport = start;
  nextGroupChurn_ = start + kGroupChurnEvery;
  arrivalsBegin_ = start;
  if (options_.lateGroups > 0) arriveEvery_ = options_.restartAt / 2 / options_.lateGroups;
  while (!stopReceived_) {
    double const t = now();
    auto const due = std::uint64_t((t - start) * options_.rate);
    std::uint64_t const target = std::min(due, exported_->changes - base + 256);
    for (int guard = 0; exported_->changes - base < target && guard < 4096; ++guard) event();
    expire(t);
    sweepJoins(t);
    groupChurn(t);
    arrive(t);
    expireGroups(t);
    upstream();
    turn(exported_->changes - base >= due ? 0.0002 : 0);
    if (t >= nextReport) {
      Report r = report(Report::progress);
      send(reportFd_, r);
      nextReport = t + 0.25;
    }
  }
}

void Agent::event() {
  if (present_.empty()) return;
  std::uint32_t const g = present_[rng_() % present_.size()];
  std::uint32_t const j = std::uint32_t(rng_() % options_.intfs);
  Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
  Kiv::Ptr<Bidir::GroupIntf> intf = group->groupIntf(intfIds_[j]);
  if (!intf) return;
  unsigned const kind = unsigned(rng_() % 100);
  if (kind < 55) {
    // A join reaches only the DF of the link.
    if (!intf->iAmDf()) return;
    intf->joinStateIs(Bidir::GroupIntf::joined);
    intf->lastJoinReceivedIs(now());
  } else if (kind < 77) {
    if (intf->joinState() != Bidir::GroupIntf::joined) return;
    intf->joinStateIs(Bidir::GroupIntf::prunePending);
    prunes_.push_back({now() + kPrunePendingSeconds, g, j});
  } else if (kind < 97) {
    intf->localReceiverIncludeIs(!intf->localReceiverInclude());
  } else {
    group->inactiveIs(!group->inactive());
    return;
  }
  forwardFollows(*intf);
  touched(g);
}

// The prune-pending timers that ran out: the prune takes effect.
void Agent::expire(double t) {
  while (!prunes_.empty() && prunes_.front().due <= t) {
    Pending const p = prunes_.front();
    prunes_.pop_front();
    Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[p.g]);
    Kiv::Ptr<Bidir::GroupIntf> intf = group ? group->groupIntf(intfIds_[p.j]) : nullptr;
    if (!intf || intf->joinState() != Bidir::GroupIntf::prunePending) continue;
    intf->joinStateIs(Bidir::GroupIntf::noInfo);
    forwardFollows(*intf);
    touched(p.g);
  }
}

// Joins not refreshed within the hold time expire; a few groups are swept each round, so every
// group is visited about once a second. Only joins heard since the churn began are timed: the
// joins the build (or the previous life) left would otherwise all expire in one burst, which the
// pacing would pay for with the churn itself.
void Agent::sweepJoins(double t) {
  auto const perRound = std::max<std::uint32_t>(1, options_.groups / 2000);
  for (std::uint32_t n = 0; n < perRound; ++n) {
    std::uint32_t const g = sweepCursor_++ % options_.groups;
    Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
    if (!group) continue;
    for (auto& intf : group->groupIntfIter()) {
      if (intf.joinState() == Bidir::GroupIntf::joined && intf.lastJoinReceived() >= holdBase_ &&
          intf.lastJoinReceived() + kJoinHoldSeconds < t) {
        intf.joinStateIs(Bidir::GroupIntf::noInfo);
        forwardFollows(intf);
        touched(g);
      }
    }
  }
}

// Groups go away (every interface pruned, the entry removed once the group expiry interval has
// passed) and come back later, the one absent longest first.
void Agent::groupChurn(double t) {
  if (t < nextGroupChurn_) return;
  nextGroupChurn_ = t + kGroupChurnEvery;
  nextGroupGoes_ = !nextGroupGoes_;
  if (!nextGroupGoes_ && present_.size() > 1) {
    idle(present_[rng_() % present_.size()], t);
  } else if (!absent_.empty()) {
    std::uint32_t const g = absent_.front();
    absent_.erase(absent_.begin());
    createGroup(g);
    present_.push_back(g);
  }
}

// The late groups of a first life arrive one every arriveEvery_, while absent groups remain:
// the record count rises past what the tables held so far, and they grow.
void Agent::arrive(double t) {
  while (!restarted_ && arrived_ < options_.lateGroups && !absent_.empty() &&
         arrivalsBegin_ + arrived_ * arriveEvery_ <= t) {
    std::uint32_t const g = absent_.front();
    absent_.erase(absent_.begin());
    createGroup(g);
    present_.push_back(g);
    ++arrived_;
  }
}

// The group loses its last join and receiver: nothing to forward, it waits to expire.
void Agent::idle(std::uint32_t g, double t) {
  auto const it = std::find(present_.begin(), present_.end(), g);
  if (it == present_.end()) return;
  *it = present_.back();
  present_.pop_back();
  Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
  for (auto& intf : group->groupIntfIter()) {
    intf.joinStateIs(Bidir::GroupIntf::noInfo);
    intf.localReceiverIncludeIs(false);
    forwardFollows(intf);
  }
  touched(g);
  idle_.push_back({t, g});
}

// Idle groups kept for the group expiry interval are removed; the interval in force now applies
// to every waiting group (a shorter one lets them go at once).
void Agent::expireGroups(double t) {
  while (!idle_.empty() && idle_.front().since + expirySeconds() <= t) {
    deleteGroup(idle_.front().g);
  }
}

// Removes the group's entry (the writer removes its records) wherever the driver holds it.
void Agent::deleteGroup(std::uint32_t g) {
  if (auto const it = std::find(present_.begin(), present_.end(), g); it != present_.end()) {
    *it = present_.back();
    present_.pop_back();
  } else {
    auto const i =
        std::find_if(idle_.begin(), idle_.end(), [g](Idle const& e) { return e.g == g; });
    if (i == idle_.end()) return;
    idle_.erase(i);
  }
  status_->groupDel(addrs_[g]);
  absent_.push_back(g);
}

// A DF election moved: the interface toward an RPA changed. This router stops being the DF on
// the new RPF interface and becomes the DF on the old one, for every group of that RP.
void Agent::applyDfMoves() {
  if (!dfMoved_) return;
  dfMoved_ = false;
  for (std::uint32_t r = 0; r < options_.rps; ++r) dfApply(r, publishedRpf(r));
}

void Agent::dfApply(std::uint32_t r, std::uint16_t rpf) {
  std::uint16_t const old = rpf_[r];
  if (old == rpf) return;
  rpf_[r] = rpf;
  ++dfMoves_;
  for (std::uint32_t g = r; g < options_.groups; g += options_.rps) {  // present or idle
    Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
    if (!group) continue;
    for (std::uint16_t k : {old, rpf}) {
      if (k == 0) continue;
      if (Kiv::Ptr<Bidir::GroupIntf> intf = group->groupIntf(intfIds_[k - 1u])) {
        intf->iAmDfIs(isDf(g, k - 1u));
        forwardFollows(*intf);
      }
    }
    touched(g);
  }
}

}  // namespace BidirAgent
