// A writer process churns random inserts, updates and removes over a large table while reader
// processes look records up, iterate the whole table and follow the notification queue. Every
// record carries a checksum of its own bytes, so a torn copy (a mix of two versions, or a slot
// reused under the reader) cannot pass unnoticed. When the writer stops, each reader's view
// must equal the writer's final table. All waits have deadlines: a hang fails the test.

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

#include "Quarn/ConquerReader.h"
#include "Quarn/QuarnReader.h"
#include "Quarn/QuarnWriter.h"
#include "Quarn/WriterKickSm.h"
#include "TestRecord.h"
#include "support/ActivityWait.h"

using namespace QuarnTest;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint32_t numKeys = 50000;
constexpr std::uint32_t numOps = 1000000;
#else
constexpr std::uint32_t numKeys = 500000;
constexpr std::uint32_t numOps = 3000000;
#endif

struct ChurnRecord {
  static constexpr char const* typeName = "QuarnTest::ChurnRecord";
  TestKey key;
  std::uint32_t version = 0;
  std::uint32_t payload[6] = {};
  std::uint32_t sum = 0;  // checksum of every byte before it
};
using Churn = KivQuarn::KivQuarnMapValueWrapper<ChurnRecord, TestKey>;
using Writer = Quarn::QuarnWriter<TestKey, Churn>;
using Reader = Quarn::QuarnReader<TestKey, Churn>;

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

Jorv::DebugHandler& dh() {
  return Jorv::Platform::getDebugHandler("ChurnProcessTest");
}

// What a reader process found; sent to the parent once at the end.
struct Verdict {
  Digest view;
  std::uint64_t lookups = 0;
  std::uint64_t iterations = 0;
  std::uint64_t torn = 0;        // copies whose checksum or key was wrong
  std::uint64_t duplicates = 0;  // keys met twice in one iteration
  std::uint32_t matched = 0;
  char error[400] = {};
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
      body();
      std::_Exit(0);
    }
  }
  ~Process() { kill(); }
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

// ---- the writer

struct WriterResult {
  Digest table;
  std::uint64_t sequence = 0;
  std::uint32_t valid = 0;
};

// Churns `numOps` random changes once `readers` readers are connected, reports its final table
// on `resultFd`, then serves the readers' channel until `stopFd` closes.
void writerProcess(std::string const& dir, std::uint32_t readers, int resultFd, int stopFd) {
  Kiv::Activity activity;
  std::string const root = dir + "/churn";
  std::filesystem::create_directories(root);
  std::unique_ptr<Writer> writer;
  Quarn::WriterKickSm kick(
      root, [&] { return writer->conquer().sequence(); },
      [&](std::uint32_t) { writer->conquer().updateNumReaders(); }, activity);
  writer = std::make_unique<Writer>(dh(), "churn", numKeys, false, "ChurnRecord", &kick, dir);
  writer->attach();
  TestSupport::runUntil(
      activity, [&] { return kick.numReaders() == readers; }, 30);
  std::mt19937 rng(1);
  std::vector<std::uint32_t> versions(numKeys, 0);
  Churn gone;
  for (std::uint32_t op = 0; op < numOps; ++op) {
    std::uint32_t const id = rng() % numKeys;
    if (rng() % 10 < 3) {
      writer->remove(keyOf(id), gone);
    } else {
      writer->write(recordOf(id, ++versions[id]));
    }
    if (op % 256 == 0) activity.runOnce(0);
  }
  WriterResult result;
  result.valid = writer->validate();
  Churn r;
  Quarn::IterHint hint;
  for (bool more = writer->first(0, r, hint); more; more = writer->next(TestKey(r.key), r, hint)) {
    result.table.add(r);
  }
  result.sequence = writer->conquer().sequence();
  put(resultFd, result);
  Kiv::FdWatch stop(activity, stopFd, EPOLLIN, [&](std::uint32_t) { activity.stop(); });
  activity.run();
}

// ---- the readers

// Checks every copy it is handed and counts what is wrong.
struct Checker {
  Verdict verdict;
  bool check(Churn const& r, TestKey const* expected) {
    bool const ok = r.sum == checksum(r) && r.key == keyOf(r.key.id) && r.key.id < numKeys &&
                    (expected == nullptr || r.key == *expected);
    verdict.torn += !ok;
    return ok;
  }
};

// Iterates the whole table through `first`/`next`, checking every record.
template <class Table>
Digest iterate(Table& table, Checker& checker) {
  Digest d;
  std::vector<bool> seen(numKeys, false);
  Churn r;
  Quarn::IterHint hint;
  for (bool more = table.first(0, r, hint); more; more = table.doNext(TestKey(r.key), r, hint)) {
    if (!checker.check(r, nullptr)) continue;
    checker.verdict.duplicates += seen[r.key.id];
    seen[r.key.id] = true;
    d.add(r);
  }
  ++checker.verdict.iterations;
  return d;
}

// Direct reader: random lookups and, now and then, a full iteration, until told the writer's
// final digest; then iterates until its view equals it (or its deadline passes).
// Follower: also consumes the notification queue and keeps a private copy of the table indexed
// by slot, applying every notified slot; its copy must end equal to the writer's table.
void readerProcess(std::string const& dir, bool follow, int finalFd, int verdictFd) {
  Kiv::Activity activity;
  std::string const root = dir + "/churn";
  Checker checker;
  Reader reader(dh(), root);
  Quarn::ConquerReader conquer(dh(), root, &activity);
  std::unordered_map<std::uint32_t, Churn> copy;  // slot -> record
  auto apply = [&](std::uint32_t slot) {
    Quarn::SlotReader& slots = reader.slots();
    if (slot >= slots.numSlots()) slots.doResize();
    Churn r;
    if (slots.readValue(slots.slot(slot), &r, sizeof r) & Quarn::SlotTable::OCCUPIED) {
      if (checker.check(r, nullptr)) copy[slot] = r;
    } else {
      copy.erase(slot);
    }
  };
  double deadline = Kiv::Activity::now() + 600;
  auto fail = [&](char const* why) {
    std::snprintf(checker.verdict.error, sizeof checker.verdict.error, "%s", why);
    put(verdictFd, checker.verdict);
  };
  std::string error;
  if (!TestSupport::runUntil(
          activity,
          [&] {
            std::uint32_t const fenix = Quarn::FenixFile::read(root);
            return fenix != 0 && reader.initialize(fenix, error) &&
                   (!follow || conquer.initialize(fenix, error));
          },
          30)) {
    return fail("cannot attach");
  }
  std::mt19937 rng(follow ? 2 : 3);
  WriterResult writer;
  bool stopped = false;
  try {
    for (std::uint64_t round = 0; Kiv::Activity::now() < deadline; ++round) {
      if (!stopped) {
        for (int i = 0; i < 256; ++i) {
          TestKey const key = keyOf(rng() % numKeys);
          bool found = false;
          Churn const r = reader.doLookup(key, found);
          ++checker.verdict.lookups;
          if (found) checker.check(r, &key);
        }
        if (round % 512 == 100) iterate(reader, checker);
        stopped = get(finalFd, writer, 0);
        if (stopped) deadline = Kiv::Activity::now() + 30;  // to catch up with the writer
      }
      if (follow) conquer.conquer(apply);
      activity.runOnce(0);
      if (!stopped) continue;
      // The writer has stopped: the view (and the follower's copy) must reach its final table.
      if (follow) {
        if (conquer.lastSequence() < writer.sequence) continue;
        Digest d;
        for (auto const& [slot, r] : copy) d.add(r);
        if (!(d == writer.table)) continue;
      }
      checker.verdict.view = iterate(reader, checker);
      if (checker.verdict.view == writer.table) break;
    }
  } catch (std::exception const& e) {
    return fail(e.what());
  }
  checker.verdict.matched = checker.verdict.view == writer.table;
  put(verdictFd, checker.verdict);
}

TEST(ChurnProcess, ReadersSeeWholeRecordsAndEndWithTheWritersTable) {
  TempRoot tmp;
  Pipe result, stop, finalDirect, finalFollower, verdicts;
  Process direct(
      [&] { readerProcess(tmp.path(), false, finalDirect.readEnd(), verdicts.writeEnd()); });
  Process follower(
      [&] { readerProcess(tmp.path(), true, finalFollower.readEnd(), verdicts.writeEnd()); });
  Process writer([&] { writerProcess(tmp.path(), 1, result.writeEnd(), stop.readEnd()); });

  WriterResult last;
  ASSERT_TRUE(get(result.readEnd(), last, 300)) << "the writer did not finish";
  EXPECT_TRUE(last.valid);
  EXPECT_GT(last.table.count, numKeys / 2);
  put(finalDirect.writeEnd(), last);
  put(finalFollower.writeEnd(), last);
  for (int i = 0; i < 2; ++i) {
    Verdict v;
    ASSERT_TRUE(get(verdicts.readEnd(), v, 120)) << "a reader did not finish";
    EXPECT_STREQ(v.error, "");
    EXPECT_EQ(v.torn, 0u);
    EXPECT_EQ(v.duplicates, 0u);
    EXPECT_TRUE(v.matched) << "view " << v.view.count << " entries, writer " << last.table.count;
    EXPECT_GT(v.lookups, 0u);
    EXPECT_GT(v.iterations, 0u);
  }
}

}  // namespace
