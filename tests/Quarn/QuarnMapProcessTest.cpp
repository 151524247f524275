// The table front across processes: a reader process is unable to change the writer's files;
// reader processes of every mode and their writer survive table files truncated under them.
// Children are this test binary re-executed with a role variable set (support/Children.h).

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <optional>
#include <sstream>

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

// Calls `f` with every event waiting on the non-blocking inotify descriptor `watch`, then closes it.
template <class F>
void drainInotify(int watch, F const& f) {
  alignas(inotify_event) char buffer[4096];
  for (ssize_t n; (n = ::read(watch, buffer, sizeof buffer)) > 0;) {
    for (char* p = buffer; p < buffer + n;) {
      auto const* ev = reinterpret_cast<inotify_event const*>(p);
      f(*ev);
      p += sizeof(inotify_event) + ev->len;
    }
  }
  ::close(watch);
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
  drainInotify(watch, [&](inotify_event const& ev) {
    closedForWrite += (ev.mask & IN_CLOSE_WRITE) != 0;
    closedReadOnly += (ev.mask & IN_CLOSE_NOWRITE) != 0;
  });
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

// What a consumer process holds, sent to the parent whenever it changes: whether its front is
// mounted, and a digest of the copy it keeps from notifications alone (each reported key is
// looked up through its front, then stored or dropped; of a direct reader, the part of it that
// the table holds).
struct View {
  pid_t pid = 0;
  std::uint32_t attached = 0;
  std::uint64_t digest = 0;
  bool operator==(View const&) const = default;
};

std::uint64_t digestOf(std::map<TestKey, std::uint32_t> const& table) {
  std::uint64_t d = table.size();
  for (auto const& [k, v] : table)
    d = (d ^ (std::uint64_t(k.group) << 40 | std::uint64_t(k.id) << 20 | v)) * 0x100000001b3ull;
  return d;
}

// A consumer child's arguments: "<dir> <mode> <fd>".
struct ChildArgs {
  std::string dir;
  int mode = 0, fd = -1;
  explicit ChildArgs(std::string const& arg) { std::istringstream(arg) >> dir >> mode >> fd; }
};

// A consumer child's table, mounted in `mode` and followed by a Consumer on its own activity.
struct ChildConsumer : ChildArgs {
  ChildConsumer(std::string const& arg, double remountInterval)
      : ChildArgs(arg), consumer(dir, activity, QuarnType(mode), remountInterval) {}
  Kiv::Activity activity;
  Consumer consumer;
  std::unique_ptr<Map> const& map = consumer.map;
  std::map<TestKey, std::uint32_t>& model = consumer.model;
};

// "<dir> <mode> <fd>": a consumer of the table in `mode` that also keeps reading it (a lookup and
// a full iteration per loop turn), writing its View to `fd` on every change.
int consumerChild(std::string const& arg) {
  ChildConsumer c(arg, 0.05);
  auto const& map = c.map;
  auto& model = c.model;
  for (View sent{};;) {
    c.activity.runOnce(0.02);
    bool found = false;
    TestWrapper w = map->safeLookup(TestKey{1, 1}, found);
    Quarn::IterHint hint;
    std::map<TestKey, std::uint32_t> held;  // the keys of the copy that the table holds
    for (bool more = map->first(w, hint); more; more = map->next(w.key, w, hint)) {
      if (model.count(w.key) != 0) held[w.key] = model[w.key];
    }
    // A direct reader cannot report every removal (its contract): what counts is that every key
    // of the table is in the copy, right.
    View const now{::getpid(), map->fullyAttached(),
                   digestOf(QuarnType(c.mode) == QuarnType::reader ? held : model)};
    if (now != sent) (void)!::write(c.fd, &(sent = now), sizeof now);
  }
}

// What the commanded writer answers to each record: whether it was written, and the digest of
// the writer's whole table afterwards.
struct Ack {
  std::uint32_t ok = 0;
  std::uint64_t digest = 0;
};

// "<dir> <commandFd> <ackFd>": a writer that writes each record it reads from `commandFd` and
// answers an Ack on `ackFd`. Nothing may escape its event loop: damage to its files, met by a
// write or validated on a reader's report, is recovered from inside the writer.
int commandedWriter(std::string const& arg) {
  std::istringstream in(arg);
  std::string dir;
  int command = -1, ack = -1;
  in >> dir >> command >> ack;
  Kiv::Activity activity;
  Quarn::QuarnMap<TestKey, TestWrapper> map(QuarnMapFixture::table, nullptr, dir, activity);
  map.init(QuarnType::writer, false, 100);
  Kiv::FdWatch watch(activity, command, EPOLLIN, [&](std::uint32_t) {
    TestWrapper r;
    if (::read(command, &r, sizeof r) != ssize_t(sizeof r)) return activity.stop();
    Ack a{1, 0};
    try {
      map.safeWrite(r);
    } catch (Jorv::Exception const&) {
      a.ok = 0;
    }
    std::map<TestKey, std::uint32_t> table;
    TestWrapper w;
    Quarn::IterHint hint;
    for (bool more = map.first(w, hint); more; more = map.next(w.key, w, hint)) {
      table[w.key] = w.value;
    }
    a.digest = digestOf(table);
    (void)!::write(ack, &a, sizeof a);
  });
  activity.run();
  return 0;
}

[[maybe_unused]] bool const consumerHook = TestSupport::childRole("QUARN_CONSUMER", consumerChild);
[[maybe_unused]] bool const commandedHook =
    TestSupport::childRole("QUARN_COMMANDED_WRITER", commandedWriter);

// How a child ended, read through its pidfd; empty while it runs.
std::string ended(int pidfd) {
  pollfd p{pidfd, POLLIN, 0};
  siginfo_t info{};
  if (::poll(&p, 1, 0) != 1 || ::waitid(P_PIDFD, id_t(pidfd), &info, WEXITED | WNOWAIT) != 0)
    return {};
  return (info.si_code == CLD_EXITED ? "exited " : "died of signal ") +
         std::to_string(info.si_status);
}

// Consumer processes of every reading mode and a writer process on one table. The parent
// truncates the slot, bucket or notification file under them: nobody dies of SIGBUS, the direct
// reader reports the damage, and the writer, without a restart, re-formats its table with the
// records it can still trust (none of a truncated slot file, all of the others) and brings
// every consumer back to its table (the shadows exactly; the direct reader with every key of the
// table right); the write after the damage succeeds.
TEST(QuarnMapProcess, TablesTruncatedUnderReaderProcessesAndTheirWriterAreRecovered) {
  TempRoot tmp;
  std::string const root = tmp.path() + "/" + QuarnMapFixture::table;
  int views[2], commands[2], acks[2];
  ASSERT_EQ(::pipe(views) | ::pipe(commands) | ::pipe(acks), 0);
  TestSupport::Children consumerProcs{"QUARN_CONSUMER"}, writerProcs{"QUARN_COMMANDED_WRITER"};
  std::vector<std::pair<pid_t, int>> procs;  // with pidfds: the consumers, then the writer
  auto watched = [&](pid_t pid) {
    procs.emplace_back(pid, int(::syscall(SYS_pidfd_open, pid, 0)));
  };
  for (QuarnType mode : {QuarnType::reader, QuarnType::shadow, QuarnType::keyshadow}) {
    watched(consumerProcs.spawn(tmp.path() + " " + std::to_string(int(mode)) + " " +
                                std::to_string(views[1])));
  }
  auto startWriter = [&] {
    watched(writerProcs.spawn(tmp.path() + " " + std::to_string(commands[0]) + " " +
                              std::to_string(acks[1])));
  };
  startWriter();

  // Reads what arrives on `fd` until `done`, for at most 20 s; fails when a child ends.
  auto until = [&](int fd, std::function<void()> const& onReadable,
                   std::function<bool()> const& done) {
    double const deadline = Kiv::Activity::now() + 20;
    while (!done()) {
      std::vector<pollfd> fds{{fd, POLLIN, 0}};
      for (auto const& [pid, pidfd] : procs) fds.push_back({pidfd, POLLIN, 0});
      int const left = int((deadline - Kiv::Activity::now()) * 1000);
      if (left <= 0 || ::poll(fds.data(), fds.size(), left) <= 0) return false;
      for (std::size_t i = 0; i < procs.size(); ++i) {
        if (std::string const how = ended(procs[i].second); !how.empty()) {
          ADD_FAILURE() << (i < 3 ? "consumer " + std::to_string(i) : "writer") << " " << how;
          return false;
        }
      }
      if (fds[0].revents & POLLIN) onReadable();
    }
    return true;
  };
  std::map<pid_t, View> latest;
  auto readView = [&] {
    View v;
    if (::read(views[0], &v, sizeof v) == ssize_t(sizeof v)) latest[v.pid] = v;
  };
  auto consumersHold = [&](std::uint64_t digest) {
    return until(views[0], readView, [&] {
      for (std::size_t i = 0; i < 3; ++i) {
        View const& v = latest[procs[i].first];
        if (v.attached == 0 || v.digest != digest) return false;
      }
      return true;
    });
  };
  // Sends a record; the writer's answer, or nothing when it did not come.
  auto write = [&](TestWrapper const& r) -> std::optional<Ack> {
    Ack a;
    std::size_t got = 0;
    EXPECT_EQ(::write(commands[1], &r, sizeof r), ssize_t(sizeof r));
    bool const answered = until(
        acks[0],
        [&] {
          ssize_t const n = ::read(acks[0], reinterpret_cast<char*>(&a) + got, sizeof a - got);
          if (n > 0) got += std::size_t(n);
        },
        [&] { return got == sizeof a; });
    if (!answered) return std::nullopt;
    return a;
  };

  std::map<TestKey, std::uint32_t> truth;
  for (char const* file : {"buckets", "conquer.1", "slots"}) {
    SCOPED_TRACE(file);
    std::optional<Ack> a;
    for (std::uint32_t i = 0; i < 30; ++i) {
      ASSERT_TRUE(a = write(record(i % 4, i, i)));
      ASSERT_EQ(a->ok, 1u);
      truth[record(i % 4, i, i).key] = i;
    }
    ASSERT_EQ(a->digest, digestOf(truth));
    ASSERT_TRUE(consumersHold(a->digest));
    ASSERT_EQ(::truncate((root + "/" + file).c_str(), 0), 0);
    // Meets the damage (or kicks the readers through the damaged queue) and may fail.
    ASSERT_TRUE(write(record(9, 9, 9)));
    ASSERT_TRUE(a = write(record(5, 5, 5)));
    EXPECT_EQ(a->ok, 1u);
    // A truncated slot file leaves no record to trust; otherwise every record is kept, the one
    // written into the damage too when it reached its slot.
    std::map<TestKey, std::uint32_t> kept = std::string(file) == "slots" ? decltype(truth){} : truth;
    kept[record(5, 5, 5).key] = 5;
    auto withFailed = kept;
    withFailed[record(9, 9, 9).key] = 9;
    truth = a->digest == digestOf(withFailed) ? withFailed : kept;
    EXPECT_EQ(a->digest, digestOf(truth));
    ASSERT_TRUE(consumersHold(a->digest));
    ::unlink((root + "/corruption-detected").c_str());
  }
  for (int fd : {views[0], views[1], commands[0], commands[1], acks[0], acks[1]}) ::close(fd);
  for (auto const& [pid, pidfd] : procs) ::close(pidfd);
}

}  // namespace

namespace {

// What a damage reader sends on every beat of its own timer: whether it is mounted on which
// incarnation, and the digest of the copy it keeps from notifications.
struct Beat {
  pid_t pid = 0;
  std::uint32_t beats = 0;
  std::uint32_t attached = 0;
  std::uint32_t fenix = 0;
  std::uint64_t digest = 0;
};

// "<dir> <mode> <fd>": a consumer of the table in `mode` whose own timer beats every 50 ms:
// each beat looks up a key of the damaged chain and sends a Beat to `fd`. The beats stop if a
// mount attempt never gives the activity back.
int beatingConsumer(std::string const& arg) {
  ChildConsumer c(arg, 0.5);
  auto const& map = c.map;
  Beat beat{::getpid()};
  Kiv::Timer timer(
      [&] {
        bool found = false;
        map->safeLookup(TestKey{7, 2}, found);
        ++beat.beats;
        beat.attached = map->fullyAttached();
        beat.fenix = map->fenixId();
        beat.digest = digestOf(c.model);
        (void)!::write(c.fd, &beat, sizeof beat);
        timer.armIn(0.05);
      },
      c.activity);
  timer.armIn(0.05);
  c.activity.run();
  return 0;
}

[[maybe_unused]] bool const beatingHook =
    TestSupport::childRole("QUARN_BEATING_CONSUMER", beatingConsumer);

// Points bucket `from`'s chain (of keys hashing to `fromHash`) at the head of the chain of keys
// hashing to `toHash`, as a wild store would.
void redirectBucket(std::string const& root, std::uint32_t fromHash, std::uint32_t toHash) {
  Mem::Shared buckets("buckets", root);
  ASSERT_TRUE(buckets.attach(buckets.sizeOnDisk()));
  std::uint32_t const n = Quarn::BucketTable::header(buckets.base())->numBuckets;
  char* const from = Quarn::BucketTable::bucket(buckets.base(), fromHash % n);
  std::uint32_t const head =
      Quarn::linkTarget(Quarn::BucketTable::bucket(buckets.base(), toHash % n));
  ASSERT_NE(head, Quarn::noIndex);
  Quarn::publishLink(from, head);
}

}  // namespace

// A bucket's chain redirected into another bucket's chain while the writer is stopped: readers
// that mount meanwhile (a direct reader walks the whole table when it attaches, a key shadow
// looks the damaged chain up) refuse it or answer absent, report it once, and retry from their
// timers, so their process goes on with its own timers. Once the writer runs again its check of
// the report fails, it recovers under a new fenix, and every reader ends with its table.
TEST(QuarnMapProcess, DamageNobodyRepairsYetNeverStopsAReaderProcess) {
  TempRoot tmp;
  std::string const root = tmp.path() + "/" + QuarnMapFixture::table;
  TestSupport::Children writers{"QUARN_MAP_WRITER"}, readers{"QUARN_BEATING_CONSUMER"};
  pid_t const writer = writers.spawn(tmp.path());
  Kiv::Activity activity;
  Quarn::QuarnMap<TestKey, TestWrapper> probe(QuarnMapFixture::table, nullptr, tmp.path(),
                                              activity);
  probe.remountIntervalIs(0.05);
  probe.init(QuarnType::reader, false, 100);
  ASSERT_TRUE(TestSupport::runUntil(activity, [&] { return probe.members() == 101; }));
  std::map<TestKey, std::uint32_t> table{{marker, std::uint32_t(writer)}};
  for (std::uint32_t i = 0; i < 100; ++i) table[TestKey{i, 2}] = i;
  std::uint32_t const fenix = probe.fenixId();
  probe.controlDetach();

  ASSERT_EQ(::kill(writer, SIGSTOP), 0);
  redirectBucket(root, TestKey{0, 2}.hash(), marker.hash());
  int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(::inotify_add_watch(watch, root.c_str(), IN_MOVED_TO), 0);
  int beats[2];
  ASSERT_EQ(::pipe(beats), 0);
  for (QuarnType mode : {QuarnType::reader, QuarnType::keyshadow}) {
    readers.spawn(tmp.path() + " " + std::to_string(int(mode)) + " " + std::to_string(beats[1]));
  }
  std::map<pid_t, Beat> latest;
  std::map<pid_t, double> heard;
  double longestGap = 0;
  auto listen = [&](double seconds) {
    for (double const end = Kiv::Activity::now() + seconds; Kiv::Activity::now() < end;) {
      pollfd p{beats[0], POLLIN, 0};
      if (::poll(&p, 1, 50) != 1) continue;
      Beat b;
      if (::read(beats[0], &b, sizeof b) != ssize_t(sizeof b)) continue;
      double const now = Kiv::Activity::now();
      if (heard.count(b.pid) != 0) longestGap = std::max(longestGap, now - heard[b.pid]);
      heard[b.pid] = now;
      latest[b.pid] = b;
    }
  };
  listen(2);
  ASSERT_EQ(latest.size(), 2u) << "a reader never beat";
  EXPECT_LT(longestGap, 0.5) << "a reader's timers stopped";
  for (auto const& [pid, b] : latest) EXPECT_GT(b.beats, 20u);
  int reports = 0;
  drainInotify(watch, [&](inotify_event const& ev) {
    reports += ev.len > 0 && std::string(ev.name) == "corruption-detected";
  });
  EXPECT_GE(reports, 1);
  EXPECT_LE(reports, 2) << "each reader reports the damage once";

  ASSERT_EQ(::kill(writer, SIGCONT), 0);
  double const deadline = Kiv::Activity::now() + 20;
  auto const done = [&] {
    for (auto const& [pid, b] : latest) {
      if (!b.attached || b.fenix == fenix || b.digest != digestOf(table)) return false;
    }
    return true;
  };
  while (!done() && Kiv::Activity::now() < deadline) listen(0.2);
  EXPECT_TRUE(done()) << "the readers did not come back to the recovered table";
  EXPECT_LT(longestGap, 0.5);
  ::close(beats[0]);
  ::close(beats[1]);
}
