// The table front in one process: init checks, the writer's safe operations and refusals, and a
// reader that mounts, follows notifications and re-mounts as writers come and go.

#include "Quarn/QuarnMap.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "Quarn/ConquerTable.h"
#include "Quarn/Files.h"
#include "Quarn/SlotTable.h"
#include "QuarnMapFixture.h"

using namespace QuarnTest;
using Quarn::QuarnType;

namespace {

// A consumer of every reading mode.
struct Consumers : QuarnMapFixture {
  std::vector<std::unique_ptr<Consumer>> all;  // remounted by the mounter's events alone
  void SetUp() override {
    for (QuarnType mode : {QuarnType::reader, QuarnType::shadow, QuarnType::keyshadow}) {
      all.push_back(std::make_unique<Consumer>(tmp.path(), activity, mode, 3600));
    }
  }
  // Every consumer mounted and holding exactly `table`.
  bool equalTo(std::map<TestKey, std::uint32_t> const& table) const {
    for (auto const& c : all) {
      if (!c->map->fullyAttached() || c->model != table) return false;
    }
    return true;
  }
  // The shadows mounted and holding exactly `table`, the direct reader mounted on the writer's
  // current incarnation with every key of `table` (it may hold removed ones besides).
  bool shadowsEqualTo(std::map<TestKey, std::uint32_t> const& table) const {
    for (auto const& c : all) {
      if (!c->map->fullyAttached()) return false;
      if (c->map->mode() != QuarnType::reader && c->model != table) return false;
      for (auto const& [k, v] : table) {
        if (c->model.count(k) == 0 || c->model.at(k) != v) return false;
      }
    }
    return true;
  }
};

TEST_F(QuarnMapFixture, InitRefusesBadParametersAndLeavesTheMapAsItWas) {
  Map m(table, &recorder, tmp.path(), activity);
  EXPECT_EQ(
      failure([&] { m.init(QuarnType::writer, false, 0); }),
      "QuarnMap::init() 0 is not a valid initialization size for collection t in writer mode");
  EXPECT_EQ(failure([&] { m.init(QuarnType(7), false, 10); }),
            "QuarnMap::init() not a valid reader type:7");
  EXPECT_FALSE(m.initialized());
  EXPECT_FALSE(std::filesystem::exists(root()));

  m.init(QuarnType::writer, true, 10);
  EXPECT_TRUE(m.initialized());
  m.init(QuarnType::writer, true, 10);  // same parameters: harmless
  for (auto const& change : std::vector<std::function<void()>>{
           [&] { m.init(QuarnType::writer, true, 20); },
           [&] { m.init(QuarnType::reader, true, 10); }, [&] { m.nameIs("other"); }}) {
    EXPECT_NE(failure(change).find("already initialized"), std::string::npos);
  }
  EXPECT_EQ(m.mode(), QuarnType::writer);
  EXPECT_EQ(m.resize(), 10u);
  EXPECT_EQ(m.quarnName(), "t");
}

TEST_F(QuarnMapFixture, LocalWriterWritesIteratesAndRefusesReaderOperations) {
  auto m = map(QuarnType::writer, true);
  for (std::uint32_t i = 0; i < 3; ++i) m->safeWrite(record(1, i, 10 + i));
  m->directWrite(TestKey{7, 2})->value = 77;
  m->directCommit();
  bool found = false;
  EXPECT_EQ(m->safeLookup(TestKey{7, 2}, found).value, 77u);
  EXPECT_TRUE(m->safeRemove(TestKey{0, 1}));
  EXPECT_FALSE(m->safeRemove(TestKey{0, 1}));
  std::uint32_t seen = 0;
  TestWrapper out;
  Quarn::IterHint hint;
  for (bool more = m->first(out, hint); more; more = m->next(out.key, out, hint)) ++seen;
  EXPECT_EQ(seen, 3u);
  EXPECT_EQ(m->members(), 3u);
  EXPECT_NE(m->writerCounters().find("writes:4"), std::string::npos);
  EXPECT_EQ(failure([&] { m->readerCounters(); }), "readerCounters() not implemented");
  EXPECT_TRUE(m->validate());
  EXPECT_TRUE(m->validateFiles());
  EXPECT_FALSE(std::filesystem::exists(root()));  // local: no files
}

TEST_F(QuarnMapFixture, ReadingTableRefusesEverythingThatChangesOrChecksFiles) {
  for (QuarnType mode : {QuarnType::reader, QuarnType::shadow, QuarnType::keyshadow}) {
    auto m = map(mode);
    EXPECT_EQ(failure([&] { m->safeWrite(record(1, 1, 1)); }), "write to read-only Quarn table");
    EXPECT_EQ(failure([&] { m->directWrite(TestKey{1, 1}); }), "write to read-only Quarn table");
    EXPECT_EQ(failure([&] { m->safeRemove(TestKey{1, 1}); }), "remove to read-only Quarn table");
    EXPECT_EQ(failure([&] { m->validate(); }), "validate to read-only Quarn table");
    EXPECT_EQ(failure([&] { m->validateFiles(); }), "validateFiles to read-only Quarn table");
    EXPECT_EQ(failure([&] { m->cleanup(); }), "cleanup to read-only Quarn table");
    EXPECT_EQ(failure([&] { m->writerCounters(); }), "writerCounters() not implemented");
    bool found = true;
    m->safeLookup(TestKey{1, 1}, found);
    EXPECT_FALSE(found);
    EXPECT_EQ(m->members(), 0u);
  }
  EXPECT_FALSE(std::filesystem::exists(root()));
}

// Before the writer exists the reader answers absent and retries on its timer, logging the
// start of the retries once; the writer's files then mount it through the mounter event.
TEST_F(QuarnMapFixture, ReaderMountsWhenWriterAppearsAndReportsChangedKeys) {
  auto reader = map(QuarnType::reader);
  ASSERT_TRUE(runUntil([&] { return reader->remountTimeouts() >= 3; }));
  EXPECT_EQ(trace.count("ReaderMounter::timeout() start retrying to mount t. This message can be "
                        "safely ignored if the writer is not running."),
            1u);
  bool found = true;
  reader->safeLookup(TestKey{1, 1}, found);
  EXPECT_FALSE(found);

  // Nearly forever: only a mounter event can mount the reader now.
  auto patient = map(QuarnType::reader, false, 100, 3600);
  auto writer = map(QuarnType::writer);
  writer->safeWrite(record(1, 1, 11));
  ASSERT_TRUE(runUntil([&] { return reader->fullyAttached() && patient->fullyAttached(); }));
  EXPECT_TRUE(trace.contains("CANARY: t ReaderMounter::timeout() remounted after "));
  EXPECT_EQ(reader->remountTimeouts(), 0u);
  EXPECT_EQ(patient->remountTimeouts(), 0u);
  EXPECT_EQ(reader->fenixId(), writer->fenixId());
  EXPECT_EQ(reader->safeLookup(TestKey{1, 1}, found).value, 11u);
  EXPECT_TRUE(found);

  recorder.keys.clear();
  writer->safeWrite(record(2, 5, 25));
  writer->safeRemove(TestKey{1, 1});
  ASSERT_TRUE(runUntil([&] { return recorder.saw(TestKey{5, 2}) && recorder.saw(TestKey{1, 1}); }));
  EXPECT_EQ(reader->members(), 1u);
  EXPECT_EQ(reader->sequence(), writer->sequence());
  EXPECT_NE(reader->readerCounters().find("notifications:"), std::string::npos);
}

// A reader's report makes the writer validate: a sound table gets its fenix rewritten (readers
// re-check); a damaged one is traced and re-formatted under a new fenix with the records it can
// still trust, nothing escapes the writer's event loop, and the reader re-attaches to it.
TEST_F(QuarnMapFixture, CorruptionReportMakesWriterValidate) {
  auto writer = map(QuarnType::writer);
  writer->safeWrite(record(3, 3, 3));
  auto reader = map(QuarnType::reader, false, 100, 3600);
  ASSERT_TRUE(runUntil([&] { return reader->fullyAttached(); }));

  std::string const report = "slot 3 looks odd (fenixId:" + std::to_string(writer->fenixId()) + ")";
  reader->corruptionDetected("slot 3 looks odd");
  EXPECT_EQ(Quarn::Util::fileRead(root() + "/corruption-detected"), report);
  ASSERT_TRUE(
      runUntil([&] { return trace.contains("WriterMounter::notify() quarn validation ok"); }));
  EXPECT_TRUE(trace.contains("WriterMounter::notify() corruptDetected: " + report));
  EXPECT_TRUE(reader->fullyAttached());
  // Once per incident: the same report again is neither traced nor written.
  ASSERT_EQ(::unlink((root() + "/corruption-detected").c_str()), 0);
  reader->corruptionDetected("slot 3 looks odd");
  EXPECT_FALSE(std::filesystem::exists(root() + "/corruption-detected"));
  EXPECT_EQ(trace.errors("QuarnMap::corruptionDetected() slot 3 looks odd"), 1u);

  // The reader meets the damage in a lookup, answers absent and reports it by itself.
  std::uint32_t const fenix = writer->fenixId();
  corruptBucketOf(TestKey{3, 3});
  bool found = true;
  reader->safeLookup(TestKey{3, 3}, found);
  EXPECT_FALSE(found);
  EXPECT_NE(Quarn::Util::fileRead(root() + "/corruption-detected").find("out-of-range"),
            std::string::npos);
  EXPECT_EQ(failure<std::exception>([&] {
              ASSERT_TRUE(runUntil([&] {
                reader->safeLookup(TestKey{3, 3}, found);
                return found && reader->fenixId() == writer->fenixId();
              }));
            }),
            "no exception");
  EXPECT_TRUE(trace.contains("WriterMounter::notify() failed quarn validation"));
  EXPECT_NE(writer->fenixId(), fenix);
  EXPECT_TRUE(writer->validate());
  writer->safeWrite(record(3, 4, 4));
  EXPECT_TRUE(runUntil([&] { return recorder.saw(TestKey{4, 3}); }));
}

// A passive reader (a tool's) follows the table by polling alone: the writer never counts it,
// and corruption it meets stays with it instead of becoming the writer's corruption report.
TEST_F(QuarnMapFixture, PassiveReaderIsUnknownToTheWriterAndReportsNothingToIt) {
  auto writer = map(QuarnType::writer);
  writer->safeWrite(record(3, 3, 3));
  Map passive(table, &recorder, tmp.path(), activity);
  passive.passiveIs(0.01);
  passive.remountIntervalIs(3600);
  passive.init(QuarnType::keyshadow, false, 0);
  ASSERT_TRUE(runUntil([&] { return passive.fullyAttached() && recorder.saw(TestKey{3, 3}); }));
  writer->safeWrite(record(3, 4, 4));
  ASSERT_TRUE(runUntil([&] { return recorder.saw(TestKey{4, 3}); }));
  std::string const queue = Quarn::Util::fileRead(root() + "/conquer.1");
  std::uint32_t numReaders = 1;
  std::memcpy(&numReaders, queue.data() + offsetof(Quarn::ConquerTable::Header, numReaders), 4);
  EXPECT_EQ(numReaders, 0u);

  corruptBucketOf(TestKey{3, 3});
  bool found = true;
  passive.safeLookup(TestKey{3, 3}, found);
  EXPECT_FALSE(found);
  EXPECT_TRUE(trace.contains("QuarnMap::corruptionDetected()"));
  EXPECT_EQ(Quarn::Util::memSize(root() + "/corruption-detected"), 0u);
  EXPECT_EQ(failure([&] { passive.passiveIs(1); }), "QuarnMap::passiveIs() t already initialized");
}

// A write that meets corruption ends in no man's land; the writer re-formats its table under a
// new fenix with the records it can still trust, so the operations after it succeed.
TEST_F(QuarnMapFixture, CorruptionDuringWritesEndsInNoMansLandThenTheWriterRecovers) {
  auto writer = map(QuarnType::writer);
  writer->safeWrite(record(4, 1, 1));
  writer->safeWrite(record(5, 1, 7));
  std::uint32_t const fenix = writer->fenixId();
  corruptBucketOf(TestKey{2, 4});
  EXPECT_EQ(failure([&] { writer->safeWrite(record(4, 2, 2)); }),
            "QuarnMap::safeWrite() in no man's land");
  EXPECT_EQ(trace.count("QuarnMap::corruptionDetected() "), 1u);
  EXPECT_NE(writer->fenixId(), fenix);
  EXPECT_TRUE(writer->validate());
  // Both records lay in sound slots and are kept; the failed write is not.
  bool found = false;
  EXPECT_EQ(writer->safeLookup(TestKey{1, 5}, found).value, 7u);
  EXPECT_TRUE(found);
  writer->safeLookup(TestKey{2, 4}, found);
  EXPECT_FALSE(found);
  EXPECT_TRUE(writer->safeRemove(TestKey{1, 4}));
  writer->safeWrite(record(4, 2, 2));
  writer->safeLookup(TestKey{2, 4}, found);
  EXPECT_TRUE(found);
  EXPECT_EQ(writer->members(), 2u);
  EXPECT_EQ(trace.count("QuarnMap::corruptionDetected() "), 1u);
  // The writer keeps its report to itself: only readers write the corruption file.
  EXPECT_EQ(Quarn::Util::fileRead(root() + "/corruption-detected"), "");
}

// A slot file cut short under the writer: a record is trusted only when its whole slot still
// lies within the file (the slot across the cut has its flags but not all of its value).
TEST_F(QuarnMapFixture, WriterKeepsTheRecordsOfSlotsBeforeATruncation) {
  auto writer = map(QuarnType::writer, false, 1000);
  for (std::uint32_t i = 0; i < 300; ++i) writer->safeWrite(record(i, i, i));  // slot i
  std::size_t const cut = 2 * Mem::pageSize();
  ASSERT_EQ(::truncate((root() + "/slots").c_str(), off_t(cut)), 0);
  // Slot i ends at fileSize(slotSize, i + 1).
  std::uint32_t const slotSize = Quarn::SlotTable::slotSizeFor(sizeof(TestWrapper));
  std::uint32_t const whole = std::uint32_t((cut - Quarn::SlotTable::headerSize) / slotSize) - 1;
  EXPECT_EQ(failure([&] { writer->safeWrite(record(400, 400, 400)); }),
            "QuarnMap::safeWrite() in no man's land");  // its free slot lies past the cut
  EXPECT_EQ(writer->members(), whole);
  for (std::uint32_t i = 0; i < 300; ++i) {
    bool found = false;
    TestWrapper const w = writer->safeLookup(TestKey{i, i}, found);
    EXPECT_EQ(found, i < whole) << i;
    EXPECT_EQ(found ? w.value : i, i);
  }
  writer->safeWrite(record(400, 400, 400));
  EXPECT_TRUE(writer->validate());
}

TEST_F(QuarnMapFixture, WriterReplacesFileOfAnotherSizeUnderReaders) {
  std::size_t grown;
  {
    auto writer = map(QuarnType::writer, false, 5000);
    for (std::uint32_t i = 0; i < 2000; ++i) writer->safeWrite(record(i, i, i));
    grown = Quarn::Util::memSize(root() + "/slots");
  }
  Mem::Shared old("slots", root());
  ASSERT_TRUE(old.attachReadOnly());
  struct stat before {};
  ASSERT_EQ(::stat((root() + "/slots").c_str(), &before), 0);
  ASSERT_TRUE(Quarn::FenixFile::write(root(), Quarn::FenixFile::read(root()) + 100));
  auto writer = map(QuarnType::writer, false, 5000);
  EXPECT_LT(Quarn::Util::memSize(root() + "/slots"), grown);
  struct stat after {};
  ASSERT_EQ(::stat((root() + "/slots").c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  volatile char last = old.base()[old.mappedSize() - 1];
  (void)last;
  EXPECT_FALSE(std::filesystem::exists(root() + "/slots.new"));
  EXPECT_TRUE(writer->validateFiles());
}

// Each mode's contract, with consumers that keep their copy from notifications alone while the
// writer churns unseen (a removed key's slot goes to the next insertion at once): the shadows
// end exactly equal; the direct reader reports every key whose slot changed, so every key the
// table holds is right, while a key removed with its slot reused before it looked may linger.
// A writer restarted as a new incarnation re-formats the files under them: the shadows drop
// every key that went; the direct reader, which keeps nothing of the old files, has every key of
// the new ones right.
TEST_F(Consumers, EachModeKeepsItsContractWithNotificationsAlone) {
  auto writer = map(QuarnType::writer, false, 1000);
  std::map<TestKey, std::uint32_t> truth;
  auto put = [&](TestKey const& k, std::uint32_t v) {
    writer->safeWrite(record(k.group, k.id, v));
    truth[k] = v;
  };
  for (std::uint32_t i = 0; i < 200; ++i) put({i, i % 23}, i);
  ASSERT_TRUE(runUntil([&] { return equalTo(truth); }));
  std::set<TestKey> removed;
  // The direct reader's limit: what it holds beyond the table was removed at some point.
  auto readerKeepsItsContract = [&](Consumer const& c) {
    for (auto const& [k, v] : c.model) {
      if (truth.count(k) == 0) {
        EXPECT_EQ(removed.count(k), 1u) << k;
      }
    }
    for (auto const& [k, v] : truth) {
      EXPECT_EQ(c.model.count(k) != 0 ? c.model.at(k) : ~0u, v) << k;
    }
  };
  std::uint32_t seed = 1;
  for (std::uint32_t i = 0; i < 3000; ++i) {
    seed = seed * 1103515245u + 12345u;
    TestKey const k{(seed >> 8) % 400, ((seed >> 8) % 400) % 23};
    if (truth.count(k) != 0 && (seed & 0x10000) != 0) {
      writer->safeRemove(k);
      truth.erase(k);
      removed.insert(k);
    } else {
      put(k, i);
    }
  }
  ASSERT_TRUE(runUntil([&] {
    for (auto const& c : all) {
      if (c->map->sequence() != writer->sequence()) return false;
    }
    return true;
  }));
  // A key shadow reports from the activity, after the notification, what a lookup made it adopt:
  // caught up with the queue is not yet told of everything. The checks below say what differs.
  (void)runUntil([&] { return shadowsEqualTo(truth); });
  for (auto const& c : all) {
    SCOPED_TRACE(Quarn::quarnTypeWord(c->map->mode()));
    if (c->map->mode() != QuarnType::reader) {
      EXPECT_EQ(c->model, truth);
    } else {
      readerKeepsItsContract(*c);
    }
  }
  std::uint32_t const first = writer->fenixId();
  writer.reset();
  ASSERT_TRUE(Quarn::FenixFile::write(root(), first + 100));
  writer = map(QuarnType::writer, false, 1000);
  for (auto const& [k, v] : truth) removed.insert(k);
  truth.clear();
  for (std::uint32_t i = 0; i < 50; ++i) put({1000 + i, i % 7}, i);
  ASSERT_TRUE(runUntil([&] { return shadowsEqualTo(truth); }));
  readerKeepsItsContract(*all[0]);
  // Removing the writer's files unmounts every consumer, which then answers absent.
  writer->cleanup();
  ASSERT_TRUE(runUntil([&] {
    for (auto const& c : all) {
      if (c->map->mounted()) return false;
    }
    return true;
  }));
  bool found = true;
  all[1]->map->safeLookup(TestKey{1000, 0}, found);
  EXPECT_FALSE(found);
}

// A shadow stopped by corruption keeps what it told its notifier: the keys removed before it
// mounts again are reported then (the direct reader keeps nothing, and has every key of the table
// right). Recipe: a damaged queue header word stops it, a key goes, the word is restored.
TEST_F(Consumers, KeysRemovedWhileStoppedByCorruptionAreReported) {
  auto writer = map(QuarnType::writer);
  std::map<TestKey, std::uint32_t> truth;
  for (std::uint32_t i = 0; i < 20; ++i) {
    writer->safeWrite(record(i % 5, i, i));
    truth[TestKey{i, i % 5}] = i;
  }
  ASSERT_TRUE(runUntil([&] { return equalTo(truth); }));
  Mem::Shared queue("conquer.1", root());
  ASSERT_TRUE(queue.attach(queue.sizeOnDisk()));
  char* const word = queue.base() + offsetof(Quarn::ConquerTable::Header, currentTable);
  std::uint32_t const saved = Mem::Atomics::load32Acquire(word);
  Mem::Atomics::store32Release(word, 7);
  writer->safeWrite(record(0, 100, 1));
  truth[TestKey{100, 0}] = 1;
  ASSERT_TRUE(runUntil([&] {
    for (auto const& c : all) {
      if (c->map->fullyAttached()) return false;
    }
    return true;
  }));
  writer->safeRemove(TestKey{0, 0});
  truth.erase(TestKey{0, 0});
  Mem::Atomics::store32Release(word, saved);
  ASSERT_TRUE(runUntil([&] { return shadowsEqualTo(truth); }));
}

// A damaged or deleted fenix file is written again by its writer; a reader that meets it
// without a writer to repair it says so at error level.
TEST_F(QuarnMapFixture, DamagedOrDeletedFenixFileIsRewrittenByTheWriter) {
  auto writer = map(QuarnType::writer);
  writer->safeWrite(record(1, 1, 1));
  auto reader = map(QuarnType::reader, false, 100, 3600);
  ASSERT_TRUE(runUntil([&] { return reader->fullyAttached(); }));
  std::uint32_t const fenix = writer->fenixId();
  ASSERT_TRUE(Quarn::Util::fileWriteAtomic(root() + "/fenix", "xy"));
  ASSERT_TRUE(runUntil([&] { return Quarn::FenixFile::read(root()) == fenix; }));
  ASSERT_EQ(::unlink((root() + "/fenix").c_str()), 0);
  ASSERT_TRUE(runUntil([&] { return Quarn::FenixFile::read(root()) == fenix; }));
  EXPECT_TRUE(trace.contains("WriterMounter::notify() fenix file of "));
  EXPECT_TRUE(reader->fullyAttached());
  EXPECT_EQ(reader->fenixId(), fenix);

  writer.reset();  // no one repairs it now
  ASSERT_EQ(::unlink((root() + "/fenix").c_str()), 0);
  auto late = map(QuarnType::reader);
  ASSERT_TRUE(runUntil([&] { return trace.contains("damaged or missing, cannot mount"); }));
  EXPECT_FALSE(late->fullyAttached());
}

// A record of another size, and one of the same size under another name.
struct WideRecord {
  static constexpr char const* typeName = "QuarnTest::WideRecord";
  TestKey key;
  std::uint32_t value[8] = {};
};
struct OtherRecord {
  static constexpr char const* typeName = "QuarnTest::OtherRecord";
  TestKey key;
  std::uint32_t fields[5] = {};
};
static_assert(sizeof(OtherRecord) == sizeof(TestRecord));

// A reading table that waits says why: in its mount status at once, and at error level once the
// reason has held for the longest retry delay (the remount interval, 0.05 s here), once for each
// reason however often it retries.
TEST_F(QuarnMapFixture, WaitingReaderSaysWhyOnceAtErrorLevel) {
  auto reader = map(QuarnType::reader);
  auto waitsSaying = [&](std::string const& why) {
    return runUntil([&] {
      std::string const status = reader->mountStatus();
      std::size_t const waiting = status.find(" waiting: ");
      return waiting != std::string::npos && status.find(why, waiting) != std::string::npos &&
             trace.errors(why) == 1;
    });
  };
  EXPECT_TRUE(waitsSaying("no table t in " + tmp.path()));
  {
    Quarn::QuarnMap<TestKey, KivQuarn::KivQuarnMapValueWrapper<WideRecord, TestKey>> wide(
        table, nullptr, tmp.path(), activity);
    wide.init(QuarnType::writer, false, 100);
    EXPECT_TRUE(waitsSaying("slotSize:56 wanted valueSize:28"));
    std::uint32_t const retries = reader->remountTimeouts();
    ASSERT_TRUE(runUntil([&] { return reader->remountTimeouts() >= retries + 5; }));
    EXPECT_EQ(trace.errors("slotSize:56 wanted valueSize:28"), 1u);
    wide.cleanup();
  }
  {
    Quarn::QuarnMap<TestKey, KivQuarn::KivQuarnMapValueWrapper<OtherRecord, TestKey>> other(
        table, nullptr, tmp.path(), activity);
    other.init(QuarnType::writer, false, 100);
    EXPECT_TRUE(waitsSaying("value typename:QuarnTest::OtherRecord wanted:QuarnTest::TestRecord"));
    other.cleanup();
  }
  auto writer = map(QuarnType::writer);
  ASSERT_TRUE(runUntil([&] { return reader->fullyAttached(); }));
  EXPECT_EQ(reader->mountStatus().find("waiting"), std::string::npos);
  EXPECT_EQ(trace.errors("no table t in"), 1u);
}

// A table its reader may not read is named as such, not waited on in silence.
TEST_F(QuarnMapFixture, ReaderWithoutAccessSaysPermissionDenied) {
  auto writer = map(QuarnType::writer);
  ASSERT_EQ(::chmod(tmp.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod((root() + "/slots").c_str(), 0600), 0);
  std::string const why = "permission denied: " + root() + "/slots";
  auto readerSays = [&] {
    auto reader = map(QuarnType::reader);
    return runUntil(
        [&] { return reader->mountStatus().find(" waiting: " + why) != std::string::npos; });
  };
  if (::geteuid() != 0) {
    EXPECT_TRUE(readerSays());
    return;
  }
  pid_t const child = ::fork();  // root reads everything: the reader runs as nobody
  if (child == 0) {
    bool const ok = ::setgid(65534) == 0 && ::setuid(65534) == 0 && readerSays();
    std::_Exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// A key shadow's lookup answers the writer's current record before its notification arrives,
// and the key it handed out is reported again when it goes, even when its slot was reused by
// then: the consumer never keeps a key the table lost.
TEST_F(Consumers, KeyShadowLookupsSeeTheWriterAndReportWhatTheyHandedOut) {
  auto writer = map(QuarnType::writer);
  std::map<TestKey, std::uint32_t> truth;
  for (std::uint32_t i = 0; i < 10; ++i) {
    writer->safeWrite(record(1, i, i));
    truth[TestKey{i, 1}] = i;
  }
  ASSERT_TRUE(runUntil([&] { return equalTo(truth); }));
  Consumer& keys = *all[2];
  ASSERT_EQ(keys.map->mode(), QuarnType::keyshadow);
  writer->safeWrite(record(3, 7, 70));
  bool found = false;
  TestWrapper const w = keys.map->safeLookup(TestKey{7, 3}, found);
  ASSERT_TRUE(found);
  EXPECT_EQ(w.value, 70u);
  keys.model[TestKey{7, 3}] = 70;  // as a consumer that looked it up for another key's sake
  writer->safeRemove(TestKey{7, 3});
  writer->safeWrite(record(4, 8, 80));  // into the slot 7/3 had
  truth[TestKey{8, 4}] = 80;
  ASSERT_TRUE(
      runUntil([&] { return keys.map->sequence() == writer->sequence() && keys.model == truth; }));
}

// Every file of a table gets the mode its writer asks for, exactly (the umask narrows nothing):
// by default readable by all and writable by the owner.
TEST_F(QuarnMapFixture, TableFilesTakeTheWritersMode) {
  auto const modes = [&] {
    std::vector<unsigned> out;
    for (char const* name : {"slots", "buckets", "conquer.1", "conquer.2", "fenix", "last-owner"}) {
      struct stat st {};
      out.push_back(::stat((root() + "/" + name).c_str(), &st) == 0 ? st.st_mode & 07777 : 0);
    }
    return out;
  };
  mode_t const umask = ::umask(077);
  auto writer = map(QuarnType::writer);
  EXPECT_EQ(modes(), std::vector<unsigned>(6, 0644));
  writer->cleanup();
  writer = std::make_unique<Map>(table, &recorder, tmp.path(), activity);
  writer->fileModeIs(0640);
  writer->init(QuarnType::writer, false, 100);
  EXPECT_EQ(modes(), std::vector<unsigned>(6, 0640));
  ::umask(umask);
}

}  // namespace
