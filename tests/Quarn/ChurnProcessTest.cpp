// A writer process churns random inserts, updates and removes over a large table while two
// reader processes, a direct reader of the shared files and a shadow copy, look records up,
// iterate the whole table and check every changed key they are told of. Every record carries a
// checksum of its own bytes, so a torn copy (a mix of two versions, or a slot reused under the
// reader) cannot pass unnoticed; a reader that meets a broken chain reports it in the table's
// corruption file. When the writer stops, each reader's view must equal the writer's final
// table, also after the writer was killed mid-churn and started again (the readers re-attach by
// themselves). All waits have deadlines: a hang fails the test.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <functional>
#include <random>
#include <unordered_map>
#include <vector>

#include "Quarn/Files.h"
#include "Quarn/QuarnMap.h"
#include "TestRecord.h"
#include "support/ActivityWait.h"
#include "support/Sanitizers.h"

using namespace QuarnTest;

namespace {

constexpr std::uint32_t numKeys = TestSupport::kSanitized ? 50000 : 500000;
constexpr std::uint32_t numOps = TestSupport::kSanitized ? 1000000 : 3000000;

struct ChurnRecord {
  static constexpr char const* typeName = "QuarnTest::ChurnRecord";
  TestKey key;
  std::uint32_t version = 0;
  std::uint32_t payload[6] = {};
  std::uint32_t sum = 0;  // checksum of every byte before it
};
using Churn = KivQuarn::KivQuarnMapValueWrapper<ChurnRecord, TestKey>;
using Map = Quarn::QuarnMap<TestKey, Churn>;

std::uint32_t checksum(Churn const& r) {
  unsigned char bytes[offsetof(ChurnRecord, sum)];
  std::memcpy(bytes, &r, sizeof bytes);
  std::uint32_t h = 2166136261u;
  for (unsigned char b : bytes) h = (h ^ b) * 16777619u;
  return h;
}

// Eight keys share a hash chain, so chains are several slots long and relinked often.
TestKey keyOf(std::uint32_t id) {
  return TestKey{id, id / 8};
}

Churn recordOf(std::uint32_t id, std::uint32_t version) {
  Churn r;
  r.key = keyOf(id);
  r.version = version;
  for (std::uint32_t i = 0; i < 6; ++i) r.payload[i] = version * 2654435761u + id + i;
  r.sum = checksum(r);
  return r;
}

// Order-independent digest of a set of records.
struct Digest {
  std::uint64_t sum = 0;
  std::uint64_t count = 0;
  void add(Churn const& r) {
    sum += (std::uint64_t(r.sum) << 32 | r.key.id) * 0x9e3779b97f4a7c15ull;
    ++count;
  }
  bool operator==(Digest const&) const = default;
};

// What a reader process found; sent to the parent once at the end.
struct Verdict {
  Digest view;
  std::uint64_t lookups = 0;
  std::uint64_t iterations = 0;
  std::uint64_t notified = 0;
  std::uint64_t torn = 0;        // copies whose checksum or key was wrong
  std::uint64_t duplicates = 0;  // keys met twice in one iteration
  std::uint32_t matched = 0;
};

template <class T>
void put(int fd, T const& v) {
  (void)!::write(fd, &v, sizeof v);
}

// Waits up to `seconds` for a whole message on `fd`.
template <class T>
bool get(int fd, T& v, double seconds) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, int(seconds * 1000)) == 1 && ::read(fd, &v, sizeof v) == ssize_t(sizeof v);
}

class Process;
// As `get`, but gives up as soon as `sender` has ended without sending (the pipe's write end is
// also held by the other children, so its end alone would not show).
template <class T>
bool getFrom(Process& sender, int fd, T& v, double seconds);

struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe(fd), 0); }
  ~Pipe() {
    for (int f : fd) {
      if (f >= 0) ::close(f);
    }
  }
  int& readEnd() { return fd[0]; }
  int& writeEnd() { return fd[1]; }
};

// A forked process that dies with the test process; killed and reaped when the handle goes.
class Process {
 public:
  explicit Process(std::function<void()> body) {
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      // Nothing may unwind into the copy of the test runner: a failure ends the process, and
      // the parent notices the missing report.
      try {
        body();
      } catch (std::exception const& e) {
        std::fprintf(stderr, "churn child %d: %s\n", int(::getpid()), e.what());
        std::_Exit(1);
      } catch (...) {
        std::_Exit(1);
      }
      std::_Exit(0);
    }
  }
  ~Process() { kill(); }
  // False once the process has ended (it is then reaped).
  bool alive() {
    if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
    return pid_ > 0;
  }
  void kill() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }

 private:
  pid_t pid_ = -1;
};

template <class T>
bool getFrom(Process& sender, int fd, T& v, double seconds) {
  for (double waited = 0; waited < seconds; waited += 0.2) {
    if (get(fd, v, 0.2)) return true;
    if (!sender.alive()) return get(fd, v, 0);  // a last message may have been sent just before
  }
  return false;
}

// ---- the writer

struct WriterResult {
  Digest table;
  std::uint32_t valid = 0;
};

// Churns `ops` random changes (seeded by `seed`), writing a byte on `halfwayFd` halfway through;
// reports its final table on `resultFd`, then serves the readers until `stopFd` closes.
void writerProcess(std::string const& dir, std::uint32_t seed, std::uint32_t ops, int halfwayFd,
                   int resultFd, int stopFd) {
  Kiv::Activity activity;
  Map map("churn", nullptr, dir, activity);
  map.init(Quarn::QuarnType::writer, false, numKeys);
  std::mt19937 rng(seed);
  std::vector<std::uint32_t> versions(numKeys, 0);
  for (std::uint32_t op = 0; op < ops; ++op) {
    std::uint32_t const id = rng() % numKeys;
    if (rng() % 10 < 3) {
      map.safeRemove(keyOf(id));
    } else {
      map.safeWrite(recordOf(id, ++versions[id]));
    }
    if (op % 256 == 0) activity.runOnce(0);
    if (op == ops / 2) put(halfwayFd, op);
  }
  WriterResult result;
  result.valid = map.validate();
  Churn r;
  Quarn::IterHint hint;
  for (bool more = map.first(r, hint); more; more = map.next(TestKey(r.key), r, hint)) {
    result.table.add(r);
  }
  put(resultFd, result);
  Kiv::FdWatch stop(activity, stopFd, EPOLLIN, [&](std::uint32_t) { activity.stop(); });
  activity.run();
}

// ---- the readers

// Checks every copy it is handed and counts what is wrong.
struct Checker {
  Verdict verdict;
  void check(Churn const& r, TestKey const* expected) {
    bool const ok = r.sum == checksum(r) && r.key == keyOf(r.key.id) && r.key.id < numKeys &&
                    (expected == nullptr || r.key == *expected);
    verdict.torn += !ok;
  }
};

// Iterates the whole table, checking every record. `next` is given the key of the very record
// it overwrites, as callers naturally write it: the table must not lose its place by that.
Digest iterate(Map const& map, Checker& checker) {
  Digest d;
  std::vector<bool> seen(numKeys, false);
  Churn r;
  Quarn::IterHint hint;
  for (bool more = map.first(r, hint); more; more = map.next(r.key, r, hint)) {
    checker.check(r, nullptr);
    if (r.key.id >= numKeys) continue;
    checker.verdict.duplicates += seen[r.key.id];
    seen[r.key.id] = true;
    d.add(r);
  }
  ++checker.verdict.iterations;
  return d;
}

// Looks up every key it is told of and checks the copy.
struct Notified final : Quarn::KeyNotifier<TestKey> {
  Checker& checker;
  Map* map = nullptr;
  explicit Notified(Checker& c) : checker(c) {}
  void onKey(TestKey const& key) override {
    ++checker.verdict.notified;
    bool found = false;
    Churn const r = map->safeLookup(key, found);
    if (found) checker.check(r, &key);
  }
};

// Random lookups and, now and then, a full iteration, until told the writer's final table; then
// iterates until its view equals it or its deadline passes.
void readerProcess(std::string const& dir, Quarn::QuarnType mode, int finalFd, int verdictFd) {
  Kiv::Activity activity;
  Checker checker;
  Notified notified(checker);
  Map map("churn", &notified, dir, activity);
  notified.map = &map;
  map.remountIntervalIs(0.1);
  map.init(mode, false, numKeys);
  std::mt19937 rng{static_cast<std::uint32_t>(mode)};
  WriterResult writer;
  bool stopped = false;
  double deadline = Kiv::Activity::now() + 600;
  for (std::uint64_t round = 0; Kiv::Activity::now() < deadline; ++round) {
    activity.runOnce(map.fullyAttached() ? 0 : 0.01);
    if (!stopped) {
      for (int i = 0; i < 256 && map.fullyAttached(); ++i) {
        TestKey const key = keyOf(rng() % numKeys);
        bool found = false;
        Churn const r = map.safeLookup(key, found);
        ++checker.verdict.lookups;
        if (found) checker.check(r, &key);
      }
      if (round % 512 == 100) iterate(map, checker);
      stopped = get(finalFd, writer, 0);
      if (stopped) deadline = Kiv::Activity::now() + 30;  // to catch up with the writer
      continue;
    }
    // The writer has stopped: the view must reach its final table.
    checker.verdict.view = iterate(map, checker);
    if (checker.verdict.view == writer.table) break;
  }
  checker.verdict.matched = checker.verdict.view == writer.table;
  put(verdictFd, checker.verdict);
}

// Both readers, then one writer (or two: the first killed halfway), then the verdicts.
void churn(bool restart) {
  TempRoot tmp;
  Pipe halfway, result, stop, finalDirect, finalShadow, verdicts;
  Process direct([&] {
    readerProcess(tmp.path(), Quarn::QuarnType::reader, finalDirect.readEnd(), verdicts.writeEnd());
  });
  Process shadow([&] {
    readerProcess(tmp.path(), Quarn::QuarnType::shadow, finalShadow.readEnd(), verdicts.writeEnd());
  });
  auto startWriter = [&](std::uint32_t seed, std::uint32_t ops) {
    return std::make_unique<Process>([&, seed, ops] {
      writerProcess(tmp.path(), seed, ops, halfway.writeEnd(), result.writeEnd(), stop.readEnd());
    });
  };
  auto writer = startWriter(1, numOps);
  // The halfway report is written between two changes, and the writer, preempted by the wake-up
  // of this process, is mostly still there when the kill lands: a random pause lets the kill land
  // inside a change, a compaction or a growth as well.
  std::uint32_t const killPauseUs = restart ? std::random_device{}() % 20000 : 0;
  SCOPED_TRACE("kill pause " + std::to_string(killPauseUs) + " us");
  if (restart) {
    std::uint32_t op;
    ASSERT_TRUE(getFrom(*writer, halfway.readEnd(), op, 300)) << "the writer did not get halfway";
    ::usleep(killPauseUs);
    writer->kill();
    writer = startWriter(2, numOps / 2);
  }
  WriterResult last;
  ASSERT_TRUE(getFrom(*writer, result.readEnd(), last, 250)) << "the writer did not finish";
  EXPECT_TRUE(last.valid);
  EXPECT_GT(last.table.count, numKeys / 2);
  put(finalDirect.writeEnd(), last);
  put(finalShadow.writeEnd(), last);
  for (int i = 0; i < 2; ++i) {
    Verdict v;
    ASSERT_TRUE(get(verdicts.readEnd(), v, 120)) << "a reader did not finish";
    EXPECT_EQ(v.torn, 0u);
    EXPECT_EQ(v.duplicates, 0u);
    EXPECT_TRUE(v.matched) << "view " << v.view.count << " entries, writer " << last.table.count;
    EXPECT_GT(v.lookups, 0u);
    EXPECT_GT(v.iterations, 0u);
    EXPECT_GT(v.notified, 0u);
  }
  std::string const report = tmp.path() + "/churn/corruption-detected";
  EXPECT_FALSE(std::filesystem::exists(report)) << Quarn::Util::fileRead(report);
}

TEST(ChurnProcess, ReadersSeeWholeRecordsAndEndWithTheWritersTable) {
  churn(false);
}

TEST(ChurnProcess, ReadersFollowAWriterKilledMidChurnToItsSuccessor) {
  churn(true);
}

}  // namespace
