// The type registry's framework side: run-once registration that waits for an active reactor,
// definitions that a second registration leaves alone, handles that resolve once a type is
// defined, and the conversions a generic write relies on.

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>

#include "Kiv/GenericAttribute.h"
#include "Kiv/Type.h"
#include "Kiv/Value.h"

namespace {

struct Point {
  static constexpr char const* typeName = "Test::Introspection::Point";
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::int32_t sum() const { return x + y; }
  static constexpr auto attributes() {
    return std::tuple{Kiv::field<&Point::x>("x", 2, "I32"), Kiv::field<&Point::y>("y", 3, "I32"),
                      Kiv::property<&Point::sum>("sum", 4, "I32", Kiv::AttributeKind::computed)};
  }
};

int gDefinitions = 0;
void definePoint(Kiv::IntrospectionReactor& r) {
  ++gDefinitions;
  r.namespaceOpen("Test");
  r.namespaceOpen("Introspection");
  EXPECT_EQ(r.currentNamespace(), "Test::Introspection");
  Kiv::valueDefine(r, Kiv::typeIs(Point::typeName), Point::attributes());
  r.namespaceClose();
  r.namespaceClose();
}
Kiv::SchemaRegistration gSchema{&definePoint};

TEST(Introspection, RegistrationRunsOnceAndOnlyWithAnActiveReactor) {
  Kiv::IntrospectionReactor* const previous = Kiv::introspectionReactor();
  Kiv::introspectionReactorIs(nullptr);
  auto const& point = Kiv::fwkTypeOf<Point>(Point::typeName, [] { gSchema.run(); });
  Kiv::AttributeHandle handle(point, "y");
  Kiv::IntrospectionReactor reactor;
  Kiv::introspectionReactorIs(&reactor);
  gSchema.run();  // installed but not active: still deferred
  EXPECT_FALSE(gSchema.hasRun());
  EXPECT_TRUE(point.inUse() && point.attributes().empty() && handle.descriptor() == nullptr);

  reactor.activeIs(true);
  EXPECT_EQ(&Kiv::fwkTypeOf<Point>(Point::typeName, [] { gSchema.run(); }), &point);
  gSchema.run();
  EXPECT_EQ(gDefinitions, 1);
  EXPECT_EQ(point.kind(), Kiv::TypeKind::value);
  ASSERT_EQ(point.attributes().size(), 3u);
  EXPECT_EQ(handle.descriptor(), point.attribute("y"));
  EXPECT_EQ(point.attribute("sum")->flags, 0x20001u);
  EXPECT_EQ(point.attribute(4)->type, Kiv::type("I32"));

  // Defining the type again (another registration reaching it) changes nothing.
  definePoint(reactor);
  EXPECT_EQ(point.attributes().size(), 3u);
  Kiv::introspectionReactorIs(previous);
}

TEST(Introspection, ValueConversionsKeepNumbersInRangeAndReadText) {
  Kiv::Value const big(std::int64_t{70000}), negative(std::int64_t{-1}), text(true);
  EXPECT_EQ(big.to<std::uint32_t>(), 70000u);
  EXPECT_FALSE(big.to<std::uint16_t>());
  EXPECT_FALSE(negative.to<std::uint64_t>());
  EXPECT_EQ(negative.to<std::int8_t>(), -1);
  EXPECT_EQ(text.to<bool>(), true);
  // No numeric path from a Boolean: its text ("True") is refused as an integer.
  EXPECT_THROW(text.to<std::int64_t>(), Kiv::RangeException);
  EXPECT_FALSE(Kiv::Value().to<bool>());
  EXPECT_EQ(big, Kiv::Value(std::int64_t{70000}));
  EXPECT_FALSE(big == Kiv::Value(std::uint64_t{70000}));  // same number, other type
}

}  // namespace
