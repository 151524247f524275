// The agent simulation's clear-request record: what a restarted agent reads back, that a record
// it cannot trust, or one it cannot write, stops it with the path and the cause instead of being
// taken for "nothing acted on", and that a reserved record is still written on a full file
// system.

#include "tools/bidir_agent/ClearLog.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "Quarn/TestRecord.h"
#include "support/PrivateTmpfs.h"

namespace {

using BidirAgent::ClearLog;
using Routing::Pim::Bidir::ClearConfig;
using Routing::Pim::Bidir::MrouteClearFlags;

ClearConfig::GroupKey groupKey(std::uint32_t addr) {
  return ClearConfig::GroupKey(MrouteClearFlags::clearGroup_, Lanx::IpGenAddr::ipv4Addr(addr));
}

void put(std::string const& path, std::string const& text) { std::ofstream(path) << text; }

std::string failure(auto&& f) {
  return QuarnTest::failure<Jorv::RuntimeException>(f);
}

TEST(ClearLog, ReadsBackTheLastRecordWrittenAndNothingBeforeTheFirst) {
  QuarnTest::TempRoot root;
  ClearLog const log(root.path() + "/agent.clear");
  EXPECT_FALSE(log.read().has_value());
  log.reserve();
  EXPECT_FALSE(log.read().has_value());

  for (ClearLog::Entry const entry : {ClearLog::Entry{7, false, groupKey(0xef010005)},
                                      ClearLog::Entry{255, true, groupKey(0xef010006)}}) {
    log.write(entry);
    auto const read = log.read();
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(entry.count, read->count);
    EXPECT_EQ(entry.done, read->done);
    EXPECT_EQ(entry.key, read->key);
  }
  log.reserve();  // a record already there stays
  EXPECT_EQ(255, log.read()->count);
}

TEST(ClearLog, AnUntrustedRecordStopsTheReadNamingThePathAndWhatIsWrong) {
  QuarnTest::TempRoot root;
  ClearLog const log(root.path() + "/agent.clear");
  std::ostringstream key;
  key << groupKey(0xef010005);
  struct Case {
    std::string text, cause;
  };
  for (Case const& c : {
           Case{"", "malformed record ''"},
           Case{"7 done\n7 done\n", "holds more than one record"},
           Case{"300 done " + key.str() + "\n", "malformed record '300 done"},
           Case{"7 finished " + key.str() + "\n", "malformed record '7 finished"},
           Case{"seven done " + key.str() + "\n", "malformed record 'seven done"},
           Case{"7 done Value('nothing')\n", "malformed record '7 done Value('nothing')'"},
       }) {
    put(log.path(), c.text);
    std::string const what = failure([&] { (void)log.read(); });
    EXPECT_EQ(0u, what.rfind("clear-request log " + log.path() + ": " + c.cause, 0))
        << "record '" << c.text << "' gave '" << what << "'";
  }
}

TEST(ClearLog, AWriteThatCannotLandStopsNamingThePathAndTheCause) {
  QuarnTest::TempRoot root;
  // The record's path is a directory.
  ClearLog const blocked(root.path() + "/agent.clear");
  std::filesystem::create_directory(blocked.path());
  std::string what = failure([&] { blocked.write({1, false, groupKey(0xef010001)}); });
  EXPECT_EQ("clear-request log " + blocked.path() + ": cannot be written: Is a directory", what);

  // The record cannot be reserved: its directory is gone.
  ClearLog const orphan(root.path() + "/gone/agent.clear");
  what = failure([&] { orphan.write({1, false, groupKey(0xef010001)}); });
  EXPECT_EQ("clear-request log " + orphan.path() + ": cannot be reserved at " + orphan.path() +
                ".new: No such file or directory",
            what);
}

// The tables' growth may take the last page of the file system; the agent must still keep its
// record (it used to write a new file and rename it, which needs a page).
TEST(ClearLog, AReservedRecordIsWrittenOnAFullFileSystem) {
  TestSupport::PrivateTmpfs fs(1 << 20);
  if (!fs.available()) GTEST_SKIP() << "no private tmpfs here (" << fs.why() << ")";
  ClearLog const log(fs.path() + "/agent.clear");
  log.reserve();
  ASSERT_TRUE(fs.fill());
  for (std::uint8_t count : {1, 2}) {
    log.write({count, count == 2, groupKey(0xef010000 + count)});
    auto const entry = log.read();
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(count, entry->count);
    EXPECT_EQ(count == 2, entry->done);
    EXPECT_EQ(groupKey(0xef010000 + count), entry->key);
  }
  EXPECT_EQ(0u, fs.freeBytes());
  // Without the reservation the same record cannot land, and says why.
  ClearLog const unreserved(fs.path() + "/other.clear");
  EXPECT_NE(std::string::npos,
            failure([&] { unreserved.write({1, false, groupKey(0xef010001)}); })
                .find("No space left on device"));
}

}  // namespace
