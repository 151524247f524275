// The wake-up channel between a writer and reader processes. The readers are real processes:
// this test binary re-executed with QUARN_KICK_CHILD set (see childHook below).

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <vector>

#include "Quarn/KickArea.h"
#include "Quarn/KickChannel.h"
#include "Quarn/MounterSm.h"
#include "Quarn/ReaderKickSm.h"
#include "Quarn/WriterKickSm.h"
#include "TestRecord.h"
#include "support/ActivityWait.h"
#include "support/Children.h"

namespace {

using Quarn::ReaderKickSm;
using Quarn::WriterKick;
using Quarn::WriterKickSm;
using TestSupport::runUntil;

// Child reader: sleeps at the last sequence it has seen, and on every kick takes the writer's
// sequence as consumed and sleeps again. Announces itself by creating "reader-started".
int readerChild(std::string const& root) {
  Kiv::Activity activity;
  std::uint64_t consumed = 0;
  ReaderKickSm* self = nullptr;
  ReaderKickSm reader(root,
                      {[&](bool connected, std::uint32_t) {
                         if (connected) self->sleepAt(consumed);
                       },
                       [&](std::uint64_t sequence) {
                         consumed = sequence;
                         self->sleepAt(consumed);
                       }},
                      activity);
  self = &reader;
  std::ofstream(root + "/reader-started") << ::getpid();
  activity.run();
  return 0;
}

[[maybe_unused]] bool const childHook = TestSupport::childRole("QUARN_KICK_CHILD", readerChild);

struct KickFixture : ::testing::Test {
  Kiv::Activity activity;
  QuarnTest::TempRoot tmp;
  std::uint64_t writerSequence = 0;
  std::vector<std::uint32_t> counts;  // as reported to the writer's handler
  TestSupport::Children children{"QUARN_KICK_CHILD"};

  std::unique_ptr<WriterKickSm> writer(std::string const& root) {
    return std::make_unique<WriterKickSm>(
        root, [this] { return writerSequence; }, [this](std::uint32_t n) { counts.push_back(n); },
        activity);
  }
  static std::uint64_t sleepWord(WriterKickSm const& w) {
    return Mem::Atomics::load64SeqCst(Quarn::KickArea::sleepWord(w.area()));
  }
};

TEST_F(KickFixture, OneWakeUpCallWakesEverySleeperAndKilledReadersAreDropped) {
  auto w = writer(tmp.path());
  EXPECT_EQ(w->lowestSequence(), WriterKick::noReaders);
  std::vector<pid_t> readers;
  for (int i = 0; i < 3; ++i) readers.push_back(children.spawn(tmp.path()));
  // Connected and asleep, having acknowledged nothing: they hold pruning at 0.
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 3 && w->numSleepers() == 3; }));
  EXPECT_EQ(w->lowestSequence(), 0u);
  EXPECT_EQ(counts.back(), 3u);

  // The writer wakes one sleeper with one call; that one passes it on to the others.
  writerSequence = 5;
  w->doKickSleepers(writerSequence);
  EXPECT_EQ(w->wakeups(), 1u);
  ASSERT_TRUE(
      runUntil(activity, [&] { return w->lowestSequence() == 5 && w->numSleepers() == 3; }));
  w->doKickSleepers(writerSequence);  // nothing new for them, but they sleep: woken again, no harm
  writerSequence = 9;
  ASSERT_TRUE(runUntil(activity, [&] { return w->numSleepers() == 3; }));
  w->doKickSleepers(writerSequence);
  ASSERT_TRUE(
      runUntil(activity, [&] { return w->lowestSequence() == 9 && w->numSleepers() == 3; }));
  EXPECT_EQ(w->wakeups(), 3u);

  // A reader that goes to sleep at 0 while the writer is already at 9 reads on at once.
  readers.push_back(children.spawn(tmp.path()));
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 4 && w->numSleepers() == 4; }));
  EXPECT_EQ(w->lowestSequence(), 9u);
  EXPECT_EQ(w->wakeups(), 3u);

  for (pid_t pid : readers) children.kill(pid);
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 0; }));
  EXPECT_EQ(w->lowestSequence(), WriterKick::noReaders);
  EXPECT_EQ(counts.back(), 0u);
  // The killed sleepers are still counted: the next append wakes nobody, once, and clears them.
  w->doKickSleepers(writerSequence);
  EXPECT_EQ(w->numSleepers(), 0u);
  w->doKickSleepers(writerSequence);
  EXPECT_EQ(w->wakeups(), 4u);
}

TEST_F(KickFixture, ReaderStartedBeforeWriterAndAcrossWriterRestart) {
  std::string root = tmp.path() + "/table";
  bool readerUp = false;
  // The directory appears while only its parent is watched: files made before the watch moves
  // down give no event of their own, so "root-watched" means: look again.
  Quarn::MounterSm mounter(
      root,
      [&](std::string const& e) {
        readerUp = readerUp || e == "reader-started" ||
                   (e == Quarn::MounterSm::rootWatched &&
                    std::filesystem::exists(root + "/reader-started"));
      },
      activity);
  std::filesystem::create_directory(root);
  pid_t child = children.spawn(root);
  ASSERT_TRUE(runUntil(activity, [&] { return readerUp; }));

  auto w = writer(root);
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 1 && w->numSleepers() == 1; }));

  // A new writer incarnation, already ahead: the reader notices the hangup, reconnects and,
  // going to sleep in the new area, finds the writer past it.
  w.reset();
  EXPECT_FALSE(std::filesystem::exists(Quarn::Kick::socketPath(root)));
  writerSequence = 3;
  w = writer(root);
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 1 && w->lowestSequence() == 3; }));
  children.kill(child);
}

// A reader's end set up by hand.
struct RawPeer {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  explicit RawPeer(std::string const& socketPath) {
    Quarn::Kick::Address address(socketPath);
    EXPECT_EQ(::connect(fd, address.get(), address.length()), 0);
  }
  ~RawPeer() { ::close(fd); }
};

TEST_F(KickFixture, WelcomeCarriesSlotAreaAndWakeUpsAndAReaderThatSpeaksIsDropped) {
  auto w = writer(tmp.path());
  RawPeer peer(w->socketPath());
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 1; }));
  Quarn::Kick::Message welcome{};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 3)];
  iovec iov{&welcome, sizeof welcome};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  ASSERT_EQ(::recvmsg(peer.fd, &msg, MSG_CMSG_CLOEXEC), ssize_t(sizeof welcome));
  EXPECT_EQ(welcome.type, Quarn::Kick::Type::welcome);
  EXPECT_EQ(welcome.version, Quarn::Kick::Message::protocolVersion);
  EXPECT_EQ(welcome.value, 0u);  // the first slot
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  ASSERT_NE(c, nullptr);
  ASSERT_EQ(c->cmsg_len, CMSG_LEN(sizeof(int) * 3));
  int fds[3];
  std::memcpy(fds, CMSG_DATA(c), sizeof fds);
  for (int fd : fds) ::close(fd);

  char const byte = 1;
  ASSERT_EQ(::send(peer.fd, &byte, 1, MSG_NOSIGNAL), 1);
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 0; }));
  EXPECT_EQ(w->lowestSequence(), WriterKick::noReaders);
}

TEST_F(KickFixture, InProcessReaderOverALongRootPathAcknowledgesSleepsAndWakes) {
  std::string root = tmp.path();
  while (root.size() < 150) root += "/long-directory-name";
  std::filesystem::create_directories(root);
  writerSequence = 4;
  auto w = writer(root);
  std::vector<std::uint64_t> kicks;
  std::vector<bool> connects;
  ReaderKickSm r(root,
                 {[&](bool c, std::uint32_t) { connects.push_back(c); },
                  [&](std::uint64_t s) { kicks.push_back(s); }},
                 activity);
  EXPECT_TRUE(connects.empty());  // reported from the activity, once welcomed
  ASSERT_TRUE(runUntil(activity, [&] { return r.connected(); }));
  EXPECT_EQ(w->numReaders(), 1u);
  r.sendSequence(4);
  EXPECT_EQ(w->lowestSequence(), 4u);
  r.sleepAt(4);
  EXPECT_EQ(w->numSleepers(), 1u);
  writerSequence = 6;
  w->doKickSleepers(writerSequence);
  ASSERT_TRUE(runUntil(activity, [&] { return kicks.size() == 1; }));
  EXPECT_EQ(kicks[0], 6u);
  EXPECT_FALSE(r.sleeping());

  // An acknowledgement takes a sleeper out; a sleep behind the writer reads on without a call.
  r.sleepAt(6);
  r.sendSequence(6);
  EXPECT_EQ(w->numSleepers(), 0u);
  writerSequence = 7;
  w->doKickSleepers(writerSequence);
  r.sleepAt(6);
  EXPECT_EQ(w->numSleepers(), 0u);
  ASSERT_TRUE(runUntil(activity, [&] { return kicks.size() == 2; }));
  EXPECT_EQ(w->wakeups(), 1u);

  w.reset();
  ASSERT_TRUE(runUntil(activity, [&] { return !r.connected(); }));
  EXPECT_EQ(connects, (std::vector<bool>{true, false}));
}

TEST_F(KickFixture, ADamagedSleepWordCostsAWakeUpTooManyOrOneFallbackLate) {
  auto w = writer(tmp.path());
  std::vector<std::uint64_t> kicks;
  ReaderKickSm r(tmp.path(), {{}, [&](std::uint64_t s) { kicks.push_back(s); }}, activity);
  ASSERT_TRUE(runUntil(activity, [&] { return r.connected(); }));
  char* const word = Quarn::KickArea::sleepWord(w->area());

  // A count that no reader makes: the next append wakes once and starts the count again.
  Mem::Atomics::store64SeqCst(word, Quarn::KickArea::sleepWordOf(7, 0xFFFFFFFFu));
  writerSequence = 1;
  w->doKickSleepers(writerSequence);
  w->doKickSleepers(writerSequence);
  EXPECT_EQ(w->wakeups(), 1u);
  EXPECT_EQ(sleepWord(*w), Quarn::KickArea::sleepWordOf(8, 0));

  // A sleeper whose count is lost is not woken by the writer; its fallback timer reads on.
  r.sleepAt(1);
  Mem::Atomics::store64SeqCst(word, Quarn::KickArea::sleepWordOf(8, 0));
  writerSequence = 2;
  w->doKickSleepers(writerSequence);
  EXPECT_EQ(w->wakeups(), 1u);
  double const start = Kiv::Activity::now();
  ASSERT_TRUE(runUntil(activity, [&] { return kicks.size() == 1; }, 5));
  EXPECT_EQ(kicks[0], 2u);
  EXPECT_GE(Kiv::Activity::now() - start, ReaderKickSm::fallbackInterval * 0.5);

  // An acknowledgement beyond the writer does not let a prune run ahead of it.
  r.sendSequence(1000);
  EXPECT_EQ(w->lowestSequence(), 2u);
}

}  // namespace
