// A writer killed with SIGKILL leaves its files; the next writer keeps them when they validate,
// keeps their records under a new fenix when it was killed inside a change, and re-formats them
// under a new fenix when their headers are damaged.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "Quarn/Fenix.h"
#include "Quarn/Files.h"
#include "Quarn/QuarnWriter.h"
#include "TestRecord.h"

using namespace QuarnTest;
using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;

namespace {

constexpr std::uint32_t kRecords = 300;

// Runs a writer in a child process that writes kRecords records (growing the table, compacting
// notifications), removes every tenth, reports readiness through a pipe and waits to be killed.
void writeAndKill(std::string const& root) {
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  pid_t const child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(ready[0]);
    Writer w(dh(), "restart", 100, false, "TestRecord", nullptr, root);
    w.attach();
    for (std::uint32_t round = 0; round < 3; ++round) {
      for (std::uint32_t i = 0; i < kRecords; ++i) w.write(record(i % 17, i, i + round));
    }
    TestWrapper out;
    for (std::uint32_t i = 0; i < kRecords; i += 10) w.remove(TestKey{i, i % 17}, out);
    char const byte = 1;
    (void)!::write(ready[1], &byte, 1);
    for (;;) ::pause();
  }
  ::close(ready[1]);
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::close(ready[0]);
  ::kill(child, SIGKILL);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
}

void flipBits(std::string const& path, std::size_t offset, char mask) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  f.seekg(static_cast<std::streamoff>(offset));
  char c = 0;
  f.read(&c, 1);
  c ^= mask;
  f.seekp(static_cast<std::streamoff>(offset));
  f.write(&c, 1);
}

void writeWord(std::string const& path, std::size_t offset, std::uint32_t value) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  f.seekp(static_cast<std::streamoff>(offset));
  f.write(reinterpret_cast<char const*>(&value), sizeof value);
}

// The notification table that the killed writer appended to last, and the other one.
std::string currentTable(std::string const& dir) {
  return dir + (at(fileBytes(dir + "/conquer.1"), 32) == 0 ? "/conquer.1" : "/conquer.2");
}
std::string spareTable(std::string const& dir) {
  return dir + (at(fileBytes(dir + "/conquer.1"), 32) == 0 ? "/conquer.2" : "/conquer.1");
}

// The records writeAndKill leaves, key 1 holding `value1`.
void expectSurvivors(Writer& w, std::uint32_t value1 = 3) {
  EXPECT_EQ(w.size(), kRecords - kRecords / 10);
  for (std::uint32_t i = 0; i < kRecords; ++i) {
    bool found = false;
    TestWrapper const v = w.lookup(TestKey{i, i % 17}, found);
    EXPECT_EQ(found, i % 10 != 0) << i;
    if (found) {
      EXPECT_EQ(v.value, i == 1 ? value1 : i + 2) << i;
    }
  }
}

TEST(QuarnRestart, KilledWritersEntriesSurviveAndAFreshStartLosesNothing) {
  TempRoot root;
  writeAndKill(root.path());
  std::string const dir = root.path() + "/restart";
  std::uint32_t const fenix = Quarn::FenixFile::read(dir);
  ASSERT_NE(fenix, 0u);

  TraceCapture trace(testHandle);
  Writer w(dh(), "restart", 100, false, "TestRecord", nullptr, root.path());
  w.attach();
  EXPECT_FALSE(trace.contains("will be lost"));
  EXPECT_EQ(w.fenix(), fenix);
  expectSurvivors(w);
  // The notification sequence goes on from where the killed writer stopped.
  std::uint64_t const before = w.conquer().sequence();
  EXPECT_GE(before, 3 * kRecords + kRecords / 10);
  w.write(record(0, 5000, 1));
  EXPECT_EQ(w.conquer().sequence(), before + 1);
  EXPECT_TRUE(w.validate());
  EXPECT_EQ(std::stoi(Quarn::Util::fileRead(dir + "/last-owner")), ::getpid());

  w.cleanup();
  for (char const* name : {"slots", "buckets", "conquer.1", "conquer.2", "fenix", "last-owner"}) {
    EXPECT_EQ(Quarn::Util::memSize(dir + "/" + name), 0u) << name;
  }

  // A start on new files loses nothing and does not say it does.
  Writer fresh(dh(), "fresh", 100, false, "TestRecord", nullptr, root.path());
  fresh.attach();
  EXPECT_FALSE(trace.contains("will be lost"));
  EXPECT_TRUE(trace.contains("QuarnWriter::attach() new files in " + root.path() + "/fresh"));
}

// Damaged headers, or files of another record type, are re-formatted empty under the next
// fenix. What a writer killed inside a change leaves (headers sound, structure half-way) keeps
// its records under the next fenix, so that readers resynchronise.
TEST(QuarnRestart, DamagedFilesAreReformattedAndInterruptedChangesKeepTheirRecords) {
  // Slot 1 holds key 1 (slot 0 held key 0, removed); a slot is 48 bytes after the 176-byte
  // header and the lookaside slot, its value 16 bytes in, the record's value 8 bytes further.
  constexpr std::size_t kSlot1 = 176 + 48 * 2;
  struct Case {
    char const* name;
    std::function<void(std::string const& dir)> damage;
    char const* className = "TestRecord";  // the restarted writer's
    char const* trace = "";                 // a further trace text wanted
    bool kept = false;                      // the records survive
    std::uint32_t value1 = 3;               // then key 1's value
  };
  std::vector<Case> const cases{
      {"update between its two flag steps",
       [](std::string const& dir) {
         auto const slots = fileBytes(dir + "/slots");
         for (std::size_t w = 0; w < 7; ++w) {  // stage key 1's record with value 777
           writeWord(dir + "/slots", 176 + 16 + 4 * w, w == 2 ? 777 : at(slots, kSlot1 + 16 + 4 * w));
         }
         flipBits(dir + "/slots", kSlot1 + 12, 0x02);
       },
       "TestRecord", "", true, 777},
      {"notification written and claimed, not yet published",
       [](std::string const& dir) {
         writeWord(currentTable(dir), 48, at(fileBytes(currentTable(dir)), 48) - 1);
       },
       "TestRecord", "", true},
      {"occupied count not yet adjusted",
       [](std::string const& dir) {
         writeWord(dir + "/slots", 160, at(fileBytes(dir + "/slots"), 160) + 1);
       },
       "TestRecord", "", true},
      {"slot file grown, its header not yet",
       [](std::string const& dir) {
         std::string const slots = dir + "/slots";
         ASSERT_EQ(::truncate(slots.c_str(), Quarn::Util::memSize(slots) + 48 * 64), 0);
       },
       "TestRecord", "", true},
      {"compaction that raised minSeq but did not switch tables",
       [](std::string const& dir) {
         writeWord(dir + "/conquer.1", 16, at(fileBytes(currentTable(dir)), 52));
       },
       "TestRecord", "", true},
      {"class name byte", [](std::string const& dir) { flipBits(dir + "/slots", 85, 0x10); }},
      {"truncated notification table",
       [](std::string const& dir) { ASSERT_EQ(::truncate((dir + "/conquer.1").c_str(), 60), 0); },
       "TestRecord", "ConquerWriter::attachConquer() replace 60 bytes by "},
      // The table the next compaction writes into is checked like the current one.
      {"spare capacity beyond its file",
       [](std::string const& dir) { writeWord(spareTable(dir), 44, 100000); }},
      {"spare truncated",
       [](std::string const& dir) {
         ASSERT_EQ(::truncate(spareTable(dir).c_str(), 1000), 0);
       }},
      {"spare magic", [](std::string const& dir) { flipBits(spareTable(dir), 2, 0x20); }},
      {"spare currentPos beyond capacity",
       [](std::string const& dir) { writeWord(spareTable(dir), 48, 0xFFFFFFF0); }},
      {"spare with the current table's id",
       [](std::string const& dir) {
         writeWord(spareTable(dir), 36, at(fileBytes(dir + "/conquer.1"), 32));
       }},
      {"current table id out of range",
       [](std::string const& dir) { writeWord(dir + "/conquer.1", 32, 5); }},
      {"missing bucket file",
       [](std::string const& dir) { ASSERT_EQ(::unlink((dir + "/buckets").c_str()), 0); }},
      {"files of another record class", [](std::string const&) {}, "OtherRecord"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    TempRoot root;
    writeAndKill(root.path());
    std::string const dir = root.path() + "/restart";
    std::uint32_t const fenix = Quarn::FenixFile::read(dir);
    c.damage(dir);

    TraceCapture trace(testHandle);
    Writer w(dh(), "restart", 100, false, c.className, nullptr, root.path());
    w.attach();
    EXPECT_EQ(w.fenix(), fenix + 1);
    EXPECT_EQ(Quarn::FenixFile::read(dir), fenix + 1);
    EXPECT_TRUE(w.validate());
    if (c.kept) {
      EXPECT_TRUE(trace.contains("validation failed"));
      EXPECT_FALSE(trace.contains("will be lost"));
      expectSurvivors(w, c.value1);
      continue;
    }
    EXPECT_TRUE(
        trace.contains("QuarnWriter::attach() failed, all entries from " + dir + " will be lost"));
    EXPECT_TRUE(trace.contains("QuarnWriter::attach(): re-formatted successfully"));
    EXPECT_TRUE(trace.contains(c.trace));
    EXPECT_EQ(w.size(), 0u);
    EXPECT_EQ(w.capacity(), (Mem::pageSize() - 224) / 48);
    auto const slots = fileBytes(dir + "/slots");
    EXPECT_EQ(at(slots, 12), fenix + 1);
    EXPECT_STREQ(reinterpret_cast<char const*>(&slots[80]), c.className);
    EXPECT_EQ(slots.size(), 176 + 48 * (w.capacity() + 1));
    EXPECT_TRUE(w.validateFiles());
  }
}

// A writer killed after changing a slot but before announcing it leaves a consistent table and
// the prepared entry beyond currentPos: its successor announces the slot to the readers.
TEST(QuarnRestart, ChangeMadeButNotAnnouncedIsAnnouncedByTheNextWriter) {
  TempRoot root;
  writeAndKill(root.path());
  std::string const dir = root.path() + "/restart";
  std::string const table = currentTable(dir);
  auto const bytes = fileBytes(table);
  std::uint32_t const pos = at(bytes, 48);
  std::uint64_t const last = at(bytes, 52 + 12 * (pos - 1)) +
                             (std::uint64_t(at(bytes, 56 + 12 * (pos - 1))) << 32);
  // Slot 1 holds key 1: prepared, then changed to 555.
  writeWord(table, 52 + 12 * pos, static_cast<std::uint32_t>(last + 1));
  writeWord(table, 56 + 12 * pos, static_cast<std::uint32_t>((last + 1) >> 32));
  writeWord(table, 60 + 12 * pos, 1);
  writeWord(dir + "/slots", 176 + 48 * 2 + 16 + 8, 555);

  {
    Writer w(dh(), "restart", 100, false, "TestRecord", nullptr, root.path());
    std::uint32_t const fenix = Quarn::FenixFile::read(dir);
    w.attach();
    EXPECT_EQ(w.fenix(), fenix);
    expectSurvivors(w, 555);
    EXPECT_EQ(w.conquer().sequence(), last + 1);
    auto const after = fileBytes(table);
    EXPECT_EQ(at(after, 48), pos + 1);       // published
    EXPECT_EQ(at(after, 60 + 12 * pos), 1u);  // naming slot 1
    EXPECT_TRUE(w.validate());
  }
  // A restart with nothing prepared announces nothing.
  Writer again(dh(), "restart", 100, false, "TestRecord", nullptr, root.path());
  again.attach();
  EXPECT_EQ(again.conquer().sequence(), last + 1);
}

}  // namespace
