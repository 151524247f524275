// A reader thread that follows the lock-free read rules (versioned links, seqlock values with the
// lookaside slot) while the writer updates, removes and re-inserts: the reader never sees a torn
// value, and a key that is only ever updated never goes missing. Run under ThreadSanitizer too.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Quarn/QuarnWriter.h"
#include "TestRecord.h"

using namespace QuarnTest;
using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;
namespace A = Mem::Atomics;

namespace {

struct View {
  char const* buckets;
  std::uint32_t numBuckets;
  char const* slots;
  std::uint32_t slotSize;
  std::uint32_t numSlots;
};

enum class Lookup { found, absent, retry };

Lookup tryLookup(View const& v, TestKey const& key, TestWrapper& out) {
  char const* link = Quarn::BucketTable::bucket(v.buckets, key.hash() % v.numBuckets);
  std::uint64_t unit = A::load64(link);
  for (std::uint32_t steps = 0;; ++steps) {
    std::uint32_t const cur = A::highWord(unit);
    if (cur == Quarn::noIndex) return A::load64(link) == unit ? Lookup::absent : Lookup::retry;
    if (cur >= v.numSlots || steps > v.numSlots) return Lookup::retry;
    char const* s = Quarn::SlotTable::slot(v.slots, v.slotSize, cur);
    char const* flagsWord = s + 12;
    std::uint32_t f = A::load32(flagsWord);
    for (;;) {
      char const* from =
          (f & Quarn::SlotTable::LOOKASIDE) ? Quarn::SlotTable::lookaside(v.slots) : s;
      A::copyFromShared(&out, from + Quarn::SlotTable::valueOffset, sizeof out);
      A::fenceAcquire();
      std::uint32_t const again = A::load32Relaxed(flagsWord);
      if (again == f) break;
      f = again;
    }
    if (!(f & Quarn::SlotTable::OCCUPIED) || A::load64(link) != unit) return Lookup::retry;
    if (out.key == key) return Lookup::found;
    if (key < out.key) return Lookup::absent;
    link = s;
    unit = A::load64(link);
  }
}

TEST(QuarnWriterConcurrent, ReaderNeverSeesTornValues) {
  TempRoot root;
  Writer w(Jorv::Platform::getDebugHandler("QuarnConcurrentTest"), "concurrent", 1000, false,
           "TestRecord", nullptr, root.path());
  w.attach();
  constexpr std::uint32_t kKeys = 60;  // fits the first page: no growth, no remap
  auto const make = [](std::uint32_t id, std::uint32_t n) {
    TestWrapper r = record(id % 6, id, n);
    for (auto& e : r.extra) e = n;
    return r;
  };
  for (std::uint32_t id = 0; id < kKeys; ++id) w.write(make(id, 0));
  ASSERT_EQ(w.capacity(), 80u);
  View const view{w.buckets().mem().base(), w.numBuckets(), w.slots().mem().base(),
                  w.slots().slotSize(), w.capacity()};

  std::atomic<bool> done{false};
  std::atomic<std::uint64_t> torn{0}, missing{0}, found{0};
  std::thread reader([&] {
    std::uint32_t id = 0;
    while (!done.load(std::memory_order_acquire)) {
      id = (id + 7) % kKeys;
      TestKey const key{id, id % 6};
      TestWrapper v;
      Lookup result;
      while ((result = tryLookup(view, key, v)) == Lookup::retry) {
      }
      if (result == Lookup::found) {
        found.fetch_add(1, std::memory_order_relaxed);
        for (auto e : v.extra) {
          if (e != v.value) torn.fetch_add(1, std::memory_order_relaxed);
        }
      } else if (id < kKeys / 2) {
        missing.fetch_add(1, std::memory_order_relaxed);  // never removed: must always be found
      }
    }
  });
  // Overlap the two threads: start writing once the reader runs, and go on until it has done a
  // good number of lookups during the writes (bounded either way).
  while (found.load(std::memory_order_relaxed) == 0) std::this_thread::yield();
  std::uint64_t const before = found.load(std::memory_order_relaxed);
  for (std::uint32_t n = 1;
       n <= 20000 || (found.load(std::memory_order_relaxed) < before + 5000 && n < 5000000); ++n) {
    std::uint32_t const id = (n * 13) % kKeys;
    if (id >= kKeys / 2 && n % 3 == 0) {
      TestWrapper out;
      w.remove(TestKey{id, id % 6}, out);
    }
    w.write(make(id, n));
  }
  done.store(true, std::memory_order_release);
  reader.join();
  EXPECT_EQ(torn.load(), 0u);
  EXPECT_EQ(missing.load(), 0u);
  EXPECT_GT(found.load(), 0u);
  EXPECT_EQ(w.capacity(), 80u);
  EXPECT_TRUE(w.validate());
}

}  // namespace
