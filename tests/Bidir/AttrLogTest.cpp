// Replication of configuration and clear requests over the attribute log: in one process over a
// socket pair (flow control, resumption, echo), and between real processes over a Unix socket
// (random changes, a stopped reader, restarts of either side, peers that write what they may
// not or have no access).

#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Bidir/AttrLog.h"
#include "support/ActivityWait.h"
#include "support/AttrLogRecords.h"
#include "support/Children.h"

namespace Bidir = Routing::Pim::Bidir;
namespace Log = Kiv::NboAttrLog;
using Bidir::ClearConfig;
using Bidir::ClearConfigColl;
using Bidir::Config;
using Bidir::ConfigColl;
using Bidir::MrouteClearFlags;
using TestSupport::runUntil;

namespace {

// Counts every notification of a configuration tree: collection changes and every member's
// attribute changes (member notifiees are attached as members appear).
struct Counts {
  std::map<std::string, long> n;
  std::string text() const {
    std::ostringstream os;
    for (auto& [k, v] : n) os << k << "=" << v << "\n";
    return os.str();
  }
};

struct ClearWatch : ClearConfig::NotifieeConst {
  Counts* c;
  void onGroupKey() override { ++c->n["groupKey"]; }
  void onGroupsCount() override { ++c->n["groupsCount"]; }
  void onCountersCount() override { ++c->n["countersCount"]; }
};
struct ConfigWatch : Config::NotifieeConst {
  Counts* c;
  void onGroupExpiryInterval() override { ++c->n["groupExpiryInterval"]; }
};

// Counts the change of member `n` under `name` and watches the member now there, if any.
template <class Watch, class Member>
void follow(Counts& counts, char const* name, std::map<L3::VrfName, Kiv::Ptr<Watch>>& watches,
            L3::VrfName n, Kiv::Ptr<Member> const& member) {
  ++counts.n[name];
  watches.erase(n);
  if (!member) return;
  auto w = Kiv::Ptr<Watch>(new Watch);
  w->c = &counts;
  w->notifierIs(Kiv::Ptr<Member const>(member));
  watches[n] = w;
}

struct TreeWatch {
  Counts counts;
  struct Clears : ClearConfigColl::NotifieeConst {
    TreeWatch* t;
    std::map<L3::VrfName, Kiv::Ptr<ClearWatch>> m;
    void onVrfClearConfig(L3::VrfName n) override {
      follow(t->counts, "vrfClearConfig", m, n, notifier()->vrfClearConfig(n));
    }
  };
  struct Configs : ConfigColl::NotifieeConst {
    TreeWatch* t;
    std::map<L3::VrfName, Kiv::Ptr<ConfigWatch>> m;
    void onVrfConfig(L3::VrfName n) override {
      follow(t->counts, "vrfConfig", m, n, notifier()->vrfConfig(n));
    }
  };
  Kiv::Ptr<Clears> clears{new Clears};
  Kiv::Ptr<Configs> configs{new Configs};
  TreeWatch(Kiv::Ptr<ConfigColl> const& cfg, Kiv::Ptr<ClearConfigColl> const& clr) {
    clears->t = this;
    configs->t = this;
    clears->notifierIs(Kiv::Ptr<ClearConfigColl const>(clr));
    configs->notifierIs(Kiv::Ptr<ConfigColl const>(cfg));
  }
};

struct Tree {
  Kiv::Ptr<ConfigColl> cfg = Bidir::configCollFactory("cfg");
  Kiv::Ptr<ClearConfigColl> clr = Bidir::clearConfigCollFactory("clr");
};

// The whole replicated state of a tree as text: equal texts, equal trees.
std::string dump(Tree const& t) {
  std::ostringstream os;
  for (auto const& c : t.cfg->vrfConfigIter()) {
    os << "cfg " << c.vrfName() << " " << c.groupExpiryInterval() << "\n";
  }
  for (auto const& c : t.clr->vrfClearConfigIter()) {
    os << "clr " << c.vrfName() << " " << c.groupKey() << " " << int(c.groupsCount()) << " "
       << c.countersCount() << "\n";
  }
  return os.str();
}

L3::VrfName vrf(int i) {
  return L3::VrfName("vrf" + std::to_string(i));
}

// One random change of the writer's tree.
void randomChange(Tree& t, std::mt19937& rng, int vrfs) {
  int const i = int(rng() % unsigned(vrfs));
  switch (rng() % 8) {
    case 0:
      t.cfg->vrfConfigIs(vrf(i))->groupExpiryIntervalIs(std::uint16_t(rng()));
      break;
    case 1:
      t.clr->vrfClearConfigIs(vrf(i))->groupKeyIs(
          ClearConfig::GroupKey(MrouteClearFlags(rng() % 4), Lanx::IpGenAddr::ipv4Addr(rng())));
      break;
    case 2:
    case 3:
      if (auto c = t.clr->vrfClearConfigIs(vrf(i))) c->groupsCountIs(c->groupsCount() + 1);
      break;
    case 4:
      t.clr->vrfClearConfigIs(vrf(i))->countersCountIs(rng());
      break;
    case 5:
      if (rng() % 3 == 0) t.clr->vrfClearConfigDel(vrf(i));
      break;
    case 6:
      if (rng() % 3 == 0) t.cfg->vrfConfigDel(vrf(i));
      break;
    default:
      t.cfg->vrfConfigIs(vrf(i));
      break;
  }
}

// ---- in one process, over a socket pair ----

struct Pair {
  Kiv::Activity act;
  Tree writer, reader;
  Log::Endpoint wEnd{act, Log::Endpoint::Options{}};
  Log::Endpoint rEnd{act, Log::Endpoint::Options{}};
  int fds[2];
  Pair(std::size_t highWater = 16 * 1024) : wEnd(act, {highWater, 0.05}) {
    Bidir::attrLogTypesRegister();
    wEnd.serve(writer.cfg);
    wEnd.serve(writer.clr);
    rEnd.read(reader.cfg);
    rEnd.read(reader.clr);
    Log::socketPair(fds);
  }
  Log::Out& out() { return wEnd.channels().front()->out(); }
  bool equal() { return dump(writer) == dump(reader); }
};

TEST(AttrLog, AppliesChangesOnceAndNeverEchoes) {
  Pair p;
  TreeWatch wWatch(p.writer.cfg, p.writer.clr), rWatch(p.reader.cfg, p.reader.clr);
  p.writer.clr->vrfClearConfigIs("red")->countersCountIs(7);
  // The reader serves its own tree back on the same channel: what it applies must not return.
  // Its records go to a tree of their own on the writer's side (the writer's own tree is not
  // the peer's to write).
  Tree mirror;
  p.wEnd.read(mirror.cfg);
  p.wEnd.read(mirror.clr);
  p.wEnd.adopt(p.fds[0], "writer");
  p.rEnd.serve(p.reader.cfg);
  p.rEnd.serve(p.reader.clr);
  Log::Channel& back = p.rEnd.adopt(p.fds[1], "reader");
  ASSERT_TRUE(runUntil(p.act, [&] { return p.rEnd.synced() && p.equal(); }));
  std::uint64_t const backRecords = back.out().recordsWritten();

  std::mt19937 rng(7);
  for (int round = 0; round < 40; ++round) {
    for (int k = 0; k < 25; ++k) randomChange(p.writer, rng, 6);
    ASSERT_TRUE(runUntil(p.act, [&] { return p.equal() && p.out().buffered() == 0; }));
  }
  ASSERT_TRUE(runUntil(p.act, [&] { return wWatch.counts.n == rWatch.counts.n; }))
      << wWatch.counts.text() << "--\n" << rWatch.counts.text();
  EXPECT_EQ(back.out().recordsWritten(), backRecords);

  // The same adapter again, with no notification bits: it stays, and stops writing changes.
  auto red = p.writer.clr->vrfClearConfigIs("red");
  auto sa = red->kivNboAttrLogSa(p.out());
  EXPECT_EQ(red->kivNboAttrLogSaIs(0, 0, p.out(), sa->parent()), sa);
  std::uint64_t const records = p.out().recordsWritten();
  red->countersCountIs(red->countersCount() + 1);
  EXPECT_EQ(p.out().recordsWritten(), records);
  red->kivNboAttrLogSaIs(Log::SaBase::notifyAll, 0, p.out(), sa->parent());
  red->countersCountIs(red->countersCount() + 1);
  EXPECT_EQ(p.out().recordsWritten(), records + 1);

  // The collection's member adapter is the member's own adapter on the output. Without it the
  // member's changes are not written; made again, it announces the member anew with its state.
  auto coll = p.writer.clr->kivNboAttrLogSa(p.out());
  EXPECT_EQ(coll->vrfClearConfigNboAttrLogAdapter("red"), sa);
  coll->vrfClearConfigNboAttrLogAdapterDel("red");
  EXPECT_FALSE(coll->vrfClearConfigNboAttrLogAdapter("red"));
  EXPECT_FALSE(red->kivNboAttrLogSa(p.out()));
  red->countersCountIs(red->countersCount() + 1);
  EXPECT_EQ(p.out().recordsWritten(), records + 1);
  auto again = coll->vrfClearConfigNboAttrLogAdapterIs("red");
  ASSERT_TRUE(again);
  EXPECT_EQ(again, red->kivNboAttrLogSa(p.out()));
  EXPECT_FALSE(coll->vrfClearConfigNboAttrLogAdapterIs("absent"));
  // Made through the entity with its collection's adapter as parent: announced by the parent.
  coll->vrfClearConfigNboAttrLogAdapterDel("red");
  auto viaParent = red->kivNboAttrLogSaIs(Log::SaBase::notifyAll, 0, p.out(), coll.ptr());
  EXPECT_EQ(viaParent, coll->vrfClearConfigNboAttrLogAdapter("red"));
  auto stranger = Bidir::clearConfigFactory(L3::VrfName("stranger"));
  EXPECT_THROW(stranger->kivNboAttrLogSaIs(Log::SaBase::notifyAll, 0, p.out(), coll.ptr()),
               Kiv::RangeException);
  red->countersCountIs(red->countersCount() + 1);
  ASSERT_TRUE(runUntil(p.act, [&] { return p.equal() && p.out().buffered() == 0; }));
  EXPECT_EQ(p.wEnd.errors() + p.rEnd.errors(), 0u) << p.rEnd.lastError();
}

TEST(AttrLog, BlockedOutputKeepsDirtyBitsAndResumesAtTheNextAttribute) {
  Pair p(4096);
  auto red = p.writer.clr->vrfClearConfigIs("red");
  p.wEnd.adopt(p.fds[0], "writer");
  // The peer does not read yet: fill the socket until the output blocks.
  std::uint32_t n = 0;
  while (!p.out().blocked()) {
    red->countersCountIs(++n);
    p.act.runOnce(0);
  }
  std::uint64_t const recordsAtBlock = p.out().recordsWritten();
  for (int k = 0; k < 100000; ++k) {
    red->groupsCountIs(std::uint8_t(k));
    red->countersCountIs(++n);
    red->groupKeyIs(ClearConfig::GroupKey(MrouteClearFlags(k % 4), Lanx::IpGenAddr::ipv4Addr(k)));
  }
  // Buffered bytes are bounded by the mark plus one record, whatever the number of changes.
  EXPECT_LE(p.out().buffered(), p.out().highWater() + 64);
  EXPECT_EQ(p.out().recordsWritten(), recordsAtBlock);
  auto sa = red->kivNboAttrLogSa(p.out());
  ASSERT_TRUE(sa && sa->flowOut());
  EXPECT_EQ(sa->flowOut()->kivDirtyBitSet0().value(), 0x2u | 0x4u | 0x8u);

  // Room for one record at a time: each flow-out writes one attribute and stops there.
  p.out().highWaterIs(p.out().buffered() + 1);
  EXPECT_EQ(sa->handleAttrFlowOut(0), ClearConfig::Attr::groupKey);
  EXPECT_EQ(sa->flowOut()->kivDirtyBitSet0().value(), 0x4u | 0x8u);
  p.out().highWaterIs(p.out().buffered() + 1);
  EXPECT_EQ(sa->handleAttrFlowOut(ClearConfig::Attr::groupKey), ClearConfig::Attr::groupsCount);
  EXPECT_EQ(sa->flowOut()->kivDirtyBitSet0().value(), 0x8u);

  p.out().highWaterIs(4096);
  TreeWatch rWatch(p.reader.cfg, p.reader.clr);
  p.rEnd.adopt(p.fds[1], "reader");
  ASSERT_TRUE(runUntil(p.act, [&] { return p.equal() && p.rEnd.synced(); }));
  // Only the records queued before the block, then one per dirty attribute.
  EXPECT_LE(rWatch.counts.n["groupsCount"], 2);
  EXPECT_LE(rWatch.counts.n["groupKey"], 2);
  EXPECT_EQ(p.out().recordsWritten(), recordsAtBlock + 3);
}

TEST(AttrLog, CollectionWalkResumesAtItsBookmark) {
  Pair p(1024);
  constexpr int kMembers = 4000;  // more than the socket holds
  for (int i = 0; i < kMembers; ++i) p.writer.clr->vrfClearConfigIs(vrf(i))->groupsCountIs(1);
  p.wEnd.adopt(p.fds[0], "writer");
  for (int i = 0; i < 200 && !p.out().blocked(); ++i) p.act.runOnce(0);
  auto sa = p.writer.clr->kivNboAttrLogSa(p.out());
  ASSERT_TRUE(sa && sa->flowOut());
  EXPECT_TRUE(sa->flowOut()->bookmark().has_value());
  EXPECT_LT(sa->vrfClearConfigNboAttrLogAdapterCount(), std::size_t(kMembers));
  // Members that go and come while the walk waits are sent as they are then, wherever they
  // stand against the bookmark: new ones (some sort before it), and one already sent that goes
  // and comes back as another entity.
  int sent = 0;
  while (!sa->vrfClearConfigNboAttrLogAdapter(vrf(sent))) ++sent;
  p.writer.clr->vrfClearConfigDel(vrf(sent));
  p.writer.clr->vrfClearConfigIs(vrf(sent))->groupsCountIs(2);
  p.writer.clr->vrfClearConfigDel(vrf(kMembers - 1));
  for (int i = kMembers; i < kMembers + 64; ++i) p.writer.clr->vrfClearConfigIs(vrf(i));
  // From outside, the public walk defers to the flow-out; a detached adapter's is a no-op.
  EXPECT_FALSE(sa->kivHandleVrfClearConfigSerializeColl());
  Kiv::Ptr<ClearConfigColl::KivNboAttrLogSa> detached(
      new ClearConfigColl::KivNboAttrLogSa(*p.writer.clr, 0));
  EXPECT_TRUE(detached->kivHandleVrfClearConfigSerializeColl());
  detached->kivHandleVrfClearConfigSerializeSing(vrf(0), nullptr);

  TreeWatch rWatch(p.reader.cfg, p.reader.clr);
  p.rEnd.adopt(p.fds[1], "reader");
  ASSERT_TRUE(runUntil(p.act, [&] { return p.equal() && p.rEnd.synced(); }, 120));
  EXPECT_EQ(p.reader.clr->vrfClearConfigCount(), std::size_t(kMembers + 63));
  EXPECT_EQ(sa->vrfClearConfigNboAttrLogAdapterCount(), std::size_t(kMembers + 63));
  // Each member created once on the reader, none twice: the second walk skips what was sent.
  EXPECT_LE(rWatch.counts.n["vrfClearConfig"], kMembers + 64 + 3);
  for (int i : {sent, kMembers, kMembers + 63}) {
    EXPECT_EQ(sa->vrfClearConfigNboAttrLogAdapter(vrf(i)),
              p.writer.clr->vrfClearConfig(vrf(i))->kivNboAttrLogSa(p.out()));
  }
}

TEST(AttrLog, ConnectingWriterRemountsItsAdaptersOnEveryConnection) {
  Kiv::Activity act;
  Tree writer, reader;
  std::string const path = "/tmp/attrlog-remount-" + std::to_string(::getpid());
  auto listen = [&] {
    auto s = std::make_unique<Log::Server>(act, path);
    s->read(reader.cfg);
    s->read(reader.clr);
    return s;
  };
  auto server = listen();
  Log::Client client(act, path, {16 * 1024, 0.01});
  client.serve(writer.cfg);
  client.serve(writer.clr);
  writer.clr->vrfClearConfigIs("red")->groupsCountIs(3);
  auto equal = [&] { return dump(writer) == dump(reader) && server->synced(); };
  ASSERT_TRUE(runUntil(act, equal));

  auto const sa = writer.clr->kivNboAttrLogSa(client.channel()->out());
  server.reset();  // the reading side goes; the writer changes on meanwhile
  writer.clr->vrfClearConfigDel("red");
  writer.cfg->vrfConfigIs("blue")->groupExpiryIntervalIs(5);
  ASSERT_TRUE(runUntil(act, [&] { return client.channel() == nullptr; }));
  server = listen();
  ASSERT_TRUE(runUntil(act, equal)) << dump(reader);
  EXPECT_EQ(client.connections(), 2u);
  EXPECT_EQ(writer.clr->kivNboAttrLogSa(client.channel()->out()), sa);  // re-mounted, not new
}

// ---- between processes ----

constexpr char const* kRole = "ATTRLOG_TEST_ROLE";

// The reader process: attaches its tree to <dir>/writer and serves it back on <dir>/relay, so
// that the test process sees what it holds; writes its notification counts on SIGTERM.
Kiv::Activity* childActivity = nullptr;
int readerRole(std::string const& dir) {
  Kiv::Activity act;
  childActivity = &act;
  ::signal(SIGTERM, [](int) { childActivity->stop(); });
  Tree t;
  TreeWatch watch(t.cfg, t.clr);
  auto in = Bidir::configurationAttach(act, dir + "/writer", t.cfg, t.clr);
  Log::Server relay(act, dir + "/relay");
  relay.serve(t.cfg);
  relay.serve(t.clr);
  act.run();
  std::ofstream(dir + "/counts." + std::to_string(::getpid())) << watch.counts.text();
  return 0;
}
[[maybe_unused]] bool const isChild = TestSupport::childRole(kRole, readerRole);

struct AttrLogProcs : ::testing::Test {
  std::string dir;
  Kiv::Activity act;
  Tree writer, seen;
  TestSupport::Children children{kRole};
  std::unique_ptr<Log::Server> server;
  std::unique_ptr<Log::Client> relay;
  void SetUp() override {
    char tmpl[] = "/tmp/attrlogXXXXXX";
    dir = ::mkdtemp(tmpl);
    server = Bidir::configurationServe(act, dir + "/writer", writer.cfg, writer.clr, {4096, 0.05});
    relay = Bidir::configurationAttach(act, dir + "/relay", seen.cfg, seen.clr);
  }
  void TearDown() override {
    relay.reset();
    server.reset();
    std::filesystem::remove_all(dir);
  }
  bool equal() { return dump(writer) == dump(seen); }
  ::testing::AssertionResult converge(double seconds = 60) {
    if (runUntil(act, [&] { return equal() && relay->synced(); }, seconds)) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << dump(writer) << "--- seen:\n" << dump(seen);
  }
  std::string counts(pid_t pid) {
    ::kill(pid, SIGTERM);
    std::string file = dir + "/counts." + std::to_string(pid);
    runUntil(act, [&] { return std::filesystem::exists(file); });
    children.kill(pid);
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
};

TEST_F(AttrLogProcs, RandomChangesEndEqualWithOneNotificationPerChange) {
  TreeWatch watch(writer.cfg, writer.clr);
  pid_t const reader = children.spawn(dir);
  ASSERT_TRUE(converge());
  std::mt19937 rng(11);
  for (int round = 0; round < 60; ++round) {
    for (int k = 0; k < 20; ++k) randomChange(writer, rng, 8);
    // Small batches, each drained before the next: nothing coalesces.
    ASSERT_TRUE(runUntil(act, [&] { return server->channels().front()->out().buffered() == 0; }));
  }
  ASSERT_TRUE(converge());
  EXPECT_EQ(counts(reader), watch.counts.text());
  EXPECT_EQ(server->errors(), 0u) << server->lastError();
}

TEST_F(AttrLogProcs, StoppedReaderCoalescesAndRestartsResynchronise) {
  pid_t reader = children.spawn(dir);
  for (int i = 0; i < 20; ++i) writer.clr->vrfClearConfigIs(vrf(i));
  ASSERT_TRUE(converge());
  Log::Out& out = server->channels().front()->out();

  ::kill(reader, SIGSTOP);
  std::uint64_t const records = out.recordsWritten();
  for (int k = 0; k < 200000; ++k) {
    auto c = writer.clr->vrfClearConfig(vrf(k % 20));
    c->countersCountIs(c->countersCount() + 1);
    if (k % 1000 == 0) act.runOnce(0);
  }
  EXPECT_LE(out.buffered(), out.highWater() + 64);
  EXPECT_LT(out.recordsWritten() - records, 30000u);  // the socket's capacity, not 200000
  ::kill(reader, SIGCONT);
  ASSERT_TRUE(converge());

  // The reader restarts while members go and change.
  children.kill(reader);
  writer.clr->vrfClearConfigDel(vrf(3));
  writer.cfg->vrfConfigIs("blue")->groupExpiryIntervalIs(30);
  reader = children.spawn(dir);
  ASSERT_TRUE(converge());

  // The writer's endpoint restarts: the reader reconnects and drops what is gone meanwhile.
  server.reset();
  writer.clr->vrfClearConfigDel(vrf(4));
  writer.cfg->vrfConfigDel("blue");
  writer.clr->vrfClearConfigIs(vrf(5))->groupsCountIs(9);
  server = Bidir::configurationServe(act, dir + "/writer", writer.cfg, writer.clr);
  ASSERT_TRUE(converge());
  EXPECT_EQ(seen.clr->vrfClearConfigCount(), 18u);
}

// ---- peers of the configuration socket that it must not trust ----

constexpr char const* kPeerRole = "ATTRLOG_PEER_ROLE";
constexpr int kFloodMembers = 40000;

int connectTo(std::string const& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) std::_Exit(3);
  return fd;
}

// Three connections open at once, each writing 40,000 member records: into the served clear
// requests, into a collection of its own, and into one inside a transaction that never ends.
// Each sends until the serving side closes it or all is sent.
int flood(std::string const& path) {
  using Records = TestSupport::AttrLogRecords;
  std::vector<Records> streams(3);
  streams[0].create("Routing::Pim::Bidir::ClearConfigColl", "clr", 1);
  streams[1].create("Routing::Pim::Bidir::ClearConfigColl", "flood", 1);
  streams[2].marker(0, 0, 1).create("Routing::Pim::Bidir::ConfigColl", "flood", 1);
  for (auto& s : streams) {
    for (std::uint32_t i = 0; i < kFloodMembers; ++i) {
      s.record(258, 1, 0, [&](Records& x) { x.str("vrf" + std::to_string(i)).u32(i + 2); });
    }
  }
  int fds[3];
  std::size_t sent[3] = {};
  for (int& fd : fds) fd = connectTo(path);
  for (bool more = true; more;) {
    more = false;
    for (int k = 0; k < 3; ++k) {
      std::size_t const left = streams[k].b.size() - sent[k];
      if (fds[k] < 0 || left == 0) continue;
      ssize_t const n = ::send(fds[k], streams[k].b.data() + sent[k],
                               std::min<std::size_t>(left, 65536), MSG_NOSIGNAL);
      if (n > 0) {
        sent[k] += std::size_t(n);
      } else if (errno != EINTR) {
        ::close(std::exchange(fds[k], -1));  // refused: the serving side closed it
      }
      more = true;
    }
  }
  return 0;
}

// Takes the identity "<uid>:<gid>" when it may, attaches to the path and exits 0 once it has the
// served state, 2 when the connection is refused with "permission denied", 1 otherwise.
int attachAs(std::string const& who) {
  unsigned uid = 0, gid = 0;
  int pathAt = 0;
  if (std::sscanf(who.c_str(), "%u:%u:%n", &uid, &gid, &pathAt) != 2) return 1;
  if (::geteuid() == 0 &&
      (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0)) {
    return 1;
  }
  Kiv::Activity act;
  Tree t;
  auto client = Bidir::configurationAttach(act, who.substr(std::size_t(pathAt)), t.cfg, t.clr);
  runUntil(act, [&] { return client->synced() || client->errors() > 0; });
  if (client->synced()) return 0;
  if (client->lastError().ends_with("permission denied")) return 2;
  std::fprintf(stderr, "attach: %s\n", client->waitReason().c_str());
  return 1;
}

int peerRole(std::string const& value) {
  if (value.starts_with("flood:")) return flood(value.substr(6));
  if (value.starts_with("attach:")) return attachAs(value.substr(7));
  return 1;
}
[[maybe_unused]] bool const isPeer = TestSupport::childRole(kPeerRole, peerRole);

struct AttrLogPeers : AttrLogProcs {
  TestSupport::Children peers{kPeerRole};
  // Runs the peer to its end; its exit status, or -1 if it did not end in time.
  int run(std::string const& value) {
    pid_t const pid = peers.spawn(value);
    int status = 0;
    if (!runUntil(act, [&] { return peers.exited(pid, &status); }, 60)) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST_F(AttrLogPeers, AFloodOfPeerWritesIsRefusedAndLeavesNothingBehind) {
  for (int i = 0; i < 5; ++i) writer.clr->vrfClearConfigIs(vrf(i))->groupsCountIs(1);
  std::string const before = dump(writer);
  ASSERT_EQ(run("flood:" + dir + "/writer"), 0);
  ASSERT_TRUE(
      runUntil(act, [&] { return server->connections() == 3 && server->channels().empty(); }));
  EXPECT_EQ(dump(writer), before);
  EXPECT_TRUE(server->created().empty());
  EXPECT_EQ(server->errors(), 3u) << server->lastError();
  // The most one connection held: the read-only binding of "clr", and one read from the socket
  // beside the rest of a record.
  EXPECT_LE(server->peakEntities(), 1u);
  EXPECT_LE(server->peakBytesHeld(),
            Log::Channel::readChunk + Log::MsgHeader::wireSize + Log::kMaxRecordBytes);
}

// The socket is its owner's and others are told they have no access; a group given to the
// serving side may connect.
TEST_F(AttrLogPeers, OnlyTheOwnerOrAGivenGroupMayConnect) {
  std::string const path = dir + "/writer";
  auto mode = [&](gid_t* group = nullptr) {
    struct stat st{};
    EXPECT_EQ(::stat(path.c_str(), &st), 0);
    if (group != nullptr) *group = st.st_gid;
    return st.st_mode & 07777;
  };
  EXPECT_EQ(mode(), 0600u);
  // Others may reach the socket, so that only its own mode keeps them out. Without the right to
  // take another identity, the owner itself is shut out to play the stranger.
  ASSERT_EQ(::chmod(dir.c_str(), 0711), 0);
  if (::geteuid() != 0) {
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  }
  EXPECT_EQ(run("attach:65534:65534:" + path), 2);

  gid_t const group = ::geteuid() == 0 ? 65534 : ::getgid();
  server.reset();
  server = Bidir::configurationServe(act, path, writer.cfg, writer.clr, {.group = group});
  gid_t owner = 0;
  EXPECT_EQ(mode(&owner), 0660u);
  EXPECT_EQ(owner, group);
  EXPECT_EQ(run("attach:65534:" + std::to_string(group) + ":" + path), 0);
}

}  // namespace
