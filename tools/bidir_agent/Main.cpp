// bidir_agent: a simulation of the library doing its job across real processes, under a private
// table root (the help text, Options::help, says what each process does).
//
// This process (the supervisor) starts the four (this executable again, with --role), prints
// a progress line every second saying what each is doing, stops the churn at the end, has the
// agent and the reader each write a digest of their state, and prints a summary. Exit status: 0
// when the reader's state equals the agent's and the configuration reached the agent (at least
// one expiry change and one clear request acted on, every group it cleared seen vanishing from
// the reader), 1 otherwise, 2 for a bad command line, 130 when interrupted. The table root, the
// socket included, is removed at the end, also on SIGINT and SIGTERM; with --keep the processes
// and the root stay until then.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
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

unsigned long long ull(std::uint64_t v) {
  return static_cast<unsigned long long>(v);
}

// `text` wrapped at 100 columns under a hanging indent, the label in front of its first line.
void wrapped(std::string const& label, std::string const& text, std::size_t indent) {
  constexpr std::size_t width = 100;
  std::string line = label;
  line.resize(indent, ' ');
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = pos + (width - indent);
    if (end >= text.size()) {
      end = text.size();
    } else {
      std::size_t const space = text.rfind(' ', end);
      if (space != std::string::npos && space > pos) end = space;
    }
    std::printf("%s%s\n", line.c_str(), text.substr(pos, end - pos).c_str());
    line.assign(indent, ' ');
    pos = end;
    while (pos < text.size() && text[pos] == ' ') ++pos;
  }
}

// One summary entry: a label, then what it says.
void entry(char const* label, std::string const& text) {
  wrapped(label, text, 17);
}

std::string format(char const* fmt, auto... args) {
  char buf[512];
  std::snprintf(buf, sizeof buf, fmt, args...);
  return buf;
}

// "1 slice", "2 slices".
std::string count(std::uint64_t n, char const* noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

std::string lagText(double us) {
  return us < 1000 ? format("%.0f us", us) : format("%.1f ms", us / 1e3);
}

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
  void doing(Role role, std::string what);
  void progress() override;
  void restart() override;  // the agent, killed with SIGKILL
  void stop() override;     // the churn
  bool summary() const;
  bool configSummary() const;
  bool tablesSummary() const;
  void keep();

  std::string root_;
  Options options_;
  Child* rpdf_ = nullptr;
  Child* agent_ = nullptr;
  Child* reader_ = nullptr;
  Child* config_ = nullptr;
  // What each process said it is doing, and since when (seconds since the start).
  std::string doing_[4];
  double doingSince_[4] = {};
  std::vector<Life> lives_;
  bool agentChurning_ = false;  // the current agent life has begun its churn
  double churnBegan_ = 0;       // seconds since the start
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
  // Table writes that failed (over all agent lives), the resyncs that repaired them, the longest
  // wait from a first failure to its repair.
  std::uint64_t tableFailures_ = 0, resyncs_ = 0;
  double longestResyncWait_ = 0;
  std::vector<std::vector<double>> vanished_ = std::vector<std::vector<double>>(options_.groups);
  std::vector<std::vector<double>> created_ = std::vector<std::vector<double>>(options_.groups);
  std::vector<std::vector<double>> appeared_ = std::vector<std::vector<double>>(options_.groups);
};

// This executable again, with --role; the child's report pipe is its fd 3, commands fd 4.
Supervisor::Child& Supervisor::start(Role role) {
  std::vector<std::string> args = {"bidir_agent", "--role", roleName(role), "--root", root_};
  for (auto const& a : options_.args()) args.push_back(a);
  doing(role, "starting");
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

void Supervisor::doing(Role role, std::string what) {
  doing_[int(role)] = std::move(what);
  doingSince_[int(role)] = since();
}

void Supervisor::onReport(Child& child, Report const& r) {
  switch (r.kind) {
    case Report::doing:
      doing(r.role, r.text);
      return;
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
    case Report::groupCreated:
      if (r.group < created_.size()) created_[r.group].push_back(r.time);
      return;
    case Report::groupAppeared:
      if (r.group < appeared_.size()) appeared_[r.group].push_back(r.time);
      return;
    case Report::tablesFailed:
      std::printf("[%5.1fs] agent: %llu table writes failed, resync: %s; retrying until it "
                  "succeeds\n",
                  since(), ull(r.tableFailures), r.text);
      return;
    case Report::tablesResynced:
      tableFailures_ += r.tableFailures;
      ++resyncs_;
      longestResyncWait_ = std::max(longestResyncWait_, r.waited);
      std::printf("[%5.1fs] agent resynchronised its tables after %llu failed writes: %s, "
                  "%.3f s after the first\n",
                  since(), ull(r.tableFailures), count(r.resyncAttempts, "attempt").c_str(),
                  r.waited);
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
      std::printf(
          "[%5.1fs] agent reconciled: took back %llu groups and %llu interfaces from the "
          "tables in %.3f s (%s, longest %.1f ms), removed %u interface records whose group "
          "was gone\n",
          since(), ull(r.groups), ull(r.intfs), r.reconcileSeconds,
          count(r.slices, "slice").c_str(), r.sliceMax * 1e3, r.interfaceRecordsRemoved);
      break;
    case Report::progress:
      if (child.role == Role::agent && agentChurning_) {
        lives_.back().lastAt = r.time;
        lives_.back().changes = r.changes;
      }
      break;
    case Report::finished:
      if (r.role == Role::rpdf || r.role == Role::config) {
        doing(r.role, "stopped changing, serving");
        onFinished(r);
      } else if (r.role == Role::agent) {
        agentFinal_ = r;
        lives_.back().lastAt = r.time;
        lives_.back().changes = r.changes;
        std::printf(
            "[%5.1fs] agent stopped: digest of %llu groups and %llu interfaces written; "
            "the reader compares\n",
            since(), ull(r.groups), ull(r.intfs));
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
      doing(Role::config, "serving, waiting for the churn");
      std::printf("[%5.1fs] config serving the VRF's configuration on %s\n", since(),
                  configSocket(root_).c_str());
      break;
    case Role::rpdf:
      doing(Role::rpdf, format("moving a DF election every %g s", options_.dfMoveEvery));
      std::printf("[%5.1fs] rp/df published %u RP hash records and %u RPA-RPF records\n", since(),
                  options_.groups, options_.rps);
      agent_ = &start(Role::agent);
      break;
    case Role::agent:
      lives_.push_back({r.time, r.time, r.changes, r.changes});
      agentChurning_ = true;
      if (killedAt_ == 0) {
        std::printf(
            "[%5.1fs] agent ready: %llu groups, %llu interfaces, %llu records exported; "
            "the reader starts\n",
            since(), ull(r.groups), ull(r.intfs), ull(r.records));
        reader_ = &start(Role::reader);
      } else {
        backAt_ = r.time;
        std::printf("[%5.1fs] agent churning again, %.3f s after SIGKILL\n", since(),
                    backAt_ - killedAt_);
        if (stopping_) stop();
      }
      break;
    case Role::reader: {
      churnBegan_ = since();
      std::printf(
          "[%5.1fs] reader attached: %llu groups, %llu interfaces. The churn begins; the "
          "agent is killed at about %.1f s, the churn ends at about %.1f s\n",
          since(), ull(r.groups), ull(r.intfs), churnBegan_ + options_.restartAt,
          churnBegan_ + options_.seconds);
      doing(Role::config, format("a configuration round every %g s", options_.configEvery));
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

// One line a second: what each process is doing, and its figures.
void Supervisor::progress() {
  progress_.armIn(1);
  if (options_.quiet) return;
  auto state = [&](Role role) {
    return doing_[int(role)] + format(" for %.1f s", since() - doingSince_[int(role)]);
  };
  std::string line = "agent ";
  if (agent_ == nullptr) {
    line += "not started (rp/df first)";
  } else if (doing_[int(Role::agent)] == kAgentChurning && !lives_.empty()) {
    Life const& l = lives_.back();
    Report const& a = agent_->last;
    double const rate =
        l.lastAt <= l.readyAt ? 0 : double(l.changes - l.changesAtReady) / (l.lastAt - l.readyAt);
    line += format("churning: %llu groups %llu intfs, %llu changes, %.0f/s", ull(a.groups),
                   ull(a.intfs), ull(a.changes), rate);
  } else {
    line += state(Role::agent);
    if (doing_[int(Role::agent)].rfind("reconciling", 0) == 0) {
      line += format(": %llu groups %llu intfs", ull(agent_->last.groups), ull(agent_->last.intfs));
    }
  }
  line += " | reader ";
  if (reader_ == nullptr) {
    line += "starts once the agent is ready";
  } else if (doing_[int(Role::reader)] == kReaderFollowing) {
    Report const& r = reader_->last;
    line += format("following: %llu groups %llu intfs, lag p50 %s p99 %s", ull(r.groups),
                   ull(r.intfs), lagText(r.lagP50).c_str(), lagText(r.lagP99).c_str());
  } else {
    line += state(Role::reader);
  }
  line += format(" | config: expiry %.2f s, %llu clear requests acted on (%zu groups)",
                 expiry_ * kExpiryUnitSeconds, ull(clearsActed_), cleared_.size());
  std::printf("[%5.1fs] %s\n", since(), line.c_str());
  std::fflush(stdout);
}

void Supervisor::restart() {
  std::printf("[%5.1fs] killing the agent (SIGKILL) %.1f s into the churn\n", since(),
              since() - churnBegan_);
  killedAt_ = now();
  agentChurning_ = false;
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
  std::printf("[%5.1fs] stopping the churn, %.1f s after it began\n", since(),
              since() - churnBegan_);
  Command end;
  end.op = Command::stop;
  command(rpdf_, end);
  command(config_, end);
}

int Supervisor::run() {
  std::printf("bidir_agent: a simulation, not a routing agent (--help says what it runs)\n");
  wrapped("",
          format("%u groups x %u interfaces, %u RPs. The churn begins once the reader has "
                 "attached and lasts %g s at %.0f changes/s; %g s into it the agent is killed "
                 "with SIGKILL and started again. Private table root %s",
                 options_.groups, options_.intfs, options_.rps, options_.seconds, options_.rate,
                 options_.restartAt, root_.c_str()),
          2);
  rpdf_ = &start(Role::rpdf);
  config_ = &start(Role::config);
  progress_.armIn(1);
  giveUp_.armIn(options_.seconds + 120);
  if (int const status = runToEnd(); status != 0) return status;
  bool const equal = summary();
  bool const configOk = configSummary();
  bool const ok = tablesSummary() && configOk && equal;
  if (options_.keep) keep();
  return ok ? 0 : 1;
}

// The tables stay for an operator's tool to look at: two command lines to try, with the tool
// where this build puts it (beside this executable, relative to the working directory when
// below it).
void Supervisor::keep() {
  std::error_code ec;
  auto tool =
      std::filesystem::read_symlink("/proc/self/exe", ec).parent_path() / "quarnctl" / "quarnctl";
  auto const relative = std::filesystem::relative(tool, ec);
  if (!ec && !relative.empty() && relative.native().rfind("..", 0) != 0) tool = relative;
  std::printf(
      "\nThe simulation stays alive until Ctrl-C, its tables under %s. Look at them with\n"
      "  %s --root %s ls\n"
      "  %s --root %s groups\n",
      root_.c_str(), tool.c_str(), root_.c_str(), tool.c_str(), root_.c_str());
  std::fflush(stdout);
  if (keepUntilInterrupted())
    std::printf("\nstopped: processes ended, %s removed\n", root_.c_str());
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
  std::printf("\n==== summary of the simulation ==== (load average %.1f on %ld processors)\n",
              load[0], ::sysconf(_SC_NPROCESSORS_ONLN));
  entry("agent", format("holds %llu groups with %llu group interfaces; its two tables hold %llu "
                        "records, one per group and one per group interface",
                        ull(a.groups), ull(a.intfs), ull(a.records)));
  entry("reader", format("rebuilt %llu groups with %llu group interfaces from the tables alone",
                         ull(r.groups), ull(r.intfs)));
  entry("changes",
        format("the agent wrote or removed %llu table records in %.1f s of churn, %.0f "
               "a second; the RP/DF process moved %llu DF elections, each changing "
               "the interfaces the agent is DF on for every group of that RP",
               ull(changes), churnSeconds, churnSeconds > 0 ? double(changes) / churnSeconds : 0.0,
               ull(rpdfFinal_.dfMoves)));
  // From the agent's setter (the join's stamp) to the reader's entity holding it.
  Report const& b = readerBeforeRestart_;
  if (killedAt_ != 0) {
    entry("reader lag", format("from a join set in the agent to the reader's entity holding "
                               "it, over the %llu joins before the restart: median %s, 99th "
                               "percentile %s, longest %s",
                               ull(b.lagSamples), lagText(b.lagP50).c_str(),
                               lagText(b.lagP99).c_str(), lagText(b.lagMax).c_str()));
  }
  entry(killedAt_ != 0 ? "" : "reader lag",
        format("over all %llu joins of the run%s: median %s, 99th percentile %s, longest %s",
               ull(r.lagSamples),
               killedAt_ != 0 ? ", the reader re-attaching to the restarted agent included" : "",
               lagText(r.lagP50).c_str(), lagText(r.lagP99).c_str(), lagText(r.lagMax).c_str()));
  if (killedAt_ != 0) {
    entry("agent restart",
          format("killed with SIGKILL, churning again %.3f s later: it took back %llu groups "
                 "and %llu group interfaces from the tables in %.3f s, in %s of the event "
                 "loop (longest %.1f ms, mean %.1f ms), and removed %u interface records whose "
                 "group was gone",
                 backAt_ - killedAt_, ull(reconciled_.groups), ull(reconciled_.intfs),
                 reconciled_.reconcileSeconds, count(reconciled_.slices, "slice").c_str(),
                 reconciled_.sliceMax * 1e3, reconciled_.sliceMean * 1e3,
                 reconciled_.interfaceRecordsRemoved));
  }
  entry("reader == agent",
        format("%s: every attribute the tables carry and every value computed from them, for "
               "each of %llu groups",
               equal ? "EQUAL" : "DIFFERENT", ull(a.groups)));
  if (!equal) {
    std::string const diff = firstDifference(root_ + "/agent.digest", root_ + "/reader.digest");
    if (!diff.empty()) entry("first difference", diff);
  }
  return equal;
}

// What the configuration process asked, what reached the agent, and whether each group the agent
// cleared was seen vanishing from the reader afterwards (stamps of one clock, the agent's taken
// before the group's records went). A reader that is behind (stopped, descheduled) sees the net
// change of a key: a group cleared and created again before it looked never vanished for it, nor
// did one created and cleared before it looked; such groups are counted apart, and the final
// comparison checks their state.
bool Supervisor::configSummary() const {
  Report const& c = configFinal_;
  Report const& a = agentFinal_;
  std::size_t seen = 0, cameBack = 0, unseen = 0;
  auto after = [](std::vector<double> const& times, double t) {
    return std::any_of(times.begin(), times.end(), [t](double v) { return v >= t; });
  };
  for (auto const& [g, t] : cleared_) {
    if (after(vanished_[g], t)) {
      ++seen;
    } else if (after(created_[g], t)) {
      ++cameBack;
    } else {
      // Created last at `born` (0: built at the start), cleared at t: did the reader hold it?
      double born = 0;
      for (double c : created_[g]) born = c < t ? std::max(born, c) : born;
      if (!after(appeared_[g], born)) ++unseen;
    }
  }
  entry("configuration",
        format("the configuration process made %llu rounds: it changed the group expiry "
               "interval %llu times (last to %.2f s) and made %llu clear requests, each naming "
               "one group",
               ull(c.configRounds), ull(c.configChanges), c.expiry * kExpiryUnitSeconds,
               ull(c.clearRequests)));
  entry("", format("the agent received %llu expiry changes (the restarted agent is sent the "
                   "current one again) and %s the final configuration",
                   ull(configChanges_), a.configApplied ? "applied" : "did NOT apply"));
  entry("clear requests",
        format("the agent acted on %llu. Overwritten by the next request before the agent could "
               "read them (a VRF holds one request at a time; this happens while the agent is "
               "down or reconciling): %llu. Begun before the kill and finished after it: %llu. "
               "The requests acted on deleted %s (a request for a group already gone deletes "
               "nothing)",
               ull(clearsActed_), ull(clearsSuperseded_), ull(clearsResumed_),
               count(cleared_.size(), "group").c_str()));
  entry("cleared groups", format("%zu of the %zu groups deleted were seen vanishing from the "
                                 "reader; %zu came back (created again by the churn) and %zu "
                                 "came and went before the reader looked",
                                 seen, cleared_.size(), cameBack, unseen));
  char const* failure =
      !a.configApplied                        ? "the agent did not apply the final configuration"
      : configChanges_ == 0                   ? "no expiry change reached the agent"
      : clearsActed_ == 0 || cleared_.empty() ? "no clear request cleared a group"
      // Every request issued was acted on once, or overwritten before the agent could read it.
      : clearsActed_ + clearsSuperseded_ != c.clearRequests
          ? "clear requests acted on plus overwritten differ from those made"
      : seen + cameBack + unseen != cleared_.size()
          ? "a cleared group was not seen vanishing from the reader"
                                : nullptr;
  if (failure != nullptr) entry("configuration", std::string("FAILED: ") + failure);
  return failure == nullptr;
}

// Table writes that failed (a full file system) and the resyncs that brought the tables back;
// the run fails when the agent ended with failed writes not repaired.
bool Supervisor::tablesSummary() const {
  if (tableFailures_ == 0 && agentFinal_.tableFailures == 0) return true;
  entry("table failures",
        format("%llu table writes failed; %s brought the tables back to the agent's state, "
               "the longest %.3f s after its first failure",
               ull(tableFailures_ + agentFinal_.tableFailures), count(resyncs_, "resync").c_str(),
               longestResyncWait_));
  if (agentFinal_.tableFailures == 0) return true;
  entry("table failures", format("FAILED: %llu failed writes not repaired at the end",
                                 ull(agentFinal_.tableFailures)));
  return false;
}

int supervise(Options const& options) {
  // The children inherit $QUARN_ROOT: every table of the run lives in the private root.
  return DemoSupport::withPrivateRoot(
      "bidir-agent", [&](std::string const& root) { return Supervisor(root, options).run(); });
}

// With --reader-cpu N: this process, and every child it starts, leaves processor N to the
// reader. Returns "" or what is wrong. A reader that shares a processor with the agent is at
// times woken behind the agent's writes, which is the tail of its lag on a small machine.
std::string leaveProcessorToReader(int cpu) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
    return std::string("--reader-cpu: cannot read this process's processors: ") +
           std::strerror(errno);
  }
  if (!CPU_ISSET(cpu, &allowed)) {
    return "--reader-cpu " + std::to_string(cpu) + ": not a processor this process may run on";
  }
  CPU_CLR(cpu, &allowed);
  if (CPU_COUNT(&allowed) == 0) {
    return "--reader-cpu " + std::to_string(cpu) +
           ": the only processor this process may run on; the others need one too";
  }
  if (::sched_setaffinity(0, sizeof allowed, &allowed) != 0) {
    return "--reader-cpu " + std::to_string(cpu) + ": " + std::strerror(errno);
  }
  return "";
}

void runOnProcessor(int cpu) {
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(cpu, &only);
  if (::sched_setaffinity(0, sizeof only, &only) != 0) {
    throw std::system_error(errno, std::generic_category(),
                            "reader: cannot run on processor " + std::to_string(cpu));
  }
}

// A child: its role's main, with failures reported to the supervisor.
int child(Role role, Options const& options, std::string const& root) {
  int const reportFd = 3, commandFd = 4;
  try {
    DemoSupport::dieWithSupervisor(root);
    if (role == Role::reader && options.readerCpu >= 0) runOnProcessor(options.readerCpu);
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
    if (!options.parse(argc, argv, 5).empty()) return 2;
    for (Role role : {Role::rpdf, Role::agent, Role::reader, Role::config}) {
      if (std::strcmp(argv[2], roleName(role)) == 0) std::_Exit(child(role, options, argv[4]));
    }
    return 2;
  }
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(Options::help("bidir_agent").c_str(), stdout);
      return 0;
    }
  }
  if (std::string const error = options.parse(argc, argv, 1); !error.empty()) {
    std::fprintf(stderr, "bidir_agent: %s\n(bidir_agent --help lists the options)\n",
                 error.c_str());
    return 2;
  }
  if (options.readerCpu >= 0) {
    if (std::string const error = leaveProcessorToReader(options.readerCpu); !error.empty()) {
      std::fprintf(stderr, "bidir_agent: %s\n", error.c_str());
      return 2;
    }
  }
  return supervise(options);
}
