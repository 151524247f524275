// bidir_agent: the library doing its job across real processes, under a private table root.
//
//   rp/df   publishes the RP hash and RPA-RPF tables and moves a DF election now and then;
//   agent   holds the group state (5,000 groups x 100 interfaces by default), churns it and
//           exports it; killed with SIGKILL halfway and started again, it takes its state back
//           from the tables before exporting again;
//   reader  rebuilds its own group state from the tables and evaluates the computations on it;
//   config  serves the VRF's configuration and clear requests over the attribute log, changing
//           the group expiry interval and asking for groups to be cleared every few seconds;
//           the agent follows it and acts on both.
//
// This process (the supervisor) starts the four (this executable again, with --role), prints
// a progress line every second, stops the churn at the end, has the agent and the reader each
// write a digest of their state, and prints a summary. Exit status: 0 when the reader's state
// equals the agent's and the configuration reached the agent (at least one expiry change and
// one clear request acted on, every group it cleared seen vanishing from the reader), 1
// otherwise, 130 when interrupted. The table root, the socket included, is removed at the end,
// also on SIGINT and SIGTERM.
//
// Usage: bidir_agent [--short] [--seconds S] [--restart-at S] [--rate N] [--groups N]
//                    [--intfs N] [--rps N] [--df-move-every S] [--config-every S] [--quiet]

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Bidir/Config.h"
#include "Common.h"
#include "Jorv/Exception.h"
#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "tools/support/Supervisor.h"

namespace BidirAgent {

namespace {

// Totals of one agent life, from its reports.
struct Life {
  double readyAt = 0, lastAt = 0;
  std::uint64_t changesAtReady = 0, changes = 0;
};

class Supervisor : DemoSupport::Supervisor<Role, Report> {
 public:
  Supervisor(std::string root, Options const& options)
      : DemoSupport::Supervisor<Role, Report>("the run did not finish in time"),
        root_(std::move(root)),
        options_(options) {}
  int run();

 private:
  Child& start(Role role);
  void onReport(Child& child, Report const& r) override;
  void onFinished(Report const& r);
  void onReady(Child& child, Report const& r);
  void progress() override;
  void restart() override;  // the agent, killed with SIGKILL
  void stop() override;     // the churn
  bool summary() const;
  bool configSummary() const;

  std::string root_;
  Options options_;
  Child* rpdf_ = nullptr;
  Child* agent_ = nullptr;
  Child* reader_ = nullptr;
  Child* config_ = nullptr;
  std::vector<Life> lives_;
  double killedAt_ = 0;
  Report reconciled_;
  Report readerBeforeRestart_;  // the reader's figures of the steady first half
  double backAt_ = 0;
  Report rpdfFinal_, agentFinal_, readerFinal_, configFinal_;
  bool stopping_ = false;
  // What the agent did with the configuration (over all its lives), and the groups the reader
  // saw vanish, by group: when.
  std::uint64_t configChanges_ = 0, clearsActed_ = 0, clearsSuperseded_ = 0, clearsResumed_ = 0;
  std::uint8_t lastClearCount_ = 0;
  std::uint16_t expiry_ = Bidir::Config::groupExpiryIntervalDefaultValue;
  std::vector<std::pair<std::uint32_t, double>> cleared_;
  std::vector<std::vector<double>> vanished_ = std::vector<std::vector<double>>(options_.groups);
};

// This executable again, with --role; the child's report pipe is its fd 3, commands fd 4.
Supervisor::Child& Supervisor::start(Role role) {
  std::vector<std::string> args = {"bidir_agent", "--role", roleName(role), "--root", root_};
  for (auto const& a : options_.args()) args.push_back(a);
  return spawn(role, [&args](int reportFd, int commandFd) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int const out = ::fcntl(reportFd, F_DUPFD_CLOEXEC, 10);
    int const in = ::fcntl(commandFd, F_DUPFD_CLOEXEC, 10);
    if (out < 0 || in < 0 || ::dup2(out, 3) != 3 || ::dup2(in, 4) != 4) return 126;
    ::execv("/proc/self/exe", argv.data());
    return 127;
  });
}

void Supervisor::onReport(Child& child, Report const& r) {
  switch (r.kind) {
    case Report::configured:
      ++configChanges_;
      expiry_ = r.expiry;
      return;
    case Report::clearActed:
      // A request the killed agent had begun and reported is carried out again by the next one:
      // one request, not two.
      if (r.clearResumed && clearsActed_ > 0 && r.clearCount == lastClearCount_) {
        ++clearsResumed_;
      } else {
        ++clearsActed_;
        clearsSuperseded_ += r.clearsSuperseded;
      }
      lastClearCount_ = r.clearCount;
      return;
    case Report::groupCleared:
      cleared_.emplace_back(r.group, r.time);
      return;
    case Report::groupVanished:
      if (r.group < vanished_.size()) vanished_[r.group].push_back(r.time);
      return;
    default:
      break;
  }
  child.last = r;
  switch (r.kind) {
    case Report::ready:
      onReady(child, r);
      break;
    case Report::reconciled:
      reconciled_ = r;
      std::printf("[%5.1fs] agent reconciled from the tables: %llu groups, %llu interfaces in "
                  "%.3f s, %u slices (longest %.1f ms), %u stale interface records removed\n",
                  since(), static_cast<unsigned long long>(r.groups),
                  static_cast<unsigned long long>(r.intfs), r.reconcileSeconds, r.slices,
                  r.sliceMax * 1e3, r.interfaceRecordsRemoved);
      break;
    case Report::progress:
      if (child.role == Role::agent && !lives_.empty()) {
        lives_.back().lastAt = r.time;
        lives_.back().changes = r.changes;
      }
      break;
    case Report::finished:
      if (r.role == Role::rpdf || r.role == Role::config) {
        onFinished(r);
      } else if (r.role == Role::agent) {
        agentFinal_ = r;
        lives_.back().lastAt = r.time;
        lives_.back().changes = r.changes;
        std::printf("[%5.1fs] agent stopped: digest written, %llu groups, %llu interfaces\n",
                    since(), static_cast<unsigned long long>(r.groups),
                    static_cast<unsigned long long>(r.intfs));
        Command verify;
        verify.op = Command::verify;
        verify.digest = r.digest;
        command(reader_, verify);
      } else {
        readerFinal_ = r;
        loop_.stop();
      }
      break;
    default:
      break;
  }
}

// The RP/DF and configuration processes have both stopped: the agent stops once it has applied
// their last word.
void Supervisor::onFinished(Report const& r) {
  (r.role == Role::rpdf ? rpdfFinal_ : configFinal_) = r;
  if (rpdfFinal_.kind != Report::finished || configFinal_.kind != Report::finished) return;
  Command end;
  end.op = Command::stop;
  std::copy(std::begin(rpdfFinal_.rpfOf), std::end(rpdfFinal_.rpfOf), end.rpfOf);
  end.expiry = configFinal_.expiry;
  end.clearCount = configFinal_.clearCount;
  command(agent_, end);
}

void Supervisor::onReady(Child& child, Report const& r) {
  switch (child.role) {
    case Role::config:
      std::printf("[%5.1fs] configuration served on %s\n", since(), configSocket(root_).c_str());
      break;
    case Role::rpdf:
      std::printf("[%5.1fs] rp/df published %u RP hash records and %u RPA-RPF records\n", since(),
                  options_.groups, options_.rps);
      agent_ = &start(Role::agent);
      break;
    case Role::agent:
      lives_.push_back({r.time, r.time, r.changes, r.changes});
      if (killedAt_ == 0) {
        std::printf("[%5.1fs] agent ready: %llu groups, %llu interfaces, %llu records exported\n",
                    since(), static_cast<unsigned long long>(r.groups),
                    static_cast<unsigned long long>(r.intfs),
                    static_cast<unsigned long long>(r.records));
        reader_ = &start(Role::reader);
      } else {
        backAt_ = r.time;
        std::printf("[%5.1fs] agent churning again, %.3f s after SIGKILL\n", since(),
                    backAt_ - killedAt_);
        if (stopping_) stop();
      }
      break;
    case Role::reader: {
      std::printf("[%5.1fs] reader attached: %llu groups, %llu interfaces; the churn begins\n",
                  since(), static_cast<unsigned long long>(r.groups),
                  static_cast<unsigned long long>(r.intfs));
      Command go;
      go.op = Command::go;
      command(agent_, go);
      command(config_, go);
      if (!lives_.empty()) lives_.back().readyAt = now();
      restart_.armIn(options_.restartAt);
      stop_.armIn(options_.seconds);
      break;
    }
  }
}

void Supervisor::progress() {
  progress_.armIn(1);
  if (options_.quiet) return;
  std::string line;
  char buf[200];
  if (agent_ != nullptr && agent_->pid > 0 && agent_->last.time == 0) {
    line += "agent starting";
  } else if (agent_ != nullptr && agent_->pid > 0) {
    Report const& a = agent_->last;
    double const rate = lives_.empty() || lives_.back().lastAt <= lives_.back().readyAt
                            ? 0
                            : double(lives_.back().changes - lives_.back().changesAtReady) /
                                  (lives_.back().lastAt - lives_.back().readyAt);
    std::snprintf(buf, sizeof buf, "agent %4llu groups %6llu intfs %9llu changes %6.0f/s",
                  static_cast<unsigned long long>(a.groups),
                  static_cast<unsigned long long>(a.intfs),
                  static_cast<unsigned long long>(a.changes), rate);
    line += buf;
  } else {
    line += "agent down";
  }
  std::snprintf(buf, sizeof buf, " | expiry %.2f s, %llu clears (%zu groups)",
                expiry_ * kExpiryUnitSeconds, static_cast<unsigned long long>(clearsActed_),
                cleared_.size());
  line += buf;
  if (reader_ != nullptr) {
    Report const& r = reader_->last;
    std::snprintf(buf, sizeof buf,
                  " | reader %4llu groups %6llu intfs, lag p50 %.0f us p99 %.0f us",
                  static_cast<unsigned long long>(r.groups),
                  static_cast<unsigned long long>(r.intfs), r.lagP50, r.lagP99);
    line += buf;
  }
  std::printf("[%5.1fs] %s\n", since(), line.c_str());
  std::fflush(stdout);
}

void Supervisor::restart() {
  std::printf("[%5.1fs] killing the agent (SIGKILL) in the middle of its churn\n", since());
  killedAt_ = now();
  if (reader_ != nullptr) readerBeforeRestart_ = reader_->last;
  // What the agent reported before it died still counts (the clears it made, above all).
  killChild(*agent_);
  // A configuration change and clear requests while no agent listens: the next one must catch up.
  Command round;
  round.op = Command::round;
  command(config_, round);
  agent_ = &start(Role::agent);
}

// The end: the RP/DF process stops first and names its final elections; the agent stops once
// it has applied them (onReport chains the rest).
void Supervisor::stop() {
  stopping_ = true;
  if (killedAt_ != 0 && backAt_ == 0) return;  // the restarted agent is not back yet
  std::printf("[%5.1fs] stopping the churn\n", since());
  Command end;
  end.op = Command::stop;
  command(rpdf_, end);
  command(config_, end);
}

int Supervisor::run() {
  std::printf("bidir agent: %u groups x %u interfaces, %u RPs, %.0f s of churn at %.0f changes/s, "
              "agent restart at %.1f s, root %s\n",
              options_.groups, options_.intfs, options_.rps, options_.seconds, options_.rate,
              options_.restartAt, root_.c_str());
  rpdf_ = &start(Role::rpdf);
  config_ = &start(Role::config);
  progress_.armIn(1);
  giveUp_.armIn(options_.seconds + 120);
  if (int const status = runToEnd(); status != 0) return status;
  bool const equal = summary();
  return configSummary() && equal ? 0 : 1;
}

// The first group whose line differs between the two digest files, or "".
std::string firstDifference(std::string const& a, std::string const& b) {
  std::ifstream fa(a), fb(b);
  std::string la, lb;
  for (;;) {
    bool const ga = bool(std::getline(fa, la)), gb = bool(std::getline(fb, lb));
    if (!ga && !gb) return "";
    if (!ga || !gb || la != lb) {
      return "agent '" + (ga ? la : std::string("<end>")) + "', reader '" +
             (gb ? lb : std::string("<end>")) + "'";
    }
  }
}

bool Supervisor::summary() const {
  std::uint64_t changes = 0;
  double churnSeconds = 0;
  for (Life const& l : lives_) {
    changes += l.changes - l.changesAtReady;
    churnSeconds += l.lastAt - l.readyAt;
  }
  Report const& a = agentFinal_;
  Report const& r = readerFinal_;
  bool const equal = a.digest == r.digest && a.groups == r.groups && a.intfs == r.intfs;
  double load[1] = {0};
  ::getloadavg(load, 1);
  std::printf("\n==== summary ==== (load average %.1f on %ld processors)\n", load[0],
              ::sysconf(_SC_NPROCESSORS_ONLN));
  std::printf("agent state           %llu groups, %llu group interfaces; %llu records in the "
              "tables\n",
              static_cast<unsigned long long>(a.groups), static_cast<unsigned long long>(a.intfs),
              static_cast<unsigned long long>(a.records));
  std::printf("reader state          %llu groups, %llu group interfaces\n",
              static_cast<unsigned long long>(r.groups), static_cast<unsigned long long>(r.intfs));
  std::printf("changes exported      %llu in %.1f s of churn (%.0f per second), %llu DF moves\n",
              static_cast<unsigned long long>(changes), churnSeconds,
              churnSeconds > 0 ? double(changes) / churnSeconds : 0.0,
              static_cast<unsigned long long>(rpdfFinal_.dfMoves));
  // From the agent's setter (the join's stamp) to the reader's entity holding it.
  Report const& b = readerBeforeRestart_;
  if (killedAt_ != 0) {
    std::printf("reader lag, 1st half  p50 %.0f us, p99 %.0f us, max %.1f ms (%llu joins timed, "
                "up to the restart)\n",
                b.lagP50, b.lagP99, b.lagMax / 1e3, static_cast<unsigned long long>(b.lagSamples));
  }
  std::printf("reader lag, whole run p50 %.0f us, p99 %.0f us, max %.1f ms (%llu joins timed, "
              "the reader's re-attachment to the restarted agent included)\n",
              r.lagP50, r.lagP99, r.lagMax / 1e3, static_cast<unsigned long long>(r.lagSamples));
  if (killedAt_ != 0) {
    std::printf("agent restart         back %.3f s after SIGKILL; reconciliation %.3f s in %u "
                "slices, longest %.1f ms, mean %.1f ms; %u stale interface records removed\n",
                backAt_ - killedAt_, reconciled_.reconcileSeconds, reconciled_.slices,
                reconciled_.sliceMax * 1e3, reconciled_.sliceMean * 1e3,
                reconciled_.interfaceRecordsRemoved);
  }
  std::printf("reader == agent       %s (every exported attribute and every computed value of "
              "%llu groups)\n",
              equal ? "EQUAL" : "DIFFERENT", static_cast<unsigned long long>(a.groups));
  if (!equal) {
    std::string const diff = firstDifference(root_ + "/agent.digest", root_ + "/reader.digest");
    if (!diff.empty()) std::printf("first difference      %s\n", diff.c_str());
  }
  return equal;
}

// What the configuration process asked, what reached the agent, and whether each group the agent
// cleared was seen vanishing from the reader afterwards (stamps of one clock, the agent's taken
// before the group's records went).
bool Supervisor::configSummary() const {
  Report const& c = configFinal_;
  Report const& a = agentFinal_;
  std::size_t seen = 0;
  for (auto const& [g, t] : cleared_) {
    auto const& times = vanished_[g];
    if (std::any_of(times.begin(), times.end(), [t = t](double v) { return v >= t; })) ++seen;
  }
  std::printf("configuration         %llu rounds: %llu group expiry changes (last %u = %.2f s), "
              "%llu clear requests (request count %u)\n",
              static_cast<unsigned long long>(c.configRounds),
              static_cast<unsigned long long>(c.configChanges), c.expiry,
              c.expiry * kExpiryUnitSeconds, static_cast<unsigned long long>(c.clearRequests),
              c.clearCount);
  std::printf("agent, configuration  %llu expiry changes received (a restart's resync included), "
              "%llu clear requests acted on and %llu superseded while it was away (%llu resumed "
              "after the kill), %zu groups cleared; final configuration %s\n",
              static_cast<unsigned long long>(configChanges_),
              static_cast<unsigned long long>(clearsActed_),
              static_cast<unsigned long long>(clearsSuperseded_),
              static_cast<unsigned long long>(clearsResumed_), cleared_.size(),
              a.configApplied ? "applied" : "NOT APPLIED");
  std::printf("cleared groups        %zu of %zu seen vanishing from the reader\n", seen,
              cleared_.size());
  char const* failure =
      !a.configApplied                    ? "the agent did not apply the final configuration"
      : configChanges_ == 0               ? "no expiry change reached the agent"
      : clearsActed_ == 0 || cleared_.empty() ? "no clear request cleared a group"
      // Every request issued was acted on once, or overwritten before the agent could read it.
      : clearsActed_ + clearsSuperseded_ != c.clearRequests
          ? "clear requests acted on plus superseded differ from those issued"
      : seen != cleared_.size() ? "a cleared group was not seen vanishing from the reader"
                                : nullptr;
  if (failure != nullptr) std::printf("configuration         FAILED: %s\n", failure);
  return failure == nullptr;
}

int supervise(Options const& options) {
  // The children inherit $QUARN_ROOT: every table of the run lives in the private root.
  return DemoSupport::withPrivateRoot("bidir-agent", [&](std::string const& root) {
    return Supervisor(root, options).run();
  });
}

// A child: its role's main, with failures reported to the supervisor.
int child(Role role, Options const& options, std::string const& root) {
  int const reportFd = 3, commandFd = 4;
  try {
    switch (role) {
      case Role::rpdf:
        return runRpDf(options, reportFd, commandFd);
      case Role::agent:
        return runAgent(options, root, reportFd, commandFd);
      case Role::reader:
        return runReader(options, root, reportFd, commandFd);
      case Role::config:
        return runConfig(options, root, reportFd, commandFd);
    }
  } catch (std::exception const& e) {
    return DemoSupport::reportFailure<Report>(reportFd, role, e);
  }
  return 1;
}

}  // namespace

}  // namespace BidirAgent

int main(int argc, char** argv) {
  using namespace BidirAgent;
  Options options;
  if (argc >= 5 && std::strcmp(argv[1], "--role") == 0 && std::strcmp(argv[3], "--root") == 0) {
    if (!options.parse(argc, argv, 5)) return 2;
    for (Role role : {Role::rpdf, Role::agent, Role::reader, Role::config}) {
      if (std::strcmp(argv[2], roleName(role)) == 0) std::_Exit(child(role, options, argv[4]));
    }
    return 2;
  }
  if (!options.parse(argc, argv, 1)) {
    std::fprintf(stderr,
                 "usage: %s [--short] [--seconds S] [--restart-at S] [--rate N] [--groups N] "
                 "[--intfs N] [--rps N] [--df-move-every S] [--config-every S] [--quiet]\n",
                 argv[0]);
    return 2;
  }
  return supervise(options);
}
