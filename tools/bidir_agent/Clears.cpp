// The agent's clear requests (see Agent.h): what a request is, how the agent acts on each once,
// and the record that carries the last one across a SIGKILL.

#include <string>
#include <vector>

#include "Agent.h"
#include "ClearLog.h"

namespace BidirAgent {

// Clear requests. A request is a change of the ClearConfig's request counter groupsCount, its
// groupKey saying what to clear; the agent reacts to the counter, never to a value it already
// knows. The attribute log carries state, not messages: on every (re)connection the configuration
// process sends its whole ClearConfigColl again, so a restarted agent meets the latest request
// again, whether or not its previous life acted on it. The counter is the request's identity:
// the agent acts on a count other than the last one it acted on.
//
// That last count must outlive a SIGKILL, so the agent keeps it in a small record in the run's
// root (ClearLog): "started" with the count and key before it deletes anything, "done" once it
// has. A restarted agent reads the record before it attaches: after "done" the replay of that
// request (same count) is passed over; after "started" the previous life may have been cut off
// halfway, so that request is carried out again first (deleting a group that is already gone does
// nothing) and reported as resumed. Any other count is a request made while the agent was down or
// reconciling, acted on once the review has given back its state. The key of a request
// overwritten before the agent read it is lost (the entity holds one key); the counter tells how
// many were, and they are counted as superseded.
void Agent::clearRequested() {
  Kiv::Ptr<Bidir::ClearConfig const> clear = clearWatcher_->notifier();
  if (!clear) return;
  clearQueue_.push_back({clear->groupsCount(), clear->groupKey(), false});
}

// Called from the driver's loops, never from a notification: a record that cannot be written
// throws from here and ends the run.
void Agent::actOnClears() {
  while (ready_ && !clearQueue_.empty()) {
    ClearRequest const request = clearQueue_.front();
    clearQueue_.pop_front();
    if (request.count == clearedCount_) continue;
    clearLogWrite(request, false);
    Report r = report(Report::clearActed);
    r.clearsSuperseded = std::uint8_t(request.count - clearedCount_ - 1);
    r.clearResumed = request.resumed;
    r.clearCount = request.count;
    r.groups = clearGroups(request.key);
    superseded_ += r.clearsSuperseded;
    ++clearsActed_;
    groupsCleared_ += r.groups;
    send(reportFd_, r);
    clearedCount_ = request.count;
    clearLogWrite(request, true);
  }
}

// Deletes what the key's flags name: every group (clearAll) or the group gAddr (clearGroup).
std::uint32_t Agent::clearGroups(Bidir::ClearConfig::GroupKey const& key) {
  std::vector<std::uint32_t> named;
  if (key.flags().clearAll()) {
    named = present_;
    for (Idle const& e : idle_) named.push_back(e.g);
  } else if (key.flags().clearGroup()) {
    std::uint32_t const g = groupIndex(key.gAddr(), options_.groups);
    if (g < options_.groups && status_->group(addrs_[g])) named.push_back(g);
  }
  for (std::uint32_t g : named) {
    Report r = report(Report::groupCleared);
    r.group = g;  // stamped before the records go: the reader can only see it vanish later
    deleteGroup(g);
    send(reportFd_, r);
  }
  return std::uint32_t(named.size());
}

// Before the configuration channel opens: after "done" the previous life finished the request it
// names; after "started" it may have been cut off halfway, so the request is carried out again.
// A first start reserves the record's space now, while the file system has it.
void Agent::clearLogRead() {
  ClearLog const log(clearLogPath());
  std::optional<ClearLog::Entry> const entry = log.read();
  if (!entry) {  // a first start: nothing acted on, the count is the initial 0
    log.reserve();
    return;
  }
  clearedCount_ = std::uint8_t(entry->done ? entry->count : entry->count - 1);
  if (!entry->done) clearQueue_.push_back({entry->count, entry->key, true});
}

void Agent::clearLogWrite(ClearRequest const& request, bool done) const {
  ClearLog(clearLogPath()).write({request.count, done, request.key});
}

}  // namespace BidirAgent
