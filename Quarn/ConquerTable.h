#pragma once
// On-disk layout of a notification table file ("conquer.1" = table id 0, "conquer.2" = table id
// 1; version 6): the header, then `capacity` entries of 12 bytes from offset 52: a u64 sequence
// (at a 4-byte boundary, so it is accessed as two 32-bit words, low word first) and a u32 slot
// index (noIndex for a tombstone). The file is 56 + 12 * capacity bytes.
//
// minSeq, numReaders and currentTable are meaningful in the "conquer.1" header only. The state
// word (offset 40) is 1 for a formatted table; nothing else uses it yet.
//
// Readers see an entry only after the release store of currentPos that follows it; a tombstone
// changes the slot word alone. Usable on a read-only mapping except `Header::format`.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Mem/Atomics.h"

namespace Quarn {

struct ConquerTable {
  static constexpr std::uint32_t version = 6;
  static constexpr std::size_t headerSize = 56;
  static constexpr std::size_t entriesOffset = 52;
  static constexpr std::size_t entrySize = 12;
  static constexpr std::uint32_t formattedState = 1;
  static constexpr char magic[8] = {'Q', 'U', 'A', 'R', 'N', 'C', 'Q', 'R'};

  struct Header {
    char magic[8];
    std::uint32_t version;
    std::uint32_t fenix;
    std::uint64_t minSeq;
    std::uint32_t numReaders;
    std::uint32_t reserved;
    std::uint32_t currentTable;
    std::uint32_t tableId;
    std::uint32_t state;
    std::uint32_t capacity;
    std::uint32_t currentPos;

    // Writes a fresh header (minSeq 0, currentTable 0, currentPos 0, reserved word left as it
    // is). Entries are not touched: currentPos 0 makes them unreachable.
    static void format(void* base, std::uint32_t tableId, std::uint32_t capacity,
                       std::uint32_t fenix);
    // False + first message. The fenix is always compared (0 included).
    bool validate(std::size_t mappedSize, std::uint32_t fenix, std::string& error) const;
    std::uint32_t load(std::uint32_t const& field) const noexcept {
      return Mem::Atomics::load32Acquire(&field);
    }
  };

  static constexpr std::size_t fileSize(std::uint32_t capacity) noexcept {
    return headerSize + entrySize * std::size_t(capacity);
  }
  // (pageSize - 56) / 12
  static std::uint32_t initialCapacity() noexcept;

  static Header* header(char* base) noexcept { return reinterpret_cast<Header*>(base); }
  static Header const* header(char const* base) noexcept {
    return reinterpret_cast<Header const*>(base);
  }
  static char* entry(char* base, std::uint32_t pos) noexcept {
    return base + entriesOffset + entrySize * std::size_t(pos);
  }
  static char const* entry(char const* base, std::uint32_t pos) noexcept {
    return base + entriesOffset + entrySize * std::size_t(pos);
  }
  static std::uint64_t sequence(char const* entry) noexcept {
    return Mem::Atomics::pack(Mem::Atomics::load32Relaxed(entry),
                              Mem::Atomics::load32Relaxed(entry + 4));
  }
  static std::uint32_t slotIndex(char const* entry) noexcept {
    return Mem::Atomics::load32Acquire(entry + 8);
  }
  static void setEntry(char* entry, std::uint64_t sequence, std::uint32_t slot) noexcept {
    Mem::Atomics::store32Relaxed(entry, Mem::Atomics::lowWord(sequence));
    Mem::Atomics::store32Relaxed(entry + 4, Mem::Atomics::highWord(sequence));
    Mem::Atomics::store32Relaxed(entry + 8, slot);
  }
};

static_assert(sizeof(ConquerTable::Header) == ConquerTable::headerSize);
static_assert(offsetof(ConquerTable::Header, version) == 8);
static_assert(offsetof(ConquerTable::Header, fenix) == 12);
static_assert(offsetof(ConquerTable::Header, minSeq) == 16);
static_assert(offsetof(ConquerTable::Header, numReaders) == 24);
static_assert(offsetof(ConquerTable::Header, reserved) == 28);
static_assert(offsetof(ConquerTable::Header, currentTable) == 32);
static_assert(offsetof(ConquerTable::Header, tableId) == 36);
static_assert(offsetof(ConquerTable::Header, state) == 40);
static_assert(offsetof(ConquerTable::Header, capacity) == 44);
static_assert(offsetof(ConquerTable::Header, currentPos) == 48);
static_assert(ConquerTable::entriesOffset == offsetof(ConquerTable::Header, currentPos) + 4);

}  // namespace Quarn
