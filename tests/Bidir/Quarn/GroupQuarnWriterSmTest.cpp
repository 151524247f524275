// The group writer state machine: shared tables equal to the agent's entities after random
// changes, the order in which records arrive and leave, the initialisation guard and its trace
// lines, teardown leaving the records, resynchronisation after notifications were off or after
// the tables' file system was full, null arguments, and table handlers dropping the writer.

#include "Bidir/Quarn/GroupQuarnWriterSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Jorv/Trace.h"
#include "Mirror.h"
#include "Quarn/TestRecord.h"
#include "support/PrivateTmpfs.h"
#include "support/QuarnRoot.h"

namespace {

namespace Bidir = Routing::Pim::Bidir;
namespace BQ = Routing::Pim::Bidir::Quarn;
using Bidir::GroupIntfKey;

Lanx::IpGenAddr addr(int i) {
  return Lanx::IpGenAddr::ipv4Addr(0xef010100u + static_cast<std::uint32_t>(i));
}
Lanx::IntfId intf(int i) {
  return Lanx::IntfId("Ethernet" + std::to_string(i));
}
template <class T>
std::string text(T const& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

using GroupRecords = std::map<Lanx::IpGenAddr, BQ::Group>;
using IntfRecords = std::map<GroupIntfKey, BQ::GroupIntf>;

// What the tables must hold for `status`.
std::pair<GroupRecords, IntfRecords> expected(Bidir::Status const& status) {
  std::pair<GroupRecords, IntfRecords> out;
  for (Bidir::Group const& g : status.groupIter()) {
    out.first[g.groupAddr()] = MirrorTest::recordOf(g);
    for (Bidir::GroupIntf const& i : g.groupIntfIter()) {
      BQ::GroupIntf const r = MirrorTest::recordOf(g.groupAddr(), i);
      out.second[r.key] = r;
    }
  }
  return out;
}

// Every record of a writing table root.
std::pair<GroupRecords, IntfRecords> records(BQ::Status const& tables) {
  std::pair<GroupRecords, IntfRecords> out;
  for (auto it = tables.groupIterator(); it; ++it) out.first[it.key()] = tables.group(it.key());
  for (auto it = tables.groupIntfIterator(); it; ++it) {
    out.second[it.key()] = tables.groupIntf(it.key());
  }
  return out;
}

// Hears a table root: "+key" when a record is written, "-key" when it is gone.
struct TableLog : BQ::Status::NotifieeConst {
  std::vector<std::string> lines;
  std::function<void()> onHeard;
  void onGroup(Lanx::IpGenAddr const& key) override {
    bool const present = notifier()->group(key) != BQ::Group();
    lines.push_back((present ? "+" : "-") + text(key));
    if (auto const heard = onHeard) heard();
  }
  void onGroupIntf(GroupIntfKey const& key) override {
    bool const present = notifier()->groupIntf(key) != BQ::GroupIntf();
    lines.push_back((present ? "+" : "-") + text(key.groupAddr()) + "::" + text(key.intfId()));
    if (auto const heard = onHeard) heard();
  }
};

// The writer state machine's own trace, down to level 8: "<level> <text>" lines.
struct TraceLog : QuarnTest::TraceCapture {
  static constexpr char const* handle = "PimBidir::QuarnWriter";
  TraceLog() : TraceCapture(handle, 8) {}
  std::vector<std::string> lines() const { return leveledLines(handle); }
};

struct GroupQuarnWriterSmTest : ::testing::Test {
  GroupQuarnWriterSmTest() { status->initializedIs(true); }
  Kiv::Ptr<BQ::GroupQuarnWriterSm> writer() {
    return BQ::groupQuarnWriterSmFactory(status, tables);
  }
  Kiv::Ptr<TableLog> listen() {
    auto log = Kiv::newPtr<TableLog>();
    log->notifierIs(tables);
    return log;
  }
  // Group i with interfaces 1..n, each interface with a distinct record.
  Kiv::Ptr<Bidir::Group> groupWith(int i, int n) {
    auto g = status->groupIs(addr(i));
    g->creationTimeIs(i);
    for (int j = 1; j <= n; ++j) g->groupIntfIs(intf(j))->lastJoinReceivedIs(j);
    return g;
  }

  TestSupport::QuarnRoot root;
  Kiv::Ptr<Bidir::Status> status = Bidir::statusFactory("vrf1");
  Kiv::Ptr<BQ::Status> tables = BQ::statusFactory("quarn");  // a local writer until mounted
};

TEST_F(GroupQuarnWriterSmTest, RandomChangesKeepTheTablesEqualToTheEntities) {
  tables->mount(Quarn::QuarnType::writer);
  std::mt19937 rng(7);
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  groupWith(1, 3);
  auto sm = writer();  // starts from groups that are already there
  using G = Kiv::Ptr<Bidir::Group>;
  std::function<void(G const&)> const changes[] = {
      [&](G const& g) { status->groupDel(g->groupAddr()); },
      [&](G const& g) { status->newGroup(g->groupAddr())->groupIntfIs(intf(1)); },  // replaced
      [&](G const& g) { g->upJoinStateIs(Bidir::Group::UpJoinState(pick(2))); },
      [&](G const& g) { g->inactiveIs(pick(2)); },
      [&](G const& g) { g->creationTimeIs(pick(1000)); },
      [&](G const& g) { g->groupIntfIs(intf(1 + pick(6)))->lastJoinReceivedIs(pick(1000)); },
      [&](G const& g) { g->groupIntfDel(intf(1 + pick(6))); },
      [&](G const& g) { pick(8) ? void() : g->groupIntfDelAll(); },
      [&](G const& g) {
        auto i = g->groupIntfIs(intf(1 + pick(6)));
        i->forwardIs(pick(2));
        i->joinStateIs(Bidir::GroupIntf::JoinState(pick(3)));
        i->localReceiverIncludeIs(pick(2));
        i->iAmDfIs(pick(2));
      },
  };
  for (int step = 0; step < 4000; ++step) {
    if (auto g = status->group(addr(1 + pick(8)))) {
      changes[pick(std::size(changes))](g);
    } else {
      status->groupIs(addr(1 + pick(8)));
    }
    if (step % 97 == 0) {
      ASSERT_EQ(records(*tables), expected(*status)) << "step " << step;
    }
  }
  auto const want = expected(*status);
  ASSERT_EQ(records(*tables), want);
  ASSERT_EQ(sm->groupCount(), want.first.size());
}

TEST_F(GroupQuarnWriterSmTest, InterfaceRecordsArriveBeforeAndLeaveBeforeTheirGroup) {
  auto const g = groupWith(1, 3);
  std::string const a = "239.1.1.1", b = "239.1.1.2";
  auto intfLines = [&](char sign) {  // group 1's interfaces, in its collection's order
    std::vector<std::string> out;
    for (Bidir::GroupIntf const& i : g->groupIntfIter()) {
      out.push_back(sign + a + "::" + text(i.intfId()));
    }
    return out;
  };
  std::vector<std::string> want = intfLines('+');
  want.push_back("+" + a);
  auto log = listen();
  auto sm = writer();  // a group with its interfaces already there
  status->groupIs(addr(2));
  status->group(addr(2))->groupIntfIs(intf(1));
  g->groupIntfDel(intf(2));
  for (auto const& line : {"+" + b, "+" + b + "::Ethernet1", "-" + a + "::Ethernet2"}) {
    want.push_back(line);
  }
  for (auto const& line : intfLines('-')) want.push_back(line);
  want.push_back("-" + a);
  status->groupDel(addr(1));
  EXPECT_EQ(log->lines, want);
  EXPECT_EQ(tables->groupCount(), 1u);
  EXPECT_EQ(tables->groupIntfCount(), 1u);
}

TEST_F(GroupQuarnWriterSmTest, NothingIsWrittenOrRemovedWhileTheStatusIsUninitialised) {
  auto g = groupWith(1, 1);
  auto sm = writer();
  status->initializedIs(false);
  TraceLog trace;
  g->inactiveIs(true);
  g->groupIntf(intf(1))->iAmDfIs(true);
  status->groupDel(addr(1));
  EXPECT_EQ(trace.lines(),
            (std::vector<std::string>{
                "8 GroupQuarnWriterSm::doUpdateGroup(239.1.1.1)",
                "7 GroupQuarnWriterSm::doUpdateGroup(239.1.1.1), status uninitialized",
                "8 GroupQuarnWriterSm::doUpdateGroupIntf(239.1.1.1::Ethernet1)",
                "7 GroupQuarnWriterSm::doUpdateGroupIntf(239.1.1.1::Ethernet1), "
                "status unintialized",
                "8 GroupQuarnWriterSm::handleDelete(239.1.1.1)",
                "7 GroupQuarnWriterSm::handleDelete(239.1.1.1), status uninitialized"}));
  EXPECT_FALSE(tables->group(addr(1)).inactive);  // the records of before, unchanged
  EXPECT_EQ(tables->groupIntfCount(), 1u);

  // Once initialised, the next change writes again.
  status->initializedIs(true);
  groupWith(2, 1)->groupIntf(intf(1))->forwardIs(true);
  EXPECT_TRUE(tables->groupIntf(GroupIntfKey(addr(2), intf(1))).forward);
}

TEST_F(GroupQuarnWriterSmTest, TeardownLeavesEveryRecordAndResyncFollowsMissedChanges) {
  groupWith(1, 2);
  groupWith(2, 2);
  auto sm = writer();
  auto refused = [](auto&& f) { return QuarnTest::failure<Kiv::NullArgumentException>(f); };
  EXPECT_EQ(refused([&] { sm->groupIs(nullptr); }),
            "null _group parameter to mutator for "
            "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm::group not allowed\"");
  EXPECT_EQ(refused([&] { sm->group(addr(1))->intfIs(nullptr); }),
            "null _intf parameter to mutator for "
            "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm::KivGroup::intf not allowed\"");
  auto const all = records(*tables);
  ASSERT_EQ(all, expected(*status));

  // Notifications off: a dropped group and a new one go unheard until the full resynchronisation.
  sm->hasNotificationActiveIs(false);
  status->groupDel(addr(1));
  groupWith(3, 2);
  status->group(addr(2))->groupIntfDel(intf(1));  // a group's own resync is not asked for here
  EXPECT_EQ(records(*tables), all);
  sm->hasNotificationActiveIs(true);
  sm->kivStatus()->onGroupkivImmediate();
  auto const now = records(*tables);
  EXPECT_EQ(now.first, expected(*status).first);
  EXPECT_EQ(now.second.size(), expected(*status).second.size() + 1);  // group 2's interface 1
  sm->group(addr(2))->onGroupIntfkivImmediate();
  EXPECT_EQ(records(*tables), expected(*status));

  // Destroyed: records stay, and later changes are not written.
  auto const before = records(*tables);
  sm = nullptr;
  status->groupDel(addr(2));
  status->group(addr(3))->inactiveIs(true);
  EXPECT_EQ(records(*tables), before);
}

// Tables on a file system that fills up: the changes that need them to grow fail, the first one
// traced at error level with the table, the key and the cause, the others counted, while the
// agent's own calls go on; once space is freed, resync brings both tables back to the agent's
// state, and the next incident is an error again.
TEST_F(GroupQuarnWriterSmTest, TableFailuresAreTracedAndResyncRestoresTheTables) {
  TestSupport::PrivateTmpfs fs(16 << 20);  // the group interface table's buckets take 8 MB
  if (!fs.available()) GTEST_SKIP() << "no private tmpfs here (" << fs.why() << ")";
  ::setenv("QUARN_ROOT", fs.path().c_str(), 1);  // the fixture's root unsets it
  auto const full = BQ::statusFactory("quarn");
  full->mount(Quarn::QuarnType::writer);
  groupWith(1, 3);
  auto sm = BQ::groupQuarnWriterSmFactory(status, full);
  ASSERT_TRUE(fs.fill());
  TraceLog trace;
  for (int i = 2; sm->tableFailures() == 0 && i < 100; ++i) groupWith(i, 10);
  ASSERT_GT(sm->tableFailures(), 0u);
  groupWith(150, 5);
  status->groupDel(addr(1));
  status->group(addr(2))->groupIntfIs(intf(1))->iAmDfIs(true);
  std::size_t errors = 0;
  for (std::string const& line : trace.lines()) {
    if (line.rfind("0 ", 0) != 0) continue;
    ++errors;
    EXPECT_EQ(line.rfind("0 GroupQuarnWriterSm::doUpdateGroupIntf(239.1.1.", 0), 0u) << line;
    EXPECT_NE(line.find(") table groupIntf: SlotWriter::alloc() Quarn table full"),
              std::string::npos)
        << line;
    EXPECT_NE(line.find("no space left on device"), std::string::npos) << line;
  }
  EXPECT_EQ(errors, 1u);
  EXPECT_GT(sm->tableFailures(), 1u);
  EXPECT_NE(records(*full), expected(*status));

  fs.release();
  sm->resync();
  EXPECT_EQ(records(*full), expected(*status));
  EXPECT_EQ(sm->tableFailures(), 0u);
  groupWith(200, 2);
  EXPECT_EQ(records(*full), expected(*status));

  ASSERT_TRUE(fs.fill());
  for (int i = 300; sm->tableFailures() == 0 && i < 400; ++i) groupWith(i, 10);
  auto const isError = [](std::string const& line) { return line.rfind("0 ", 0) == 0; };
  auto const lines = trace.lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), isError), 2);
}

TEST_F(GroupQuarnWriterSmTest, TableHandlersMayDropTheLastReferenceToTheWriter) {
  groupWith(1, 3);
  groupWith(2, 3);
  auto sm = writer();
  auto log = listen();
  log->onHeard = [&] { sm = nullptr; };

  // In an interface's handler: that write happens, nothing after it.
  status->group(addr(2))->groupIntf(intf(1))->iAmDfIs(true);
  EXPECT_EQ(sm, nullptr);
  status->group(addr(2))->groupIntf(intf(2))->iAmDfIs(true);
  EXPECT_EQ(log->lines.size(), 1u);

  // In the middle of a group's deletion: the removal completes, then the writer goes.
  sm = writer();
  log->lines.clear();
  status->groupDel(addr(1));
  EXPECT_EQ(sm, nullptr);
  EXPECT_EQ(log->lines.size(), 4u);
  EXPECT_EQ(records(*tables), expected(*status));
}

}  // namespace
