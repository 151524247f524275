// The table front across processes: a reader follows a writer process that is killed in the
// middle of its work and started again, and a reader process is shown to be unable to change the
// writer's files. Writers are this test binary re-executed with QUARN_MAP_WRITER set.

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "Quarn/Util.h"
#include "QuarnMapFixture.h"

using namespace QuarnTest;
using Quarn::QuarnType;

namespace {

// Marker record: key 0/0 holds the pid of the writer that wrote it.
constexpr TestKey marker{0, 0};

// "churn": rewrites 500 keys round and round; "resized": the same with another configured size
// (its files cannot be kept: a new incarnation); "fill": writes 100 keys and serves readers.
int writerChild(std::string const& childArgs) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::string const mode = childArgs.substr(0, childArgs.find(':'));
  std::string const dir = childArgs.substr(childArgs.find(':') + 1);
  Kiv::Activity activity;
  Quarn::QuarnMap<TestKey, TestWrapper> map(QuarnMapFixture::table, nullptr, dir, activity);
  map.init(QuarnType::writer, false, mode == "resized" ? 2000 : 1000);
  map.safeWrite(record(marker.group, marker.id, std::uint32_t(::getpid())));
  for (std::uint32_t i = 0; mode != "fill"; ++i) {
    map.safeWrite(record(1, i % 500, i));
    if (i % 64 == 0) activity.runOnce(0);
  }
  for (std::uint32_t i = 0; i < 100; ++i) map.safeWrite(record(2, i, i));
  activity.run();
  return 0;
}

[[maybe_unused]] bool const childHook = [] {
  if (char const* childArgs = std::getenv("QUARN_MAP_WRITER")) std::_Exit(writerChild(childArgs));
  return false;
}();

struct QuarnMapProcess : QuarnMapFixture {
  std::vector<pid_t> children;

  ~QuarnMapProcess() override {
    for (pid_t pid : children) stop(pid);
  }
  pid_t spawnWriter(char const* mode) {
    pid_t const pid = ::fork();
    if (pid == 0) {
      ::setenv("QUARN_MAP_WRITER", (std::string(mode) + ":" + tmp.path()).c_str(), 1);
      char const* argv[] = {"/proc/self/exe", "--gtest_list_tests", nullptr};
      ::execve("/proc/self/exe", const_cast<char**>(argv), environ);
      std::_Exit(127);
    }
    children.push_back(pid);
    return pid;
  }
  void stop(pid_t pid) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  // The reader sees the marker of writer `pid`.
  bool sees(Map const& reader, pid_t pid) const {
    bool found = false;
    return reader.safeLookup(marker, found).value == std::uint32_t(pid) && found;
  }
};

TEST_F(QuarnMapProcess, ReaderFollowsAWriterKilledMidChurnToItsSuccessor) {
  auto reader = map(QuarnType::reader);
  pid_t const first = spawnWriter("churn");
  ASSERT_TRUE(runUntil([&] { return sees(*reader, first) && recorder.keys.size() > 100; }));
  stop(first);
  std::erase(children, first);

  // A successor on the same files keeps them and their incarnation.
  pid_t const second = spawnWriter("churn");
  ASSERT_TRUE(runUntil([&] {
    return sees(*reader, second) && reader->fenixId() == Quarn::FenixFile::read(root());
  }));
  std::uint32_t const fenix = reader->fenixId();
  stop(second);
  std::erase(children, second);

  // One that cannot keep them re-formats under a new fenix, replacing the grown slot file while
  // this reader still maps it; the reader detaches and re-attaches by itself.
  pid_t const third = spawnWriter("resized");
  ASSERT_TRUE(runUntil(
      [&] { return sees(*reader, third) && reader->fenixId() == Quarn::FenixFile::read(root()); }));
  EXPECT_NE(reader->fenixId(), fenix);
  EXPECT_GE(trace.count("QuarnMap::attach() successful"), 2u);
  // The new incarnation's changes keep arriving, and the table reads consistently.
  recorder.keys.clear();
  ASSERT_TRUE(runUntil([&] { return recorder.keys.size() > 100; }));
  EXPECT_TRUE(reader->fullyAttached());
  EXPECT_EQ(Quarn::Util::fileRead(root() + "/corruption-detected"), "");
}

// The mapped table files of a reader, from /proc/self/maps: (start address, permissions).
std::vector<std::pair<char*, std::string>> mappingsUnder(std::string const& dir) {
  std::vector<std::pair<char*, std::string>> out;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(dir + "/") == std::string::npos) continue;
    std::istringstream fields(line);
    std::string range, perms;
    fields >> range >> perms;
    out.emplace_back(reinterpret_cast<char*>(std::stoull(range, nullptr, 16)), perms);
  }
  return out;
}

TEST_F(QuarnMapProcess, ReaderProcessCannotChangeTheSharedFiles) {
  pid_t const writer = spawnWriter("fill");
  auto reader = map(QuarnType::reader);
  ASSERT_TRUE(runUntil([&] { return sees(*reader, writer) && reader->members() == 101; }));

  // Mount again under an inotify watch: the reader opens files, never for writing.
  int const watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(watch, 0);
  ASSERT_GE(::inotify_add_watch(watch, root().c_str(), IN_CLOSE_WRITE | IN_CLOSE_NOWRITE), 0);
  reader->detach();
  reader->attach();
  ASSERT_TRUE(reader->fullyAttached());
  bool found = false;
  EXPECT_EQ(reader->safeLookup(TestKey{7, 2}, found).value, 7u);
  int closedForWrite = 0, closedReadOnly = 0;
  alignas(inotify_event) char buffer[4096];
  for (ssize_t n; (n = ::read(watch, buffer, sizeof buffer)) > 0;) {
    for (char* p = buffer; p < buffer + n;) {
      auto const* ev = reinterpret_cast<inotify_event const*>(p);
      closedForWrite += (ev->mask & IN_CLOSE_WRITE) != 0;
      closedReadOnly += (ev->mask & IN_CLOSE_NOWRITE) != 0;
      p += sizeof(inotify_event) + ev->len;
    }
  }
  ::close(watch);
  EXPECT_GT(closedReadOnly, 0);
  EXPECT_EQ(closedForWrite, 0);

  // Every mapping of the table's files is shared and read-only; a store through one faults.
  auto const mappings = mappingsUnder(root());
  ASSERT_FALSE(mappings.empty());
  for (auto const& [base, perms] : mappings) EXPECT_EQ(perms, "r--s");
  pid_t const child = ::fork();
  if (child == 0) {
    ::signal(SIGSEGV, SIG_DFL);
    *static_cast<char volatile*>(mappings.front().first) = 1;
    std::_Exit(0);  // reached only if the store went through
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "store into a reader mapping";
}

}  // namespace
