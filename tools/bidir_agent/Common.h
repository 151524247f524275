#pragma once
// What the processes of the agent simulation share: options, the naming of groups, interfaces
// and RPs (the same in every process), the fixed-size messages on their pipes, the lag
// histogram and the canonical digest of a `Status` that decides whether two processes hold the
// same group state.
//
// Every time stamp is CLOCK_MONOTONIC (`Kiv::Activity::now()`), one clock for all processes, so
// a stamp taken by the agent can be compared with the time the reader applies it.

#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Bidir/Status.h"
#include "Kiv/Activity.h"
#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"
#include "tools/support/DemoSupport.h"

namespace BidirAgent {

namespace Bidir = Routing::Pim::Bidir;

struct Options {
  std::uint32_t groups = 5000;
  std::uint32_t intfs = 100;
  std::uint32_t rps = 4;
  double seconds = 40;    // churn time, restart included
  double restartAt = 20;  // seconds into the churn when the agent is killed
  double rate = 100000;   // exported changes per second the agent aims at
  double dfMoveEvery = 3; // seconds between two DF elections moving
  double configEvery = 4; // seconds between two rounds of the configuration process
  // Groups that are not built at the start but arrive during the first life's churn, spread
  // evenly over the first half of the time before the restart: the tables grow meanwhile.
  std::uint32_t lateGroups = 0;
  // The capacities the agent's tables are created with; they grow past them in 10% steps.
  std::uint32_t groupCapacity = 5000;
  std::uint32_t intfCapacity = 500000;
  // The processor the reader runs on alone (every other process of the run on the others);
  // -1: the kernel places every process.
  std::int32_t readerCpu = -1;
  bool quiet = false;     // no progress lines
  bool keep = false;      // after the summary, keep processes and root until Ctrl-C

  // The short run for CI: a small state, a few seconds.
  void shortRun();
  // argv form, handed to the child processes (what they need: not --keep).
  std::vector<std::string> args() const;
  // Parses argv[first..] over these values. Returns "" on success, else what is wrong, naming
  // the option and why ("--rate 50: must be at least 100").
  std::string parse(int argc, char** argv, int first);
  // The text of --help: every option with its default and range.
  static std::string help(char const* program);
};

inline double now() { return Kiv::Activity::now(); }

// Group i is 239.1.x.y (i < 65536); interface j is "Ethernet<j+1>"; RP r is 10.0.0.<r+1>. Group
// i is served by RP i % rps.
Lanx::IpGenAddr groupAddr(std::uint32_t i);
// The index of a group address, or `limit` when it is not one of the first `limit` groups.
std::uint32_t groupIndex(Lanx::IpGenAddr const& addr, std::uint32_t limit);
Lanx::IntfId intfId(std::uint32_t j);
Lanx::IpGenAddr rpAddr(std::uint32_t r);

// ---- messages (each one write below PIPE_BUF: never interleaved, never split)

enum class Role : std::uint32_t { rpdf = 0, agent = 1, reader = 2, config = 3 };
char const* roleName(Role role);

struct Report {
  enum Kind : std::uint32_t {
    ready,       // rpdf: tables published; agent: state complete and exported; reader: attached
    progress,
    reconciled,  // agent after a restart: the state came back from the tables
    finished,    // rpdf/config: stopped changing; agent/reader: digest written
    failed,
    doing,       // agent, reader: what it is doing from now on (`text`)
    configured,  // agent: a new group expiry interval applied (`expiry`)
    clearActed,  // agent: a clear request acted on (`clearCount`; `groups` deleted)
    groupCleared,   // agent: group `group` deleted by a clear request, `time` taken just before
    groupVanished,  // reader: group `group` no longer in its Status, seen at `time`
    groupCreated,   // agent: group `group` created by the churn at `time`
    groupAppeared,  // reader: group `group` now in its Status, seen at `time`
    tablesFailed,   // agent: table writes failed (`tableFailures`); `text`: why, from a resync
    tablesResynced, // agent: a resync brought the tables back (`resyncAttempts`, `waited`)
  };
  Kind kind = progress;
  Role role = Role::agent;
  double time = 0;
  std::uint64_t groups = 0, intfs = 0;  // entities held
  std::uint64_t records = 0;            // agent: records in both tables
  std::uint64_t changes = 0;            // agent: exported changes; reader: entity updates
  std::uint64_t dfMoves = 0;            // rpdf: elections moved; agent: applied
  // Configuration. config: rounds made, group expiry changes and clear requests issued; agent:
  // expiry changes received, clear requests acted on, groups they deleted, requests superseded.
  std::uint64_t configRounds = 0, configChanges = 0, clearRequests = 0, groupsCleared = 0;
  std::uint64_t clearsSuperseded = 0;
  std::uint32_t group = 0;        // groupCleared, groupVanished: the group's index
  std::uint16_t expiry = 0;       // group expiry interval (units of kExpiryUnitSeconds)
  std::uint8_t clearCount = 0;    // ClearConfig::groupsCount of the last request
  bool configApplied = false;     // agent, finished: the final configuration was applied
  bool clearResumed = false;      // clearActed: a request the previous life had begun
  double lagP50 = 0, lagP99 = 0, lagMax = 0;  // reader, microseconds
  std::uint64_t lagSamples = 0;
  // reconciled
  double reconcileSeconds = 0, sliceMax = 0, sliceMean = 0;
  std::uint32_t slices = 0;
  std::uint32_t interfaceRecordsRemoved = 0;
  // Table failures (agent): failed writes not yet repaired by a resync (finished: at the end),
  // resync attempts it took and seconds from the first failure to the resync that succeeded.
  std::uint64_t tableFailures = 0;
  std::uint32_t resyncAttempts = 0;
  double waited = 0;
  // finished: the digest, and the RPF interface of each RP as last published (rpdf) / applied
  std::uint64_t digest = 0;
  std::uint16_t rpfOf[16] = {};
  char text[200] = {};
};
static_assert(sizeof(Report) < PIPE_BUF);

struct Command {
  // go: the agent starts its churn (the reader is attached); stop: the churn ends; verify: the
  // reader compares its state with the agent's digest.
  // round (config): make a configuration round now (the supervisor asks while the agent is
  // down, so that the restarted agent has a request to catch up with).
  enum Op : std::uint32_t { go, stop, verify, round };
  Op op = stop;
  std::uint64_t digest = 0;   // verify: the agent's digest
  std::uint16_t rpfOf[16] = {};  // stop (agent): the final elections to wait for
  // stop (agent): the configuration's final group expiry interval and clear request count.
  std::uint16_t expiry = 0;
  std::uint8_t clearCount = 0;
};

// The configuration the configuration process serves and the agent follows: VRF "default" (the
// agent's Status), in collections named alike on both sides, over a socket in the private root.
inline constexpr char const* kVrf = "default";
inline constexpr char const* kConfigCollName = "config";
inline constexpr char const* kClearConfigCollName = "clearConfig";
inline std::string configSocket(std::string const& root) { return root + "/config.sock"; }
// Config::groupExpiryInterval is a bare number; the agent reads it in hundredths of a second (the
// simulation's time is compressed, as its other protocol timers are): 210 keeps an idle group
// 2.1 s.
inline constexpr double kExpiryUnitSeconds = 0.01;

// Tells the supervisor what the process is doing from now on, for its progress lines. The
// supervisor shows the figures of the two steady states beside them.
void tellDoing(int reportFd, Role role, char const* what);
inline constexpr char const* kAgentChurning = "churning";
inline constexpr char const* kReaderFollowing = "following the tables";

using DemoSupport::LagHistogram;
using DemoSupport::receive;
using DemoSupport::send;

// The group state of a Status in canonical order (groups by address, interfaces by id): every
// attribute the tables carry and every value computed from them (joins, pimInclude, oList;
// joinDesired, rp, rpaRpf, rpf, rpaIndex, routeKey). One 64-bit hash per group, written to
// `path` as text lines "<group> <interfaces> <hash>"; returns the hash of all of them.
std::uint64_t writeDigest(Bidir::Status const& status, std::string const& path);

// The three roles, each the main of its process: they talk to the supervisor over `reportFd`
// (Reports out) and `commandFd` (Commands in; end of file: the supervisor is gone). `root` is the
// private table root, where the agent and the reader write their digests.
int runRpDf(Options const& options, int reportFd, int commandFd);
int runAgent(Options const& options, std::string const& root, int reportFd, int commandFd);
int runReader(Options const& options, std::string const& root, int reportFd, int commandFd);
int runConfig(Options const& options, std::string const& root, int reportFd, int commandFd);

}  // namespace BidirAgent
