// The group reader in its own process, mounted the default way (Quarn::Status::mountReader),
// against a writer process: stopped (SIGSTOP) while the writer deletes groups with their
// interfaces and creates others in the slots they freed, then continued, it ends with exactly
// the writer's groups and interfaces: every removal reached it.
// Children are this test binary re-executed with a role variable set (support/Children.h).

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>

#include "Bidir/Quarn/GroupQuarnReaderSm.h"
#include "Kiv/Activity.h"
#include "Mirror.h"
#include "support/Children.h"
#include "support/QuarnRoot.h"

namespace {

namespace Bidir = Routing::Pim::Bidir;
namespace BQ = Routing::Pim::Bidir::Quarn;

constexpr std::uint32_t intfsPerGroup = 8;

// Order-independent digest of a set of records, from their text form.
struct Digest {
  std::uint64_t sum = 0;
  std::uint64_t count = 0;
  template <class R>
  void add(R const& record) {
    std::ostringstream os;
    os << record;
    sum += std::hash<std::string>{}(os.str()) * 0x9e3779b97f4a7c15ull;
    ++count;
  }
  bool operator==(Digest const&) const = default;
};

Digest digestOf(Bidir::Status const& status) {
  Digest d;
  for (auto const& g : status.groupIter()) {
    d.add(MirrorTest::recordOf(g));
    for (auto const& i : g.groupIntfIter()) d.add(MirrorTest::recordOf(g.groupAddr(), i));
  }
  return d;
}

// What the reader's Status would be: every group record and every interface record of a
// present group.
Digest digestOf(BQ::Status const& tables) {
  Digest d;
  for (auto it = tables.groupIterator(); it; ++it) d.add(*it);
  for (auto it = tables.groupIntfIterator(); it; ++it) {
    if (tables.group(it.key().groupAddr()) != BQ::Group()) d.add(*it);
  }
  return d;
}

Lanx::IpGenAddr addr(std::uint32_t n) {
  return Lanx::IpGenAddr::ipv4Addr(0xef020000u + n);
}

// A command to the writer: create groups [first, first + count), each with its interfaces, or
// delete them (interfaces first, as the agent's writer does).
struct Command {
  std::uint32_t create = 0;
  std::uint32_t first = 0;
  std::uint32_t count = 0;
};

// "<commandFd> <ackFd>": applies each command, then answers the digest of its tables.
int writerRole(std::string const& arg) {
  std::istringstream in(arg);
  int command = -1, ack = -1;
  in >> command >> ack;
  Kiv::Activity& activity = Kiv::Activity::current();
  auto tables = BQ::statusFactory("quarn");
  tables->mount(Quarn::QuarnType::writer);
  Kiv::FdWatch watch(activity, command, EPOLLIN, [&](std::uint32_t) {
    Command c;
    if (::read(command, &c, sizeof c) != ssize_t(sizeof c)) return activity.stop();
    for (std::uint32_t g = c.first; g < c.first + c.count; ++g) {
      for (std::uint32_t i = 0; i < intfsPerGroup; ++i) {
        BQ::GroupIntf r;
        r.key = Bidir::GroupIntfKey(addr(g), Lanx::IntfId("Ethernet" + std::to_string(i + 1)));
        r.forward = true;
        r.lastJoinReceived = g * 100.0 + i;
        if (c.create) {
          if (i == 0) {
            BQ::Group group;
            group.key = addr(g);
            group.creationTime = g;
            tables->groupIs(group);
          }
          tables->groupIntfIs(r);
        } else {
          tables->groupIntfDel(r.key);
        }
      }
      if (!c.create) tables->groupDel(addr(g));
    }
    Digest const d = digestOf(*tables);
    (void)!::write(ack, &d, sizeof d);
  });
  activity.run();
  return 0;
}

// "<viewFd> <mode>": a GroupQuarnReaderSm over tables mounted with mountReader(mode); writes the
// digest of its Status to `viewFd` whenever it changes.
int readerRole(std::string const& arg) {
  std::istringstream in(arg);
  int view = -1, mode = 0;
  in >> view >> mode;
  Kiv::Activity& activity = Kiv::Activity::current();
  auto tables = BQ::statusFactory("quarn");
  tables->groupControl().remountIntervalIs(0.05);
  tables->groupIntfControl().remountIntervalIs(0.05);
  auto local = Bidir::statusFactory("local");
  auto sm = BQ::groupQuarnReaderSmFactory(local, tables);
  tables->mountReader(Quarn::QuarnType(mode));
  for (Digest sent;;) {
    activity.runOnce(0.02);
    Digest const now = digestOf(*local);
    if (!(now == sent)) (void)!::write(view, &(sent = now), sizeof now);
  }
}

[[maybe_unused]] bool const writerHook =
    TestSupport::childRole("BIDIR_READER_TEST_WRITER", writerRole);
[[maybe_unused]] bool const readerHook =
    TestSupport::childRole("BIDIR_READER_TEST_READER", readerRole);

struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe(fd), 0); }
  ~Pipe() {
    for (int f : fd) ::close(f);
  }
};

// Waits up to `seconds` for a whole `T` on `fd`.
template <class T>
bool receive(int fd, T& out, double seconds) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, int(seconds * 1000)) == 1 &&
         ::read(fd, &out, sizeof out) == ssize_t(sizeof out);
}

TEST(GroupQuarnReaderProcess, StoppedReaderSeesEveryRemovalOfReusedSlots) {
  TestSupport::QuarnRoot root;
  Pipe commands, acks, views;
  TestSupport::Children writers{"BIDIR_READER_TEST_WRITER"}, readers{"BIDIR_READER_TEST_READER"};
  writers.spawn(std::to_string(commands.fd[0]) + " " + std::to_string(acks.fd[1]));
  Digest writer;
  auto command = [&](Command const& c) {
    return ::write(commands.fd[1], &c, sizeof c) == ssize_t(sizeof c) &&
           receive(acks.fd[0], writer, 20);
  };
  ASSERT_TRUE(command({1, 0, 40})) << "the writer did not answer";
  pid_t const reader = readers.spawn(std::to_string(views.fd[1]) + " " +
                                     std::to_string(int(BQ::Status::readingMode)));
  Digest seen;
  auto readerReaches = [&](Digest const& want) {
    for (double const deadline = Kiv::Activity::now() + 20; !(seen == want);) {
      if (Kiv::Activity::now() > deadline) return false;
      receive(views.fd[0], seen, 0.2);
    }
    return true;
  };
  ASSERT_TRUE(readerReaches(writer)) << seen.count << " records against " << writer.count;

  // Each round deletes groups whose slots (and their interfaces' slots) the next groups reuse at
  // once, while the reader does not run.
  for (std::uint32_t round = 0; round < 3; ++round) {
    ASSERT_EQ(::kill(reader, SIGSTOP), 0);
    for (std::uint32_t k = 0; k < 5; ++k) {
      std::uint32_t const gone = round * 10 + k * 2;
      ASSERT_TRUE(command({0, gone, 1}));
      ASSERT_TRUE(command({1, 1000 + round * 10 + k, 1}));
    }
    ASSERT_EQ(::kill(reader, SIGCONT), 0);
  }
  EXPECT_TRUE(readerReaches(writer)) << seen.count << " records against " << writer.count;
}

}  // namespace
