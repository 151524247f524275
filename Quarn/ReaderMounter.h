#pragma once
// Keeps a reading table front mounted on the writer's current incarnation.
//
// Every event of the root directory's MounterSm (a file name, "root-watched", "root-removed"),
// every remount timer expiry ("remount timeout") and every explicit disconnect goes through
// `notify`, which compares the fenix id in the "fenix" file with the incarnation the table is
// mounted on:
// - same id (not 0) and mounted: nothing to do, except to let the wake-up channel reconnect at
//   once (a writer that restarted on the same files keeps its id); a back end that is still not
//   fully attached when the remount timer expires is mounted afresh;
// - the fenix file damaged or missing while the table's files are there: a fully attached table
//   stays mounted (the writer writes the file again, see WriterMounter), said once at error
//   level;
// - otherwise: remount (drop the mounted back end, if any, and attach again).
// Reports of corruption ("corruption-detected", and the temporary files a report is written
// through) are the writer's business and only re-check the timer.
//
// Retries never run inside the event that caused them. While the table is not fully attached
// the remount timer is armed: 10 ms after a failed mount, the delay doubling with each failure
// up to 1 s (or the remount interval when that is shorter). Events in between do not mount:
// a mount that fails may itself cause events (its corruption report is a file in the root
// directory), and mounting on each of them would never give the activity back. Only a fenix
// file naming another incarnation than the one that failed mounts at once. The first expiry in
// a row logs that retrying has started; a mount that succeeds after expiries logs the CANARY
// line and resets their count.
//
// Why it waits. While not fully attached, `waitReason()` says why in words (no root directory,
// no table, no fenix file and whether the last writer is gone, permission denied, or the back
// end's own refusal such as a record of another size). A reason is traced once at error level
// when it has held for the longest retry delay (a writer that is just creating its files is not
// an error), and again only when it changes.
//
// Everything runs on the activity's thread; nothing polls.

#include <cstdint>
#include <memory>
#include <string>

#include "Jorv/Platform.h"
#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "Quarn/MounterSm.h"

namespace Quarn {

class ReaderMounter {
 public:
  static constexpr double defaultRemountInterval = 60.0;            // seconds
  static constexpr double firstRetry = 0.01;                        // after a failed mount
  static constexpr double longestRetry = 1.0;                       // the doubling stops here
  static constexpr char const* remountTimeout = "remount timeout";  // the timer's event

  // The table front as the mounter sees it.
  class Table {
   public:
    virtual ~Table() = default;
    virtual bool notifyingOn() const = 0;
    // The fenix id of the mounted back end; 0 when none.
    virtual std::uint32_t mountedFenix() const = 0;
    // A back end other than the placeholder is installed.
    virtual bool mounted() const = 0;
    virtual bool fullyAttached() const = 0;
    // Drops the mounted back end, if any, and attaches afresh.
    virtual void remount() = 0;
    // Lets the mounted back end's wake-up channel try to connect now.
    virtual void wake() = 0;
    // Why the last attach failed, as its back end said; empty when it did not fail.
    virtual std::string attachFailure() const = 0;
  };

  // Raises Jorv::Exception when the root directory cannot be watched. Arms the remount timer
  // at once: an absent root directory produces no event until it appears.
  ReaderMounter(Jorv::DebugHandler& dh, std::string name, std::string rootPath,
                std::string modeWord, Table& table, double remountInterval,
                Kiv::Activity& activity);

  void notify(std::string const& eventName);
  void timeout();
  // The mounted back end lost its writer: drop it and mount again when possible.
  void handleDisconnect();

  std::uint32_t remountTimeouts() const noexcept { return timeouts_; }
  std::uint64_t events() const noexcept { return events_; }
  bool remountArmed() const noexcept { return timer_.armed(); }
  // How many times the table was mounted afresh (attempts, successful or not).
  std::uint64_t attempts() const noexcept { return attempts_; }
  // Why the table is not fully attached; empty while it is.
  std::string const& waitReason() const noexcept { return reason_; }

 private:
  void attempt(std::uint32_t fenix);
  // Ends a wait once fully attached; otherwise records why it goes on and makes sure the timer
  // runs.
  void settle(std::uint32_t fenix);
  double longest() const noexcept { return interval_ < longestRetry ? interval_ : longestRetry; }

  Jorv::DebugHandler& dh_;
  std::string name_;
  std::string rootPath_;
  std::string modeWord_;
  Table& table_;
  double interval_;
  std::uint64_t events_ = 0;
  std::uint64_t attempts_ = 0;
  std::uint32_t timeouts_ = 0;
  double delay_ = firstRetry;      // of the next retry while mounts fail
  bool failing_ = false;           // the last mount failed ...
  std::uint32_t failedFenix_ = 0;  // ... for the incarnation the fenix file named then
  std::string reason_;
  double reasonSince_ = 0;
  std::string said_;       // the reason last traced at error level
  bool keptSaid_ = false;  // "staying mounted" was said for the current damage
  Kiv::Timer timer_;
  std::unique_ptr<MounterSm> sm_;  // last: its handler uses everything above
};

// What keeps the table under `rootPath` (named `name`) from being mounted, judged from its
// files alone: no root directory, no table directory, no fenix file (with whether its last
// writer is gone), or permission denied. Empty when the files look mountable. `fenix` is the
// id the fenix file holds (0: missing or malformed).
std::string mountObstacle(std::string const& name, std::string const& rootPath,
                          std::uint32_t fenix);

}  // namespace Quarn
