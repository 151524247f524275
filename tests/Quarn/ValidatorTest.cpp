// The validator finds each kind of planted damage, reports it with its message, and neither
// throws nor loops.

#include <gtest/gtest.h>

#include <functional>

#include "Quarn/QuarnWriter.h"
#include "TestRecord.h"

using namespace QuarnTest;
using Writer = Quarn::QuarnWriter<TestKey, TestWrapper>;

namespace {

char* slotOf(Writer& w, std::uint32_t group, std::uint32_t id) {
  TestKey const key{id, group};
  auto const f = w.find(key, w.bucketOf(key));
  EXPECT_TRUE(f.found);
  return w.slots().slot(f.slot);
}
std::uint32_t indexOf(Writer& w, std::uint32_t group, std::uint32_t id) {
  TestKey const key{id, group};
  return w.find(key, w.bucketOf(key)).slot;
}
void setFlags(char* slot, std::uint32_t flags) {
  Quarn::SlotWriterTable::flagsIs(slot, flags);
}
std::uint32_t freeTail(Writer& w) {
  std::uint32_t i = w.slots().freeSlots();
  while (Quarn::SlotWriterTable::next(w.slots().slot(i)) != Quarn::noIndex) {
    i = Quarn::SlotWriterTable::next(w.slots().slot(i));
  }
  return i;
}

// A table with chains of five keys in four buckets and two removed keys, damaged by `damage`;
// returns the validator's verdict.
std::string validateAfter(std::function<void(Writer&)> const& damage) {
  Writer w(dh(), "validate", 32, true, "TestRecord");
  w.attach();
  for (std::uint32_t g = 0; g < 4; ++g) {
    for (std::uint32_t id = 0; id < 5; ++id) w.write(record(g, id, id));
  }
  TestWrapper out;
  w.remove(TestKey{1, 1}, out);
  w.remove(TestKey{3, 2}, out);
  damage(w);
  Quarn::Validator<TestKey, TestWrapper> v(dh(), w);
  return v.validate(w.fenix()) ? "valid" : v.error();
}

struct Damage {
  char const* name;
  std::function<void(Writer&)> apply;
  char const* message;
};

TEST(Validator, FindsEveryPlantedDamage) {
  std::vector<Damage> const damages{
      // Intact: removed slots still own the live entries of their removal.
      {"intact", [](Writer&) {}, "valid"},
      {"chain cycle", [](Writer& w) { Quarn::publishLink(slotOf(w, 2, 4), indexOf(w, 2, 0)); },
       "Validator::markOccupied() duplicate slot: "},
      {"stuck LOOKASIDE",
       [](Writer& w) {
         char* s = slotOf(w, 0, 2);
         setFlags(s, Quarn::SlotWriterTable::flags(s) | Quarn::SlotTable::LOOKASIDE);
       },
       "Validator::markOccupied() stuck LOOKASIDE bit: 0x7"},
      {"chained slot without OCCUPIED", [](Writer& w) { setFlags(slotOf(w, 0, 3), 4); },
       "QuarnWriter::"},
      {"free list names a slot twice",
       [](Writer& w) { Quarn::publishLink(w.slots().slot(freeTail(w)), w.slots().freeSlots()); },
       "Validator::walkFreeSlots() duplicate freeSlot detected: "},
      {"free list leaves the table",
       [](Writer& w) { Quarn::publishLink(w.slots().slot(freeTail(w)), w.capacity() + 3); },
       "Validator::walkFreeSlots() corrupted free slot detected with out of bound index: "},
      {"free list one past the end",
       [](Writer& w) { Quarn::publishLink(w.slots().slot(freeTail(w)), w.capacity()); },
       "SlotWriter::Slots::operator[] out-of-range index: "},
      {"occupiedSlots one too high",
       [](Writer& w) {
         auto* h = w.slots().header();
         Mem::Atomics::store32Release(&h->occupiedSlots, h->occupiedSlots + 1);
       },
       "Validator::walkOccupiedSlots() mismatch header->occupiedSlots:19 count:18"},
      {"leaked slot",
       [](Writer& w) {
         auto* h = w.slots().header();
         Mem::Atomics::store32Release(&h->freeSlots,
                               Quarn::SlotWriterTable::next(w.slots().slot(h->freeSlots)));
       },
       "Validator::doValidate() bad slotCount:"},
      {"active tombstone",
       [](Writer& w) {
         std::uint32_t const pos = w.slots().conquerSlot(indexOf(w, 3, 4));
         Mem::Atomics::store32Release(Quarn::ConquerTable::entry(w.conquer().base(0), pos) + 8,
                               Quarn::noIndex);
       },
       "Validator::doValidate() active tombstone pos:"},
      {"removed slot marked occupied",
       [](Writer& w) {
         // Slot of key 1/1 was removed last but one; it still owns its removal entry.
         std::uint32_t const freed =
             Quarn::SlotWriterTable::next(w.slots().slot(w.slots().freeSlots()));
         char* s = w.slots().slot(freed);
         setFlags(s, Quarn::SlotWriterTable::flags(s) | Quarn::SlotTable::OCCUPIED);
       },
       "Validator::walkFreeSlots() corrupted free slot not marked as empty: "},
      {"keys out of order in their chain",
       [](Writer& w) {
         char* value = Quarn::SlotWriterTable::value(slotOf(w, 2, 1));
         Mem::Atomics::store32Release(value, 9);  // the key's id: 0, 9, 2, 3, 4 in one bucket
       },
       "Validator::walkOccupiedSlots() chain of bucket "},
      {"key in the wrong bucket",
       [](Writer& w) {
         char* value = Quarn::SlotWriterTable::value(slotOf(w, 1, 3));
         Mem::Atomics::store32Release(value + 4, 77);  // the key's group: another bucket
       },
       "corrupt key detected"},
      {"entry claimed by two slots",
       [](Writer& w) {
         w.slots().conquerSlotIs(indexOf(w, 0, 0), w.slots().conquerSlot(indexOf(w, 0, 1)));
       },
       "Validator::markOccupied() slot:"},
      {"writer died before advancing currentPos",
       [](Writer& w) {
         std::uint32_t const pos = w.conquer().currentPos(w.conquer().currentTable());
         Quarn::ConquerTable::setEntry(
             Quarn::ConquerTable::entry(w.conquer().base(w.conquer().currentTable()), pos), 999,
             indexOf(w, 0, 0));
         w.slots().conquerSlotIs(indexOf(w, 0, 0), pos);
       },
       "beyond currentPos:"},
      {"notifications out of order",
       [](Writer& w) {
         Quarn::ConquerTable::setEntry(Quarn::ConquerTable::entry(w.conquer().base(0), 1), 100,
                                       Quarn::noIndex);
       },
       "ConquerWriter::validate() pos:2 prevSeq:100 bad order: 3"},
      {"bad checksum", [](Writer& w) { Mem::Atomics::store32Release(&w.slots().header()->tableSize, 33); },
       "SlotTable::Header::validate() checksum fail: "},
  };
  for (auto const& d : damages) {
    std::string const verdict = validateAfter(d.apply);
    EXPECT_NE(verdict.find(d.message), std::string::npos)
        << d.name << ": " << verdict << " (wanted " << d.message << ")";
  }
}

TEST(Validator, FileSizesOnDisk) {
  TempRoot root;
  Writer w(dh(), "files", 32, false, "TestRecord", nullptr, root.path());
  w.attach();
  EXPECT_TRUE(w.validateFiles());
  ASSERT_EQ(::truncate((root.path() + "/files/conquer.2").c_str(), 100), 0);
  TraceCapture trace(testHandle);
  EXPECT_FALSE(w.validateFiles());
  EXPECT_TRUE(trace.contains("ValidatorBase::validateFile() wrong size "));
  EXPECT_TRUE(trace.contains("ConquerWriter::validateFile(): conquer.2 validation failed"));
  EXPECT_FALSE(w.validate());  // the full check includes the files, the spare table's too
}

}  // namespace
