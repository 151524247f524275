// The table front across processes: a reader process is unable to change the writer's files.
// The writer is this test binary re-executed with QUARN_MAP_WRITER set.

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "Quarn/Util.h"
#include "QuarnMapFixture.h"
#include "support/Children.h"

using namespace QuarnTest;
using Quarn::QuarnType;

namespace {

// Marker record: key 0/0 holds the pid of the writer that wrote it.
constexpr TestKey marker{0, 0};

// Writes the marker and 100 keys into the table under `dir`, then serves readers.
int writerChild(std::string const& dir) {
  Kiv::Activity activity;
  Quarn::QuarnMap<TestKey, TestWrapper> map(QuarnMapFixture::table, nullptr, dir, activity);
  map.init(QuarnType::writer, false, 1000);
  map.safeWrite(record(marker.group, marker.id, std::uint32_t(::getpid())));
  for (std::uint32_t i = 0; i < 100; ++i) map.safeWrite(record(2, i, i));
  activity.run();
  return 0;
}

[[maybe_unused]] bool const childHook = TestSupport::childRole("QUARN_MAP_WRITER", writerChild);

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

TEST_F(QuarnMapFixture, ReaderProcessCannotChangeTheSharedFiles) {
  TestSupport::Children children{"QUARN_MAP_WRITER"};
  pid_t const writer = children.spawn(tmp.path());
  auto reader = map(QuarnType::reader);
  ASSERT_TRUE(runUntil([&] {
    bool found = false;
    return reader->safeLookup(marker, found).value == std::uint32_t(writer) && found &&
           reader->members() == 101;
  }));

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
