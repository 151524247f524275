// A table on a file system that runs out of space (a small private tmpfs, see
// support/PrivateTmpfs.h): creation fails with the cause, a write that needs a file to grow fails
// with TableFullException and leaves the table as it was (every record kept, valid, a reader
// process agreeing), also when the growth that fails is the second of two files, and writes go
// through again once space is freed.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Kiv/Activity.h"
#include "Quarn/QuarnMap.h"
#include "Quarn/QuarnWriter.h"
#include "TestRecord.h"
#include "support/ActivityWait.h"
#include "support/Children.h"
#include "support/PrivateTmpfs.h"

using namespace QuarnTest;

namespace {

using Map = Quarn::QuarnMap<TestKey, TestWrapper>;
using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;
constexpr char const* table = "t";

#define SKIP_WITHOUT(fs) \
  if (!(fs).available()) GTEST_SKIP() << "no private tmpfs here (" << (fs).why() << ")"

// Reader process: "<root dir>|<n>". Exits 0 once its reading mount holds exactly the records
// (1, i) -> i for i < n, 1 when that does not happen within 20 seconds.
int readerChild(std::string const& arg) {
  std::string const rootDir = arg.substr(0, arg.find('|'));
  auto const n = static_cast<std::uint32_t>(std::stoul(arg.substr(arg.find('|') + 1)));
  Kiv::Activity activity;
  Map map(table, nullptr, rootDir, activity);
  map.remountIntervalIs(0.05);
  map.init(Quarn::QuarnType::reader, false, 0);
  bool const agrees = TestSupport::runUntil(
      activity,
      [&] {
        if (map.members() != n) return false;
        for (std::uint32_t i = 0; i < n; ++i) {
          bool found = false;
          if (map.safeLookup(TestKey{i, 1}, found).value != i || !found) return false;
        }
        return true;
      },
      20);
  return agrees ? 0 : 1;
}
[[maybe_unused]] bool const readerHook = TestSupport::childRole("QUARN_SPACE_READER", readerChild);

TEST(Space, CreatingATableOnAFullFileSystemSaysWhy) {
  TestSupport::PrivateTmpfs fs(256 * 1024);
  SKIP_WITHOUT(fs);
  ASSERT_TRUE(fs.fill());
  Kiv::Activity activity;
  Map map(table, nullptr, fs.path(), activity);
  std::string const why = failure([&] { map.init(Quarn::QuarnType::writer, false, 100); });
  EXPECT_EQ(why.rfind("QuarnMap::init() failed to initialize collection t: ", 0), 0u) << why;
  EXPECT_NE(why.find("cannot attach to shmem " + fs.path() + "/t/slots size:"), std::string::npos)
      << why;
  EXPECT_NE(why.find(": no space left on device"), std::string::npos) << why;
  EXPECT_FALSE(map.initialized());
}

TEST(Space, AFullFileSystemEndsWritesWithTableFullAndKeepsEveryRecord) {
  TestSupport::PrivateTmpfs fs(1024 * 1024);
  SKIP_WITHOUT(fs);
  Kiv::Activity activity;
  TraceCapture trace{"Quarn-*", 1};
  Map map(table, nullptr, fs.path(), activity);
  map.init(Quarn::QuarnType::writer, false, 100);
  std::uint32_t n = 0;
  for (; n < 50; ++n) map.safeWrite(record(1, n, n));
  ASSERT_TRUE(fs.fill());

  std::string error;
  for (; n < 100000 && error.empty(); ++n) {
    try {
      map.safeWrite(record(1, n, n));
    } catch (Quarn::TableFullException const& e) {
      error = e.what();
      break;
    }
  }
  EXPECT_NE(error.find("Quarn table full"), std::string::npos) << error;
  EXPECT_NE(error.find(": no space left on device"), std::string::npos) << error;
  EXPECT_TRUE(trace.contains("failed to resize shared memory to size "));
  EXPECT_TRUE(trace.contains(" - the system may be out of memory."));
  // Every record written before is there, the table is whole, and a reader process agrees.
  EXPECT_EQ(map.members(), n);
  for (std::uint32_t i = 0; i < n; ++i) {
    bool found = false;
    ASSERT_EQ(map.safeLookup(TestKey{i, 1}, found).value, i);
    ASSERT_TRUE(found) << i;
  }
  EXPECT_TRUE(map.validate());
  TestSupport::Children readers{"QUARN_SPACE_READER"};
  pid_t const reader = readers.spawn(fs.path() + "|" + std::to_string(n));
  // The writer serves the reader's wake-up channel while it waits.
  int status = 0;
  ASSERT_TRUE(TestSupport::runUntil(activity, [&] { return readers.exited(reader, &status); }, 30));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the reader process does not hold the writer's records";

  // Space freed: the write that failed goes through.
  fs.release();
  map.safeWrite(record(1, n, n));
  EXPECT_EQ(map.members(), n + 1);
  EXPECT_TRUE(map.validate());
}

// A change that needs two files to grow (the slot table and the notification table it compacts
// into) and gets space for only one of them fails as a whole: both orders of failure leave the
// table valid with every record and its notification state as it was.
TEST(Space, AGrowthThatFailsHalfWayLeavesTheTableAsItWas) {
  if (Mem::pageSize() != 4096) GTEST_SKIP() << "page arithmetic below assumes 4096-byte pages";
  TestSupport::PrivateTmpfs fs(1024 * 1024);
  SKIP_WITHOUT(fs);
  TraceCapture trace{testHandle, 1};
  std::uint32_t const entries = (4096 - 56) / 12;  // a one-page notification table
  auto const expectIntact = [&](Writer& w, std::uint32_t keys, std::uint64_t minSeq) {
    EXPECT_TRUE(w.validate());
    EXPECT_EQ(w.size(), keys);
    EXPECT_EQ(w.conquer().minSeq(), minSeq);
    for (std::uint32_t i = 0; i < keys; ++i) {
      bool found = false;
      w.lookup(TestKey{i, 0}, found);
      ASSERT_TRUE(found) << i;
    }
  };

  {
    // The notification table is full and a reader has read only its first 10 entries, so the
    // compaction must grow the other table; the slot table has room. The failed growth must not
    // leave the prune it prepared behind.
    TestKick kick;
    Writer w(dh(), "prune", 1000, false, "TestRecord", &kick, fs.path());
    w.attach();
    std::uint32_t const keys = entries - 1;
    for (std::uint32_t i = 0; i < keys; ++i) w.write(record(0, i, i));
    w.write(record(0, 0, 0));
    ASSERT_GT(w.capacity(), w.size());
    kick.lowest = 10;
    ASSERT_TRUE(fs.fill());
    std::string const why =
        failure<Quarn::TableFullException>([&] { w.write(record(0, keys, 0)); });
    EXPECT_EQ(why.rfind("ConquerWriter::grow() Quarn table full (live notifications:", 0), 0u)
        << why;
    expectIntact(w, keys, 0);
    fs.release();
    w.write(record(0, keys, 0));
    expectIntact(w, keys + 1, 10);
  }
  {
    // Slot table and notification table full at once. The slot table (336 slots of 48 bytes, 4
    // pages) grows to 678 slots, 4 more pages; the other notification table must hold 2 x 336
    // entries, 1 more page. With 4 pages free, growing the slots first would leave none for the
    // notifications.
    TestKick kick;
    kick.lowest = 0;  // a reader that has read nothing: no entry can be pruned
    Writer w(dh(), "both", 1000, false, "TestRecord", &kick, fs.path());
    w.attach();
    for (std::uint32_t i = 0; i < entries; ++i) w.write(record(0, i, i));
    ASSERT_EQ(w.capacity(), entries);
    ASSERT_TRUE(fs.fill(4 * 4096));
    EXPECT_THROW(w.write(record(0, entries, 0)), Quarn::TableFullException);
    expectIntact(w, entries, 0);
    fs.release();
    w.write(record(0, entries, 0));
    expectIntact(w, entries + 1, 0);
  }
}

}  // namespace
