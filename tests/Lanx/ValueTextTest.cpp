// Text forms of the network value types: round trips, canonical printing, refusal of bad text.

#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "Kiv/Exception.h"
#include "L3/VrfName.h"
#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"
#include "Lanx/IpGenPrefix.h"

namespace {

using Lanx::IntfId;
using Lanx::IpGenAddr;
using Lanx::IpGenPrefix;

TEST(IpGenAddrText, SpellingsPrintCanonicallyAndRoundTrip) {
  for (char const* text : {"239.1.1.1", "0.0.0.0", "255.255.255.255", "ff0e::1", "::", "::1",
                           "2001:db8::1:0:0:1", "2001:0:0:1::1", "1::", "::ffff:10.1.2.3",
                           "fe80::1:2:3:4:5", "fe80:0:1:2:3:4:5:6", "1:2:3:4:5:6:7:8", ""}) {
    EXPECT_EQ(IpGenAddr(text).toString(), text);
  }
  std::pair<char const*, char const*> const loose[] = {
      {"FF0E:0000:0::0001", "ff0e::1"},
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},         // first run wins
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},      // lone 0 kept
      {"::1.2.3.4", "::102:304"}};
  for (auto const& [text, canonical] : loose) EXPECT_EQ(IpGenAddr(text).toString(), canonical);
}

// Every text must be refused with a RangeException whose message quotes the text.
template <class T>
void expectRefused(std::initializer_list<char const*> texts) {
  for (char const* text : texts) {
    try {
      T value(text);
      ADD_FAILURE() << "accepted '" << text << "' as " << value;
    } catch (Kiv::RangeException const& e) {
      EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
    }
  }
}

TEST(IpGenAddrText, BadTextIsRefusedWithTheTextNamed) {
  expectRefused<IpGenAddr>({"1.2.3", "1.2.3.4.5", "256.1.1.1", "01.2.3.4", "1.2.3.-4", "a.b.c.d",
                            ":::", "1::2::3", "1:2:3:4:5:6:7:8:9", "1:2:3:4:5:6:7::8",
                            "12345::", ":1::", "1:", "g::1", "::1.2.3", "1.2.3.4 "});
}

TEST(IpGenAddrLayout, Ipv4SitsInTheFirstFourBytes) {
  IpGenAddr a("239.1.1.1");
  EXPECT_EQ(a.family(), IpGenAddr::ipv4);
  EXPECT_EQ(a.ipv4HostOrder(), 0xef010101u);
  EXPECT_EQ(a, IpGenAddr::ipv4Addr(0xef010101u));
  for (int i = 4; i < 16; ++i) EXPECT_EQ(a.bytes()[i], 0);
  // Family orders first: every IPv4 address is below every IPv6 address.
  EXPECT_LT(IpGenAddr("255.255.255.255"), IpGenAddr("::"));
  EXPECT_LT(IpGenAddr(), IpGenAddr("0.0.0.0"));
}

TEST(IntfIdText, NamesRoundTripAndOrderNaturally) {
  for (char const* name : {"Ethernet1", "Ethernet3/1", "Ethernet3/1/2", "Ethernet1023/1023/1023",
                           "Vlan1", "Vlan4094", "Port-Channel10", "Loopback0", "Management1", ""}) {
    EXPECT_EQ(IntfId(name).name(), name);
  }
  EXPECT_TRUE(IntfId("").isDefault());
  EXPECT_EQ(IntfId(""), IntfId());
  EXPECT_LT(IntfId("Ethernet3"), IntfId("Ethernet3/1"));
  EXPECT_LT(IntfId("Ethernet3/1"), IntfId("Ethernet3/2"));
  EXPECT_LT(IntfId("Ethernet3/2"), IntfId("Ethernet4"));
  EXPECT_LT(IntfId("Ethernet9"), IntfId("Ethernet10"));
  EXPECT_NE(IntfId("Vlan5"), IntfId("Loopback5"));
  EXPECT_NE(IntfId("Vlan5").hash(), IntfId("Loopback5").hash());
}

TEST(IntfIdText, UnknownOrOutOfRangeNamesAreRefused) {
  expectRefused<IntfId>({"Ethernet", "Ethernet0", "Ethernet1024", "Ethernet1/2/3/4", "Ethernet1/",
                         "Ethernet01", "ethernet1", "Vlan0", "Vlan4095", "Tunnel1", "Loopback-1",
                         "Port-Channel", "Management1x", " Vlan1"});
}

TEST(IpGenPrefixText, MasksHostBitsAndRoundTrips) {
  EXPECT_EQ(IpGenPrefix("10.1.2.3/8").toString(), "10.0.0.0/8");
  EXPECT_EQ(IpGenPrefix("ff0e::1/16").toString(), "ff0e::/16");
  EXPECT_EQ(IpGenPrefix("10.1.2.3/31").toString(), "10.1.2.2/31");
  EXPECT_EQ(IpGenPrefix(IpGenAddr("239.1.1.1")).toString(), "239.1.1.1/32");
  EXPECT_EQ(IpGenPrefix(IpGenAddr("ff0e::1")).length(), 128u);
  EXPECT_EQ(IpGenPrefix("239.1.1.1"), IpGenPrefix(IpGenAddr("239.1.1.1")));
  EXPECT_TRUE(IpGenPrefix("10.0.0.0/8").contains(IpGenAddr("10.9.9.9")));
  EXPECT_FALSE(IpGenPrefix("10.0.0.0/8").contains(IpGenAddr("11.0.0.0")));
  for (char const* text : {"10.0.0.0/33", "::/129", "10.0.0.0/", "/8", "10.0.0.0/a"}) {
    EXPECT_THROW(IpGenPrefix{text}, Kiv::RangeException) << text;
  }
  EXPECT_THROW(IpGenPrefix(IpGenAddr(), 1), Kiv::RangeException);
}

TEST(LanxSequenceToValue, ReadsBareAndQuotedTokens) {
  Kiv::String8 text("'ff0e::1', Ethernet3/1}");
  auto cursor = text.cbegin();
  EXPECT_EQ(Lanx::sequenceToValue(cursor, text.cend(), static_cast<IpGenAddr const*>(nullptr)),
            IpGenAddr("ff0e::1"));
  EXPECT_EQ(*cursor, ',');
  cursor += 2;
  EXPECT_EQ(Lanx::sequenceToValue(cursor, text.cend(), static_cast<IntfId const*>(nullptr)),
            IntfId("Ethernet3/1"));
  EXPECT_EQ(*cursor, '}');
  Kiv::String8 open("'1.2.3.4");
  auto c2 = open.cbegin();
  EXPECT_THROW(Lanx::sequenceToValue(c2, open.cend(), static_cast<IpGenAddr const*>(nullptr)),
               Kiv::RangeException);
}

TEST(VrfName, AtMostOneHundredBytes) {
  std::string const longest(100, 'v');
  EXPECT_EQ(L3::VrfName(longest).string(), longest);
  try {
    L3::VrfName name(longest + "x");
    ADD_FAILURE() << "accepted 101 bytes";
  } catch (Kiv::RangeException const& e) {
    EXPECT_STREQ(e.what(), "VrfName::bytes > 100 not allowed");
  }
}

TEST(IpGenAddrText, RandomIpv6AddressesRoundTripThroughCanonicalText) {
  std::mt19937 rng(7);
  for (int i = 0; i < 5000; ++i) {
    std::array<std::uint8_t, 16> bytes{};
    // Groups are zero half of the time, so runs of zeros of every length and position occur.
    for (int g = 0; g < 8; ++g) {
      if (rng() % 2) continue;
      bytes[2 * g] = static_cast<std::uint8_t>(rng() % 3 == 0 ? 0 : rng());
      bytes[2 * g + 1] = static_cast<std::uint8_t>(rng());
    }
    auto addr = IpGenAddr::ipv6Addr(bytes);
    std::string text = addr.toString();
    ASSERT_EQ(IpGenAddr(text), addr) << text;
    EXPECT_EQ(text.find(":::"), std::string::npos) << text;
    EXPECT_LE(text.size(), 39u) << text;
  }
}

}  // namespace
