#pragma once
// Shared setup of the table front tests: a private root, an activity, trace capture of every
// table's debug handler, a recording notifier and helpers to damage a table on purpose.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Kiv/Activity.h"
#include "Mem/Atomics.h"
#include "Mem/Shared.h"
#include "Quarn/BucketTable.h"
#include "Quarn/QuarnMap.h"
#include "TestRecord.h"
#include "support/ActivityWait.h"

namespace QuarnTest {

// A plain notifier (not a KeyNotifier): the map accepts anything with onKey.
struct Recorder {
  std::vector<TestKey> keys;
  std::function<void(TestKey const&)> probe;  // optional: runs inside the notification
  void onKey(TestKey const& key) {
    keys.push_back(key);
    if (probe) probe(key);
  }
  bool saw(TestKey const& key) const {
    for (auto const& k : keys) {
      if (k == key) return true;
    }
    return false;
  }
};

using Map = Quarn::QuarnMap<TestKey, TestWrapper, Recorder>;

// Points the bucket chain of keys hashing to `hash`, in the table whose directory is `root`, at a
// slot index far beyond the table (as a writer with a wild store would).
inline void corruptBucket(std::string const& root, std::uint32_t hash) {
  Mem::Shared buckets("buckets", root);
  ASSERT_TRUE(buckets.attach(buckets.sizeOnDisk()));
  std::uint32_t const n = Quarn::BucketTable::header(buckets.base())->numBuckets;
  char* unit = Quarn::BucketTable::bucket(buckets.base(), hash % n);
  std::uint32_t const version = Mem::Atomics::lowWord(Mem::Atomics::load64Acquire(unit));
  Mem::Atomics::store64Release(unit, Mem::Atomics::pack(version + 1, 0x7ffffff0u));
}

struct QuarnMapFixture : ::testing::Test {
  static constexpr char const* table = "t";
  Kiv::Activity activity;
  TempRoot tmp;
  TraceCapture trace{"Quarn-*"};
  Recorder recorder;

  std::string root() const { return tmp.path() + "/" + table; }
  std::unique_ptr<Map> map(Quarn::QuarnType mode, bool isLocal = false, unsigned size = 100,
                           double remountInterval = 0.05) {
    auto m = std::make_unique<Map>(table, &recorder, tmp.path(), activity);
    m->remountIntervalIs(remountInterval);
    m->init(mode, isLocal, size);
    return m;
  }
  bool runUntil(std::function<bool()> const& done, double seconds = 10.0) {
    return TestSupport::runUntil(activity, done, seconds);
  }
  // Points the bucket chain of `key` at a slot index far beyond the table.
  void corruptBucketOf(TestKey const& key) { corruptBucket(root(), key.hash()); }
};

// A reading table that keeps a copy of the table from notifications alone: each key it hears is
// looked up through its own map, then stored or dropped.
struct Consumer {
  Recorder recorder;
  std::unique_ptr<Map> map;
  std::map<TestKey, std::uint32_t> model;
  Consumer(std::string const& dir, Kiv::Activity& activity, Quarn::QuarnType mode,
           double remountInterval) {
    recorder.probe = [this](TestKey const& key) {
      bool found = false;
      TestWrapper const w = map->safeLookup(key, found);
      found ? void(model[key] = w.value) : void(model.erase(key));
    };
    map = std::make_unique<Map>(QuarnMapFixture::table, &recorder, dir, activity);
    map->remountIntervalIs(remountInterval);
    map->init(mode, false, 100);
  }
};

}  // namespace QuarnTest
