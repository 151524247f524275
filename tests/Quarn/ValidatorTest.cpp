// The validator finds each kind of planted damage, reports it with its message, and neither
// throws nor loops.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "Quarn/ConquerReader.h"
#include "Quarn/QuarnReader.h"
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
      {"free slot with LOOKASIDE",
       [](Writer& w) {
         char* s = w.slots().slot(w.slots().freeSlots());
         setFlags(s, Quarn::SlotWriterTable::flags(s) | Quarn::SlotTable::LOOKASIDE);
       },
       "Validator::walkFreeSlots() free slot:"},
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
      {"bad checksum",
       [](Writer& w) { Mem::Atomics::store32Release(&w.slots().header()->tableSize, 33); },
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

// ---- damage that passes validation must not cost a record later
//
// One 32-bit word of the files is damaged at a time (a word of each kind: links, flags and
// versions of free, chained and lookaside slots, bucket words, the slot header's counters, both
// notification tables' headers, live, tombstoned, unwritten and spare entries), in a few ways
// each. Damage the validator finds is fine. Damage it passes must be harmless: a reader mounts
// the files and reads every record (what makes a reader refuse a table must make the writer's
// check fail, or the reader's report would never be acted on), and a run of writes (inserts
// reusing the free slots, growth, updates, removes, compactions of the notification queue) then
// leaves a table that validates again, as a restart does, and holds exactly what was written.

namespace {

using Site = std::function<std::uint32_t*(Writer&)>;

std::uint32_t* word(char* base, std::size_t offset) {
  return reinterpret_cast<std::uint32_t*>(base + offset);
}
// A position of the current notification table holding a live entry (live) or a tombstone.
std::uint32_t entryAt(Writer& w, bool live) {
  for (std::uint32_t p = 0; p < w.conquer().currentPos(w.conquer().currentTable()); ++p) {
    if ((w.conquer().entrySlot(p) != Quarn::noIndex) == live) return p;
  }
  ADD_FAILURE() << "no " << (live ? "live entry" : "tombstone");
  return 0;
}

std::vector<std::pair<char const*, Site>> damagedSites() {
  using Slot = Quarn::SlotTable::Slot;
  using SlotHeader = Quarn::SlotTable::Header;
  using Queue = Quarn::ConquerTable::Header;
  using Index = std::uint32_t (*)(Writer&);
  auto slot = [](Index index, std::size_t field) -> Site {
    return [=](Writer& w) { return word(w.slots().slot(index(w)), field); };
  };
  auto slotHeader = [](std::size_t field) -> Site {
    return [=](Writer& w) { return word(w.slots().mem().base(), field); };
  };
  auto bucket = [](std::uint32_t group, std::size_t field) -> Site {
    return [=](Writer& w) {
      return word(w.buckets().bucket(w.bucketOf(TestKey{0, group})), field);
    };
  };
  auto queue = [](std::uint32_t table, std::size_t field) -> Site {
    return [=](Writer& w) { return word(w.conquer().base(table), field); };
  };
  // Entry `pos(w)` of the current table, or of the spare one.
  auto entry = [](bool spare, Index pos, std::size_t field) -> Site {
    return [=](Writer& w) {
      std::uint32_t const t = spare ? 1 - w.conquer().currentTable() : w.conquer().currentTable();
      return word(Quarn::ConquerTable::entry(w.conquer().base(t), pos(w)), field);
    };
  };
  Index const freeHead = [](Writer& w) { return w.slots().freeSlots(); };
  Index const chainHead = [](Writer& w) { return indexOf(w, 2, 0); };
  Index const chainMiddle = [](Writer& w) { return indexOf(w, 2, 2); };
  Index const chainTail = [](Writer& w) { return indexOf(w, 2, 4); };
  Index const live = [](Writer& w) { return entryAt(w, true); };
  Index const tombstone = [](Writer& w) { return entryAt(w, false); };
  Index const unwritten = [](Writer& w) {
    return w.conquer().currentPos(w.conquer().currentTable());
  };
  Index const first = [](Writer&) { return 0u; };
  return {
      {"free head flags", slot(freeHead, offsetof(Slot, flags))},
      {"free head linkVersion", slot(freeHead, offsetof(Slot, linkVersion))},
      {"free tail next", slot(freeTail, offsetof(Slot, next))},
      {"free tail conquerSlot", slot(freeTail, offsetof(Slot, conquerSlot))},
      {"chain head conquerSlot", slot(chainHead, offsetof(Slot, conquerSlot))},
      {"chain middle linkVersion", slot(chainMiddle, offsetof(Slot, linkVersion))},
      {"chain middle flags", slot(chainMiddle, offsetof(Slot, flags))},
      {"chain tail next", slot(chainTail, offsetof(Slot, next))},
      {"lookaside flags",
       [](Writer& w) {
         return word(Quarn::SlotTable::lookaside(w.slots().mem().base()), offsetof(Slot, flags));
       }},
      {"slot header freeSlots", slotHeader(offsetof(SlotHeader, freeSlots))},
      {"slot header numSlotsVersion", slotHeader(offsetof(SlotHeader, numSlotsVersion))},
      {"empty bucket head", bucket(9, 4)},
      {"used bucket linkVersion", bucket(1, 0)},
      {"used bucket head", bucket(1, 4)},
      {"conquer.1 minSeq", queue(0, offsetof(Queue, minSeq))},
      {"conquer.1 numReaders", queue(0, offsetof(Queue, numReaders))},
      {"conquer.1 currentTable", queue(0, offsetof(Queue, currentTable))},
      {"conquer.1 tableId", queue(0, offsetof(Queue, tableId))},
      {"conquer.1 currentPos", queue(0, offsetof(Queue, currentPos))},
      {"conquer.2 currentPos", queue(1, offsetof(Queue, currentPos))},
      {"conquer.2 capacity", queue(1, offsetof(Queue, capacity))},
      {"live entry slot", entry(false, live, 8)},
      {"tombstone slot", entry(false, tombstone, 8)},
      {"entry at currentPos sequence", entry(false, unwritten, 0)},
      {"spare table's first entry sequence", entry(true, first, 0)},
  };
}

struct Mutation {
  char const* name;
  std::uint32_t (*apply)(std::uint32_t);
};
constexpr Mutation mutations[] = {
    {"^1", [](std::uint32_t v) { return v ^ 1u; }},
    {"^2", [](std::uint32_t v) { return v ^ 2u; }},
    {"+1", [](std::uint32_t v) { return v + 1u; }},
    {"-1", [](std::uint32_t v) { return v - 1u; }},
    {"=0", [](std::uint32_t) { return 0u; }},
    {"=noIndex", [](std::uint32_t) { return Quarn::noIndex; }},
};

// "" when iteration and lookups through `t`, the writer or a reader, find exactly `model`.
template <class Table>
std::string differences(Table& t, std::map<TestKey, std::uint32_t> const& model) {
  constexpr bool reader = std::is_same_v<Table, Quarn::QuarnReader<TestKey, TestWrapper>>;
  std::map<TestKey, std::uint32_t> seen;
  TestWrapper r;
  Quarn::IterHint hint;
  auto next = [&] {
    if constexpr (reader)
      return t.doNext(TestKey(r.key), r, hint);
    else
      return t.next(TestKey(r.key), r, hint);
  };
  for (bool more = t.first(0, r, hint); more && seen.size() <= model.size(); more = next()) {
    if (!seen.emplace(r.key, r.value).second) return "iteration repeats a key";
  }
  if (seen != model) return "iteration holds " + std::to_string(seen.size());
  for (auto const& [key, value] : model) {
    bool found = false;
    TestWrapper v;
    if constexpr (reader)
      v = t.doLookup(key, found);
    else
      v = t.lookup(key, found);
    if (v.value != value || !found) return "lookup";
  }
  return "";
}

// What a reader of the files under `root` makes of them: "" when it mounts them and reads
// exactly `model`.
std::string readerVerdict(std::string const& root, std::uint32_t fenix,
                          std::map<TestKey, std::uint32_t> const& model) {
  Quarn::QuarnReader<TestKey, TestWrapper> reader(dh(), root);
  Quarn::ConquerReader queue(dh(), root, nullptr);
  std::string error;
  if (!reader.initialize(fenix, error) || !queue.initialize(fenix, error)) return error;
  try {
    if (std::string const d = differences(reader, model); !d.empty()) return "the reader's " + d;
    queue.conquer([](std::uint32_t) {});
  } catch (std::exception const& e) {
    return std::string("the reader refuses: ") + e.what();
  }
  return "";
}

// The writes that follow the damage: new keys into old and new chains (reusing every free slot
// and growing the slot file), updates, removes, and enough changes for compactions.
void writeAfterDamage(Writer& w, std::map<TestKey, std::uint32_t>& model) {
  std::uint32_t value = 100;
  auto put = [&](std::uint32_t g, std::uint32_t id) {
    w.write(record(g, id, ++value));
    model[TestKey{id, g}] = value;
  };
  for (std::uint32_t id = 5; id < 30; ++id) {
    for (std::uint32_t g = 0; g < 4; ++g) put(g, id);
  }
  for (std::uint32_t round = 0; round < 4; ++round) {
    for (auto const& [key, v] : std::map(model)) put(key.group, key.id);
  }
  TestWrapper out;
  for (std::uint32_t id = 0; id < 30; id += 3) {
    for (std::uint32_t g = 0; g < 4; ++g) {
      model.erase(TestKey{id, g});
      w.remove(TestKey{id, g}, out);
    }
  }
  for (std::uint32_t id = 30; id < 40; ++id) put(5, id);
}

}  // namespace

TEST(Validator, DamageItPassesCostsNoRecordLater) {
  std::vector<std::string> harmful;
  std::size_t passed = 0, cases = 0;
  for (std::uint32_t compactions = 0; compactions < 2; ++compactions) {
    for (auto const& [site, at] : damagedSites()) {
      for (Mutation const& m : mutations) {
        std::string const name =
            std::string(site) + " " + m.name + (compactions > 0 ? " (after a compaction)" : "");
        TempRoot root;
        Writer w(dh(), "sweep", 32, false, "TestRecord", nullptr, root.path());
        w.attach();
        std::map<TestKey, std::uint32_t> model;
        for (std::uint32_t g = 0; g < 4; ++g) {
          for (std::uint32_t id = 0; id < 5; ++id) w.write(record(g, id, id));
        }
        while (w.conquer().counters().compactions < compactions) w.write(record(0, 0, 0));
        for (std::uint32_t g = 0; g < 4; ++g) {
          for (std::uint32_t id = 0; id < 5; ++id) model[TestKey{id, g}] = id;
        }
        TestWrapper out;
        for (TestKey const k : {TestKey{1, 1}, TestKey{3, 2}, TestKey{4, 3}}) {
          w.remove(k, out);
          model.erase(k);
        }
        for (int twice = 0; twice < 2; ++twice) w.write(record(0, 2, 2));  // leaves a tombstone
        std::uint32_t* const target = at(w);
        *target = m.apply(*target);
        ++cases;
        if (!w.validate()) continue;
        ++passed;
        std::string verdict = readerVerdict(root.path() + "/sweep", w.fenix(), model);
        try {
          if (verdict.empty()) writeAfterDamage(w, model);
          if (verdict.empty()) {
            verdict = w.validate() ? differences(w, model) : "second validation failed";
          }
        } catch (std::exception const& e) {
          verdict = e.what();
        }
        if (!verdict.empty()) harmful.push_back(name + ": " + verdict);
      }
    }
  }
  EXPECT_GT(passed, 0u);
  EXPECT_LT(passed, cases);
  EXPECT_TRUE(harmful.empty()) << ::testing::PrintToString(harmful);
}
