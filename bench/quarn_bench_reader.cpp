// The reading side on the group-interface record, 500,000 entries under a private root in
// /dev/shm:
// - lookups through a read-only reader mapping, with the writer idle and with the writer
//   churning at full speed in another process (compare with BM_BaselineMapLookup);
// - propagation: time from a write in the writer process to the reader's callback for that slot,
//   the reader asleep on the wake-up channel between changes (median and p99 as counters), and
//   the same while the writer updates other keys continuously between the timed writes;
// - the writer's CPU time per write with one and with 16 sleeping readers;
// - coalescing: after a burst of 1,000,000 updates over the table, how many notifications the
//   reader receives per key in one pass, and how large the notification files grew.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Bidir/Quarn/GroupIntf.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "Mem/Shared.h"
#include "Quarn/ConquerReader.h"
#include "Quarn/Fenix.h"
#include "Quarn/QuarnReader.h"
#include "Quarn/QuarnWriter.h"
#include "Quarn/WriterKickSm.h"

namespace {

using Routing::Pim::Bidir::GroupIntfKey;
using Record = Routing::Pim::Bidir::Quarn::GroupIntf;
using Value = KivQuarn::KivQuarnMapValueWrapper<Record, GroupIntfKey>;
using TableWriter = Quarn::QuarnWriter<GroupIntfKey, Value>;
using TableReader = Quarn::QuarnReader<GroupIntfKey, Value>;

Jorv::DebugHandler& dh() {
  return Jorv::Platform::getDebugHandler("QuarnReaderBench");
}

// CLOCK_MONOTONIC is one clock for every process of the machine: a timestamp taken by the
// writer can be compared with the reader's.
double monotonic() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// `count` distinct keys: 100 interfaces per group, in a fixed shuffled order.
std::vector<GroupIntfKey> makeKeys(std::size_t count) {
  std::vector<Lanx::IntfId> intfs;
  for (int e = 1; e <= 100; ++e) intfs.emplace_back("Ethernet" + std::to_string(e));
  std::vector<GroupIntfKey> out;
  out.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    auto const group = Lanx::IpGenAddr::ipv4Addr(0xe1000000u + std::uint32_t(i / intfs.size()));
    out.emplace_back(group, intfs[i % intfs.size()]);
  }
  std::shuffle(out.begin(), out.end(), std::mt19937(7));
  return out;
}

Value valueOf(GroupIntfKey const& key, double stamp) {
  Value v;
  v.key = key;
  v.joinState = Record::JoinState::joined;
  v.lastJoinReceived = stamp;
  v.forward = true;
  return v;
}

// A private root directory under /dev/shm, removed with its files.
struct ShmRoot {
  std::string path;
  ShmRoot() {
    char pattern[] = "/dev/shm/quarn-rbench-XXXXXX";
    char* dir = ::mkdtemp(pattern);
    path = dir != nullptr ? dir : "";
  }
  ~ShmRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
};

// A forked process, killed and reaped when the handle goes.
struct Child {
  pid_t pid = -1;
  ~Child() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  }
};

// Forks; the child runs `body` and exits without unwinding the parent's state. Dies with the
// parent.
template <class Body>
pid_t forkChild(Body&& body) {
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    std::_Exit(0);
  }
  return pid;
}

// Whether process `pid` is blocked in the kernel (state S in /proc/<pid>/stat).
bool blocked(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  auto const end = line.rfind(')');
  return end != std::string::npos && end + 2 < line.size() && line[end + 2] == 'S';
}

// Waits up to `seconds` for one byte on `fd`.
bool awaitByte(int fd, double seconds) {
  pollfd p{fd, POLLIN, 0};
  if (::poll(&p, 1, int(seconds * 1000)) != 1) return false;
  char byte;
  return ::read(fd, &byte, 1) == 1;
}

// A writer filled with every key; `kick` as for QuarnWriter.
struct Filled {
  std::vector<GroupIntfKey> keys;
  TableWriter writer;
  Filled(std::string const& root, std::size_t count, Quarn::WriterKick* kick = nullptr)
      : keys(makeKeys(count)),
        writer(dh(), "groupIntf", std::uint32_t(count), false, "GroupIntf", kick, root) {
    writer.attach();
    for (auto const& key : keys) writer.write(valueOf(key, 0));
  }
};

// A filled writer of the table "groupIntf" under `root` with its readers' wake-up channel on
// `activity`.
struct WithKick {
  std::string tableRoot;
  std::unique_ptr<Filled> t;
  Quarn::WriterKickSm kick;
  WithKick(std::string const& root, std::size_t count, Kiv::Activity& activity)
      : tableRoot(root + "/groupIntf"),
        kick((std::filesystem::create_directories(tableRoot), tableRoot),
             [this] { return t->writer.conquer().sequence(); },
             [this](std::uint32_t) { t->writer.conquer().updateNumReaders(); }, activity) {
    t = std::make_unique<Filled>(root, count, &kick);
  }
};

// Lookups of every key in turn through a reader mapping of `t`'s files.
void lookups(benchmark::State& state, Filled& t) {
  TableReader reader(dh(), t.writer.rootPath());
  std::string error;
  if (!reader.initialize(t.writer.fenix(), error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  std::size_t i = 0;
  std::uint64_t hits = 0, changed = 0;
  for (auto _ : state) {
    bool found = false;
    Value const v = reader.doLookup(t.keys[i], found);
    hits += found;
    changed += v.lastJoinReceived != 0;
    if (++i == t.keys.size()) i = 0;
  }
  state.counters["found"] = benchmark::Counter(double(hits), benchmark::Counter::kAvgIterations);
  state.counters["changed"] =
      benchmark::Counter(double(changed), benchmark::Counter::kAvgIterations);
  state.counters["lookaside/iter"] = benchmark::Counter(double(reader.slots().lookasideReads()),
                                                        benchmark::Counter::kAvgIterations);
}

void BM_QuarnReaderLookup(benchmark::State& state) {
  ShmRoot root;
  Filled t(root.path, std::size_t(state.range(0)));
  lookups(state, t);
}

// The forked child inherits the writer's shared mappings and keeps updating (one change in
// eight is a remove and re-insert) until it is killed; the parent only reads.
void BM_QuarnReaderLookupUnderChurn(benchmark::State& state) {
  ShmRoot root;
  Filled t(root.path, std::size_t(state.range(0)));
  Child churn;
  churn.pid = forkChild([&] {
    std::mt19937 rng(11);
    Value gone;
    for (std::uint64_t n = 1;; ++n) {
      auto const& key = t.keys[rng() % t.keys.size()];
      if (n % 8 == 0) t.writer.remove(key, gone);
      t.writer.write(valueOf(key, double(n)));
    }
  });
  lookups(state, t);
}

// The writer runs in a child process with its wake-up channel; each iteration asks it, over a
// pipe, to update one record stamped with the time just before the write. The reader consumes
// the queue whenever it is woken and reads each slot it is handed; a stamped record gives one
// lag. Without churn the reader sleeps on the channel between changes. With churn the writer
// updates other keys (stamped 0, the second half of the table) continuously between the timed
// writes, looking at its pipe every 64 updates, so the reader is woken, or still reading, at any
// point of a pass.
void propagation(benchmark::State& state, bool churn) {
  ShmRoot root;
  std::size_t const count = std::size_t(state.range(0));
  std::size_t const timedKeys = churn ? count / 2 : count;
  int trigger[2], ready[2];
  if (::pipe(trigger) != 0 || ::pipe(ready) != 0) {
    state.SkipWithError("pipe");
    return;
  }
  Child writerProcess;
  writerProcess.pid = forkChild([&] {
    ::close(trigger[1]);
    Kiv::Activity activity;
    std::unique_ptr<Filled> t;
    std::filesystem::create_directories(root.path + "/groupIntf");
    Quarn::WriterKickSm kick(
        root.path + "/groupIntf", [&] { return t->writer.conquer().sequence(); },
        [&](std::uint32_t) { t->writer.conquer().updateNumReaders(); }, activity);
    t = std::make_unique<Filled>(root.path, count, &kick);
    std::size_t next = 0;
    bool stopped = false;
    Kiv::FdWatch watch(activity, trigger[0], EPOLLIN, [&](std::uint32_t) {
      char byte;
      if (::read(trigger[0], &byte, 1) != 1) {
        stopped = true;
        activity.stop();
        return;
      }
      t->writer.write(valueOf(t->keys[next++ % timedKeys], monotonic()));
    });
    char byte = 1;
    (void)!::write(ready[1], &byte, 1);
    if (!churn) {
      activity.run();
      return;
    }
    for (std::size_t k = 0; !stopped;) {
      for (int i = 0; i < 64; ++i, ++k) {
        t->writer.write(valueOf(t->keys[timedKeys + k % (count - timedKeys)], 0));
      }
      activity.runOnce(0);
    }
  });
  ::close(trigger[0]);
  ::close(ready[1]);
  if (!awaitByte(ready[0], 120)) {
    state.SkipWithError("writer process did not start");
    return;
  }
  std::string const tableRoot = root.path + "/groupIntf";
  std::uint32_t const fenix = Quarn::FenixFile::read(tableRoot);
  Kiv::Activity activity;
  TableReader reader(dh(), tableRoot);
  std::vector<double> lags;
  bool woken = false;
  auto consumer = [&](std::uint32_t slot) {
    Value v;
    if (slot >= reader.numSlots()) reader.slots().doResize();
    reader.slots().readValue(reader.slots().slot(slot), &v, sizeof v);
    if (v.lastJoinReceived != 0) lags.push_back(monotonic() - v.lastJoinReceived);
  };
  Quarn::ConquerReader conquer(dh(), tableRoot, &activity, [&] { woken = true; });
  std::string error;
  if (!reader.initialize(fenix, error) || !conquer.initialize(fenix, error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  conquer.conquer(consumer);  // drained: announces sleep
  for (auto _ : state) {
    std::size_t const before = lags.size();
    char byte = 1;
    (void)!::write(trigger[1], &byte, 1);
    double const deadline = monotonic() + 5;
    while (lags.size() == before && monotonic() < deadline) {
      activity.runOnce(0.1);
      if (woken) {
        woken = false;
        conquer.conquer(consumer);
      }
    }
    if (lags.size() == before) {
      state.SkipWithError("no notification within 5 seconds");
      break;
    }
    state.SetIterationTime(lags.back());
  }
  ::close(trigger[1]);
  ::close(ready[0]);
  if (lags.empty()) return;
  std::sort(lags.begin(), lags.end());
  state.counters["median_us"] = lags[lags.size() / 2] * 1e6;
  state.counters["p99_us"] = lags[std::min(lags.size() - 1, lags.size() * 99 / 100)] * 1e6;
  state.counters["max_us"] = lags.back() * 1e6;
}

void BM_QuarnPropagation(benchmark::State& state) {
  propagation(state, false);
}

void BM_QuarnPropagationUnderChurn(benchmark::State& state) {
  propagation(state, true);
}

std::size_t fileBytes(std::string const& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? std::size_t(st.st_size) : 0;
}

// One connected reader, idle during a burst of 1,000,000 updates over the table, then one pass.
// Tombstoning keeps one live notification per slot, so the pass must hand each changed slot
// over once, and compaction keeps each notification file within twice the live entries.
void BM_QuarnBurstCoalescing(benchmark::State& state) {
  ShmRoot root;
  std::size_t const count = std::size_t(state.range(0));
  Kiv::Activity activity;
  WithKick table(root.path, count, activity);
  std::string const& tableRoot = table.tableRoot;
  auto& t = table.t;
  auto& kick = table.kick;
  Quarn::ConquerReader conquer(dh(), tableRoot, &activity);
  std::string error;
  if (!conquer.initialize(t->writer.fenix(), error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  double const deadline = monotonic() + 10;
  while (kick.numReaders() != 1 && monotonic() < deadline) activity.runOnce(0.05);

  std::vector<std::uint32_t> perSlot;
  std::uint32_t worst = 0;
  std::size_t distinct = 0, largestFile = 0, bound = 0;
  std::mt19937 rng(3);
  std::uint64_t stamp = 0;
  for (auto _ : state) {
    for (int i = 0; i < 1000000; ++i) {
      t->writer.write(valueOf(t->keys[rng() % count], double(++stamp)));
    }
    perSlot.assign(t->writer.capacity(), 0);
    conquer.conquer([&](std::uint32_t slot) {
      if (slot < perSlot.size()) ++perSlot[slot];
    });
    state.PauseTiming();
    worst = std::max(worst, *std::max_element(perSlot.begin(), perSlot.end()));
    distinct = std::size_t(
        std::count_if(perSlot.begin(), perSlot.end(), [](std::uint32_t n) { return n != 0; }));
    std::size_t const live = t->writer.conquer().liveCount();
    bound = Mem::roundUpToWholePage(Quarn::ConquerTable::fileSize(std::uint32_t(2 * live)));
    largestFile = std::max(
        {largestFile, fileBytes(tableRoot + "/conquer.1"), fileBytes(tableRoot + "/conquer.2")});
    // Let the writer learn the acknowledgement before the next burst.
    while (kick.lowestSequence() != conquer.lastSequence() && monotonic() < deadline + 600) {
      activity.runOnce(0.05);
    }
    state.ResumeTiming();
  }
  state.counters["maxNotificationsPerKey"] = worst;
  state.counters["keysNotified"] = double(distinct);
  state.counters["outOfSync"] = conquer.outOfSync();
  state.counters["fileBytes"] = double(largestFile);
  state.counters["fileBound"] = double(bound);
  state.counters["fileToBound"] = bound == 0 ? 0 : double(largestFile) / double(bound);
}

// The writer's CPU time per write with `state.range(0)` reader processes asleep on the wake-up
// channel, on a quiet table: every write wakes every reader. Timed: the write (its wake-up
// included) and a turn of the writer's event loop for whatever the readers made it handle. Not
// timed: waiting, between writes, until every reader has consumed the write and sleeps again
// (polling the kick area, without the writer's event loop). /1 is the baseline of /16; /0 is the
// write alone. Counter: wake-up calls the writer made per write.
//
// Every variant forks the same `processes` children, the readers and idle stand-ins, and the
// wait between writes reads the state of all of them from /proc. That wait runs on the writer's
// thread, and 16 file reads leave its caches and TLB colder for the next timed write than one
// does: measured with one reader on one CPU, 15 extra reads of /proc between writes made each
// write cost the writer as much as 15 extra readers did, while the wake-up itself stayed one
// eventfd write that wakes one process. With the wait the same in every variant, the ratio /16
// to /1 is what the readers cost the writer.
void BM_QuarnWriterCostWithReaders(benchmark::State& state) {
  constexpr std::uint32_t processes = 16;
  ShmRoot root;
  std::uint32_t const readers = std::uint32_t(state.range(0));
  Kiv::Activity activity;
  WithKick table(root.path, 10000, activity);
  std::string const& tableRoot = table.tableRoot;
  auto& t = table.t;
  auto& kick = table.kick;
  std::vector<Child> children(std::max(readers, processes));
  for (std::uint32_t i = readers; i < children.size(); ++i) {
    children[i].pid = forkChild([] {
      for (;;) ::pause();
    });
  }
  for (std::uint32_t i = 0; i < readers; ++i) {
    children[i].pid = forkChild([&] {
      Kiv::Activity own;
      bool woken = false;
      Quarn::ConquerReader conquer(dh(), tableRoot, &own, [&] { woken = true; });
      std::string error;
      if (!conquer.initialize(t->writer.fenix(), error)) return;
      conquer.conquer([](std::uint32_t) {});
      for (;;) {
        own.runOnce(1);
        if (woken) {
          woken = false;
          conquer.conquer([](std::uint32_t) {});
        }
      }
    });
  }
  // Asleep: counted in the sleep word and blocked in the kernel (a reader that has announced its
  // sleep but not yet reached its wait is passed over by a wake-up, at a small cost).
  auto settled = [&](std::uint64_t seq) {
    return kick.lowestSequence() >= seq && kick.numSleepers() == readers &&
           std::all_of(children.begin(), children.end(), [](Child const& c) { return blocked(c.pid); });
  };
  double deadline = monotonic() + 30;
  while (!(kick.numReaders() == readers && settled(0)) && monotonic() < deadline) {
    activity.runOnce(0.05);
  }
  if (kick.numReaders() != readers) {
    state.SkipWithError("readers did not connect");
    return;
  }
  std::size_t next = 0;
  std::uint64_t const wakeupsBefore = kick.wakeups();
  for (auto _ : state) {
    ++next;
    t->writer.write(valueOf(t->keys[next % t->keys.size()], double(next)));
    activity.runOnce(0);
    std::uint64_t const seq = t->writer.conquer().sequence();
    state.PauseTiming();
    deadline = monotonic() + 10;
    while (!settled(seq) && monotonic() < deadline) ::usleep(20);
    bool const late = !settled(seq);
    state.ResumeTiming();
    if (late) {
      state.SkipWithError("readers did not consume a write within 10 seconds");
      break;
    }
  }
  state.counters["wakeups/write"] = benchmark::Counter(double(kick.wakeups() - wakeupsBefore),
                                                       benchmark::Counter::kAvgIterations);
}

}  // namespace

BENCHMARK(BM_QuarnWriterCostWithReaders)->Arg(0)->Arg(1)->Arg(16)->Iterations(5000);
BENCHMARK(BM_QuarnReaderLookup)->Arg(500000)->Arg(5000000);
BENCHMARK(BM_QuarnReaderLookupUnderChurn)->Arg(500000);
BENCHMARK(BM_QuarnPropagation)
    ->Arg(500000)
    ->UseManualTime()
    ->Iterations(3000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_QuarnPropagationUnderChurn)
    ->Arg(500000)
    ->UseManualTime()
    ->Iterations(3000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_QuarnBurstCoalescing)->Arg(500000)->Iterations(2)->Unit(benchmark::kMillisecond);
