// The wake-up channel between a writer and reader processes. The readers are real processes:
// this test binary re-executed with QUARN_KICK_CHILD set (see childHook below).

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <vector>

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
};

TEST_F(KickFixture, ReadersAreCountedWokenAndDroppedWhenKilled) {
  auto w = writer(tmp.path());
  EXPECT_EQ(w->lowestSequence(), WriterKick::noReaders);
  pid_t first = children.spawn(tmp.path());
  // Connected and asleep, having acknowledged nothing: it holds pruning at 0.
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 1 && w->numSleepers() == 1; }));
  EXPECT_EQ(w->lowestSequence(), 0u);
  EXPECT_EQ(counts, std::vector<std::uint32_t>{1});

  writerSequence = 5;
  w->doKickSleepers();
  EXPECT_EQ(w->numSleepers(), 0u);
  ASSERT_TRUE(
      runUntil(activity, [&] { return w->lowestSequence() == 5 && w->numSleepers() == 1; }));

  // A second reader that goes to sleep at 0 while the writer is already at 5 is kicked at once.
  pid_t second = children.spawn(tmp.path());
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 2 && w->numSleepers() == 2; }));
  EXPECT_EQ(w->lowestSequence(), 5u);

  writerSequence = 9;
  w->doKickSleepers();
  ASSERT_TRUE(
      runUntil(activity, [&] { return w->lowestSequence() == 9 && w->numSleepers() == 2; }));

  children.kill(first);
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 1; }));
  EXPECT_EQ(w->numSleepers(), 1u);
  children.kill(second);
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 0; }));
  EXPECT_EQ(w->numSleepers(), 0u);
  EXPECT_EQ(w->lowestSequence(), WriterKick::noReaders);
  EXPECT_EQ(counts, (std::vector<std::uint32_t>{1, 2, 1, 0}));
  w->doKickSleepers();  // nobody sleeps: nothing to do
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

  // A new writer incarnation: the reader notices the hangup and reconnects.
  w.reset();
  EXPECT_FALSE(std::filesystem::exists(Quarn::Kick::socketPath(root)));
  writerSequence = 3;
  w = writer(root);
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 1 && w->lowestSequence() == 3; }));
  children.kill(child);
}

// In-process checks of the wire: a reader whose connection is set up by hand.
struct RawPeer {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  explicit RawPeer(std::string const& socketPath) {
    Quarn::Kick::Address address(socketPath);
    EXPECT_EQ(::connect(fd, address.get(), address.length()), 0);
  }
  ~RawPeer() { ::close(fd); }
  void put(void const* bytes, std::size_t n) {
    ASSERT_EQ(::send(fd, bytes, n, MSG_NOSIGNAL), ssize_t(n));
  }
};

TEST_F(KickFixture, SplitMessagesAreFramedAndProtocolErrorsDropTheReader) {
  auto w = writer(tmp.path());
  RawPeer peer(w->socketPath());
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 1; }));
  Quarn::Kick::Message ack{Quarn::Kick::Type::ack, Quarn::Kick::Message::protocolVersion, 42};
  auto const* bytes = reinterpret_cast<unsigned char const*>(&ack);
  peer.put(bytes, 5);
  activity.runOnce(0.01);
  EXPECT_EQ(w->lowestSequence(), 0u);
  peer.put(bytes + 5, 11);
  ASSERT_TRUE(runUntil(activity, [&] { return w->lowestSequence() == 42; }));

  Quarn::Kick::Message bad{Quarn::Kick::Type::ack, 7, 1};
  peer.put(&bad, sizeof bad);
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 0; }));
  EXPECT_EQ(w->lowestSequence(), WriterKick::noReaders);
}

TEST_F(KickFixture, LongRootPathAndInProcessReader) {
  std::string root = tmp.path();
  while (root.size() < 150) root += "/long-directory-name";
  std::filesystem::create_directories(root);
  auto w = writer(root);
  std::vector<std::uint64_t> kicks;
  std::vector<bool> connects;
  ReaderKickSm r(root,
                 {[&](bool c, std::uint32_t) { connects.push_back(c); },
                  [&](std::uint64_t s) { kicks.push_back(s); }},
                 activity);
  EXPECT_TRUE(r.connected());
  EXPECT_TRUE(connects.empty());  // reported from the activity, not the constructor
  ASSERT_TRUE(runUntil(activity, [&] { return w->numReaders() == 1 && !connects.empty(); }));
  r.sendSequence(4);
  ASSERT_TRUE(runUntil(activity, [&] { return w->lowestSequence() == 4; }));
  r.sleepAt(4);
  ASSERT_TRUE(runUntil(activity, [&] { return w->numSleepers() == 1; }));
  writerSequence = 6;
  w->doKickSleepers();
  ASSERT_TRUE(runUntil(activity, [&] { return kicks.size() == 1; }));
  EXPECT_EQ(kicks[0], 6u);
  r.sendSequence(6);  // awake again: an acknowledgement cancels a pending sleep
  r.sleepAt(6);
  r.sendSequence(6);
  ASSERT_TRUE(runUntil(activity, [&] { return w->lowestSequence() == 6; }));
  activity.runOnce(0.01);
  EXPECT_EQ(w->numSleepers(), 0u);
  w.reset();
  ASSERT_TRUE(runUntil(activity, [&] { return !r.connected(); }));
  EXPECT_EQ(connects, (std::vector<bool>{true, false}));
}

}  // namespace
