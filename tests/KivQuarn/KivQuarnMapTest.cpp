// The binding of a table to its owner entity: the local writer from the moment of binding, the
// one placement it follows, orphaning, mounting with the owner's capacities, and its refusals.

#include "KivQuarn/KivQuarnMap.h"

#include <gtest/gtest.h>

#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Quarn/Exceptions.h"
#include "Quarn/TestRecord.h"
#include "support/ActivityWait.h"
#include "support/QuarnRoot.h"

namespace {

using Routing::Pim::Bidir::Quarn::Group;
using Routing::Pim::Bidir::Quarn::statusFactory;
using QuarnTest::failure;

Group groupRecord(std::uint32_t host, bool inactive = true) {
  Group g;
  g.key = Lanx::IpGenAddr::ipv4Addr(0xef010100u + host);
  g.creationTime = host;
  g.inactive = inactive;
  return g;
}

struct KivQuarnMapTest : ::testing::Test {
  TestSupport::QuarnRoot root;
  QuarnTest::TraceCapture trace{"QuarnTemp-*"};
};

TEST_F(KivQuarnMapTest, FollowsOnePlacementAndDetachesWhenOrphaned) {
  auto status = statusFactory("quarn");
  EXPECT_TRUE(trace.contains("KivQuarnMap::entity() creating local QuarnWriter quarn/groupIntf"));
  EXPECT_TRUE(trace.contains("KivQuarnMap::entity() creating local QuarnWriter quarn/group"));
  auto& table = status->groupControl();
  EXPECT_EQ(table.path(), "quarn/group");
  EXPECT_FALSE(table.initialized());

  // Written before any mount or placement: the local writer holds it.
  status->groupIs(groupRecord(1));
  EXPECT_EQ(status->group(groupRecord(1).key), groupRecord(1));
  EXPECT_TRUE(table.validate());
  EXPECT_TRUE(table.validateFiles());

  // The first placement renames the local table after the new path and keeps its records.
  auto vrf = Routing::Pim::Bidir::statusFactory("vrf1");
  status->parentIs(vrf.ptr(), 300);
  EXPECT_TRUE(
      trace.contains("KivQuarnMap::handleParent(): old: quarn/group new: vrf1/quarn/group"));
  EXPECT_EQ(table.path(), "vrf1/quarn/group");
  EXPECT_EQ(status->groupIntfControl().path(), "vrf1/quarn/groupIntf");
  EXPECT_EQ(status->group(groupRecord(1).key), groupRecord(1));
  status->groupIs(groupRecord(2));

  // A second placement is refused; the table stays as it was.
  auto other = Routing::Pim::Bidir::statusFactory("vrf2");
  EXPECT_EQ(failure<Jorv::InvalidInitializeException>([&] { status->parentIs(other.ptr(), 300); }),
            "Entity quarn already initialized");
  EXPECT_EQ(status->groupCount(), 2u);

  // Orphaned: both tables are detached, writes are refused and lookups find nothing.
  status->parentIs(nullptr, 0);
  EXPECT_EQ(trace.count(" is now an orphan"), 2u);
  EXPECT_EQ(failure([&] { status->groupIs(groupRecord(3)); }), "QuarnMap: table group is detached");
  EXPECT_EQ(status->group(groupRecord(1).key), Group());
  EXPECT_EQ(failure<Kiv::OperationNotSupportedException>([&] { table.isMemberOf(groupRecord(1).key); }),
            "KivQuarnMap::isMemberOf() not implemented");

  status = nullptr;
  EXPECT_EQ(trace.count("KivQuarnMap::~KivQuarnMap() deleting state"), 2u);
}

TEST_F(KivQuarnMapTest, MountingCarriesLocalRecordsIntoASharedWriterOnly) {
  auto status = statusFactory("quarn");
  for (std::uint32_t i = 0; i < 100; ++i) status->groupIs(groupRecord(i));

  // A shared writer takes the capacity from the mount information and every local record.
  status->mount(Quarn::QuarnType::writer);
  EXPECT_EQ(status->groupControl().resize(), 5000u);
  EXPECT_EQ(status->groupIntfControl().resize(), 500000u);
  EXPECT_EQ(status->groupCount(), 100u);
  status->groupIs(groupRecord(100));
  EXPECT_EQ(status->groupCount(), 101u);
  EXPECT_EQ(status->groupControl().rootPath(), root.table("group"));

  // A reading mount takes its content from the table's writer, not from the local writer.
  auto reader = statusFactory("reader");
  reader->groupIs(groupRecord(7, false));
  reader->groupControl().remountIntervalIs(0.05);
  reader->groupControl().init(Quarn::QuarnType::reader, false, 0);
  ASSERT_TRUE(TestSupport::runUntil(Kiv::Activity::current(),
                                    [&] { return reader->groupCount() == 101; }));
  EXPECT_EQ(reader->group(groupRecord(7).key), groupRecord(7));
  EXPECT_EQ(failure([&] { reader->groupIs(groupRecord(7)); }), "write to read-only Quarn table");
}

}  // namespace
