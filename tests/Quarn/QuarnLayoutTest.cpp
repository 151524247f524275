// The files of a fresh table, byte by byte at their offsets, and the header checks that every side
// applies before trusting a file.

#include <gtest/gtest.h>

#include <cmath>

#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Mem/Shared.h"
#include "Quarn/Hash.h"
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

// Expects the 32-bit words of `bytes` given as offset, value, offset, value, ...
void expectWords(std::vector<unsigned char> const& bytes, std::vector<std::uint32_t> const& words) {
  for (std::size_t i = 0; i + 1 < words.size(); i += 2) {
    EXPECT_EQ(at(bytes, words[i]), words[i + 1]) << "at " << words[i];
  }
}

TEST(QuarnLayout, FreshGroupTableFiles) {
  TempRoot root;
  Quarn::QuarnWriter<Lanx::IpGenAddr, GroupWrapper> w(dh(), "group", 5000, false, "Group", nullptr,
                                                      root.path());
  w.attach();
  std::string const dir = root.path() + "/group";
  std::size_t const page = Mem::pageSize();
  std::uint32_t const numSlots = static_cast<std::uint32_t>((page - 232) / 56);
  std::uint32_t const fenix = Quarn::FenixFile::read(dir);
  ASSERT_NE(fenix, 0u);
  EXPECT_EQ(w.fenix(), fenix);

  auto s = fileBytes(dir + "/slots");
  ASSERT_EQ(s.size(), 176 + 56 * (numSlots + 1u));
  EXPECT_EQ(std::string(s.begin(), s.begin() + 8), "QUARNSLT");
  EXPECT_STREQ(reinterpret_cast<char const*>(&s[16]), "Routing::Pim::Bidir::Quarn::Group");
  EXPECT_STREQ(reinterpret_cast<char const*>(&s[80]), "Group");
  std::uint32_t const h4 = 36, h5 = 56, h6 = 5000;
  std::uint32_t const checksum = Quarn::Util::hash(&s[16], 64) + Quarn::Util::hash(&s[80], 64) +
                                 Quarn::Util::hash(&h4, 4) + Quarn::Util::hash(&h5, 4) +
                                 Quarn::Util::hash(&h6, 4);
  // Version, fenix, value and slot sizes, configured size, checksum, occupiedSlots, freeSlots (slot
  // 0 heads the free list), numSlots; the lookaside slot's link untouched.
  expectWords(s, {8,   4,        12,  fenix, 144, 36, 148, 56,       152,     5000,
                  156, checksum, 160, 0,     164, 0,  172, numSlots, 176 + 4, Quarn::noIndex});
  // Array slots chained in ascending order with version 1.
  for (std::uint32_t i = 0; i < numSlots; ++i) {
    std::size_t const off = 232 + 56 * std::size_t(i);
    ASSERT_EQ(at(s, off), 1u) << i;
    ASSERT_EQ(at(s, off + 4), i + 1 < numSlots ? i + 1 : Quarn::noIndex) << i;
    ASSERT_EQ(at(s, off + 8), Quarn::noIndex) << i;
    ASSERT_EQ(at(s, off + 12), 0u) << i;
  }

  auto b = fileBytes(dir + "/buckets");
  std::uint32_t const numBuckets =
      10000 + static_cast<std::uint32_t>((Mem::roundUpToWholePage(24 + 16 * 5000) - 80024) / 8);
  EXPECT_EQ(b.size(), 24 + 8 * std::size_t(numBuckets));
  EXPECT_EQ(b.size() % page, 0u);
  EXPECT_EQ(std::string(b.begin(), b.begin() + 8), "QUARNBKT");
  expectWords(b, {8, 1, 12, fenix, 16, numBuckets, 20, std::uint32_t(::getpid())});
  EXPECT_EQ(at<std::uint64_t>(b, 24 + 8 * 77), Mem::Atomics::pack(0, Quarn::noIndex));

  std::uint32_t const capacity = static_cast<std::uint32_t>((page - 56) / 12);
  for (std::uint32_t id = 0; id < 2; ++id) {
    auto c = fileBytes(dir + (id == 0 ? "/conquer.1" : "/conquer.2"));
    ASSERT_EQ(c.size(), 56 + 12 * std::size_t(capacity));
    EXPECT_EQ(std::string(c.begin(), c.begin() + 8), "QUARNCQR");
    EXPECT_EQ(at<std::uint64_t>(c, 16), 0u);  // minSeq
    // Version, fenix, numReaders, currentTable, table id, its version, capacity, position.
    expectWords(c, {8, 6, 12, fenix, 24, 0, 32, 0, 36, id, 40, 1, 44, capacity, 48, 0});
  }

  // One insert: the slot at the head of the free list, its entry (sequence 1) at offset 52.
  BQ::Group g;
  g.key = Lanx::IpGenAddr::ipv4Addr(0xef000001);
  g.creationTime = 2.5;
  g.inactive = true;
  w.write(g);
  s = fileBytes(dir + "/slots");
  // occupied, free head, the slot's conquerSlot and flags (OCCUPIED, one write of the counter).
  expectWords(s, {160, 1, 164, 1, 232 + 8, 0, 232 + 12, 5});
  EXPECT_EQ(at<double>(s, 232 + 16 + 20), 2.5);
  EXPECT_EQ(at<std::uint8_t>(s, 232 + 16 + 32), 1u);
  b = fileBytes(dir + "/buckets");
  std::uint32_t const bucket = g.key.hash() % numBuckets;
  EXPECT_EQ(at<std::uint64_t>(b, 24 + 8 * std::size_t(bucket)), Mem::Atomics::pack(1, 0));
  auto c = fileBytes(dir + "/conquer.1");
  EXPECT_EQ(at(c, 48), 1u);
  EXPECT_EQ(at<std::uint64_t>(c, 52), 1u);
  EXPECT_EQ(at(c, 60), 0u);
  EXPECT_TRUE(w.validateFiles());
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
