#include "Vesp/BlockTimer.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>

namespace {

void timedWork(int spins) {
  VESP_BLOCK("test.timedWork");
  volatile int x = 0;
  for (int i = 0; i < spins; ++i) x = x + i;
}

TEST(VespBlockTimer, CountsEveryBlockAndAccumulatesTime) {
  Vesp::Counter& c = Vesp::counter("test.timedWork");
  c.reset();
  for (int i = 0; i < 10; ++i) timedWork(1000);
  EXPECT_EQ(c.count(), 10u);
  EXPECT_GT(c.nanoseconds(), 0u);
  // Same name, same counter: a macro site and a by-name timer share the totals.
  { Vesp::BlockTimer t("test.timedWork"); }
  EXPECT_EQ(c.count(), 11u);
  EXPECT_EQ(&Vesp::counter("test.timedWork"), &c);

  std::ostringstream os;
  Vesp::report(os);
  EXPECT_NE(os.str().find("test.timedWork count=11 ns="), std::string::npos) << os.str();

  Vesp::resetAll();
  EXPECT_EQ(c.count(), 0u);
  EXPECT_EQ(c.nanoseconds(), 0u);
}

TEST(VespBlockTimer, ConcurrentBlocksLoseNoCount) {
  Vesp::Counter& c = Vesp::counter("test.concurrent");
  c.reset();
  std::vector<std::thread> ts;
  for (int t = 0; t < 4; ++t)
    ts.emplace_back([] { for (int i = 0; i < 1000; ++i) { VESP_BLOCK("test.concurrent"); } });
  for (auto& t : ts) t.join();
  EXPECT_EQ(c.count(), 4000u);
}

}  // namespace
