// One live writer per table, across processes: a second writer is refused with the table and the
// live writer's pid and touches nothing of the table; a writer killed with SIGKILL never blocks
// its successor (readers hold no lock); a lock that cannot be taken says why.
// The first writer is the process of QuarnMapProcessTest.cpp's "QUARN_MAP_WRITER" role: the
// marker record (0, 0) holding its pid, then records (2, i) -> i for i < 100.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "Quarn/Files.h"
#include "Quarn/QuarnWriter.h"
#include "Quarn/WriterLock.h"
#include "QuarnMapFixture.h"
#include "support/Children.h"

using namespace QuarnTest;
using Quarn::QuarnType;

namespace {

using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;
constexpr TestKey marker{0, 0};

struct WriterLockTest : QuarnMapFixture {
  TestSupport::Children writers{"QUARN_MAP_WRITER"};

  // Starts a writer process and waits until a reader of this process sees its records.
  pid_t startWriter(std::unique_ptr<Map>& reader) {
    pid_t const pid = writers.spawn(tmp.path());
    if (!reader) reader = map(QuarnType::reader);
    EXPECT_TRUE(runUntil([&] {
      bool found = false;
      return reader->safeLookup(marker, found).value == std::uint32_t(pid) && found;
    }));
    return pid;
  }
  ino_t inode(std::string const& name) const {
    struct stat st {};
    return ::stat((root() + "/" + name).c_str(), &st) == 0 ? st.st_ino : 0;
  }
};

TEST_F(WriterLockTest, ASecondWriterIsRefusedWhileTheFirstLives) {
  std::unique_ptr<Map> reader;
  pid_t const first = startWriter(reader);
  ino_t const socket = inode("kick");
  ino_t const slots = inode("slots");
  std::string const refusal =
      "Quarn table " + root() + " already has a live writer, pid " + std::to_string(first);

  std::string const why = failure([&] { map(QuarnType::writer, false, 1000); });
  EXPECT_EQ(why, "QuarnMap::init() failed to initialize collection t: " + refusal);
  Writer w(dh(), table, 1000, false, "TestRecord", nullptr, tmp.path());
  EXPECT_EQ(failure([&] { w.attach(); }), refusal);
  EXPECT_EQ(failure([&] { w.cleanup(); }), refusal);

  // The live writer's table is untouched: its wake-up socket and files, its readers.
  EXPECT_EQ(inode("kick"), socket);
  EXPECT_EQ(inode("slots"), slots);
  EXPECT_EQ(Quarn::Util::fileRead(root() + "/last-owner"), std::to_string(first) + "\n");
  EXPECT_EQ(reader->members(), 101u);
  EXPECT_TRUE(reader->fullyAttached());
}

TEST_F(WriterLockTest, AKilledWriterNeverBlocksItsSuccessor) {
  std::unique_ptr<Map> reader;  // attached all along: readers take no lock
  pid_t const first = startWriter(reader);
  writers.kill(first);  // SIGKILL
  auto writer = map(QuarnType::writer, false, 1000);
  EXPECT_EQ(writer->owner(), std::uint32_t(::getpid()));
  bool found = false;
  EXPECT_EQ(writer->safeLookup(TestKey{7, 2}, found).value, 7u);  // its records survive
  EXPECT_TRUE(found);
  writer.reset();

  // A successor process likewise, after a writer of this process that was destroyed.
  pid_t const second = startWriter(reader);
  EXPECT_EQ(Quarn::Util::fileRead(root() + "/last-owner"), std::to_string(second) + "\n");
}

TEST(WriterLock, ALockThatCannotBeTakenSaysWhy) {
  TempRoot tmp;
  std::string const root = tmp.path() + "/t";
  std::filesystem::create_directories(root + "/last-owner");  // not a file
  EXPECT_EQ(failure([&] { Quarn::Util::AutoLock lock(root); }),
            "cannot lock " + root + "/last-owner: is a directory");
  // A writer never goes on without its lock, even where its table files could be made.
  Writer w(dh(), "t", 100, false, "TestRecord", nullptr, tmp.path());
  EXPECT_EQ(failure([&] { w.attach(); }), "cannot lock " + root + "/last-owner: is a directory");
  EXPECT_FALSE(std::filesystem::exists(root + "/slots"));
}

}  // namespace
