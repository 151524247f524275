#pragma once
// `watch`: follows one table and prints one line per net change of a key: `add` and `change`
// with the new value, `remove` with the key alone.
//
// The table is mounted passively in mode "keyshadow" (Quarn::QuarnMap::passiveIs): the writer
// does not see this reader, and nothing under the root is written. The key shadow reports every
// key whose slot changed, and every key a remount adds or drops; the watcher keeps the last value
// it printed for each key and prints only what differs from it, so a rewrite of the same value,
// a re-read after the queue was pruned past this reader, or a remount onto the same records
// print nothing. What it holds when it first attaches is the starting point, not a change.
//
// Lines of their own: `attached` (first mount), `remount` (a new incarnation of the table),
// `detached` (the mount was lost, with the reason), `writer` (the writer process named by
// "last-owner" changed or ended). Runs until SIGINT or SIGTERM, then flushes and exits 0, or
// until its standard output is closed.

#include <csignal>
#include <cstring>
#include <ctime>
#include <string>
#include <unordered_map>

#include "Cli.h"
#include "Json.h"
#include "Kiv/Activity.h"
#include "Quarn/QuarnMap.h"
#include "Records.h"
#include "Tables.h"

namespace Quarnctl {

// Stops the activity on SIGINT and SIGTERM; `stopRequested()` tells the loop.
void installStopHandlers(Kiv::Activity& activity);
bool stopRequested() noexcept;
// Wall-clock time: seconds since the epoch, and "HH:MM:SS.mmm" local time.
double wallTime() noexcept;
std::string clockText(double wall);

// The lines of a watch that are not changes of a key, written once.
class WatchLines {
 public:
  WatchLines(Context& ctx, std::string table) : ctx_(ctx), table_(std::move(table)) {}

  void attached(std::uint32_t fenix, std::size_t records);
  void remount(std::uint32_t from, std::uint32_t to);
  void detached(std::string const& reason);
  void writer(std::uint32_t pid, bool alive);
  // A change of a key; `value` is null for a removal.
  void change(char const* event, RecordKind const& kind, void const* key, void const* value);
  // Looks at the writer process and prints a line when it changed.
  void checkWriter(std::string const& dir);

 private:
  Json::Writer begin(char const* event);
  void end(Json::Writer& w);

  Context& ctx_;
  std::string table_;
  std::uint32_t writerPid_ = 0;
  bool writerAlive_ = false;
  bool writerKnown_ = false;
};

template <class Key, class Wrapper>
class TableWatch final : public Quarn::KeyNotifier<Key> {
 public:
  TableWatch(Context& ctx, RecordKind const& kind, std::string const& name)
      : ctx_(ctx),
        kind_(kind),
        dir_(ctx.root + "/" + name),
        lines_(ctx, name),
        map_(name, this, ctx.root, Kiv::Activity::current()) {
    map_.passiveIs(kPoll);
    map_.remountIntervalIs(kRemount);
  }

  int run() {
    Kiv::Activity& activity = Kiv::Activity::current();
    installStopHandlers(activity);
    map_.init(Quarn::QuarnType::keyshadow, false, 0);
    while (!stopRequested() && !ctx_.out.broken()) {
      activity.runOnce(kPoll);
      noteMount();
      lines_.checkWriter(dir_);
      ctx_.out.flush();
    }
    ctx_.out.flush();
    return exitOk;
  }

  void onKey(Key const& key) override {
    if (started_) noteMount();  // a remount's line comes before the keys it reports
    bool found = false;
    Wrapper const now = map_.safeLookup(key, found);
    auto const it = values_.find(key);
    if (found) {
      if (it == values_.end()) {
        values_.emplace(key, now);
        if (started_) lines_.change("add", kind_, &now, &now);
      } else if (std::memcmp(&it->second, &now, sizeof now) != 0) {
        it->second = now;
        if (started_) lines_.change("change", kind_, &now, &now);
      }
    } else if (it != values_.end()) {
      Wrapper const gone = it->second;
      values_.erase(it);
      if (started_) lines_.change("remove", kind_, &gone, nullptr);
    }
  }

 private:
  static constexpr double kPoll = 0.05;    // seconds between two looks at the queue
  static constexpr double kRemount = 1.0;  // seconds between two mount attempts while waiting

  struct KeyHash {
    std::size_t operator()(Key const& k) const noexcept { return k.hash(); }
  };
  struct KeyEqual {
    bool operator()(Key const& a, Key const& b) const noexcept { return !(a < b) && !(b < a); }
  };

  // Prints the mount's changes of state. A first mount's whole pass runs inside one turn of the
  // activity, so its keys are all recorded (silently) before the loop prints `attached`.
  void noteMount() {
    std::uint32_t const fenix = map_.fullyAttached() ? map_.fenixId() : 0;
    if (fenix == fenix_) return;
    if (fenix == 0) {
      auto const why = tableProblem(ctx_.root, readTableInfo(ctx_.root, map_.quarnName()));
      lines_.detached(why ? *why : "waiting for the writer's next incarnation");
    } else if (!started_) {
      started_ = true;
      lines_.attached(fenix, values_.size());
    } else {
      lines_.remount(lastFenix_, fenix);
    }
    if (fenix != 0) lastFenix_ = fenix;
    fenix_ = fenix;
  }

  Context& ctx_;
  RecordKind const& kind_;
  std::string dir_;
  WatchLines lines_;
  std::unordered_map<Key, Wrapper, KeyHash, KeyEqual> values_;  // last printed value per key
  std::uint32_t fenix_ = 0;      // of the mount as last seen, 0 while not attached
  std::uint32_t lastFenix_ = 0;  // of the last mount seen
  bool started_ = false;         // the first mount is complete: changes are printed from now on
  Quarn::QuarnMap<Key, Wrapper, Quarn::KeyNotifier<Key>> map_;  // last: it calls onKey
};

}  // namespace Quarnctl
