#include "Quarn/MounterSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Jorv/Exception.h"
#include "TestRecord.h"
#include "support/ActivityWait.h"

namespace {

namespace fs = std::filesystem;
using Quarn::MounterSm;
using TestSupport::runUntil;

struct MounterFixture : ::testing::Test {
  Kiv::Activity activity;
  QuarnTest::TempRoot tmp;
  std::vector<std::string> events;

  std::unique_ptr<MounterSm> mounter(std::string const& root) {
    return std::make_unique<MounterSm>(
        root, [this](std::string const& e) { events.push_back(e); }, activity);
  }
  bool seen(std::string const& name) {
    return std::find(events.begin(), events.end(), name) != events.end();
  }
  bool waitFor(std::string const& name) {
    return runUntil(activity, [&] { return seen(name); });
  }
  static void writeFile(std::string const& path, std::string const& text) {
    std::ofstream(path) << text;
  }
  // Written the way the writer publishes "fenix": a temporary file renamed over the real one.
  static void writeByRename(std::string const& path, std::string const& text) {
    writeFile(path + ".tmp", text);
    fs::rename(path + ".tmp", path);
  }
};

TEST_F(MounterFixture, ExistingRootReportsWatchedThenEachWriterFile) {
  auto m = mounter(tmp.path());
  EXPECT_TRUE(events.empty());  // never from inside the constructor
  ASSERT_TRUE(waitFor(MounterSm::rootWatched));
  writeFile(tmp.path() + "/slots", "s");
  writeByRename(tmp.path() + "/fenix", "1");
  writeFile(tmp.path() + "/corruption-detected", "bad link");
  ASSERT_TRUE(waitFor("corruption-detected"));
  EXPECT_TRUE(seen("slots"));
  EXPECT_TRUE(seen("fenix"));
  // A rewrite in place (no rename) is reported too, when the writer closes the file.
  events.clear();
  writeFile(tmp.path() + "/fenix", "2");
  ASSERT_TRUE(waitFor("fenix"));
}

TEST_F(MounterFixture, RootCreatedLaterSeveralLevelsDown) {
  std::string root = tmp.path() + "/a/b/table";
  auto m = mounter(root);
  EXPECT_FALSE(m->watchingRoot());
  EXPECT_EQ(m->watchedPath(), tmp.path());
  fs::create_directory(tmp.path() + "/a");
  ASSERT_TRUE(runUntil(activity, [&] { return m->watchedPath() == tmp.path() + "/a"; }));
  fs::create_directories(root);  // b and table at once: the watch must not stop at b
  ASSERT_TRUE(waitFor(MounterSm::rootWatched));
  EXPECT_TRUE(m->watchingRoot());
  writeByRename(root + "/fenix", "7");
  ASSERT_TRUE(waitFor("fenix"));
}

TEST_F(MounterFixture, RootRemovedAndRecreated) {
  std::string root = tmp.path() + "/table";
  fs::create_directory(root);
  auto m = mounter(root);
  ASSERT_TRUE(waitFor(MounterSm::rootWatched));
  fs::remove_all(root);
  ASSERT_TRUE(waitFor(MounterSm::rootRemoved));
  EXPECT_FALSE(m->watchingRoot());
  events.clear();
  fs::create_directory(root);
  ASSERT_TRUE(waitFor(MounterSm::rootWatched));
  writeFile(root + "/slots", "s");
  ASSERT_TRUE(waitFor("slots"));
  // Moved away and a new directory moved in under the same name.
  events.clear();
  fs::rename(root, tmp.path() + "/old");
  fs::create_directory(tmp.path() + "/new");
  fs::rename(tmp.path() + "/new", root);
  ASSERT_TRUE(
      runUntil(activity, [&] { return m->watchingRoot() && seen(MounterSm::rootWatched); }));
  writeFile(tmp.path() + "/old/slots", "ignored");  // the old directory is no longer watched
  writeFile(root + "/buckets", "b");
  ASSERT_TRUE(waitFor("buckets"));
  EXPECT_EQ(std::count(events.begin(), events.end(), "slots"), 0);
}

// A reader's mapping of a file of the old directory keeps that directory alive, so the kernel
// does not say it was removed until the mapping goes; the reader unmaps only once told. The
// replacement must be seen from the directory's identity instead.
TEST_F(MounterFixture, RootReplacedWhileAFileOfItIsStillOpenIsReportedRemoved) {
  std::string root = tmp.path() + "/table";
  fs::create_directory(root);
  writeFile(root + "/slots", "old");
  auto m = mounter(root);
  ASSERT_TRUE(waitFor(MounterSm::rootWatched));
  events.clear();
  std::FILE* held = std::fopen((root + "/slots").c_str(), "r");  // as a mapping holds it
  ASSERT_NE(held, nullptr);
  fs::remove_all(root);
  fs::create_directory(root);
  writeFile(root + "/slots", "new");
  bool const removed = waitFor(MounterSm::rootRemoved);
  std::fclose(held);
  ASSERT_TRUE(removed);
  ASSERT_TRUE(
      runUntil(activity, [&] { return m->watchingRoot() && seen(MounterSm::rootWatched); }));
  events.clear();
  writeFile(root + "/buckets", "b");
  ASSERT_TRUE(waitFor("buckets"));  // the new directory is the one watched
}

TEST_F(MounterFixture, HandlerMayDestroyTheMounter) {
  std::unique_ptr<MounterSm> m;
  int calls = 0;
  m = std::make_unique<MounterSm>(
      tmp.path(),
      [&](std::string const& e) {
        ++calls;
        if (e == "slots") m.reset();
      },
      activity);
  writeFile(tmp.path() + "/slots", "s");
  writeFile(tmp.path() + "/buckets",
            "b");  // queued in the same read: must not reach a dead mounter
  ASSERT_TRUE(runUntil(activity, [&] { return m == nullptr; }));
  activity.runOnce(0.01);
  EXPECT_EQ(activity.numFds(), 0u);
  EXPECT_EQ(activity.numTimers(), 0u);
  EXPECT_GE(calls, 1);
}

TEST_F(MounterFixture, RelativeRootIsRefused) {
  EXPECT_THROW(mounter("relative/path"), Jorv::RuntimeException);
  EXPECT_EQ(activity.numFds(), 0u);
}

}  // namespace
