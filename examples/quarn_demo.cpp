// The shared-memory table engine across processes, in a private temporary root under /dev/shm:
// one writer process churns a 500,000-record group-interface table while two reader processes
// (a direct reader of the shared files and a shadow copy) look records up and follow every
// change. Halfway through, the writer is killed with SIGKILL and started again; the readers
// re-attach by themselves. At the end the writer validates its files and both readers must show
// exactly the writer's final table. Run it with `make demo`; Ctrl-C stops it cleanly.
//
// Options: --seconds S (run time, default 30), --restart-at S (default 12), --rate N (writer
// updates per second, 0 = as fast as it can; default 200000), --lookup-rate N (lookups per second
// of each reader, 0 = as fast as it can; default 500000), --records N (default 500000).
// With the defaults the processes leave each other CPU time on a small machine, so the lag
// figures show the engine rather than the scheduler.
//
// Processes talk over pipes: each child sends fixed-size `Report`s (each one write, below
// PIPE_BUF, so never interleaved) and receives fixed-size `Command`s. Every clock reading is
// CLOCK_MONOTONIC, one clock for all processes, so a write stamp taken by the writer can be
// compared with the time a reader hears of it.

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Bidir/Quarn/GroupIntf.h"
#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "Quarn/QuarnMap.h"
#include "tools/support/DemoSupport.h"
#include "tools/support/Supervisor.h"

namespace {

using Key = Routing::Pim::Bidir::GroupIntfKey;
using Record = Routing::Pim::Bidir::Quarn::GroupIntf;
using Value = KivQuarn::KivQuarnMapValueWrapper<Record, Key>;
using Table = Quarn::QuarnMap<Key, Value>;

char const* const tableName = "groupIntf";

struct Options {
  double seconds = 30;
  double restartAt = 12;
  double rate = 200000;
  double lookupRate = 500000;
  std::uint32_t records = 500000;
};

double monotonic() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// The table's keys: 100 interfaces for each group from 239.1.0.0 on, the same in every process.
std::vector<Key> demoKeys(std::uint32_t count) {
  std::vector<Lanx::IntfId> intfs;
  for (int e = 1; e <= 100; ++e) intfs.emplace_back("Ethernet" + std::to_string(e));
  std::vector<Key> keys;
  keys.reserve(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    keys.emplace_back(Lanx::IpGenAddr::ipv4Addr(0xef010000u + i / 100), intfs[i % 100]);
  }
  return keys;
}

// Change number n of a record, stamped with its write time. The three flags always agree
// (forward = localReceiverInclude = !iAmDf), and they sit at both ends of the record: a copy that
// mixed two versions would show it.
Value valueOf(Key const& key, std::uint64_t n, double stamp) {
  Value v;
  v.key = key;
  v.forward = (n & 1) != 0;
  v.localReceiverInclude = v.forward;
  v.iAmDf = !v.forward;
  v.joinState = (n & 2) != 0 ? Record::JoinState::joined : Record::JoinState::noInfo;
  v.lastJoinReceived = stamp;
  return v;
}

bool wellFormed(Value const& v) {
  return v.forward == v.localReceiverInclude && v.iAmDf != v.forward;
}

// Order-independent digest of a set of records: the sum of a 64-bit hash of each record's bytes.
std::uint64_t recordHash(Value const& v) {
  unsigned char bytes[sizeof(Value)];
  std::memcpy(bytes, &v, sizeof bytes);
  std::uint64_t h = 1469598103934665603ull;
  for (unsigned char b : bytes) h = (h ^ b) * 1099511628211ull;
  return h ^ (h >> 29);
}

struct Digest {
  std::uint64_t sum = 0;
  std::uint64_t count = 0;
  bool operator==(Digest const&) const = default;
};

Digest digestOf(Table const& table) {
  Digest d;
  Value v;
  Quarn::IterHint hint;
  for (bool more = table.first(v, hint); more; more = table.next(Key(v.key), v, hint)) {
    d.sum += recordHash(v);
    ++d.count;
  }
  return d;
}

using DemoSupport::LagHistogram;

// ---- messages between the processes

enum class Role : std::uint32_t { writer = 0, direct = 1, shadow = 2 };
char const* roleName(Role role) {
  switch (role) {
    case Role::writer:
      return "writer";
    case Role::direct:
      return "direct reader";
    case Role::shadow:
      return "shadow reader";
  }
  return "?";
}

struct Report {
  // resumed: a reader's first notification after a silence (the writer was away).
  enum Kind : std::uint32_t { attached, ready, progress, resumed, finished, failed };
  Kind kind = progress;
  Role role = Role::writer;
  std::uint32_t fenix = 0;
  std::uint32_t isAttached = 0;
  std::uint32_t kept = 0;        // writer: entries that survived its restart
  std::uint32_t valid = 0;       // writer: validation result; reader: digest matched
  double time = 0;               // when it was sent (or when the state it reports began)
  double attachSeconds = 0;      // writer: time spent in attach()
  std::uint64_t records = 0;     // entries in the table (as this process sees it)
  std::uint64_t operations = 0;  // writer: updates; reader: lookups
  std::uint64_t notifications = 0;
  std::uint64_t malformed = 0;  // reader: copies that failed the record's consistency check
  Digest digest;
  double lagP50 = 0, lagP99 = 0, lagMax = 0;
  std::uint64_t lagSamples = 0;  // reader: writes timed, from the write to the notification
  char text[96] = {};
};
static_assert(sizeof(Report) < PIPE_BUF);

struct Command {
  enum Op : std::uint32_t { stop, verify };
  Op op = stop;
  Digest digest;
};

using DemoSupport::receive;
using DemoSupport::send;

// ---- the child processes

// What the writer and the readers share: their table, the keys, the activity, the report pipe
// and the command pipe, whose messages go to `onCommand` (nullptr: the parent went away).
class ChildBody {
 public:
  ChildBody(Role role, std::string const& root, Options const& options, int reportFd, int commandFd,
            Quarn::KeyNotifier<Key>* notifier)
      : role_(role),
        options_(options),
        reportFd_(reportFd),
        keys_(demoKeys(options.records)),
        table_(tableName, notifier, root, activity_),
        commands_(activity_, commandFd, EPOLLIN, [this, commandFd](std::uint32_t) {
          Command c;
          onCommand(receive(commandFd, c) ? &c : nullptr);
        }) {}
  virtual ~ChildBody() = default;

 protected:
  virtual void onCommand(Command const* command) = 0;
  Report report(Report::Kind kind, std::uint64_t operations) const {
    Report r;
    r.kind = kind;
    r.role = role_;
    r.fenix = table_.fenixId();
    r.isAttached = table_.fullyAttached();
    r.time = monotonic();
    r.records = table_.members();
    r.operations = operations;
    return r;
  }
  void sendReport(Report const& r) const { send(reportFd_, r); }

  Role role_;
  Options options_;
  int reportFd_;
  std::vector<Key> keys_;
  Kiv::Activity& activity_ = Kiv::Activity::current();
  Table table_;
  Kiv::FdWatch commands_;
};

// The writer: fills the table, churns it until told to stop, then validates it and reports its
// final contents.
class WriterProcess final : public ChildBody {
 public:
  WriterProcess(std::string const& root, Options const& options, int reportFd, int commandFd)
      : ChildBody(Role::writer, root, options, reportFd, commandFd, nullptr) {}

  void run();

 private:
  void onCommand(Command const* command) override {
    if (command == nullptr) DemoSupport::supervisorGone();
    if (command->op == Command::stop) stopped_ = true;
  }
  Report report(Report::Kind kind) const { return ChildBody::report(kind, updates_); }
  void churn();

  std::uint64_t updates_ = 0;
  bool stopped_ = false;
};

void WriterProcess::run() {
  double const start = monotonic();
  table_.init(Quarn::QuarnType::writer, false, options_.records);
  Report attached = report(Report::attached);
  attached.attachSeconds = monotonic() - start;
  attached.kept = table_.members();
  sendReport(attached);
  // Fill what the table lacks (everything on a first start or after a re-format). The fill is
  // stamped 0: it is a bulk load, not a change whose propagation the readers should time.
  bool found = false;
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    table_.safeLookup(keys_[i], found);
    if (!found) table_.safeWrite(valueOf(keys_[i], i, 0));
    if (i % 4096 == 0) activity_.runOnce(0);
  }
  sendReport(report(Report::ready));
  churn();
  Report last = report(Report::finished);
  last.valid = table_.validate() && table_.validateFiles();
  last.digest = digestOf(table_);
  sendReport(last);
  // Keep serving the readers' wake-up channel until the parent closes the command pipe.
  activity_.run();
}

// Updates random records at the configured rate: seven in eight in place, one in eight removed
// and inserted again (so slots are freed and reused under the readers).
void WriterProcess::churn() {
  std::mt19937_64 rng(std::uint64_t(::getpid()));
  double const start = monotonic();
  double nextReport = start;
  while (!stopped_) {
    double const now = monotonic();
    std::uint64_t batch = 2000;
    if (options_.rate > 0) {
      double const due = (now - start) * options_.rate - double(updates_);
      batch = due <= 0 ? 0 : std::min<std::uint64_t>(batch, std::uint64_t(due) + 1);
    }
    for (std::uint64_t i = 0; i < batch; ++i) {
      Key const& key = keys_[rng() % keys_.size()];
      if (++updates_ % 8 == 0) table_.safeRemove(key);
      table_.safeWrite(valueOf(key, updates_, monotonic()));
    }
    activity_.runOnce(batch == 0 ? 0.001 : 0);
    if (now >= nextReport) {
      sendReport(report(Report::progress));
      nextReport = now + 0.25;
    }
  }
}

// ---- the reader processes

// A reader process: a table in mode "reader" (lock-free lookups in the shared files) or
// "shadow" (a private copy kept in step by the notifications). Both mount by themselves when
// the writer's files appear and again when the writer starts a new incarnation; both report
// every changed key, which is looked up to measure how long the change took to arrive.
class ReaderProcess final : public ChildBody, public Quarn::KeyNotifier<Key> {
 public:
  ReaderProcess(Role role, std::string const& root, Options const& options, int reportFd,
                int commandFd)
      : ChildBody(role, root, options, reportFd, commandFd, this) {
    table_.init(role == Role::shadow ? Quarn::QuarnType::shadow : Quarn::QuarnType::reader, false,
                options.records);
  }

  void run();

  void onKey(Key const& key) override {
    ++notifications_;
    double const now = monotonic();
    if (now - lastNotification_ > 0.2) resumedAt_ = now;
    lastNotification_ = now;
    bool found = false;
    Value const v = table_.safeLookup(key, found);
    // Entries reported while attaching were written before: not a propagation delay (the first
    // attach reports them before attachedAt_ is set; the bulk fill is stamped 0).
    if (found && attachedAt_ > 0 && v.lastJoinReceived >= attachedAt_) {
      lag_.add(now - v.lastJoinReceived);
    }
  }

 private:
  void onCommand(Command const* command) override {
    if (command == nullptr) {
      DemoSupport::supervisorGone();
    } else if (command->op == Command::verify) {
      verify_ = true;
      target_ = command->digest;
    }
  }
  Report report(Report::Kind kind) const {
    Report r = ChildBody::report(kind, lookups_);
    r.notifications = notifications_;
    r.malformed = malformed_;
    r.lagP50 = lag_.percentile(0.5);
    r.lagP99 = lag_.percentile(0.99);
    r.lagMax = lag_.max();
    r.lagSamples = lag_.total();
    return r;
  }
  void lookups();
  void finish();

  LagHistogram lag_;
  double attachedAt_ = 0;
  double lastNotification_ = 0;
  double resumedAt_ = 0;  // to report: when notifications came again after a silence
  std::uint64_t lookups_ = 0;
  std::uint64_t notifications_ = 0;
  std::uint64_t malformed_ = 0;
  bool verify_ = false;
  Digest target_;
};

void ReaderProcess::run() {
  double nextReport = 0;
  std::uint32_t reportedFenix = 0;
  bool reportedAttached = false;
  double const start = monotonic();
  while (!verify_) {
    // Lookups at the configured rate; the rest of the time waits for notifications.
    bool const due =
        options_.lookupRate <= 0 || double(lookups_) < (monotonic() - start) * options_.lookupRate;
    if (due) lookups();
    activity_.runOnce(due && table_.fullyAttached() ? 0 : 0.001);
    double const now = monotonic();
    if (table_.fenixId() != reportedFenix || table_.fullyAttached() != reportedAttached) {
      // Sent at once: the parent times re-attachment from it.
      reportedFenix = table_.fenixId();
      reportedAttached = table_.fullyAttached();
      if (reportedAttached) attachedAt_ = now;
      sendReport(report(Report::attached));
    } else if (resumedAt_ != 0) {
      Report r = report(Report::resumed);
      r.time = std::exchange(resumedAt_, 0);
      sendReport(r);
    } else if (now >= nextReport) {
      sendReport(report(Report::progress));
      nextReport = now + 0.25;
    }
  }
  if (verify_) finish();
}

void ReaderProcess::lookups() {
  if (!table_.fullyAttached()) return;
  std::uint64_t const start = lookups_;
  for (; lookups_ < start + 256; ++lookups_) {
    Key const& key = keys_[(lookups_ * 2654435761u) % keys_.size()];
    bool found = false;
    Value const v = table_.safeLookup(key, found);
    if (found && (!(Key(v.key) == key) || !wellFormed(v))) ++malformed_;
  }
}

// The writer has stopped: wait (bounded) until this process's view is the writer's final table.
void ReaderProcess::finish() {
  double const deadline = monotonic() + 15;
  Digest seen;
  do {
    activity_.runOnce(0.01);
    seen = digestOf(table_);
  } while (!(seen == target_) && monotonic() < deadline);
  Report r = report(Report::finished);
  r.digest = seen;
  r.valid = seen == target_;
  sendReport(r);
  for (;;) activity_.runOnce(-1);  // until the supervisor stops it
}

// ---- the parent: starts, watches, restarts and stops the children

class Demo : DemoSupport::Supervisor<Role, Report> {
 public:
  Demo(std::string root, Options const& options)
      : DemoSupport::Supervisor<Role, Report>("the demonstration did not finish in time"),
        root_(std::move(root)),
        options_(options) {}

  // 0 on success.
  int run();

 private:
  Child& start(Role role);
  void onReport(Child& child, Report const& r) override;
  void progress() override;
  void restart() override;  // the writer, killed with SIGKILL
  void stop() override;     // the writer's churn
  bool summary() const;
  std::string notFollowed(int reader) const;

  std::string root_;
  Options options_;
  Child* writer_ = nullptr;
  // Restart bookkeeping.
  double killedAt_ = 0;
  double restartedAttachAt_ = 0;
  std::uint32_t oldFenix_ = 0;
  Report restarted_;
  double restartedReadyAt_ = 0;
  double reattached_[3] = {0, 0, 0};
  double resumed_[3] = {0, 0, 0};
  // Rates over the run, from progress reports.
  std::uint64_t updatesBefore_ = 0;
  Report writerFinal_;
  Report readerFinal_[3];
  std::uint64_t mostRecords_[3] = {0, 0, 0};  // readers: the most records they showed
  int finals_ = 0;
};

Demo::Child& Demo::start(Role role) {
  return spawn(role, [&](int reportFd, int commandFd) {
    try {
      DemoSupport::dieWithSupervisor(root_);
      if (role == Role::writer) {
        WriterProcess(root_, options_, reportFd, commandFd).run();
      } else {
        ReaderProcess(role, root_, options_, reportFd, commandFd).run();
      }
      return 0;
    } catch (std::exception const& e) {
      return DemoSupport::reportFailure<Report>(reportFd, role, e);
    }
  });
}

void Demo::onReport(Child& child, Report const& r) {
  child.last = r;
  int const index = int(r.role);
  mostRecords_[index] = std::max(mostRecords_[index], r.records);
  switch (r.kind) {
    case Report::failed:  // taken by dispatch()
      break;
    case Report::attached:
      if (r.role == Role::writer) {
        std::printf("[%5.1fs] writer attached: fenix 0x%08x, %u entries kept, attach %.1f ms\n",
                    since(), r.fenix, r.kept, r.attachSeconds * 1e3);
        if (killedAt_ != 0) {
          restarted_ = r;
          restartedAttachAt_ = r.time;
        }
      } else if (r.isAttached) {
        std::printf("[%5.1fs] %s attached to fenix 0x%08x\n", since(), roleName(r.role), r.fenix);
        if (restartedAttachAt_ != 0 && r.fenix == restarted_.fenix) {
          reattached_[index] = r.time;
        }
      } else {
        std::printf("[%5.1fs] %s detached\n", since(), roleName(r.role));
      }
      break;
    case Report::ready:
      std::printf("[%5.1fs] writer ready: %llu records\n", since(),
                  static_cast<unsigned long long>(r.records));
      if (killedAt_ != 0) restartedReadyAt_ = r.time;
      break;
    case Report::resumed:
      if (restartedReadyAt_ != 0 && resumed_[index] == 0) {
        resumed_[index] = r.time;
        std::printf("[%5.1fs] %s hears the new writer's changes\n", since(), roleName(r.role));
      }
      break;
    case Report::progress:
      break;
    case Report::finished:
      if (r.role == Role::writer) {
        writerFinal_ = r;
        std::printf("[%5.1fs] writer stopped: %llu records, validation %s\n", since(),
                    static_cast<unsigned long long>(r.records), r.valid ? "passed" : "FAILED");
        Command verify;
        verify.op = Command::verify;
        verify.digest = r.digest;
        for (auto const& c : children_) {
          if (c->role != Role::writer && c->pid > 0) send(c->commandFd, verify);
        }
      } else {
        readerFinal_[index] = r;
        if (++finals_ == 2) loop_.stop();
      }
      break;
  }
}

void Demo::progress() {
  auto line = [](Report const& r) {
    char buf[160];
    if (r.role == Role::writer) {
      std::snprintf(buf, sizeof buf, "writer %06x %7llu rec %9llu upd", r.fenix & 0xffffff,
                    static_cast<unsigned long long>(r.records),
                    static_cast<unsigned long long>(r.operations));
    } else {
      std::snprintf(buf, sizeof buf, "%s %s %6.2fM lookups %7llu notif p50 %.0fus",
                    r.role == Role::direct ? "direct" : "shadow", r.isAttached ? "up" : "--",
                    double(r.operations) / 1e6, static_cast<unsigned long long>(r.notifications),
                    r.lagP50);
    }
    return std::string(buf);
  };
  std::string text;
  for (auto const& c : children_) {
    if (c->pid > 0) text += (text.empty() ? "" : " | ") + line(c->last);
  }
  std::printf("[%5.1fs] %s\n", since(), text.c_str());
  std::fflush(stdout);
  progress_.armIn(1);
}

void Demo::restart() {
  oldFenix_ = writer_->last.fenix;
  updatesBefore_ = writer_->last.operations;
  std::printf("[%5.1fs] killing the writer (SIGKILL) in the middle of its churn\n", since());
  killedAt_ = monotonic();
  killChild(*writer_);
  writer_ = &start(Role::writer);
}

void Demo::stop() {
  std::printf("[%5.1fs] stopping the writer's churn\n", since());
  command(writer_, Command{});  // a default command stops the churn
}

int Demo::run() {
  std::printf("quarn demo: %u records, %.0f s, writer restart at %.0f s, root %s\n",
              options_.records, options_.seconds, options_.restartAt, root_.c_str());
  // The readers start first: they wait for the writer's files to appear.
  start(Role::direct);
  start(Role::shadow);
  writer_ = &start(Role::writer);
  progress_.armIn(1);
  restart_.armIn(options_.restartAt);
  stop_.armIn(options_.seconds);
  giveUp_.armIn(options_.seconds + 60);
  if (int const status = runToEnd(); status != 0) return status;
  return summary() ? 0 : 1;
}

// Why a reader did not follow the writer through the run, or "" when it did: it must have
// shown records, timed writes made while it was attached, attached to the restarted writer's
// files, and end with the writer's final table and no torn copy.
std::string Demo::notFollowed(int reader) const {
  Report const& r = readerFinal_[reader];
  if (mostRecords_[reader] == 0) return "it showed no records during the run";
  if (r.lagSamples == 0)
    return "it timed no write (no lag sample): it heard of none while attached";
  if (r.fenix != writerFinal_.fenix) return "it did not attach to the restarted writer's files";
  if (r.malformed != 0) return "it read " + std::to_string(r.malformed) + " torn copies";
  if (!r.valid) return "its table differs from the writer's final one";
  return "";
}

// Prints the figures; false when the writer's files did not validate or a reader did not follow.
bool Demo::summary() const {
  double const churnSeconds = options_.seconds - 2;  // roughly: fill and restart excluded
  std::uint64_t const updates = updatesBefore_ + writerFinal_.operations;
  std::printf("\n==== summary ====\n");
  std::printf("records at the end        %llu\n",
              static_cast<unsigned long long>(writerFinal_.records));
  std::printf("writer updates            %llu (%.0f per second)\n",
              static_cast<unsigned long long>(updates), double(updates) / churnSeconds);
  for (int i = 1; i <= 2; ++i) {
    Report const& r = readerFinal_[i];
    std::printf(
        "%-25s %.2f M lookups (%.2f M per second), %llu notifications, "
        "%llu malformed copies\n",
        roleName(Role(i)), double(r.operations) / 1e6,
        double(r.operations) / 1e6 / options_.seconds,
        static_cast<unsigned long long>(r.notifications),
        static_cast<unsigned long long>(r.malformed));
    std::printf("%-25s notification lag p50 %.0f us, p99 %.0f us, max %.1f ms\n", "", r.lagP50,
                r.lagP99, r.lagMax / 1e3);
  }
  std::printf(
      "writer restart            fenix 0x%08x -> 0x%08x, %u entries kept, "
      "back up %.1f ms after SIGKILL\n",
      oldFenix_, restarted_.fenix, restarted_.kept, (restartedAttachAt_ - killedAt_) * 1e3);
  for (int i = 1; i <= 2; ++i) {
    if (reattached_[i] != 0) {
      std::printf("%-25s re-attached %.1f ms after the writer\n", roleName(Role(i)),
                  std::max(0.0, reattached_[i] - restartedAttachAt_) * 1e3);
    } else {
      std::printf("%-25s stayed attached (same incarnation)\n", roleName(Role(i)));
    }
    if (resumed_[i] != 0) {
      std::printf("%-25s first change of the new writer heard %.1f ms after it began writing\n", "",
                  std::max(0.0, resumed_[i] - restartedReadyAt_) * 1e3);
    }
  }
  std::printf("validation                %s\n", writerFinal_.valid ? "passed" : "FAILED");
  for (int i = 1; i <= 2; ++i) {
    std::printf("%-25s %s the writer's final table (%llu entries)\n", roleName(Role(i)),
                readerFinal_[i].valid ? "matches" : "DIFFERS FROM",
                static_cast<unsigned long long>(readerFinal_[i].digest.count));
  }
  bool ok = writerFinal_.valid;
  for (int i = 1; i <= 2; ++i) {
    if (std::string const why = notFollowed(i); !why.empty()) {
      std::printf("FAILED: the %s did not follow the writer: %s\n", roleName(Role(i)), why.c_str());
      ok = false;
    }
  }
  if (!writerFinal_.valid) std::printf("FAILED: the writer's files did not validate\n");
  return ok;
}

bool parse(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (i + 1 >= argc) return false;
    double const value = std::atof(argv[++i]);
    if (arg == "--seconds" && value >= 5) {
      options.seconds = value;
    } else if (arg == "--restart-at" && value > 0) {
      options.restartAt = value;
    } else if (arg == "--rate" && value >= 0) {
      options.rate = value;
    } else if (arg == "--lookup-rate" && value >= 0) {
      options.lookupRate = value;
    } else if (arg == "--records" && value >= 1000 && value <= 5000000) {
      options.records = std::uint32_t(value);
    } else {
      return false;
    }
  }
  return options.restartAt < options.seconds;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(
        stderr,
        "usage: %s [--seconds S] [--restart-at S] [--rate N] [--lookup-rate N] [--records N]\n",
        argv[0]);
    return 2;
  }
  return DemoSupport::withPrivateRoot("quarn-demo", [&](std::string const& root) {
    Demo demo(root, options);
    return demo.run();
  });
}
