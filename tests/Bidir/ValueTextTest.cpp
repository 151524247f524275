// Text forms of the Bidir value types: printed text, round trips of random values in printed and
// loose spellings, every refusal, and references to entities.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Bidir/ClearConfig.h"
#include "Bidir/GroupIntfKey.h"
#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Bidir/States.h"
#include "Bidir/Status.h"
#include "Kiv/EntityText.h"
#include "Kiv/Text.h"
#include "Quarn/TestRecord.h"

namespace {

using Kiv::String8;
using Lanx::IntfId;
using Lanx::IpGenAddr;
using namespace Routing::Pim::Bidir;
namespace Records = Routing::Pim::Bidir::Quarn;
using GroupKey = ClearConfig::GroupKey;
using Kiv::valueToStrep;

template <class T>
std::string refusalOf(String8 const& text) {
  return QuarnTest::failure<Kiv::RangeException>([&] { Kiv::strepToValue<T>(text); });
}

IpGenAddr randomAddr(std::mt19937& rng) {
  switch (rng() % 4) {
    case 0:
      return IpGenAddr();
    case 1:
      return IpGenAddr::ipv4Addr(static_cast<std::uint32_t>(rng()));
    default: {
      std::array<std::uint8_t, 16> b{};
      for (auto& x : b) x = rng() % 3 ? static_cast<std::uint8_t>(rng()) : 0;
      return IpGenAddr::ipv6Addr(b);
    }
  }
}

IntfId randomIntf(std::mt19937& rng) {
  static char const* const names[] = {
      "", "Ethernet1", "Ethernet3/1/2", "Vlan4094", "Port-Channel10", "Loopback0", "Management1"};
  return IntfId(names[rng() % std::size(names)]);
}

MrouteClearFlags randomFlags(std::mt19937& rng) {
  return MrouteClearFlags(static_cast<std::uint32_t>(rng() % 4));
}
GroupKey randomGroupKey(std::mt19937& rng) {
  return GroupKey(randomFlags(rng), randomAddr(rng));
}
GroupIntfKey randomGroupIntfKey(std::mt19937& rng) {
  return GroupIntfKey(randomAddr(rng), randomIntf(rng));
}
// Times in seconds as the agent records them, and now and then any finite double (records with
// a NaN never compare equal).
double randomTime(std::mt19937& rng) {
  if (rng() % 4) return static_cast<double>(rng() % 100000000) / 1000.0;
  std::uint64_t bits = std::uint64_t{rng()} << 32 | rng();
  std::uint64_t const exponent = 0x7ffull << 52;
  return std::bit_cast<double>((bits & ~exponent) | (std::uint64_t{rng() % 0x7ff} << 52));
}
Records::Group randomGroup(std::mt19937& rng) {
  Records::Group g;
  g.key = randomAddr(rng);
  g.creationTime = randomTime(rng);
  g.upJoinState = static_cast<GroupStates::UpJoinState>(rng() % 2);
  g.inactive = rng() % 2;
  return g;
}
Records::GroupIntf randomGroupIntf(std::mt19937& rng) {
  Records::GroupIntf g;
  g.key = randomGroupIntfKey(rng);
  g.forward = rng() % 2;
  g.joinState = static_cast<GroupIntfStates::JoinState>(rng() % 3);
  g.lastJoinReceived = randomTime(rng);
  g.localReceiverInclude = rng() % 2;
  g.iAmDf = rng() % 2;
  return g;
}

// A loose spelling of a structured value: random white space wherever a blank is allowed, the
// attributes shuffled, those at their default left out, and decoy occurrences with other values
// in front of the real ones (the last occurrence wins). Nested values are spelt loosely too.
struct Loose {
  std::mt19937& rng;

  std::string ws() {
    static char const blanks[] = " \t\n\r\v\f";
    std::string s;
    for (unsigned n = rng() % 3; n > 0; --n) s += blanks[rng() % 6];
    return s;
  }
  template <class T>
  std::string text(T const& v) {
    if constexpr (requires { T::attributes(); }) {
      return structured(v);
    } else {
      return valueToStrep(v);
    }
  }
  template <class V>
  std::string structured(V const& v) {
    std::vector<std::string> decoys, real;
    std::apply(
        [&](auto const&... a) {
          auto one = [&](auto const& attr) {
            if constexpr (std::remove_cvref_t<decltype(attr)>::writable()) {
              auto entry = [&](auto const& x) {
                return "'" + std::string(attr.decl.name) + "'" + ws() + ":" + ws() + text(x);
              };
              if (attr.get(v) == attr.get(V())) return;
              real.push_back(entry(attr.get(v)));
              if (rng() % 2) decoys.push_back(entry(attr.get(decoy<V>())));
            }
          };
          (one(a), ...);
        },
        V::attributes());
    std::shuffle(real.begin(), real.end(), rng);
    decoys.insert(decoys.end(), real.begin(), real.end());
    std::string out = ws() + "Value" + ws() + "(" + ws() + "'" + V::typeName + "'" + ws() + "," +
                      ws() + "**" + ws() + "{" + ws();
    for (std::size_t i = 0; i < decoys.size(); ++i) {
      out += (i ? ws() + "," + ws() : std::string()) + decoys[i];
    }
    return out + ws() + "}" + ws() + ")" + ws();
  }
  template <class V>
  V decoy() {
    if constexpr (std::is_same_v<V, MrouteClearFlags>) return randomFlags(rng);
    if constexpr (std::is_same_v<V, GroupKey>) return randomGroupKey(rng);
    if constexpr (std::is_same_v<V, GroupIntfKey>) return randomGroupIntfKey(rng);
    if constexpr (std::is_same_v<V, Records::Group>) return randomGroup(rng);
    if constexpr (std::is_same_v<V, Records::GroupIntf>) return randomGroupIntf(rng);
  }
};

template <class T>
void expectRoundTrips(T const& v, Loose& loose) {
  String8 const text = valueToStrep(v);
  ASSERT_EQ(Kiv::strepToValue<T>(text), v) << text;
  std::ostringstream os;
  os << v;
  EXPECT_EQ(os.str(), text);
  std::string const spelt = loose.text(v);
  ASSERT_EQ(Kiv::strepToValue<T>(spelt), v) << spelt;
}

TEST(ValueText, PrintedFormsAreExact) {
  EXPECT_EQ(valueToStrep(MrouteClearFlags(2)),
            "Value('Routing::Pim::Bidir::MrouteClearFlags', ** {'clearAll': False, "
            "'clearGroup': True, 'value': 2})");
  EXPECT_EQ(valueToStrep(GroupKey(MrouteClearFlags(1), IpGenAddr("239.1.1.1"))),
            "Value('Routing::Pim::Bidir::ClearConfig::GroupKey', ** {'flags': "
            "Value('Routing::Pim::Bidir::MrouteClearFlags', ** {'clearAll': True, "
            "'clearGroup': False, 'value': 1}), 'gAddr': 239.1.1.1})");
  EXPECT_EQ(valueToStrep(GroupIntfKey(IpGenAddr("ff0e::1"), IntfId("Ethernet3/1"))),
            "Value('Routing::Pim::Bidir::GroupIntfKey', ** {'groupAddr': ff0e::1, "
            "'intfId': Ethernet3/1})");
  Records::GroupIntf record;
  record.key = GroupIntfKey(IpGenAddr("239.1.1.1"), IntfId("Vlan1"));
  record.joinState = GroupIntfStates::joined;
  record.lastJoinReceived = 3.25;
  record.iAmDf = true;
  EXPECT_EQ(valueToStrep(record),
            "Value('Routing::Pim::Bidir::Quarn::GroupIntf', ** {'key': "
            "Value('Routing::Pim::Bidir::GroupIntfKey', ** {'groupAddr': 239.1.1.1, 'intfId': "
            "Vlan1}), 'forward': False, 'joinState': 'joined', 'lastJoinReceived': 3.25, "
            "'localReceiverInclude': False, 'iAmDf': True})");
  EXPECT_EQ(valueToStrep(Records::Group()),
            "Value('Routing::Pim::Bidir::Quarn::Group', ** {'key': , 'creationTime': 0, "
            "'upJoinState': 'upNotJoined', 'inactive': False})");
  EXPECT_EQ(valueToStrep(GroupIntfStates::joined), "'joined'");
  EXPECT_EQ(stringValue(GroupStates::upJoined), "upJoined");
  EXPECT_EQ(stringValue(static_cast<GroupIntfStates::JoinState>(7)), "GroupIntf::JoinState(7)");
  EXPECT_EQ(stringValue(static_cast<GroupStates::UpJoinState>(-2)), "Group::UpJoinState(-2)");
  std::ostringstream os;
  os << GroupIntfStates::prunePending << ' ' << GroupStates::upNotJoined;
  EXPECT_EQ(os.str(), "prunePending upNotJoined");
}

TEST(ValueText, RandomValuesRoundTripInPrintedAndLooseSpellings) {
  std::mt19937 rng(2024);
  Loose loose{rng};
  for (int i = 0; i < 2000; ++i) {
    expectRoundTrips(randomFlags(rng), loose);
    expectRoundTrips(randomGroupKey(rng), loose);
    expectRoundTrips(randomGroupIntfKey(rng), loose);
    expectRoundTrips(randomGroup(rng), loose);
    expectRoundTrips(randomGroupIntf(rng), loose);
    auto up = static_cast<GroupStates::UpJoinState>(rng() % 2);
    auto join = static_cast<GroupIntfStates::JoinState>(rng() % 3);
    ASSERT_EQ(Kiv::strepToValue<GroupStates::UpJoinState>(valueToStrep(up)), up);
    ASSERT_EQ(Kiv::strepToValue<GroupIntfStates::JoinState>(valueToStrep(join)), join);
  }
}

TEST(ValueText, AttributesApplyInTheOrderTheyCome) {
  String8 const head = "Value('Routing::Pim::Bidir::MrouteClearFlags', ** {";
  auto flags = [&](String8 const& body) {
    return Kiv::strepToValue<MrouteClearFlags>(head + body + "})").value();
  };
  EXPECT_EQ(flags(""), 0u);
  EXPECT_EQ(flags("'value': 1, 'clearGroup': True"), 3u);
  EXPECT_EQ(flags("'clearGroup': True, 'value': 1"), 1u);
  // The word keeps the low 32 bits of the integer, and is checked once, at the end.
  EXPECT_EQ(flags("'value': 4294967297"), 1u);
  EXPECT_EQ(flags("'value': 4, 'value': 2"), 2u);
  EXPECT_EQ(flags("'value': -4294967295"), 1u);
  // A key with only its address: the empty interface.
  auto key = Kiv::strepToValue<GroupIntfKey>(
      "Value('Routing::Pim::Bidir::GroupIntfKey', ** {'groupAddr': '239.1.1.1'}) \n");
  EXPECT_EQ(key, GroupIntfKey(IpGenAddr("239.1.1.1"), IntfId("")));
}

TEST(ValueText, EveryRefusalIsReachedByAMinimalText) {
  String8 const flags = "Value('Routing::Pim::Bidir::MrouteClearFlags', ** {";
  String8 const groupKey = "Value('Routing::Pim::Bidir::ClearConfig::GroupKey', ** {";
  String8 const intfKey = "Value('Routing::Pim::Bidir::GroupIntfKey', ** {";
  String8 const group = "Value('Routing::Pim::Bidir::Quarn::Group', ** {";
  String8 const groupIntf = "Value('Routing::Pim::Bidir::Quarn::GroupIntf', ** {";
  EXPECT_EQ(refusalOf<Records::Group>(group + "'key': 10.0.0.1 "),
            "premature end of value type Group");
  EXPECT_EQ(refusalOf<Records::Group>(group + "'groupAddr': 1})"),
            "Group has no such attribute: groupAddr");
  EXPECT_EQ(refusalOf<Records::GroupIntf>(groupIntf + "'IAmDf': True})"),
            "GroupIntf has no such attribute: IAmDf");
  EXPECT_EQ(refusalOf<Records::GroupIntf>(groupIntf + "'key': " + intfKey + "'intfId': Vlan0})})"),
            "attribute 'key': attribute 'intfId': invalid interface name: 'Vlan0'");
  EXPECT_EQ(refusalOf<Records::Group>(group + "'upJoinState': 'joined'})"),
            "attribute 'upJoinState': UpJoinState");
  EXPECT_EQ(refusalOf<Records::GroupIntf>(groupIntf + "'lastJoinReceived': 1e999})"),
            "attribute 'lastJoinReceived': number out of range at '1e999})'");
  EXPECT_EQ(refusalOf<MrouteClearFlags>(flags), "premature end of value type MrouteClearFlags");
  EXPECT_EQ(refusalOf<GroupIntfKey>(intfKey + "'groupAddr': 1.2.3.4"),
            "premature end of value type GroupIntfKey");
  EXPECT_EQ(refusalOf<MrouteClearFlags>(flags + "'Value': 1})"),
            "MrouteClearFlags has no such attribute: Value");
  // Computed attributes are not text attributes.
  EXPECT_EQ(refusalOf<GroupIntfKey>(intfKey + "'hash': 1})"),
            "GroupIntfKey has no such attribute: hash");
  EXPECT_EQ(refusalOf<MrouteClearFlags>(flags + "'value': 4})"),
            "MrouteClearFlags::value > 0x3 not allowed");
  EXPECT_EQ(refusalOf<GroupKey>(groupKey + "'flags': " + flags + "'value': 4})})"),
            "attribute 'flags': MrouteClearFlags::value > 0x3 not allowed");
  EXPECT_EQ(refusalOf<GroupKey>(groupKey + "'gAddr': 1.2.3})"),
            "attribute 'gAddr': invalid IPv4 address: '1.2.3'");
  EXPECT_EQ(refusalOf<MrouteClearFlags>(flags + "'clearAll': 1})"),
            "attribute 'clearAll': expected a Boolean at '1})'");
  EXPECT_EQ(refusalOf<GroupIntfStates::JoinState>("'Joined'"), "JoinState");
  EXPECT_EQ(refusalOf<GroupStates::UpJoinState>("'upjoined'"), "UpJoinState");
  // The numbered fallback name prints but does not read back.
  EXPECT_EQ(refusalOf<GroupIntfStates::JoinState>(
                valueToStrep(static_cast<GroupIntfStates::JoinState>(7))),
            "JoinState");
  String8 const junk = valueToStrep(MrouteClearFlags(1)) + "  x";
  EXPECT_EQ(refusalOf<MrouteClearFlags>(junk),
            "junk at column " + std::to_string(junk.size() - 1) + " deserializing " + junk);
  EXPECT_EQ(refusalOf<GroupIntfStates::JoinState>("'joined' ,"),
            "junk at column 8 deserializing 'joined' ,");
  // A comma before the closing brace: no name follows it.
  EXPECT_EQ(refusalOf<MrouteClearFlags>(flags + "'clearAll': True, })"),
            "expected a quoted string at '})'");
  EXPECT_EQ(refusalOf<MrouteClearFlags>(flags + "'clearAll': True 'value': 1})"),
            "expected \", \" at '\\'value\\': 1})'");
  EXPECT_EQ(refusalOf<GroupKey>(flags + "})"),
            "expected \" 'Routing::Pim::Bidir::ClearConfig::GroupKey'\" at 'MrouteClearFlags'");
  EXPECT_EQ(refusalOf<GroupIntfKey>("Value('Routing::Pim::Bidir::GroupIntfKey', {})"),
            "expected \" **\" at '{})'");
  EXPECT_EQ(refusalOf<GroupIntfKey>(intfKey + "'intfId' Vlan1})"), "expected \" : \" at 'Vlan1})'");
  // A refused parse changes nothing that already held a value.
  GroupKey held(MrouteClearFlags(2), IpGenAddr("239.1.1.1"));
  EXPECT_THROW(held = Kiv::strepToValue<GroupKey>(groupKey + "'gAddr': 10.0.0.1, 'x': 1})"),
               Kiv::RangeException);
  EXPECT_EQ(held, GroupKey(MrouteClearFlags(2), IpGenAddr("239.1.1.1")));
}

TEST(ValueText, EntityReferencesResolveOnlyToLiveEntitiesOfTheirType) {
  auto status = statusFactory("vrf1");
  auto group = status->groupIs(IpGenAddr("239.1.1.1"));
  String8 const text = Kiv::valueToStrep(status);
  EXPECT_TRUE(text.starts_with("Ref('Routing::Pim::Bidir::Status', 0x")) << text;
  EXPECT_EQ(Kiv::strepToValue<Kiv::Ptr<Status>>(text), status);
  EXPECT_EQ(Kiv::strepToValue<Kiv::Ptr<Status const>>(" " + text), status);
  EXPECT_EQ(Kiv::strepToValue<Kiv::Ptr<Group>>(Kiv::valueToStrep(group)), group);
  EXPECT_EQ(Kiv::strepToValue<Kiv::Ptr<Group>>(""), nullptr);
  EXPECT_EQ(Kiv::valueToStrep(Kiv::Ptr<Group>()), "");
  EXPECT_EQ(refusalOf<Kiv::Ptr<Group>>(text), "cannot convert " +
                                                  Kiv::excerpt(text.cbegin(), text.cend()) +
                                                  " to Routing::Pim::Bidir::Group");
  // A type name that does not match the entity at the address, and an entity that has gone.
  String8 forged = text;
  forged.replace(5, 27, "Routing::Pim::Bidir::Group");
  EXPECT_TRUE(refusalOf<Kiv::Ptr<Group>>(forged).starts_with("no live entity")) << forged;
  String8 const groupText = Kiv::valueToStrep(group);
  status->groupDelAll();
  group = nullptr;
  EXPECT_TRUE(refusalOf<Kiv::Ptr<Group>>(groupText).starts_with("no live entity 'Routing"));
  EXPECT_EQ(refusalOf<Kiv::Ptr<Group>>("x"), "junk at column 0 deserializing x");
}

}  // namespace
