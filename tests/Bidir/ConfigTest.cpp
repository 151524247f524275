// Configuration and clear requests: change-only notification, the request counters, the flags
// word's checks, and the collections' create-or-return and removal rules.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Bidir/ClearConfigColl.h"
#include "Bidir/ConfigColl.h"
#include "Kiv/Exception.h"
#include "Quarn/TestRecord.h"
#include "support/ChangeReports.h"

namespace {

using Lanx::IpGenAddr;
using namespace Routing::Pim::Bidir;
using GroupKey = ClearConfig::GroupKey;

using namespace TestSupport;

struct ConfigWatcher : Watcher<Config::Notifiee> {
  using Watcher::Watcher;
  void onGroupExpiryInterval() override { log_("groupExpiryInterval"); }
};
struct ClearConfigWatcher : Watcher<ClearConfig::Notifiee> {
  using Watcher::Watcher;
  void onGroupKey() override { log_("groupKey"); }
  void onGroupsCount() override { log_("groupsCount"); }
  void onCountersCount() override { log_("countersCount"); }
};
struct ConfigCollWatcher : Watcher<ConfigColl::Notifiee> {
  using Watcher::Watcher;
  void onVrfConfig(L3::VrfName n) override { log_("vrfConfig " + n.toString()); }
};

TEST(Config, IntervalStartsAtItsConstantDefaultAndNotifiesOnlyChanges) {
  auto config = configFactory("red");
  EXPECT_EQ(config->groupExpiryInterval(), 210);
  using A = Config::Attr;
  expectEachChangeReportsItsAttribute<ConfigWatcher>(
      config, std::vector<Change<Config>>{
                  {A::groupExpiryInterval, [](Config& c) { c.groupExpiryIntervalIs(0); }},
                  {A::groupExpiryInterval, [](Config& c) { c.groupExpiryIntervalIs(65535); }},
                  {Kiv::Entity::isNondestructingId, [](Config& c) { c.isNondestructingIs(true); }},
              });
  EXPECT_EQ(config->groupExpiryInterval(), 65535);
  EXPECT_EQ(config->groupExpiryIntervalDefault(), 210);
  EXPECT_EQ(config->attributeString(A::groupExpiryIntervalDefault), "groupExpiryIntervalDefault");
  EXPECT_EQ(config->attributeString(A::groupExpiryIntervalDefault + 1), "unknown");
  config->isNondestructingIs(false);
}

// A counter change is the request; an equal value requests nothing.
TEST(ClearConfig, ACounterChangeIsTheRequestAndAnEqualValueRequestsNothing) {
  auto clear = clearConfigFactory("red");
  EXPECT_TRUE(!clear->groupKey().flags());
  using A = ClearConfig::Attr;
  using C = ClearConfig;
  expectEachChangeReportsItsAttribute<ClearConfigWatcher>(
      clear,
      std::vector<Change<C>>{
          {A::groupKey, [](C& c) { c.groupKeyIs(GroupKey(MrouteClearFlags::clearGroup_, IpGenAddr())); }},
          {A::groupKey, [](C& c) { c.groupKeyIs(GroupKey(2u, IpGenAddr("239.1.1.1"))); }},
          {A::groupKey, [](C& c) { c.groupKeyIs(GroupKey(2u, IpGenAddr("239.1.1.2"))); }},
          {A::groupsCount, [](C& c) { c.groupsCountIs(255); }},
          {A::groupsCount, [](C& c) { c.groupsCountIs(0); }},
          {A::countersCount, [](C& c) { c.countersCountIs(0xffffffff); }},
          {A::countersCount, [](C& c) { c.countersCountIs(0); }},
      });
}

TEST(MrouteClearFlags, WordAboveThreeIsRefusedByEveryCheckedSourceOnly) {
  auto message = [](auto&& f) { return QuarnTest::failure<Kiv::RangeException>(f); };
  std::string const refused = "MrouteClearFlags::value > 0x3 not allowed";
  EXPECT_EQ(message([] { (void)MrouteClearFlags(4); }), refused);
  EXPECT_EQ(message([] { (void)GroupKey(4u, IpGenAddr("239.1.1.1")); }), refused);
  MrouteClearFlags f(3);
  EXPECT_EQ(message([&] { f.valueIs(0xffffffff); }), refused);
  EXPECT_EQ(f.value(), 3u);
  EXPECT_EQ(GroupKey(3u, IpGenAddr()).flags().value(), 3u);
  // The lone attribute-log reader takes the word as it comes.
  EXPECT_EQ(MrouteClearFlags::fromWordUnchecked(7).value(), 7u);

  MrouteClearFlags const one = MrouteClearFlags::clearAll_, two = MrouteClearFlags::clearGroup_;
  EXPECT_EQ(one.value(), 1u);
  EXPECT_TRUE(one.clearAll() && !one.clearGroup() && two.clearGroup() && !two.clearAll());
  EXPECT_TRUE(one <= two && !(one > two) && two > one && two >= one && one != two);
  EXPECT_TRUE(!MrouteClearFlags() && !!one);
  f.clearAllIs(false);
  EXPECT_EQ(f, two);
}

// Both collections: create-or-return, removal handing back the member (detached, alive while
// held), and one notification per change of membership.
TEST(ConfigColl, CreateOrReturnAndRemovalNotifyOncePerChange) {
  auto coll = configCollFactory("config");
  auto red = coll->vrfConfigIs("red");
  EXPECT_EQ(coll->vrfConfigIs("red"), red);
  EXPECT_EQ(red->vrfName(), L3::VrfName("red"));
  EXPECT_EQ(coll->vrfConfigDel("blue"), nullptr);
  EXPECT_EQ(coll->vrfConfigDel("red"), red);
  EXPECT_EQ(red->parent(), nullptr);
  using C = ConfigColl;
  auto const id = C::Attr::vrfConfig;
  expectEachChangeReportsItsAttribute<ConfigCollWatcher>(
      coll, std::vector<Change<C>>{
                {id, [](C& c) { c.vrfConfigIs("red"); }, "red"},
                {id, [](C& c) { c.vrfConfigNotify("red"); }, "red", false},
                {id, [](C& c) { c.vrfConfigDel("red"); }, "red"},
                {id, [](C& c) { c.newVrfConfig("blue"), c.vrfConfigDelAll(); }, "blue", false},
            });
  coll->vrfConfigIs("blue");
  coll->vrfConfigIs("green");
  auto it = coll->vrfConfigIter().begin();
  coll->vrfConfigDel(it);  // moves on to the next member
  EXPECT_EQ(coll->vrfConfigCount(), 1u);
  EXPECT_EQ(it.key(), coll->vrfConfigIter().begin().key());
}

}  // namespace
