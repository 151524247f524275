// Chains, free list, updates in place, iteration, growth and the two-step write of the table
// writer.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <map>
#include <random>
#include <set>

#include "Quarn/Files.h"
#include "Quarn/QuarnWriter.h"
#include "TestRecord.h"

using namespace QuarnTest;
using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;

namespace {

// Every entry in iteration order; checks bucket order and ascending keys within a bucket.
std::vector<TestWrapper> iterate(Writer const& w) {
  std::vector<TestWrapper> out;
  TestWrapper v;
  Quarn::IterHint hint;
  Quarn::IterHint previous;
  for (bool more = w.first(0, v, hint); more; more = w.next(TestKey(v.key), v, hint)) {
    EXPECT_EQ(hint.bucket, w.bucketOf(v.key));
    if (!out.empty()) {
      EXPECT_LE(previous.bucket, hint.bucket);
      if (previous.bucket == hint.bucket) {
        EXPECT_TRUE(out.back().key < v.key);
      }
    }
    previous = hint;
    out.push_back(v);
  }
  return out;
}

TEST(QuarnWriter, RandomOperationsMatchModel) {
  TempRoot root;
  Writer w(dh(), "model", 64, false, "TestRecord", nullptr, root.path());
  w.attach();
  std::map<TestKey, std::uint32_t> model;
  std::mt19937 rng(12345);
  std::uint32_t lastFreed = Quarn::noIndex;
  for (int step = 0; step < 4000; ++step) {
    // Eight groups: long chains with many keys per bucket.
    TestKey const key{static_cast<std::uint32_t>(rng() % 60),
                      static_cast<std::uint32_t>(rng() % 8)};
    bool const present = model.count(key) != 0;
    if (rng() % 3 == 0) {
      std::uint32_t const slot = w.find(key, w.bucketOf(key)).slot;
      TestWrapper out;
      ASSERT_EQ(w.remove(key, out), present);
      if (present) {
        EXPECT_EQ(out.value, model[key]);
        model.erase(key);
        lastFreed = slot;
      }
    } else {
      auto const before = w.find(key, w.bucketOf(key));
      w.write(record(key.group, key.id, static_cast<std::uint32_t>(step)));
      auto const f = w.find(key, w.bucketOf(key));
      ASSERT_TRUE(f.found);
      if (present) {  // an update stays in its slot and its place in the chain
        EXPECT_EQ(f.slot, before.slot);
        EXPECT_EQ(f.prev, before.prev);
      } else if (lastFreed != Quarn::noIndex) {
        // The free list is last-in, first-out: a new key takes the slot freed last.
        EXPECT_EQ(f.slot, lastFreed);
      }
      lastFreed = Quarn::noIndex;
      model[key] = static_cast<std::uint32_t>(step);
    }
    ASSERT_EQ(w.size(), model.size());
    if (step % 500 == 0) {
      ASSERT_TRUE(w.validate());
    }
  }
  auto const all = iterate(w);
  ASSERT_EQ(all.size(), model.size());
  for (auto const& v : all) {
    bool found = false;
    EXPECT_EQ(w.lookup(v.key, found).value, model.at(v.key));
    EXPECT_TRUE(found);
  }
  bool found = true;
  w.lookup(TestKey{1000, 1}, found);
  EXPECT_FALSE(found);
  EXPECT_TRUE(w.validate());
  EXPECT_TRUE(w.validateFiles());
  EXPECT_GT(w.writerCounters().removes, 0u);
}

TEST(QuarnWriter, IterationSurvivesRemovalOfCurrentEntry) {
  Writer w(dh(), "iterate", 64, true, "TestRecord");
  w.attach();
  std::set<TestKey> keys;
  for (std::uint32_t i = 0; i < 120; ++i) {
    w.write(record(i % 5, i, i));
    keys.insert(TestKey{i, i % 5});
  }
  std::set<TestKey> seen;
  TestWrapper v;
  Quarn::IterHint hint;
  int step = 0;
  for (bool more = w.first(0, v, hint); more; ++step) {
    TestKey const key = v.key;
    EXPECT_TRUE(seen.insert(key).second) << key;
    if (step % 2 == 0) {
      TestWrapper removed;
      ASSERT_TRUE(w.remove(key, removed));
    }
    if (step % 3 == 0) hint = {};  // a lost hint must not matter either
    more = w.next(key, v, hint);
  }
  EXPECT_EQ(seen, keys);
  EXPECT_EQ(w.size(), 60u);
  EXPECT_TRUE(w.validate());

  // Slot order, suspended and resumed the restart review's way: the walk stops on a record,
  // keeps its key and hint, and resumes with slotAt; the record may go meanwhile (the walk then
  // goes on from where it stood), or the hint be lost while it is still there. Every record
  // still present is seen once, in ascending slot order.
  for (std::uint32_t i = 0; i < 120; ++i) w.write(record(i % 5, i, i));
  for (std::uint32_t i = 0; i < 120; i += 7) {
    TestWrapper removed;
    w.remove(TestKey{i, i % 5}, removed);  // holes, so the free list is not in slot order
  }
  std::set<TestKey> expected;
  for (auto const& r : iterate(w)) expected.insert(r.key);
  seen.clear();
  std::uint32_t lastSlot = 0;
  step = 0;
  for (bool more = w.slotFirst(v, hint); more; ++step) {
    EXPECT_TRUE(seen.insert(v.key).second) << v.key;
    EXPECT_TRUE(seen.size() == 1 || hint.slot > lastSlot);
    EXPECT_EQ(hint.bucket, w.bucketOf(v.key));
    lastSlot = hint.slot;
    if (!w.slotNext(TestKey(v.key), v, hint)) break;
    TestKey const bookmark = v.key;
    if (step % 4 == 0) {
      TestWrapper removed;
      ASSERT_TRUE(w.remove(bookmark, removed));
      expected.erase(bookmark);
    } else if (step % 3 == 0) {
      hint = {};
    }
    more = w.slotAt(bookmark, v, hint);
  }
  EXPECT_EQ(seen, expected);
}

TEST(QuarnWriter, GrowsPastConfiguredSizeInTenPercentSteps) {
  // TestWrapper: 28 bytes, 48-byte slots: one page holds (4096 - 224) / 48 = 80 slots.
  TempRoot root;
  TraceCapture trace("QuarnWriterTest-grow");
  Writer w(Jorv::Platform::getDebugHandler("QuarnWriterTest-grow"), "grow", 200, false,
           "TestRecord", nullptr, root.path());
  w.attach();
  ASSERT_EQ(Mem::pageSize(), 4096u);
  std::vector<std::uint32_t> capacities{w.capacity()};
  for (std::uint32_t i = 0; i < 252; ++i) {
    w.write(record(i, i, i));
    if (w.capacity() != capacities.back()) capacities.push_back(w.capacity());
  }
  // Doubling up to S (80 -> 160, rounded to the page: 166; then 200 -> 251), then 10% steps
  // (ceil(251 * 1.1f) = 277, rounded: 336).
  EXPECT_EQ(capacities, (std::vector<std::uint32_t>{80, 166, 251, 336}));
  EXPECT_TRUE(trace.contains("SlotWriter::grow() overflowing by 51 slots"));
  EXPECT_TRUE(trace.contains("SlotWriter::grow() overflowing by 136 slots"));
  EXPECT_EQ(Quarn::Util::memSize(root.path() + "/grow/slots"), 176 + 48 * 337u);
  EXPECT_EQ(w.writerCounters().grows, 3u);
  EXPECT_TRUE(w.validate());
  EXPECT_TRUE(w.validateFiles());

  Writer small(dh(), "small", 4, true, "TestRecord");
  small.attach();
  for (std::uint32_t i = 0; i < 81; ++i) small.write(record(i, i, i));
  EXPECT_EQ(small.capacity(), 166u);  // ceil(80 * 1.1f) = 88, rounded up to two pages
}

TEST(QuarnWriter, DirectWriteStagesUntilCommit) {
  Writer w(dh(), "direct", 16, true, "TestRecord");
  w.attach();
  w.write(record(1, 1, 10));

  TestWrapper* area = w.directWrite(TestKey{1, 1});
  EXPECT_EQ(area->key, (TestKey{1, 1}));
  EXPECT_EQ(area->value, 0u);
  area->value = 11;
  bool found = false;
  EXPECT_EQ(w.lookup(TestKey{1, 1}, found).value, 10u);  // not published yet
  EXPECT_THROW(w.directWrite(TestKey{2, 1}), Jorv::RuntimeException);
  w.directCommit();
  EXPECT_EQ(w.lookup(TestKey{1, 1}, found).value, 11u);

  area = w.directWrite(TestKey{2, 1});
  area->value = 20;
  w.lookup(TestKey{2, 1}, found);
  EXPECT_FALSE(found);
  w.directCommit();
  EXPECT_EQ(w.lookup(TestKey{2, 1}, found).value, 20u);
  EXPECT_TRUE(found);
  EXPECT_EQ(w.size(), 2u);
  EXPECT_THROW(w.directCommit(), Jorv::RuntimeException);
  EXPECT_TRUE(w.validate());
}

TEST(QuarnWriter, ChainCycleIsReportedNotFollowed) {
  Writer w(dh(), "cycle", 16, true, "TestRecord");
  w.attach();
  w.write(record(4, 1, 1));
  w.write(record(4, 2, 2));
  auto const second = w.find(TestKey{2, 4}, w.bucketOf(TestKey{2, 4}));
  Quarn::publishLink(w.slots().slot(second.slot), second.prev);  // 2 -> 1 -> 2 -> ...
  bool found = false;
  std::string const expected = "QuarnWriter::lookup() hash chain cycle detected, slotCount:" +
                               std::to_string(w.capacity() + 1);
  std::string const what = failure<Quarn::CorruptionDetectedException>([&] {
    w.lookup(TestKey{3, 4}, found);
  });
  EXPECT_EQ(what.rfind(expected, 0), 0u) << what;
  EXPECT_THROW(w.write(record(4, 3, 3)), Quarn::CorruptionDetectedException);
  EXPECT_FALSE(w.validate());
}

TEST(QuarnWriter, FullTableRefusesWithoutChange) {
  TempRoot root;
  pid_t const child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // A file size limit makes the second growth fail: 80 -> 166 slots fills 8192 bytes.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit const limit{8192, 8192};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    int code = 1;
    try {
      Writer w(dh(), "full", 4, false, "TestRecord", nullptr, root.path());
      w.attach();
      std::uint32_t i = 0;
      try {
        for (; i < 1000; ++i) w.write(record(i, i, i));
      } catch (Quarn::TableFullException const& e) {
        std::string const text = e.what();
        code = text.rfind("SlotWriter::alloc() Quarn table full (occupancy:166 tableSize:4) ", 0) ==
                           0 &&
                       i == 166 && w.size() == 166 && w.capacity() == 166 && w.validate()
                   ? 0
                   : 2;
      }
    } catch (...) {
      code = 3;
    }
    ::_exit(code);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
