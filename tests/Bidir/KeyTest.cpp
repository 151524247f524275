// GroupIntfKey ordering, equality and hashing; the join-state conversions.

#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <string>
#include <vector>

#include "Bidir/GroupIntfKey.h"
#include "Bidir/States.h"
#include "Kiv/Exception.h"
#include "Quarn/TestRecord.h"

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

// Both directions for every enumerator; names match exactly and case-sensitively. The two
// failures carry different texts on purpose: qualified for numbers, unqualified for names.
TEST(JoinStates, ConversionsAreExactAndUseTheirOwnErrorTexts) {
  struct Enumeration {
    std::vector<std::string> names;
    unsigned (*byValue)(unsigned);
    unsigned (*byName)(Kiv::String8 const&);
    char const* (*nameOf)(unsigned);
    std::string numberError, nameError;
  };
  Enumeration const enumerations[] = {
      {{"upNotJoined", "upJoined"},
       [](unsigned v) -> unsigned { return GroupStates::UpJoinStateInstance(v); },
       [](Kiv::String8 const& n) -> unsigned { return GroupStates::UpJoinStateInstance(n); },
       [](unsigned v) { return GroupStates::upJoinStateName(GroupStates::UpJoinState(v)); },
       "Group::UpJoinState", "UpJoinState"},
      {{"noInfo", "prunePending", "joined"},
       [](unsigned v) -> unsigned { return GroupIntfStates::JoinStateInstance(v); },
       [](Kiv::String8 const& n) -> unsigned { return GroupIntfStates::JoinStateInstance(n); },
       [](unsigned v) { return GroupIntfStates::joinStateName(GroupIntfStates::JoinState(v)); },
       "GroupIntf::JoinState", "JoinState"},
  };
  auto message = [](auto&& f) { return QuarnTest::failure<Kiv::RangeException>(f); };
  for (Enumeration const& e : enumerations) {
    unsigned const count = static_cast<unsigned>(e.names.size());
    for (unsigned v = 0; v < count; ++v) {
      std::string const& name = e.names[v];
      EXPECT_EQ(e.byValue(v), v);
      EXPECT_EQ(e.byName(name), v) << name;
      EXPECT_EQ(e.nameOf(v), name);
      std::string upper = name;
      upper[0] = static_cast<char>(upper[0] - 'a' + 'A');
      std::string lower = name;
      for (char& c : lower) c = static_cast<char>(std::tolower(c));
      for (std::string const& other : {upper, lower, name.substr(1), name.substr(0, name.size() - 1),
                                       name + "x", " " + name, name + " ", std::string()}) {
        if (other != name) {
          EXPECT_EQ(message([&] { e.byName(other); }), e.nameError) << other;
        }
      }
    }
    EXPECT_EQ(message([&] { e.byValue(count); }), e.numberError);
    EXPECT_EQ(e.nameOf(count), nullptr);
  }
}

}  // namespace
