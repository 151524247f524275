#pragma once
// On-disk layout of the slot table file ("slots", version 4): a 176-byte header, one lookaside
// slot, then the slot array. Writer and readers share these definitions; nothing here writes to
// a mapping except `Header::format` and `initSlot`, so readers may use the rest on a read-only
// mapping.
//
// Slot: linkVersion (u32), next (u32) - one 64-bit unit always stored whole -, conquerSlot (u32),
// flags (u32: bit 0 OCCUPIED, bit 1 LOOKASIDE, a write counter above), then the value wrapper,
// then padding to slotSize (a multiple of 8, so that every link unit is 8-aligned).
//
// Every header word that changes while readers map the file (occupiedSlots, freeSlots,
// numSlotsVersion/numSlots) is read here with Mem::Atomics loads.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Jorv/Platform.h"
#include "Mem/Atomics.h"

namespace Quarn {

// End of a list, empty bucket, no notification entry, no pending slot.
inline constexpr std::uint32_t noIndex = 0xFFFFFFFFu;

struct SlotTable {
  static constexpr std::uint32_t version = 4;
  static constexpr std::size_t headerSize = 176;
  static constexpr std::size_t nameSize = 64;
  static constexpr std::size_t valueOffset = 16;  // of the value wrapper inside a slot
  static constexpr std::uint32_t OCCUPIED = 1;
  static constexpr std::uint32_t LOOKASIDE = 2;
  static constexpr char magic[8] = {'Q', 'U', 'A', 'R', 'N', 'S', 'L', 'T'};

  struct Header {
    char magic[8];
    std::uint32_t version;
    std::uint32_t fenix;
    char valueTypeName[nameSize];
    char classTypeName[nameSize];
    std::uint32_t valueSize;
    std::uint32_t slotSize;
    std::uint32_t tableSize;
    std::uint32_t checksum;
    std::uint32_t occupiedSlots;
    std::uint32_t freeSlots;
    std::uint32_t numSlotsVersion;  // with numSlots: one 64-bit unit
    std::uint32_t numSlots;

    // Formats a fresh header, the lookaside slot and `numSlots` fresh slots at `base` (which must
    // be mapped for fileSize(slotSize, numSlots) bytes). The free list is left empty. Throws
    // Jorv::RuntimeException, before writing anything, when a name needs 64 bytes or more.
    static void format(void* base, Jorv::DebugHandler& dh, std::string const& valueTypeName,
                       std::string const& className, std::uint32_t valueSize,
                       std::uint32_t numSlots, std::uint32_t tableSize, std::uint32_t fenix);

    // The checks every side applies before it trusts the file (false + first message). A
    // `fenix` of 0 accepts any fenix.
    bool validate(std::size_t mappedSize, std::uint32_t fenix, std::string& error) const;
    // Sum of the hashes of both names, valueSize, slotSize and tableSize.
    std::uint32_t computeChecksum() const;

    std::uint32_t load(std::uint32_t const& field) const noexcept {
      return Mem::Atomics::load32Acquire(&field);
    }
    // numSlots read together with its version (one 64-bit load).
    std::uint64_t numSlotsUnit() const noexcept { return Mem::Atomics::load64Acquire(&numSlotsVersion); }
  };

  struct Slot {
    std::uint32_t linkVersion;  // with next: one 64-bit unit
    std::uint32_t next;
    std::uint32_t conquerSlot;
    std::uint32_t flags;
  };

  static constexpr std::uint32_t slotSizeFor(std::uint32_t valueSize) noexcept {
    return (static_cast<std::uint32_t>(valueOffset) + valueSize + 7u) & ~7u;
  }
  static constexpr std::size_t fileSize(std::uint32_t slotSize, std::uint32_t numSlots) noexcept {
    return headerSize + std::size_t(slotSize) * (std::size_t(numSlots) + 1);
  }
  // The number of slots that fill one page together with header and lookaside slot.
  static std::uint32_t initialNumSlots(std::uint32_t slotSize) noexcept;

  static Header* header(char* base) noexcept { return reinterpret_cast<Header*>(base); }
  static Header const* header(char const* base) noexcept {
    return reinterpret_cast<Header const*>(base);
  }
  static char* lookaside(char* base) noexcept { return base + headerSize; }
  static char const* lookaside(char const* base) noexcept { return base + headerSize; }
  static char* slot(char* base, std::uint32_t slotSize, std::uint32_t i) noexcept {
    return base + headerSize + std::size_t(slotSize) * (std::size_t(i) + 1);
  }
  static char const* slot(char const* base, std::uint32_t slotSize, std::uint32_t i) noexcept {
    return base + headerSize + std::size_t(slotSize) * (std::size_t(i) + 1);
  }
  // Writes the fresh values (no link, no notification, no flags, zero value) into one slot.
  static void initSlot(char* slot, std::uint32_t slotSize) noexcept;
};

static_assert(sizeof(SlotTable::Header) == 176);
static_assert(offsetof(SlotTable::Header, magic) == 0);
static_assert(offsetof(SlotTable::Header, version) == 8);
static_assert(offsetof(SlotTable::Header, fenix) == 12);
static_assert(offsetof(SlotTable::Header, valueTypeName) == 16);
static_assert(offsetof(SlotTable::Header, classTypeName) == 80);
static_assert(offsetof(SlotTable::Header, valueSize) == 144);
static_assert(offsetof(SlotTable::Header, slotSize) == 148);
static_assert(offsetof(SlotTable::Header, tableSize) == 152);
static_assert(offsetof(SlotTable::Header, checksum) == 156);
static_assert(offsetof(SlotTable::Header, occupiedSlots) == 160);
static_assert(offsetof(SlotTable::Header, freeSlots) == 164);
static_assert(offsetof(SlotTable::Header, numSlotsVersion) == 168);
static_assert(offsetof(SlotTable::Header, numSlots) == 172);
static_assert(sizeof(SlotTable::Slot) == SlotTable::valueOffset);
static_assert(offsetof(SlotTable::Slot, next) == 4);
static_assert(offsetof(SlotTable::Slot, conquerSlot) == 8);
static_assert(offsetof(SlotTable::Slot, flags) == 12);
static_assert(SlotTable::slotSizeFor(36) == 56 && SlotTable::slotSizeFor(48) == 64);

}  // namespace Quarn
