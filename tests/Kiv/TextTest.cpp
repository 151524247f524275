// The text toolkit: the blank rule of patterns, the built-in readers and printers, and whole-text
// parsing.

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "Kiv/Text.h"

namespace {

using Kiv::String8;

std::string refusal(auto&& f) {
  try {
    f();
  } catch (Kiv::RangeException const& e) {
    return e.message();
  }
  return "accepted";
}

TEST(NeedString, BlankTakesAnyRunOfWhiteSpaceAndTheRestMatchesExactly) {
  for (char const* text : {"a:b", " a : b", "\t\n\r\v\fa:\n b"}) {
    String8 s(text);
    auto cursor = s.cbegin();
    Kiv::needString(cursor, s.cend(), " a : b");
    EXPECT_EQ(cursor, s.cend()) << text;
  }
  String8 s("a ;b");
  auto cursor = s.cbegin();
  EXPECT_EQ(refusal([&] { Kiv::needString(cursor, s.cend(), " a : b"); }),
            "expected \" a : b\" at ';b'");
  EXPECT_EQ(cursor, s.cbegin());  // nothing consumed on failure
  EXPECT_EQ(refusal([&] { Kiv::needString(cursor, s.cend(), "a ;b;"); }),
            "expected \"a ;b;\" at end of input");
}

TEST(TextReaders, BooleansIntegersAndStrings) {
  EXPECT_TRUE(Kiv::strepToValue<bool>("True"));
  EXPECT_FALSE(Kiv::strepToValue<bool>("false"));
  EXPECT_EQ(refusal([] { Kiv::strepToValue<bool>("TRUE"); }), "expected a Boolean at 'TRUE'");
  EXPECT_EQ(refusal([] { Kiv::strepToValue<bool>("Truex"); }), "expected a Boolean at 'Truex'");
  using I = std::int64_t;
  EXPECT_EQ(Kiv::strepToValue<I>("-9223372036854775808"), std::numeric_limits<I>::min());
  EXPECT_EQ(Kiv::strepToValue<I>("+9223372036854775807"), std::numeric_limits<I>::max());
  EXPECT_EQ(refusal([] { Kiv::strepToValue<I>("9223372036854775808"); }),
            "integer out of range at '9223372036854775'");
  EXPECT_EQ(refusal([] { Kiv::strepToValue<I>("-"); }), "expected an integer at '-'");
  EXPECT_EQ(refusal([] { Kiv::strepToValue<I>("12a"); }), "junk at column 2 deserializing 12a");
  EXPECT_EQ(Kiv::valueToStrep(std::uint32_t{4294967295u}), "4294967295");
  EXPECT_EQ(Kiv::valueToStrep(String8("it's\\\n\xff")), "'it\\'s\\\\\\x0a\\xff'");
  EXPECT_EQ(Kiv::strepToValue<String8>("\"a'b\\\"\""), "a'b\"");
  EXPECT_EQ(refusal([] { Kiv::strepToValue<String8>("'abc"); }), "unterminated string at '\\'abc'");
  EXPECT_EQ(refusal([] { Kiv::strepToValue<String8>("'\\q'"); }),
            "bad escape in string at '\\\\q\\''");
  EXPECT_EQ(refusal([] { Kiv::strepToValue<String8>("abc"); }),
            "expected a quoted string at 'abc'");
  std::mt19937 rng(5);
  for (int i = 0; i < 2000; ++i) {
    String8 s;
    for (unsigned n = rng() % 12; n > 0; --n) s += static_cast<char>(rng());
    ASSERT_EQ(Kiv::strepToValue<String8>(Kiv::valueToStrep(s)), s);
    auto v = static_cast<std::int64_t>((std::uint64_t{rng()} << 32) | rng());
    ASSERT_EQ(Kiv::strepToValue<std::int64_t>(Kiv::valueToStrep(v)), v);
  }
}

TEST(TextReaders, EveryDoubleRoundTripsThroughExtendedPrecision) {
  std::mt19937_64 rng(11);
  auto same = [](double a, double b) {
    return std::isnan(a) ? std::isnan(b) && std::signbit(a) == std::signbit(b)
                         : std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
  };
  for (int i = 0; i < 200000; ++i) {
    // Random bit patterns cover every exponent, subnormals, infinities and NaNs.
    double v = std::bit_cast<double>(rng());
    String8 text = Kiv::valueToStrep(v);
    ASSERT_TRUE(same(Kiv::strepToValue<double>(text), v)) << text;
  }
  EXPECT_EQ(Kiv::valueToStrep(1.5), "1.5");
  EXPECT_EQ(Kiv::valueToStrep(-0.0), "-0");
  EXPECT_EQ(Kiv::strepToValue<double>("0x1.8p+1"), 3.0);
  EXPECT_EQ(Kiv::strepToValue<double>("-Infinity"), -HUGE_VAL);
  EXPECT_EQ(refusal([] { Kiv::strepToValue<double>("1e400"); }), "number out of range at '1e400'");
  EXPECT_EQ(refusal([] { Kiv::strepToValue<double>("--1"); }), "expected a number at '--1'");
}

TEST(TextReaders, JunkNamesTheColumnAndTheWholeInput) {
  String8 text("True x\0y", 8);
  EXPECT_EQ(refusal([&] { Kiv::strepToValue<bool>(text); }),
            String8("junk at column 4 deserializing True x\0y", 39));
  EXPECT_EQ(Kiv::format("%s(%d)", "E", -3), "E(-3)");
}

}  // namespace
