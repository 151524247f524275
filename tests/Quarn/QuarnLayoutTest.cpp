// Record equality, and the header checks that every side applies before trusting a file.

#include <gtest/gtest.h>

#include <cmath>

#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Quarn/QuarnWriter.h"
#include "TestRecord.h"

using namespace QuarnTest;
namespace BQ = Routing::Pim::Bidir::Quarn;
using GroupWrapper = KivQuarn::KivQuarnMapValueWrapper<BQ::Group, Lanx::IpGenAddr>;
using GroupIntfWrapper =
    KivQuarn::KivQuarnMapValueWrapper<BQ::GroupIntf, Routing::Pim::Bidir::GroupIntfKey>;

namespace {

// The wrapper adds nothing to the record it carries; a record holding a NaN time is never equal,
// not even to itself.
TEST(QuarnRecords, LayoutAndEquality) {
  EXPECT_EQ(Jorv::typeName<GroupIntfWrapper>(), "Routing::Pim::Bidir::Quarn::GroupIntf");
  static_assert(sizeof(GroupWrapper) == sizeof(BQ::Group));
  static_assert(sizeof(GroupIntfWrapper) == sizeof(BQ::GroupIntf));
  BQ::Group g;
  g.key = Lanx::IpGenAddr::ipv4Addr(0xef010101);
  BQ::Group copy = g;
  copy.upJoinState = BQ::Group::UpJoinState::upJoined;
  EXPECT_NE(copy, g);
  g.creationTime = std::nan("");
  EXPECT_FALSE(g == g);

  BQ::GroupIntf gi;
  gi.lastJoinReceived = std::nan("");
  EXPECT_NE(gi, gi);
}

// A header formatted into private memory, to damage and re-check.
struct SlotHeaderFixture : ::testing::Test {
  static constexpr std::uint32_t slotSize = 56;
  std::vector<std::uint64_t> storage = std::vector<std::uint64_t>(4096 / 8);
  char* base() { return reinterpret_cast<char*>(storage.data()); }
  Quarn::SlotTable::Header* header() { return Quarn::SlotTable::header(base()); }
  void format(std::uint32_t numSlots, std::string const& className = "Group") {
    Quarn::SlotTable::Header::format(base(), dh(), "Value", className, 36, numSlots, 10, 7);
  }
  std::string check(std::size_t size, std::uint32_t fenix = 7) {
    std::string error;
    return header()->validate(size, fenix, error) ? "ok" : error;
  }
};

TEST_F(SlotHeaderFixture, ChecksumCoversNamesAndSizesOnly) {
  format(3);
  std::size_t const size = Quarn::SlotTable::fileSize(slotSize, 3);
  EXPECT_EQ(check(size), "ok");
  // A slotSize that its valueSize does not give is named, not taken for a short file.
  for (std::uint32_t garbled : {57u, 0u, 0x10000u}) {
    header()->slotSize = garbled;
    EXPECT_EQ(check(size), "SlotTable::Header::validate() bad slotSize: " +
                               std::to_string(garbled) + " valueSize: 36");
  }
  header()->slotSize = slotSize;
  for (std::size_t offset : {16u, 79u, 80u, 143u, 144u, 152u}) {
    base()[offset] ^= 1;
    EXPECT_EQ(check(size).rfind("SlotTable::Header::validate() checksum fail: ", 0), 0u) << offset;
    base()[offset] ^= 1;
  }
  header()->occupiedSlots = 2;
  header()->freeSlots = 1;
  EXPECT_EQ(check(size), "ok");
  header()->occupiedSlots = 4;
  EXPECT_EQ(check(size).rfind("SlotTable::Header::validate() bad occupiedSlots: 4 num slots: 3", 0),
            0u);
  header()->occupiedSlots = 0;
  header()->freeSlots = 3;
  EXPECT_EQ(check(size).rfind("SlotTable::Header::validate() bad freeSlots: ", 0), 0u);
  header()->freeSlots = Quarn::noIndex;
  EXPECT_EQ(check(size - 1).rfind("SlotTable::Header::validate() bad shmem size:", 0), 0u);
  EXPECT_EQ(check(231).rfind("SlotTable::Header::validate() bad header file size: ", 0), 0u);
  EXPECT_EQ(check(size, 8).rfind("SlotTable::validate() bad fenix:", 0), 0u);
  EXPECT_EQ(check(size, 0), "ok");  // 0 accepts any fenix
  header()->version = 3;
  EXPECT_EQ(check(size).rfind("SlotTable::Header::validate() bad version: ", 0), 0u);
  header()->magic[0] = 'X';
  EXPECT_EQ(check(size).rfind("SlotTable::Header::validate() bad magic: ", 0), 0u);
}

TEST_F(SlotHeaderFixture, EmptySlotArrayAndNameLimits) {
  format(0);
  EXPECT_EQ(check(176 + slotSize), "ok");
  format(0, std::string(63, 'c'));
  EXPECT_EQ(check(176 + slotSize), "ok");
  EXPECT_EQ(
      failure<Jorv::RuntimeException>([&] { format(0, std::string(64, 'd')); }),
      "SlotTable::Header() class typename: " + std::string(64, 'd') + " exceeds 64 characters");
  EXPECT_EQ(std::string(header()->classTypeName), std::string(63, 'c'));  // nothing half-changed
}

TEST(QuarnLayout, BucketAndConquerHeaderChecks) {
  std::vector<std::uint64_t> storage(4096 / 8);
  char* base = reinterpret_cast<char*>(storage.data());
  std::string error;

  Quarn::BucketTable::Header::format(base, 10, 9);
  auto* bh = Quarn::BucketTable::header(base);
  EXPECT_TRUE(bh->validate(104, 0, error));  // 0 accepts any fenix
  EXPECT_FALSE(bh->validate(103, 9, error));
  EXPECT_EQ(error, "BucketTable::validate() bad shmem size:103 wanted:104 for 10 buckets");

  Quarn::ConquerTable::Header::format(base, 1, 5, 9);
  auto* ch = Quarn::ConquerTable::header(base);
  EXPECT_TRUE(ch->validate(116, 9, error)) << error;
  EXPECT_FALSE(ch->validate(116, 0, error));  // the fenix is always compared
  EXPECT_EQ(error, "ConquerTable::validate() bad fenix:9 wanted:0");
  EXPECT_FALSE(ch->validate(115, 9, error));
  EXPECT_EQ(error, "ConquerTable::validate() bad shmem size:115 wanted:116 for 5 notifications");
  ch->tableId = 2;
  EXPECT_FALSE(ch->validate(116, 9, error));
  EXPECT_EQ(error, "ConquerTable::validate() bad tableId:2");
}

}  // namespace
