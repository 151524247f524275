// The notification queue writer: one live entry per slot, compaction with and without lagging
// readers, growth of the other table, and corruption between a slot and its entry.

#include <gtest/gtest.h>

#include <utility>

#include "Quarn/Files.h"
#include "Quarn/QuarnWriter.h"
#include "TestRecord.h"

using namespace QuarnTest;
using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;

namespace {

struct ConquerFixture : ::testing::Test {
  TempRoot root;
  TestKick kick;
  TraceCapture trace{testHandle};
  Writer w{dh(), "conquer", 1000, false, "TestRecord", &kick, root.path()};
  Quarn::ConquerWriter& cw = w.conquer();
  std::uint32_t const capacity = static_cast<std::uint32_t>((Mem::pageSize() - 56) / 12);

  void SetUp() override { w.attach(); }
  std::uint32_t slotOf(std::uint32_t id) {
    return w.find(TestKey{id, 0}, w.bucketOf({id, 0})).slot;
  }
  // Live entries of the current table: (sequence, slot).
  std::vector<std::pair<std::uint64_t, std::uint32_t>> live() {
    std::vector<std::pair<std::uint64_t, std::uint32_t>> out;
    for (std::uint32_t p = 0; p < cw.currentPos(cw.currentTable()); ++p) {
      if (cw.entrySlot(p) != Quarn::noIndex) out.emplace_back(cw.entrySequence(p), cw.entrySlot(p));
    }
    return out;
  }
};

TEST_F(ConquerFixture, RewritesTombstoneOlderEntries) {
  for (std::uint32_t v = 0; v < 3; ++v) w.write(record(0, 1, v));
  std::uint32_t const s = slotOf(1);
  EXPECT_EQ(cw.currentPos(0), 3u);
  EXPECT_EQ(cw.entrySlot(0), Quarn::noIndex);
  EXPECT_EQ(cw.entrySlot(1), Quarn::noIndex);
  EXPECT_EQ(cw.entrySlot(2), s);
  EXPECT_EQ(cw.entrySequence(2), 3u);
  EXPECT_EQ(w.slots().conquerSlot(s), 2u);
  EXPECT_EQ(cw.liveCount(), 1u);
  EXPECT_EQ(cw.counters().tombstones, 2u);
  EXPECT_EQ(kick.kicks, 3u);

  // A removal is a change too: the removed slot keeps its live entry while on the free list.
  TestWrapper out;
  ASSERT_TRUE(w.remove(TestKey{1, 0}, out));
  EXPECT_EQ(w.slots().conquerSlot(s), 3u);
  EXPECT_EQ(cw.liveCount(), 1u);
  EXPECT_TRUE(w.validate());
}

TEST_F(ConquerFixture, CompactionWithoutReadersPrunesToCurrentSequence) {
  for (std::uint32_t i = 0; i < capacity; ++i) w.write(record(0, i % 10, i));
  ASSERT_EQ(cw.currentPos(0), capacity);
  ASSERT_EQ(cw.liveCount(), 10u);
  w.write(record(0, 3, 1000));  // the table is full: compact first
  EXPECT_TRUE(trace.contains("ConquerWriter::compact() compacting primary table"));
  EXPECT_EQ(cw.currentTable(), 1u);
  EXPECT_EQ(cw.header(0)->currentTable, 1u);
  EXPECT_EQ(cw.minSeq(), capacity);
  EXPECT_EQ(cw.currentPos(1), 1u);
  EXPECT_EQ(live(),
            (std::vector<std::pair<std::uint64_t, std::uint32_t>>{{capacity + 1, slotOf(3)}}));
  EXPECT_EQ(w.slots().conquerSlot(slotOf(4)), Quarn::noIndex);
  EXPECT_EQ(cw.liveCount(), 1u);
  EXPECT_EQ(cw.counters().prunes, 1u);
  EXPECT_TRUE(w.validate());
}

TEST_F(ConquerFixture, LaggingReaderHoldsEntriesBack) {
  kick.lowest = 0;  // connected, acknowledged nothing
  kick.readers = 1;
  for (std::uint32_t i = 0; i < capacity; ++i) w.write(record(0, i % 10, i));
  auto const before = live();
  w.write(record(0, 3, 1000));
  EXPECT_TRUE(trace.contains("ConquerWriter::prune() cannot prune, minSeq:0 lowestSequence:0"));
  EXPECT_EQ(cw.minSeq(), 0u);
  auto after = live();
  ASSERT_EQ(after.size(), 10u);
  // Copied in order with their sequences; the slot written again moved to the end.
  std::vector<std::pair<std::uint64_t, std::uint32_t>> expected;
  for (auto const& e : before) {
    if (e.second != slotOf(3)) expected.push_back(e);
  }
  expected.emplace_back(capacity + 1, slotOf(3));
  EXPECT_EQ(after, expected);
  for (std::uint32_t p = 0; p < cw.currentPos(1); ++p) {
    if (cw.entrySlot(p) != Quarn::noIndex) {
      EXPECT_EQ(w.slots().conquerSlot(cw.entrySlot(p)), p);
    }
  }

  // The reader acknowledges up to the fifth live entry: those up to it are dropped next time.
  kick.lowest = after[4].first;
  while (cw.currentTable() == 1) w.write(record(0, 20, 0));
  EXPECT_EQ(cw.minSeq(), after[4].first);
  auto const third = live();
  ASSERT_GE(third.size(), 6u);
  EXPECT_EQ(third[0], after[5]);
  EXPECT_EQ(w.slots().conquerSlot(after[0].second), Quarn::noIndex);
  EXPECT_TRUE(w.validate());

  cw.waitingForReadersIs(true);
  EXPECT_EQ(cw.pruneTarget(), after[4].first);
  EXPECT_TRUE(trace.contains("ConquerWriter::prune() cannot prune, waiting for readers"));
  cw.updateNumReaders();
  EXPECT_EQ(cw.numReaders(), 0u);  // not stored while waiting
  cw.waitingForReadersIs(false);
  cw.updateNumReaders();
  EXPECT_EQ(cw.numReaders(), 1u);
}

TEST_F(ConquerFixture, OtherTableGrowsToTwiceTheLiveEntries) {
  kick.lowest = 0;
  for (std::uint32_t i = 0; i < capacity; ++i) w.write(record(0, i, i));
  w.write(record(0, capacity, 0));
  // 2 * 336 entries, rounded up to whole pages: (8192 - (56 + 24 * 336)) / 12 = 6 more.
  std::uint32_t const grown =
      2 * capacity + static_cast<std::uint32_t>(
                         (Mem::roundUpToWholePage(56 + 24 * capacity) - (56 + 24 * capacity)) / 12);
  EXPECT_EQ(cw.capacity(1), grown);
  EXPECT_EQ(Quarn::Util::memSize(root.path() + "/conquer/conquer.2"), 56 + 12 * std::size_t(grown));
  EXPECT_TRUE(trace.contains("ConquerWriter::grow() "));
  EXPECT_EQ(cw.currentPos(1), capacity + 1);
  EXPECT_TRUE(w.validate());
  EXPECT_TRUE(w.validateFiles());
}

// A reader acknowledges while the writer compacts: each time the writer asks, the lowest
// acknowledged sequence has moved on. minSeq must end at the sequence the cut was made at, or the
// new table would begin at or below it.
TEST(ConquerWriter, ReaderAcknowledgingDuringCompactionLeavesItValid) {
  struct Acknowledging final : Quarn::WriterKick {
    void doKickSleepers(std::uint64_t) override {}
    std::uint64_t lowestSequence() const override { return std::exchange(lowest, lowest + step); }
    std::uint32_t numReaders() const override { return 1; }
    mutable std::uint64_t lowest = 0;
    std::uint64_t step = 0;
  } kick;
  TempRoot root;
  Writer w(dh(), "acks", 1000, false, "TestRecord", &kick, root.path());
  w.attach();
  Quarn::ConquerWriter& cw = w.conquer();
  std::uint32_t const capacity = cw.capacity(0);
  for (std::uint32_t i = 0; i < capacity; ++i) w.write(record(0, i, i));  // sequences 1..capacity
  kick.lowest = capacity / 2;
  kick.step = 10;
  w.write(record(0, 0, 1));  // the table is full: compact first
  ASSERT_EQ(cw.currentTable(), 1u);
  EXPECT_EQ(cw.minSeq(), capacity / 2);
  EXPECT_EQ(cw.entrySequence(0), capacity / 2 + 1);
  EXPECT_TRUE(w.validate());
}

TEST_F(ConquerFixture, EntryNamingAnotherSlotIsCorruption) {
  w.write(record(0, 1, 1));
  w.write(record(0, 2, 2));
  w.slots().conquerSlotIs(slotOf(2), 0);  // slot 2 claims slot 1's entry
  auto const rewrite = [&] {
    return failure<Quarn::CorruptionDetectedException>([&] { w.write(record(0, 2, 3)); });
  };
  EXPECT_EQ(rewrite(), "ConquerWriter::notify() conquer slot mismatch, slot:" +
                           std::to_string(slotOf(2)) + " index:0");
  w.slots().conquerSlotIs(slotOf(2), capacity + 5);
  EXPECT_EQ(rewrite().rfind("ConquerWriter::notify() conquer index out-of-range, tomb:", 0), 0u);
  EXPECT_THROW(cw.notify(w.capacity()), Quarn::CorruptionDetectedException);
}

// Header words damaged under a running writer are checked against the mapping before the writer
// indexes with them: the write that would use them fails, nothing is written out of bounds.
TEST(ConquerWriter, DamagedHeaderWordsStopTheWriter) {
  struct Case {
    char const* name;
    std::uint32_t table;  // 0: current, 1: the other one
    std::size_t offset;
    std::uint32_t value;
    char const* message;
  };
  std::vector<Case> const cases{
      {"current currentPos", 0, 48, 0xFFFFFFF0, "ConquerWriter::prepare() "},
      {"current capacity", 0, 44, 100000, "ConquerWriter::prepare() "},
      {"other capacity", 1, 44, 100000, "ConquerWriter::compact() "},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    TempRoot root;
    Writer w(dh(), "damaged", 1000, false, "TestRecord", nullptr, root.path());
    w.attach();
    w.write(record(0, 1, 1));
    auto* h = w.conquer().header(c.table == 0 ? w.conquer().currentTable()
                                              : 1 - w.conquer().currentTable());
    Mem::Atomics::store32Release(reinterpret_cast<char*>(h) + c.offset, c.value);
    std::string const error = failure<Quarn::CorruptionDetectedException>([&] {
      for (std::uint32_t i = 0; i < 1000; ++i) w.write(record(0, 2, i));  // forces a compaction
    });
    EXPECT_EQ(error.rfind(c.message, 0), 0u) << error;
    EXPECT_NE(error.find(" do not fit its mapping of "), std::string::npos) << error;
    EXPECT_FALSE(w.validate());
  }
}

}  // namespace
