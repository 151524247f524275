// The lock-free table reader and the notification queue reader, against a real writer on the
// same files: in one thread and in two threads (ThreadSanitizer).

#include "Quarn/QuarnReader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <optional>
#include <set>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Quarn/ConquerReader.h"
#include "Quarn/WriterKickSm.h"
#include "TestRecord.h"
#include "support/ActivityWait.h"

using namespace QuarnTest;
using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;
using Reader = Quarn::QuarnReader<TestKey, TestWrapper>;

namespace {

// A shared writer whose readers connect through the wake-up channel of `activity`.
struct Table {
  std::string root;
  std::unique_ptr<Writer> writer;
  std::unique_ptr<Quarn::WriterKickSm> kick;

  Table(std::string const& dir, Kiv::Activity* activity, std::uint32_t size = 1000)
      : root(dir + "/t") {
    std::filesystem::create_directories(root);
    if (activity != nullptr) {
      kick = std::make_unique<Quarn::WriterKickSm>(
          root, [this] { return writer->conquer().sequence(); },
          [this](std::uint32_t) { writer->conquer().updateNumReaders(); }, *activity);
    }
    writer = std::make_unique<Writer>(dh(), "t", size, false, "TestRecord", kick.get(), dir);
    writer->attach();
  }
};

// A writer without readers' channel and a reader mounted on its files.
struct Mounted : ::testing::Test {
  TempRoot tmp;
  Table t{tmp.path(), nullptr};
  Reader r{dh(), t.root};
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(r.initialize(t.writer->fenix(), error)) << error;
  }
  // The index and the memory of the slot of `key` on the writer's side.
  std::uint32_t indexOf(TestKey const& key) {
    return t.writer->find(key, t.writer->bucketOf(key)).slot;
  }
  char* slotOf(TestKey const& key) { return t.writer->slots().slot(indexOf(key)); }
};

std::map<TestKey, std::uint32_t> readAll(Reader& r) {
  return tableContents(r, [](Reader& t, TestKey const& k, TestWrapper& w, Quarn::IterHint& h) {
    return t.doNext(k, w, h);
  });
}

TEST_F(Mounted, LookupAndIterationFollowTheWriterThroughGrowth) {
  std::uint32_t const initialSlots = r.numSlots();

  std::map<TestKey, std::uint32_t> model;
  for (std::uint32_t i = 0; i < 400; ++i) {  // several keys per chain (group = i % 37)
    t.writer->write(record(i % 37, i, i * 7));
    model[TestKey{i, i % 37}] = i * 7;
  }
  for (std::uint32_t i = 0; i < 400; i += 3) {
    TestWrapper gone;
    ASSERT_TRUE(t.writer->remove(TestKey{i, i % 37}, gone));
    model.erase(TestKey{i, i % 37});
  }
  bool found = false;
  TestWrapper v = r.doLookup(TestKey{398, 398 % 37}, found);  // beyond the first mapping
  EXPECT_TRUE(found);
  EXPECT_EQ(v.value, 398u * 7);
  EXPECT_GT(r.numSlots(), initialSlots);
  for (std::uint32_t i = 0; i < 410; ++i) {
    r.doLookup(TestKey{i, i % 37}, found);
    EXPECT_EQ(found, model.count(TestKey{i, i % 37}) == 1) << i;
  }
  EXPECT_EQ(readAll(r), model);
  // Iteration resumes after a key that was removed meanwhile: at the next greater key of its
  // bucket, else at the first key of a later bucket.
  TestKey const removed{0, 0};
  auto bucket = [&](TestKey const& k) { return k.hash() % r.numBuckets(); };
  std::optional<TestKey> expected;
  for (auto const& [k, value] : model) {
    bool const later = bucket(k) > bucket(removed) || (bucket(k) == bucket(removed) && removed < k);
    bool const better = !expected || bucket(k) < bucket(*expected) ||
                        (bucket(k) == bucket(*expected) && k < *expected);
    if (later && better) expected = k;
  }
  TestWrapper next;
  Quarn::IterHint hint;
  ASSERT_TRUE(r.doNext(removed, next, hint));
  ASSERT_TRUE(expected.has_value());
  EXPECT_EQ(TestKey(next.key), *expected);
}

// A writer that recovers puts its new incarnation in new files: a reader still mapping the old
// one (it has not seen the new fenix yet) reads it whole, every record where it was, although the
// new incarnation holds the records in other slots and the slot file changed size.
TEST_F(Mounted, RecoveryLeavesTheOldIncarnationWholeUnderItsReaders) {
  std::map<TestKey, std::uint32_t> written;
  for (std::uint32_t i = 0; i < 300; ++i) {
    t.writer->write(record(i % 40, i, i));
    written[TestKey{i, i % 40}] = i;
  }
  std::uint32_t const fenix = t.writer->fenix();
  t.writer->recover("a test's recovery");
  ASSERT_NE(t.writer->fenix(), fenix);
  t.writer->write(record(0, 1000, 1000));
  EXPECT_EQ(readAll(r), written);
  bool found = false;
  EXPECT_EQ(r.doLookup(TestKey{299, 19}, found).value, 299u);
  EXPECT_TRUE(found);
}

TEST_F(Mounted, RecoveryReplacesAnEmptiedFileInsteadOfGrowingItUnderItsReaders) {
  t.writer->write(record(1, 1, 1));
  for (char const* file : {"buckets", "slots", "conquer.1"}) {
    SCOPED_TRACE(file);
    std::string const path = t.root + "/" + file;
    int const fd = ::open(path.c_str(), O_RDONLY);  // the file a reader's mapping holds
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::truncate(path.c_str(), 0), 0);
    t.writer->recover("a test's recovery");
    struct stat held {}, named {};
    ASSERT_EQ(::fstat(fd, &held), 0);
    ASSERT_EQ(::stat(path.c_str(), &named), 0);
    // Grown again in place, it would fill under a reader that was told it shrank.
    EXPECT_EQ(held.st_size, 0);
    EXPECT_NE(held.st_ino, named.st_ino);
    ::close(fd);
  }
}

TEST_F(Mounted, StagedUpdateIsReadFromTheLookasideSlot) {
  t.writer->write(record(1, 1, 10));
  // Freeze the writer between its two flag updates: new value staged, LOOKASIDE set, old value
  // still in place.
  char* slot = slotOf(TestKey{1, 1});
  TestWrapper staged = record(1, 1, 20);
  Mem::Atomics::copyToShared(t.writer->slots().lookasideValue(), &staged, sizeof staged);
  Quarn::SlotWriterTable::flagsIs(slot, Quarn::SlotWriterTable::flags(slot) + 2);
  bool found = false;
  EXPECT_EQ(r.doLookup(TestKey{1, 1}, found).value, 20u);
  EXPECT_TRUE(found);
  EXPECT_EQ(r.slots().lookasideReads(), 1u);
}

// The message of the corruption that looking `key` up raises.
std::string corruptionOfLookup(Reader& r, TestKey const& key) {
  bool found;
  return failure<Quarn::CorruptionDetectedException>([&] { r.doLookup(key, found); });
}

TEST_F(Mounted, PersistentContradictionsAreCorruption) {
  t.writer->write(record(5, 1, 1));
  t.writer->write(record(5, 2, 2));
  char* last = slotOf(TestKey{2, 5});

  // The chain's last slot loses OCCUPIED while still linked.
  auto flags = Quarn::SlotWriterTable::flags(last);
  Quarn::SlotWriterTable::flagsIs(last, flags & ~Quarn::SlotTable::OCCUPIED);
  EXPECT_EQ(corruptionOfLookup(r, TestKey{3, 5}).rfind("QuarnReader::doLookup() slot:", 0), 0u);
  EXPECT_NE(corruptionOfLookup(r, TestKey{3, 5}).find("not marked as occupied"), std::string::npos);
  Quarn::SlotWriterTable::flagsIs(last, flags);

  // The chain's last slot links back to itself.
  Quarn::publishLink(last, indexOf(TestKey{2, 5}));
  EXPECT_EQ(corruptionOfLookup(r, TestKey{3, 5})
                .rfind("QuarnReader::doLookup() hash chain cycle detected, ", 0),
            0u);
}

// A fault past the end of another mapping of the process moves the fault count but damages
// nothing of the reader's: its lookups go on. Once its own slot file is cut under it and a
// lookup has read past the cut, every later read operation is corruption, including lookups of
// records that lie before the cut.
TEST_F(Mounted, OnlyATruncationOfItsOwnFilesStopsTheReader) {
  for (std::uint32_t i = 0; i < 200; ++i) t.writer->write(record(i, i, i));
  Mem::Shared other("other", tmp.path());
  ASSERT_TRUE(other.attach(2 * Mem::pageSize()));
  ASSERT_EQ(::truncate((tmp.path() + "/other").c_str(), 0), 0);
  std::uint64_t const before = Mem::damageCount();
  Mem::Atomics::store32Relaxed(other.base() + Mem::pageSize(), 1);  // answered on zeros
  ASSERT_GT(Mem::damageCount(), before);
  bool found = false;
  EXPECT_EQ(r.doLookup(TestKey{199, 199}, found).value, 199u);  // maps the grown file
  EXPECT_TRUE(found);

  std::size_t const cut = 2 * Mem::pageSize();
  std::uint32_t const slotSize = Quarn::SlotTable::slotSizeFor(sizeof(TestWrapper));
  ASSERT_GT(indexOf(TestKey{199, 199}), (cut - Quarn::SlotTable::headerSize) / slotSize);
  ASSERT_EQ(::truncate((t.root + "/slots").c_str(), off_t(cut)), 0);
  EXPECT_FALSE(corruptionOfLookup(r, TestKey{199, 199}).empty());
  EXPECT_TRUE(r.damaged());
  for (int again = 0; again < 2; ++again) {
    EXPECT_NE(corruptionOfLookup(r, TestKey{0, 0}).find("truncated under its mapping"),
              std::string::npos);
  }
}

// A cycle planted in a chain (the tail back to the head, to the second slot, a self-loop) ends
// iteration with the writer's and the reader's first/next in corruption within capacity + 1
// steps, as lookups do.
TEST_F(Mounted, IterationOverACycledChainEndsInCorruption) {
  for (std::uint32_t i = 0; i < 4; ++i) t.writer->write(record(9, i, i));
  char* tail = slotOf(TestKey{3, 9});
  std::uint32_t const bound = t.writer->capacity() + 1;
  // Steps an iteration takes before it ends; fails the test unless corruption ended it.
  auto steps = [&](auto first, auto next) {
    std::uint32_t n = 0;
    std::string const why = failure<Quarn::CorruptionDetectedException>([&] {
      TestWrapper w;
      Quarn::IterHint hint;
      for (bool more = first(w, hint); more && n <= bound; more = next(w, hint)) ++n;
    });
    EXPECT_NE(why.find("hash chain cycle detected"), std::string::npos) << why;
    return n;
  };
  for (std::uint32_t target : {0u, 1u, 3u}) {
    SCOPED_TRACE(target);
    Quarn::publishLink(tail, indexOf(TestKey{target, 9}));
    EXPECT_LE(steps([&](TestWrapper& w, Quarn::IterHint& h) { return t.writer->first(0, w, h); },
                    [&](TestWrapper& w, Quarn::IterHint& h) {
                      return t.writer->next(TestKey(w.key), w, h);
                    }),
              bound);
    EXPECT_LE(steps([&](TestWrapper& w, Quarn::IterHint& h) { return r.first(0, w, h); },
                    [&](TestWrapper& w, Quarn::IterHint& h) { return r.doNext(w.key, w, h); }),
              bound);
  }
}

TEST(QuarnReader, InitializeRefusesMissingOrForeignFiles) {
  TempRoot tmp;
  Reader missing(dh(), tmp.path() + "/t");
  std::string error;
  EXPECT_FALSE(missing.initialize(0, error));
  EXPECT_EQ(error.rfind("QuarnReader::initialize() buckets.attach() failed BucketReader::attach() "
                        "no shared memory region",
                        0),
            0u)
      << error;
  Table t(tmp.path(), nullptr);
  EXPECT_FALSE(missing.initialize(t.writer->fenix() + 1, error));
  EXPECT_EQ(error.rfind("QuarnReader::initialize() buckets.validate() failed", 0), 0u) << error;
  EXPECT_FALSE(missing.attached());
  bool found = true;
  missing.doLookup(TestKey{1, 1}, found);
  EXPECT_FALSE(found);
}

// ---- notification queue

struct Follower {
  Quarn::ConquerReader conquer;
  std::vector<std::uint32_t> slots;
  int notified = 0;
  Follower(std::string const& root, Kiv::Activity* activity)
      : conquer(dh(), root, activity, [this] { ++notified; }) {}
  std::uint64_t drain() {
    return conquer.conquer([this](std::uint32_t s) { slots.push_back(s); });
  }
};

// A writer with its readers' channel and one follower, connected, on one activity.
struct Following : ::testing::Test {
  TempRoot tmp;
  Kiv::Activity activity;
  Table t{tmp.path(), &activity};
  Follower f{t.root, &activity};
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(f.conquer.initialize(t.writer->fenix(), error)) << error;
    ASSERT_TRUE(TestSupport::runUntil(activity, [&] { return t.kick->numReaders() == 1; }));
  }
};

TEST_F(Following, EveryChangeArrivesInOrderAcrossCompactionsAndPruningWaitsForIt) {
  std::uint32_t const capacity = t.writer->conquer().capacity(0);
  std::set<std::uint32_t> changed;
  for (std::uint32_t round = 0; round < 8; ++round) {
    for (std::uint32_t i = 0; i < capacity / 2; ++i) {
      std::uint32_t key = (round * 31 + i * 7) % 60;
      t.writer->write(record(key % 9, key, round * 1000 + i));
      TestKey const k{key, key % 9};
      changed.insert(t.writer->find(k, t.writer->bucketOf(k)).slot);
    }
    f.slots.clear();
    EXPECT_EQ(f.drain(), t.writer->conquer().sequence());
    EXPECT_TRUE(f.conquer.drained());
    EXPECT_EQ(std::set<std::uint32_t>(f.slots.begin(), f.slots.end()), changed);
    changed.clear();
    ASSERT_TRUE(TestSupport::runUntil(
        activity, [&] { return t.kick->lowestSequence() == f.conquer.lastSequence(); }));
  }
  EXPECT_GT(t.writer->conquer().counters().compactions, 2u);
  EXPECT_FALSE(f.conquer.outOfSync());
  // Drained and asleep: the next write wakes it.
  ASSERT_TRUE(TestSupport::runUntil(activity, [&] { return t.kick->numSleepers() == 1; }));
  int const notified = f.notified;
  t.writer->write(record(1, 1, 1));
  ASSERT_TRUE(TestSupport::runUntil(activity, [&] { return f.notified == notified + 1; }));
  f.slots.clear();
  f.drain();
  EXPECT_EQ(f.slots.size(), 1u);
  f.slots.clear();
  f.drain();  // nothing new: nothing delivered
  EXPECT_TRUE(f.slots.empty());
  f.conquer.detach();
  t.writer->write(record(1, 1, 2));
  f.drain();  // detached: nothing to read, nothing to crash on
  EXPECT_TRUE(f.slots.empty());
}

// A reader stopped in the middle of table 0 while the writer compacts twice, so that table 0
// is reused under it: the reader must notice, find its place again and still deliver every
// change once more or later, in sequence order, without calling it corruption.
TEST_F(Following, SlowReaderSurvivesTheReuseOfItsTable) {
  std::uint64_t previous = 0;
  std::set<std::uint32_t> delivered;
  auto consumer = [&](std::uint32_t slot) {
    EXPECT_GT(f.conquer.lastSequence(), previous);
    previous = f.conquer.lastSequence();
    delivered.insert(slot);
  };
  std::set<std::uint32_t> changed;
  auto writeKey = [&](std::uint32_t key, std::uint32_t value) {
    t.writer->write(record(key % 3, key, value));
    TestKey const k{key, key % 3};
    changed.insert(t.writer->find(k, t.writer->bucketOf(k)).slot);
  };
  for (std::uint32_t i = 0; i < 40; ++i) writeKey(i, i);
  f.conquer.sampleIs(10);
  std::uint32_t count = 0;
  EXPECT_FALSE(f.conquer.doConquer(count, consumer));  // parked at position 10 of table 0
  EXPECT_EQ(f.conquer.position(), 10u);
  std::uint64_t const compactions = t.writer->conquer().counters().compactions;
  for (std::uint32_t i = 0; t.writer->conquer().counters().compactions < compactions + 2; ++i) {
    writeKey(i % 25, 1000 + i);  // rewrites the first keys: their old entries disappear
  }
  ASSERT_EQ(t.writer->conquer().currentTable(), 0u);  // table 0 again, refilled
  f.conquer.sampleIs(100000);
  while (!f.conquer.doConquer(count, consumer)) {
  }
  EXPECT_EQ(f.conquer.lastSequence(), t.writer->conquer().sequence());
  EXPECT_EQ(delivered, changed);
  EXPECT_FALSE(f.conquer.outOfSync());
}

// A reader the writer does not count (no wake-up channel: the writer prunes freely) learns that
// it was pruned past: after one compaction (another table), and after two with distinct keys,
// when its own table is current again and refilled from position 0.
TEST(ConquerReader, UncountedReaderLearnsItWasPrunedPast) {
  for (std::uint32_t compactions : {1u, 2u}) {
    SCOPED_TRACE(compactions);
    TempRoot tmp;
    Table t(tmp.path(), nullptr);
    Follower f(t.root, nullptr);
    std::string error;
    ASSERT_TRUE(f.conquer.initialize(t.writer->fenix(), error)) << error;
    ASSERT_EQ(f.conquer.position(), 0u);
    for (std::uint32_t i = 0; t.writer->conquer().counters().compactions < compactions; ++i) {
      t.writer->write(record(i % 50, i, i));
    }
    for (std::uint32_t i = 0; i < 6; ++i) t.writer->write(record(7, 100000 + i, i));
    ASSERT_EQ(t.writer->conquer().currentTable(), compactions % 2);
    f.drain();
    EXPECT_TRUE(f.conquer.outOfSync());
    EXPECT_EQ(f.conquer.lastSequence(), t.writer->conquer().sequence());
  }
}

// The writer compacts into the other table while the reader is stopped, and that table's
// capacity word is then damaged: the reader cannot map it, and says so instead of spinning.
TEST(ConquerReader, TableThatCannotBeMappedIsCorruption) {
  TempRoot tmp;
  Table t(tmp.path(), nullptr);
  Follower f(t.root, nullptr);
  std::string error;
  ASSERT_TRUE(f.conquer.initialize(t.writer->fenix(), error)) << error;
  for (std::uint32_t i = 0; t.writer->conquer().counters().compactions < 1; ++i) {
    t.writer->write(record(1, i % 5, i));
  }
  Mem::Shared other("conquer.2", t.root);
  ASSERT_TRUE(other.attach(other.sizeOnDisk()));
  Mem::Atomics::store32Release(other.base() + offsetof(Quarn::ConquerTable::Header, capacity),
                        0xFFFFFFF0u);
  EXPECT_NE(failure<Quarn::CorruptionDetectedException>([&] { f.drain(); })
                .find("ConquerReader::findPosition() cannot map"),
            std::string::npos);
}

// A writer thread changes records whose words must always agree; a reader thread looks them up
// and follows the queue. Torn copies or broken chains would show up as disagreeing words,
// corruption exceptions, sequences out of order, or a key that is only ever updated going missing.
TEST(QuarnReaderConcurrent, ReaderSeesOnlyWholeRecordsWhileWriterChurns) {
  TempRoot tmp;
  std::string const root = tmp.path() + "/t";
  std::atomic<bool> ready{false}, done{false};
  std::atomic<std::uint64_t> finalSequence{0};
  std::uint32_t fenix = 0;
  std::thread writerThread([&] {
    Kiv::Activity activity;
    Table t(tmp.path(), &activity, 2000);
    for (std::uint32_t key = 0; key < 700; key += 7) t.writer->write(record(key % 13, key, 0));
    fenix = t.writer->fenix();
    ready = true;
    TestSupport::runUntil(activity, [&] { return t.kick->numReaders() == 1; });
    for (std::uint32_t i = 0; i < 20000; ++i) {
      std::uint32_t key = (i * 7919) % 700;
      TestWrapper w = record(key % 13, key, i);
      for (auto& x : w.extra) x = i;
      if (key % 7 == 0) {
        t.writer->write(w);  // only ever updated: must never go missing
      } else if (i % 5 == 4) {
        TestWrapper gone;
        t.writer->remove(w.key, gone);
      } else {
        t.writer->write(w);
      }
      if (i % 64 == 0) activity.runOnce(0);
    }
    finalSequence = t.writer->conquer().sequence();
    done = true;
    // Serve the reader's last acknowledgements until it has caught up.
    TestSupport::runUntil(
        activity, [&] { return t.kick->numReaders() == 0; }, 30);
  });
  while (!ready) std::this_thread::yield();
  {
    Kiv::Activity activity;
    Reader r(dh(), root);
    Quarn::ConquerReader conquer(dh(), root, &activity);
    std::string error;
    ASSERT_TRUE(r.initialize(fenix, error)) << error;
    ASSERT_TRUE(conquer.initialize(fenix, error)) << error;
    conquer.sampleIs(100);
    std::uint64_t delivered = 0;
    auto check = [&](std::uint32_t) { ++delivered; };
    for (std::uint32_t i = 0; !done || conquer.lastSequence() < finalSequence; ++i) {
      std::uint32_t key = (i * 31) % 700;
      bool found = false;
      TestWrapper v = r.doLookup(TestKey{key, key % 13}, found);
      if (found) {
        for (auto x : v.extra) ASSERT_EQ(x, v.value) << "torn record for key " << key;
      } else {
        ASSERT_NE(key % 7, 0u) << "key " << key << " is never removed, yet was not found";
      }
      if (i % 16 == 0) {
        conquer.conquer(check);
        activity.runOnce(0);
      }
    }
    EXPECT_EQ(conquer.lastSequence(), finalSequence.load());
    EXPECT_FALSE(conquer.outOfSync());
    EXPECT_GT(delivered, 0u);
    std::map<TestKey, std::uint32_t> all = readAll(r);
    EXPECT_FALSE(all.empty());
  }
  writerThread.join();
}

}  // namespace
