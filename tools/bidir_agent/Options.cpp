// The command line of the simulation. Every numeric option is one line of kNumeric: parse() and
// help() both read it, so the help always says what parse() accepts.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Common.h"

namespace BidirAgent {

namespace {

struct Numeric {
  char const* name;
  char const* arg;  // "N": a whole number; "S": seconds
  char const* what;
  double min, max;  // inclusive; min is exclusive when minExclusive
  bool minExclusive;
  void (*set)(Options&, double);
  double (*get)(Options const&);
  char const* note;  // after the range in the help, or nullptr
};

constexpr double kUnbounded = 1e12;

// clang-format off
constexpr Numeric kNumeric[] = {
  {"--groups", "N", "groups in the agent's VRF", 1, 5000, false,
   [](Options& o, double v) { o.groups = std::uint32_t(v); },
   [](Options const& o) { return double(o.groups); }, nullptr},
  {"--intfs", "N", "interfaces of each group", 2, 100, false,
   [](Options& o, double v) { o.intfs = std::uint32_t(v); },
   [](Options const& o) { return double(o.intfs); },
   "groups x interfaces at most 500000"},
  {"--rps", "N", "rendezvous points; group i is served by RP i % rps", 1, 16, false,
   [](Options& o, double v) { o.rps = std::uint32_t(v); },
   [](Options const& o) { return double(o.rps); }, nullptr},
  {"--seconds", "S", "seconds of churn, counted from the reader's attachment, restart included",
   2, kUnbounded, false,
   [](Options& o, double v) { o.seconds = v; },
   [](Options const& o) { return o.seconds; }, nullptr},
  {"--restart-at", "S", "seconds into the churn when the agent is killed (SIGKILL) and restarted",
   0, kUnbounded, true,
   [](Options& o, double v) { o.restartAt = v; },
   [](Options const& o) { return o.restartAt; }, "below --seconds; half of --seconds unless given"},
  {"--rate", "N", "changes per second the agent makes reach its tables", 100, kUnbounded, false,
   [](Options& o, double v) { o.rate = v; },
   [](Options const& o) { return o.rate; }, nullptr},
  {"--df-move-every", "S", "seconds between two DF elections moving", 0, kUnbounded, true,
   [](Options& o, double v) { o.dfMoveEvery = v; },
   [](Options const& o) { return o.dfMoveEvery; }, nullptr},
  {"--config-every", "S",
   "seconds between two configuration rounds (an expiry change, two clear requests)",
   0, kUnbounded, true,
   [](Options& o, double v) { o.configEvery = v; },
   [](Options const& o) { return o.configEvery; }, "below --seconds"},
  {"--late-groups", "N",
   "groups that arrive during the churn instead of being built at the start", 0, 4999, false,
   [](Options& o, double v) { o.lateGroups = std::uint32_t(v); },
   [](Options const& o) { return double(o.lateGroups); },
   "below --groups; they arrive over the first half of the time before the restart"},
  {"--group-capacity", "N", "records the group table is created for (it grows past them)",
   16, 5000, false,
   [](Options& o, double v) { o.groupCapacity = std::uint32_t(v); },
   [](Options const& o) { return double(o.groupCapacity); }, nullptr},
  {"--intf-capacity", "N",
   "records the group-interface table is created for (it grows past them)", 16, 500000, false,
   [](Options& o, double v) { o.intfCapacity = std::uint32_t(v); },
   [](Options const& o) { return double(o.intfCapacity); }, nullptr},
  {"--reader-cpu", "N",
   "the processor the reader runs on alone; every other process runs on the others", -1, 1023,
   false,
   [](Options& o, double v) { o.readerCpu = std::int32_t(v); },
   [](Options const& o) { return double(o.readerCpu); },
   "-1: the kernel places every process"},
};
// clang-format on

std::string number(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

std::string range(Numeric const& n) {
  std::string text = n.minExclusive ? "above " + number(n.min) : "at least " + number(n.min);
  if (n.max < kUnbounded) text = number(n.min) + " to " + number(n.max);
  if (n.note != nullptr) text += "; " + std::string(n.note);
  return text;
}

}  // namespace

void Options::shortRun() {
  groups = 200;
  intfs = 20;
  seconds = 5;
  restartAt = 2.5;
  rate = 20000;
  dfMoveEvery = 1;
  configEvery = 1;
}

std::vector<std::string> Options::args() const {
  std::vector<std::string> out;
  for (Numeric const& n : kNumeric) {
    out.push_back(n.name);
    out.push_back(number(n.get(*this)));
  }
  if (quiet) out.push_back("--quiet");
  return out;
}

std::string Options::parse(int argc, char** argv, int first) {
  bool secondsGiven = false, restartGiven = false;
  for (int i = first; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--short") {
      shortRun();
      continue;
    }
    if (arg == "--quiet" || arg == "--keep") {
      (arg == "--quiet" ? quiet : keep) = true;
      continue;
    }
    Numeric const* option = nullptr;
    for (Numeric const& n : kNumeric) {
      if (arg == n.name) option = &n;
    }
    if (option == nullptr) return arg + ": unknown option";
    if (i + 1 >= argc) return arg + ": needs a value (" + option->arg + ")";
    std::string const text = argv[++i];
    char* end = nullptr;
    double const v = std::strtod(text.c_str(), &end);
    std::string const given = arg + " " + text;
    if (end == text.c_str() || *end != '\0' || !std::isfinite(v)) return given + ": not a number";
    if (option->arg[0] == 'N' && v != std::floor(v)) return given + ": not a whole number";
    if (option->minExclusive ? v <= option->min : v < option->min) {
      return given + ": must be " + (option->minExclusive ? "above " : "at least ") +
             number(option->min);
    }
    if (v > option->max) return given + ": must be at most " + number(option->max);
    option->set(*this, v);
    secondsGiven = secondsGiven || arg == "--seconds";
    restartGiven = restartGiven || arg == "--restart-at";
  }
  if (secondsGiven && !restartGiven) restartAt = seconds / 2;
  if (restartAt >= seconds) {
    return "--restart-at " + number(restartAt) + ": must be below --seconds (" + number(seconds) +
           "): the agent is killed during the churn";
  }
  if (configEvery >= seconds) {
    return "--config-every " + number(configEvery) + ": must be below --seconds (" +
           number(seconds) + "): the configuration changes at least once during the churn";
  }
  if (lateGroups >= groups) {
    return "--late-groups " + number(lateGroups) + ": must be below --groups (" +
           number(groups) + "): the agent starts with at least one group";
  }
  if (std::uint64_t(groups) * intfs > 500000) {
    return "--intfs " + number(intfs) + ": " + number(groups) + " groups x " + number(intfs) +
           " interfaces is more than the 500000 group interfaces the table is sized for";
  }
  return "";
}

std::string Options::help(char const* program) {
  Options const defaults;
  std::string text = std::string(program) +
                     R"(: a simulation, not a routing agent. It runs the library the way a
network OS would, across real processes under a private table root in /dev/shm:
  rp/df   publishes the RP hash and RPA-RPF tables and moves a DF election now and then;
  agent   holds one VRF's Bidir group state, changes it (joins, prunes, timers, groups going
          and coming) and exports it to its tables; killed with SIGKILL at --restart-at, it
          is started again and takes its state back from the tables;
  reader  rebuilds the agent's state from the tables alone, as a show command would;
  config  serves the VRF's configuration and clear requests to the agent.
At the end the reader must equal the agent, every group cleared must have vanished from the
reader, and the configuration must have reached the agent. A table write that fails (a full
file system) is waited out: the agent retries a full resync of its tables until it succeeds.

usage: )" + program + R"( [options]

)";
  char line[240];
  for (Numeric const& n : kNumeric) {
    std::snprintf(line, sizeof line, "  %-19s %s\n  %-19s default %s; %s\n",
                  (std::string(n.name) + " " + n.arg).c_str(), n.what, "",
                  number(n.get(defaults)).c_str(), range(n).c_str());
    text += line;
  }
  text += R"(  --short             a run of a few seconds: 200 groups x 20 interfaces, 5 s of churn
                      at 20000 changes/s, restart at 2.5 s, a DF move and a configuration
                      round every second (options after it override it)
  --quiet             no progress lines, only the summary
  --keep              after the summary, keep the processes and the table root alive until
                      Ctrl-C, so that the tables can be looked at (quarnctl)
  --help              this text

Exit status: 0 when the reader ended equal to the agent and the configuration reached the
agent; 1 when not, or when a process failed (the reason is printed); 2 for a bad command
line; 130 when interrupted before the summary. The table root is removed at the end, also
on Ctrl-C.
)";
  return text;
}

}  // namespace BidirAgent
