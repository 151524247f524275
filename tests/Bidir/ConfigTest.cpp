// Configuration and clear requests: change-only notification, the request counters, the flags
// word's checks, and the collections' create-or-return and removal rules.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Bidir/ClearConfigColl.h"
#include "Bidir/ConfigColl.h"
#include "Kiv/Exception.h"
#include "Kiv/Text.h"

namespace {

using Lanx::IpGenAddr;
using namespace Routing::Pim::Bidir;
using GroupKey = ClearConfig::GroupKey;

struct Heard {
  std::vector<std::string> lines;
  std::vector<Kiv::AttributeId> exceptions;
};

// Hears every operation of one entity type; `throwing` makes every handler fail after logging.
template <class Base>
class Watcher : public Base {
 public:
  Heard& heard;
  bool throwing = false;
  explicit Watcher(Heard& h) : heard(h) {}
  void log(std::string line) {
    heard.lines.push_back(std::move(line));
    if (throwing) throw Kiv::RangeException("handler failed");
  }
  void onIsNondestructing() override { log("isNondestructing"); }
  void onZeroReferences() override { log("zeroReferences"); }
  void onNotificationException(Kiv::AttributeId id) override { heard.exceptions.push_back(id); }
};

struct ConfigWatcher : Watcher<Config::Notifiee> {
  using Watcher::Watcher;
  void onGroupExpiryInterval() override { log("groupExpiryInterval"); }
};
struct ClearConfigWatcher : Watcher<ClearConfig::Notifiee> {
  using Watcher::Watcher;
  void onGroupKey() override { log("groupKey"); }
  void onGroupsCount() override { log("groupsCount"); }
  void onCountersCount() override { log("countersCount"); }
};
struct ConfigCollWatcher : Watcher<ConfigColl::Notifiee> {
  using Watcher::Watcher;
  void onVrfConfig(L3::VrfName n) override { log("vrfConfig " + n.toString()); }
};
struct ClearConfigCollWatcher : Watcher<ClearConfigColl::Notifiee> {
  using Watcher::Watcher;
  void onVrfClearConfig(L3::VrfName n) override { log("vrfConfig " + n.toString()); }
};

using Lines = std::vector<std::string>;

TEST(Config, IntervalStartsAtItsConstantDefaultAndNotifiesOnlyChanges) {
  auto config = configFactory("red");
  EXPECT_EQ(config->groupExpiryInterval(), 210);
  EXPECT_EQ(config->groupExpiryIntervalDefault(), 210);
  EXPECT_EQ(config->vrfName(), L3::VrfName("red"));
  Heard heard;
  auto quiet = Kiv::newPtr<ConfigWatcher>(heard);
  auto loud = Kiv::newPtr<ConfigWatcher>(heard);
  quiet->notifierIs(config);
  loud->notifierIs(config);
  loud->throwing = true;
  config->groupExpiryIntervalIs(210);
  config->groupExpiryIntervalIs(0);
  config->groupExpiryIntervalIs(0);
  config->groupExpiryIntervalIs(65535);
  config->isNondestructingIs(true);
  config->isNondestructingIs(true);
  EXPECT_EQ(config->groupExpiryInterval(), 65535);
  // The throwing notifiee is reported with the attribute's identifier; the walk goes on.
  EXPECT_EQ(heard.lines, (Lines{"groupExpiryInterval", "groupExpiryInterval", "groupExpiryInterval",
                                "groupExpiryInterval", "isNondestructing", "isNondestructing"}));
  EXPECT_EQ(heard.exceptions, (std::vector<Kiv::AttributeId>{259, 259, 6}));
  config->isNondestructingIs(false);
  EXPECT_EQ(config->attributeString(258), "vrfName");
  EXPECT_EQ(config->attributeString(260), "groupExpiryIntervalDefault");
  EXPECT_EQ(config->attributeString(6), "isNondestructing");
  EXPECT_EQ(config->attributeString(261), "unknown");
}

TEST(ClearConfig, ACounterChangeIsTheRequestAndAnEqualValueRequestsNothing) {
  auto clear = clearConfigFactory("red");
  EXPECT_EQ(clear->groupKey(), GroupKey());
  EXPECT_TRUE(!clear->groupKey().flags());
  Heard heard;
  auto w = Kiv::newPtr<ClearConfigWatcher>(heard);
  w->notifierIs(clear);
  clear->groupKeyIs(GroupKey());
  clear->groupKeyIs(GroupKey(MrouteClearFlags::clearGroup_, IpGenAddr("239.1.1.1")));
  clear->groupKeyIs(GroupKey(MrouteClearFlags(2), IpGenAddr("239.1.1.1")));
  clear->groupKeyIs(GroupKey(MrouteClearFlags(2), IpGenAddr("239.1.1.2")));
  clear->groupsCountIs(255);
  clear->groupsCountIs(255);
  clear->groupsCountIs(0);
  clear->countersCountIs(0);
  clear->countersCountIs(0xffffffff);
  clear->countersCountIs(0);
  EXPECT_EQ(heard.lines, (Lines{"groupKey", "groupKey", "groupsCount", "groupsCount",
                                "countersCount", "countersCount"}));
  w->throwing = true;
  clear->groupKeyIs(GroupKey());
  clear->groupsCountIs(1);
  clear->countersCountIs(1);
  EXPECT_EQ(heard.exceptions, (std::vector<Kiv::AttributeId>{259, 260, 261}));
  EXPECT_EQ(clear->attributeString(261), "countersCount");
  EXPECT_EQ(clear->attributeString(262), "unknown");
}

TEST(MrouteClearFlags, WordAboveThreeIsRefusedByEveryCheckedSourceOnly) {
  auto message = [](auto&& f) -> std::string {
    try {
      f();
    } catch (Kiv::RangeException const& e) {
      return e.what();
    }
    return "accepted";
  };
  std::string const refused = "MrouteClearFlags::value > 0x3 not allowed";
  EXPECT_EQ(message([] { (void)MrouteClearFlags(4); }), refused);
  EXPECT_EQ(message([] { (void)GroupKey(4u, IpGenAddr("239.1.1.1")); }), refused);
  EXPECT_EQ(message([] {
              Kiv::strepToValue<MrouteClearFlags>(
                  "Value('Routing::Pim::Bidir::MrouteClearFlags', ** {'value': 4})");
            }),
            refused);
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

// The same create-or-return and removal rules on both collections.
template <class Ops>
void collectionRules() {
  auto coll = Ops::make();
  Heard heard;
  auto w = Kiv::newPtr<typename Ops::Watcher>(heard);
  w->notifierIs(coll);
  auto red = Ops::is(*coll, "red");
  EXPECT_EQ(Ops::is(*coll, "red"), red);
  EXPECT_EQ(red->vrfName(), L3::VrfName("red"));
  EXPECT_EQ(red->parent(), coll.ptr());
  EXPECT_EQ(Ops::del(*coll, "blue"), nullptr);
  Ops::is(*coll, "blue");
  Ops::is(*coll, "green");
  EXPECT_EQ(heard.lines, (Lines{"vrfConfig red", "vrfConfig blue", "vrfConfig green"}));
  heard.lines.clear();
  // A removed member lives on while held, detached.
  EXPECT_EQ(Ops::del(*coll, "red"), red);
  EXPECT_EQ(red->parent(), nullptr);
  Ops::notify(*coll, "red");
  auto it = Ops::begin(*coll);
  auto first = it.key();
  Ops::delIt(*coll, it);
  EXPECT_EQ(Ops::count(*coll), 1u);
  EXPECT_EQ(it.key(), Ops::begin(*coll).key());
  Ops::delAll(*coll);
  EXPECT_EQ(Ops::count(*coll), 0u);
  EXPECT_EQ(heard.lines.size(), 4u);
  EXPECT_EQ(heard.lines[0], "vrfConfig red");
  EXPECT_EQ(heard.lines[1], "vrfConfig red");
  EXPECT_EQ(heard.lines[2], "vrfConfig " + first.toString());
  w->throwing = true;
  Ops::is(*coll, "red");
  EXPECT_EQ(heard.exceptions, (std::vector<Kiv::AttributeId>{258}));
  EXPECT_EQ(coll->attributeString(258), Ops::attributeName);
}

struct ConfigCollOps {
  using Watcher = ConfigCollWatcher;
  static constexpr char const* attributeName = "vrfConfig";
  static auto make() { return configCollFactory("config"); }
  static auto is(ConfigColl& c, L3::VrfName n) { return c.vrfConfigIs(n); }
  static auto del(ConfigColl& c, L3::VrfName n) { return c.vrfConfigDel(n); }
  static auto delIt(ConfigColl& c, ConfigColl::VrfConfigIterator& it) { return c.vrfConfigDel(it); }
  static void delAll(ConfigColl& c) { c.vrfConfigDelAll(); }
  static void notify(ConfigColl& c, L3::VrfName n) { c.vrfConfigNotify(n); }
  static auto begin(ConfigColl& c) { return c.vrfConfigIter().begin(); }
  static auto count(ConfigColl& c) { return c.vrfConfigCount(); }
};

struct ClearConfigCollOps {
  using Watcher = ClearConfigCollWatcher;
  static constexpr char const* attributeName = "vrfClearConfig";
  static auto make() { return clearConfigCollFactory("clear"); }
  static auto is(ClearConfigColl& c, L3::VrfName n) { return c.vrfClearConfigIs(n); }
  static auto del(ClearConfigColl& c, L3::VrfName n) { return c.vrfClearConfigDel(n); }
  static auto delIt(ClearConfigColl& c, ClearConfigColl::VrfClearConfigIterator& it) {
    return c.vrfClearConfigDel(it);
  }
  static void delAll(ClearConfigColl& c) { c.vrfClearConfigDelAll(); }
  static void notify(ClearConfigColl& c, L3::VrfName n) { c.vrfClearConfigNotify(n); }
  static auto begin(ClearConfigColl& c) { return c.vrfClearConfigIter().begin(); }
  static auto count(ClearConfigColl& c) { return c.vrfClearConfigCount(); }
};

TEST(ConfigColl, CreateOrReturnAndRemovalNotifyOncePerChange) {
  collectionRules<ConfigCollOps>();
}

TEST(ClearConfigColl, CreateOrReturnAndRemovalNotifyOncePerChange) {
  collectionRules<ClearConfigCollOps>();
}

}  // namespace
