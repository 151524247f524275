// GroupIntfKey ordering, equality and hashing; the join-state conversions.

#include <gtest/gtest.h>

#include <random>

#include "Bidir/GroupIntfKey.h"
#include "Bidir/States.h"
#include "Kiv/Exception.h"

namespace {

using Lanx::IntfId;
using Lanx::IpGenAddr;
using Routing::Pim::Bidir::GroupIntfKey;
using Routing::Pim::Bidir::GroupIntfStates;
using Routing::Pim::Bidir::GroupStates;

// Keys drawn from a small universe so that equal addresses and equal interfaces are frequent.
GroupIntfKey randomKey(std::mt19937& rng) {
  static char const* const addrs[] = {"", "239.1.1.1", "239.1.1.2", "ff0e::1", "::ef01:101", "::"};
  static char const* const intfs[] = {"", "Ethernet1", "Ethernet3/1", "Vlan100", "Loopback0"};
  return GroupIntfKey(IpGenAddr(addrs[rng() % std::size(addrs)]),
                      IntfId(intfs[rng() % std::size(intfs)]));
}

TEST(GroupIntfKey, OperatorsAgreeWithEachOtherAndWithFieldOrder) {
  std::mt19937 rng(12345);
  for (int i = 0; i < 5000; ++i) {
    GroupIntfKey a = randomKey(rng), b = randomKey(rng);
    int holds = (a < b) + (a == b) + (a > b);
    ASSERT_EQ(holds, 1);
    EXPECT_EQ(a != b, !(a == b));
    EXPECT_EQ(a <= b, a < b || a == b);
    EXPECT_EQ(a >= b, a > b || a == b);
    EXPECT_EQ(a<b, b> a);
    // Lexicographic, address first.
    bool expected =
        a.groupAddr() != b.groupAddr() ? a.groupAddr() < b.groupAddr() : a.intfId() < b.intfId();
    EXPECT_EQ(a < b, expected);
    if (a == b) {
      EXPECT_EQ(a.hash(), b.hash());
    }
  }
}

TEST(GroupIntfKey, UnsetKeyAndFamilyBlindHash) {
  EXPECT_TRUE(!GroupIntfKey());
  EXPECT_FALSE(!GroupIntfKey(IpGenAddr("239.1.1.1"), IntfId()));
  EXPECT_FALSE(!GroupIntfKey(IpGenAddr(), IntfId("Vlan1")));
  // 239.1.1.1 stored in the first four bytes coincides with the IPv6 address ef01:101::.
  GroupIntfKey v4(IpGenAddr("239.1.1.1"), IntfId("Ethernet1"));
  GroupIntfKey v6(IpGenAddr("ef01:101::"), IntfId("Ethernet1"));
  EXPECT_EQ(v4.groupAddr().bytes(), v6.groupAddr().bytes());
  EXPECT_EQ(v4.hash(), v6.hash());
  EXPECT_NE(v4, v6);
  EXPECT_EQ(v4.hash(),
            Lanx::Ip6Addr::hash(v4.groupAddr().bytes().data()) ^ IntfId("Ethernet1").hash());
}

TEST(JoinStates, NumericAndNameConversionsUseTheirOwnErrorTexts) {
  EXPECT_EQ(GroupStates::UpJoinStateInstance(1u), GroupStates::upJoined);
  EXPECT_EQ(GroupIntfStates::JoinStateInstance(2u), GroupIntfStates::joined);
  EXPECT_EQ(GroupIntfStates::JoinStateInstance(Kiv::String8("prunePending")),
            GroupIntfStates::prunePending);
  auto message = [](auto&& f) -> std::string {
    try {
      f();
    } catch (Kiv::RangeException const& e) {
      return e.what();
    }
    return "no exception";
  };
  EXPECT_EQ(message([] { GroupStates::UpJoinStateInstance(2u); }), "Group::UpJoinState");
  EXPECT_EQ(message([] { GroupIntfStates::JoinStateInstance(3u); }), "GroupIntf::JoinState");
  EXPECT_EQ(message([] { GroupStates::UpJoinStateInstance(Kiv::String8("UpJoined")); }),
            "UpJoinState");
  EXPECT_EQ(message([] { GroupIntfStates::JoinStateInstance(Kiv::String8("Joined")); }),
            "JoinState");
}

}  // namespace
