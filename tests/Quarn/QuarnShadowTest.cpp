// The shadow copy against a real writer on the same files: notifier calls per net change, full
// passes in slices, growth and shrink of the store, and key-only shadows.

#include "Quarn/QuarnShadow.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "Bidir/Quarn/Group.h"
#include "Quarn/WriterKickSm.h"
#include "TestRecord.h"
#include "support/ActivityWait.h"

using namespace QuarnTest;
using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;
using Shadow = Quarn::QuarnShadow<TestKey, TestWrapper>;

namespace {

// The group table's shadow slots: two 4-byte links, then the key or the whole record.
using GroupWrapper =
    KivQuarn::KivQuarnMapValueWrapper<Routing::Pim::Bidir::Quarn::Group, Lanx::IpGenAddr>;
static_assert(sizeof(Quarn::Shadow::ValueShadowSlot<GroupWrapper>) == 44);
static_assert(sizeof(Quarn::Shadow::KeyShadowSlot<Lanx::IpGenAddr>) == 28);

// Records each call with what a lookup in the shadow answers at that moment.
struct Recorder : Quarn::KeyNotifier<TestKey> {
  struct Event {
    TestKey key;
    bool found;
    std::uint32_t value;
  };
  Shadow* shadow = nullptr;
  std::vector<Event> events;
  void onKey(TestKey const& key) override {
    bool found = false;
    TestWrapper const w = shadow->lookup(key, found);
    events.push_back({key, found, w.value});
  }
  // Each key heard, with what the lookup answered ("-" for absent), "twice" if heard again.
  std::map<TestKey, std::string> heard() const {
    std::map<TestKey, std::string> out;
    for (auto const& e : events) {
      auto [it, first] = out.emplace(e.key, e.found ? std::to_string(e.value) : "-");
      if (!first) it->second = "twice";
    }
    return out;
  }
};

template <class Table>
std::map<TestKey, std::uint32_t> contents(Table& table) {
  return tableContents(table, [](Table& t, TestKey const& k, TestWrapper& w, Quarn::IterHint& h) {
    return t.next(k, w, h);
  });
}

// A shared writer with its readers' channel, and shadows on its files, on one activity.
struct Shadowing : ::testing::Test {
  TempRoot tmp;
  Kiv::Activity activity;
  std::string root = tmp.path() + "/t";
  std::unique_ptr<Quarn::WriterKickSm> kick;
  std::unique_ptr<Writer> writer;
  Recorder rec;
  std::unique_ptr<Shadow> shadow;
  TraceCapture trace{testHandle, 9};
  std::vector<std::string> corruptions;

  void SetUp() override {
    std::filesystem::create_directories(root);
    kick = std::make_unique<Quarn::WriterKickSm>(
        root, [this] { return writer->conquer().sequence(); },
        [this](std::uint32_t) { writer->conquer().updateNumReaders(); }, activity);
    writer =
        std::make_unique<Writer>(dh(), "t", 100000, false, "TestRecord", kick.get(), tmp.path());
    writer->attach();
  }
  void TearDown() override { EXPECT_TRUE(corruptions.empty()); }

  // Creates and initialises the shadow; waits until its wake-up channel is counted.
  void start(Quarn::QuarnType mode = Quarn::QuarnType::shadow, double yield = 0,
             std::uint32_t sample = 1024) {
    shadow = std::make_unique<Shadow>(dh(), root, mode, rec, activity,
                                      [this](std::string const& t) { corruptions.push_back(t); });
    rec.shadow = shadow.get();
    shadow->yieldTimeIs(yield);
    shadow->sampleIs(sample);
    ASSERT_TRUE(shadow->initialize());
    ASSERT_TRUE(TestSupport::runUntil(activity, [&] { return kick->numReaders() == 1; }));
  }
  // Runs the activity until the shadow has applied everything the writer announced.
  void settle() {
    ASSERT_TRUE(TestSupport::runUntil(activity, [&] {
      return shadow->state() == Shadow::State::synchronized &&
             shadow->sequence() == writer->conquer().sequence();
    }));
  }
  void expectEqualToWriter() {
    EXPECT_EQ(contents(*shadow), contents(*writer));
    EXPECT_EQ(shadow->members(), writer->size());
  }
  std::uint32_t slotOf(TestKey const& key) { return writer->find(key, writer->bucketOf(key)).slot; }
};

TEST_F(Shadowing, NotifierSeesEachNetChangeOnce) {
  for (std::uint32_t i = 0; i < 3; ++i) writer->write(record(1, i, 10 + i));
  start();
  EXPECT_EQ(rec.heard(), (std::map<TestKey, std::string>{  // the first pass: what was there
                             {TestKey{0, 1}, "10"}, {TestKey{1, 1}, "11"}, {TestKey{2, 1}, "12"}}));
  rec.events.clear();

  writer->write(record(1, 3, 13));  // insert
  writer->write(record(1, 0, 99));  // change
  writer->write(record(1, 1, 11));  // unchanged rewrite
  TestWrapper gone;
  ASSERT_TRUE(writer->remove(TestKey{2, 1}, gone));  // removal
  settle();
  EXPECT_EQ(rec.heard(), (std::map<TestKey, std::string>{
                             {TestKey{3, 1}, "13"}, {TestKey{0, 1}, "99"}, {TestKey{2, 1}, "-"}}));
  EXPECT_TRUE(trace.contains("ShadowStore::write() no update needed"));
  expectEqualToWriter();

  // The writer reuses a freed slot for another key: both notifications name the same slot, and
  // the shadow reports one removal and one insertion.
  rec.events.clear();
  std::uint32_t const slot = slotOf(TestKey{3, 1});
  ASSERT_TRUE(writer->remove(TestKey{3, 1}, gone));
  writer->write(record(7, 50, 5));
  ASSERT_EQ(slotOf(TestKey{50, 7}), slot);
  settle();
  EXPECT_EQ(rec.heard(),
            (std::map<TestKey, std::string>{{TestKey{3, 1}, "-"}, {TestKey{50, 7}, "5"}}));
  EXPECT_EQ(rec.events.front().key, (TestKey{3, 1}));  // the removal first
  expectEqualToWriter();

  // A resync with nothing changed reports nothing; one that runs ahead of the queue reports the
  // changes, and the queue then adds nothing.
  rec.events.clear();
  shadow->resync();
  EXPECT_TRUE(rec.events.empty());
  EXPECT_TRUE(trace.contains("QuarnShadow::resync() Out-of-sync, re-synchronizing local shadow "));
  writer->write(record(1, 0, 100));
  ASSERT_TRUE(writer->remove(TestKey{50, 7}, gone));
  shadow->resync();
  settle();
  EXPECT_EQ(rec.events.size(), 2u);
  expectEqualToWriter();
}

TEST_F(Shadowing, FullPassInSlicesFollowsChangesMadeMeanwhile) {
  for (std::uint32_t i = 0; i < 5000; ++i) writer->write(record(i % 97, i, i));
  start(Quarn::QuarnType::shadow, 1e-9, 100);
  EXPECT_EQ(shadow->state(), Shadow::State::initializing);
  EXPECT_TRUE(shadow->syncer().syncing());
  // Changes on both sides of the pass's current slot, while it is between slices.
  TestWrapper gone;
  for (std::uint32_t i = 0; i < 5000; i += 10)
    ASSERT_TRUE(writer->remove(TestKey{i, i % 97}, gone));
  for (std::uint32_t i = 1; i < 5000; i += 10) writer->write(record(i % 97, i, i + 1));
  for (std::uint32_t i = 5000; i < 5300; ++i) writer->write(record(i % 97, i, i));
  settle();
  EXPECT_GT(shadow->syncer().slices(), 1u);
  expectEqualToWriter();
  // Every key the shadow holds was reported, and the last report agrees with it.
  std::map<TestKey, Recorder::Event> last;
  for (auto const& e : rec.events) last[e.key] = e;
  for (auto const& [key, value] : contents(*writer)) {
    ASSERT_TRUE(last.count(key)) << key;
    EXPECT_TRUE(last[key].found);
    EXPECT_EQ(last[key].value, value);
  }
}

TEST_F(Shadowing, GrowsWithTheSharedTableAndShrinksAfterMassRemoval) {
  start();
  std::uint32_t const initial = shadow->capacity();
  for (std::uint32_t i = 0; i < 4000; ++i) writer->write(record(i % 101, i, i));
  settle();
  EXPECT_TRUE(trace.contains("ShadowStore::grow() resize shadow slots from "));
  EXPECT_GT(shadow->capacity(), initial);
  EXPECT_EQ(shadow->capacity(), writer->capacity());
  expectEqualToWriter();

  // Keep only the keys in the lowest slots: the store shrinks to a power of two covering them.
  TestWrapper gone;
  for (std::uint32_t i = 0; i < 4000; ++i) {
    TestKey const k{i, i % 101};
    if (slotOf(k) >= 40) {
      ASSERT_TRUE(writer->remove(k, gone));
    }
  }
  settle();
  EXPECT_TRUE(trace.contains("ShadowStore::shrink() complete."));
  EXPECT_EQ(shadow->capacity(), 64u);
  EXPECT_EQ(shadow->members(), 40u);
  expectEqualToWriter();

  // Slots beyond the shrunk store come back with the next notification for them.
  rec.events.clear();
  for (std::uint32_t i = 0; i < 500; ++i) writer->write(record(i % 7, 10000 + i, i));
  settle();
  EXPECT_EQ(rec.events.size(), 500u);
  expectEqualToWriter();
}

TEST_F(Shadowing, KeyShadowAnswersPresenceFromTheStoreAndValuesFromTheTable) {
  for (std::uint32_t i = 0; i < 50; ++i) writer->write(record(i % 5, i, i));
  start(Quarn::QuarnType::keyshadow);
  EXPECT_EQ(shadow->type(), Quarn::QuarnType::keyshadow);
  rec.events.clear();
  writer->write(record(2, 7, 700));
  TestWrapper gone;
  ASSERT_TRUE(writer->remove(TestKey{8, 3}, gone));
  settle();
  EXPECT_EQ(rec.heard(),
            (std::map<TestKey, std::string>{{TestKey{7, 2}, "700"}, {TestKey{8, 3}, "-"}}));
  bool found = true;
  shadow->lookup(TestKey{77, 2}, found);
  EXPECT_FALSE(found);
  expectEqualToWriter();

  // Pausing notifications holds changes back until they are switched on again.
  shadow->notifying(false);
  rec.events.clear();
  writer->write(record(2, 9, 900));
  activity.runOnce(0.05);
  EXPECT_TRUE(rec.events.empty());
  shadow->notifying(true);
  settle();
  EXPECT_EQ(rec.events.size(), 1u);

  shadow->detach();
  shadow->detach();
  EXPECT_FALSE(shadow->fullyAttached());
  shadow->lookup(TestKey{7, 2}, found);
  EXPECT_FALSE(found);
}

TEST(QuarnShadow, InitializeFailsWithoutWriterAndForAReaderMode) {
  TempRoot tmp;
  Kiv::Activity activity;
  Recorder rec;
  TraceCapture trace{testHandle, 9};
  Shadow noWriter(dh(), tmp.path() + "/t", Quarn::QuarnType::shadow, rec, activity);
  EXPECT_FALSE(noWriter.initialize());
  EXPECT_TRUE(trace.contains("QuarnShadow::initialize() quarn.initialize() Failed"));
  EXPECT_EQ(noWriter.members(), 0u);

  std::string const root = tmp.path() + "/w";
  Writer writer(dh(), "w", 100, false, "TestRecord", nullptr, tmp.path());
  writer.attach();
  Shadow wrongKind(dh(), root, Quarn::QuarnType::reader, rec, activity);
  EXPECT_FALSE(wrongKind.initialize());
  EXPECT_TRUE(trace.contains("QuarnShadow::doInitialize() bad reader reader"));
}

}  // namespace
