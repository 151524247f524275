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
// - the fenix file damaged or missing while the table's files are there: an error trace; a
//   fully attached table stays mounted (the writer writes the file again, see WriterMounter);
// - otherwise: remount (drop the mounted back end, if any, and attach again).
// While the table is not fully attached afterwards, the remount timer is armed (60 s by
// default); the first expiry in a row logs that retrying has started, and a mount that succeeds
// after expiries logs the CANARY line and resets their count. "corruption-detected" events only
// re-check the timer: the report is the writer's business.
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

 private:
  // Cancels the timer once fully attached, else makes sure it runs.
  void settle();

  Jorv::DebugHandler& dh_;
  std::string name_;
  std::string rootPath_;
  std::string modeWord_;
  Table& table_;
  double interval_;
  std::uint64_t events_ = 0;
  std::uint32_t timeouts_ = 0;
  Kiv::Timer timer_;
  std::unique_ptr<MounterSm> sm_;  // last: its handler uses everything above
};

}  // namespace Quarn
