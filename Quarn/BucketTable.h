#pragma once
// On-disk layout of the bucket table file ("buckets", version 1): a 24-byte header, then
// numBuckets buckets of one 64-bit link unit each (u32 linkVersion, u32 head slot index). The
// bucket count is fixed when the file is formatted. Usable on a read-only mapping except
// `Header::format`.

#include <cstddef>
#include <cstdint>
#include <string>

#include "Mem/Atomics.h"

namespace Quarn {

struct BucketTable {
  static constexpr std::uint32_t version = 1;
  static constexpr std::size_t headerSize = 24;
  static constexpr char magic[8] = {'Q', 'U', 'A', 'R', 'N', 'B', 'K', 'T'};

  struct Header {
    char magic[8];
    std::uint32_t version;
    std::uint32_t fenix;
    std::uint32_t numBuckets;
    std::uint32_t pid;  // of the writer that formatted the file

    // Writes a fresh header and numBuckets empty buckets.
    static void format(void* base, std::uint32_t numBuckets, std::uint32_t fenix);
    // False + first message; a `fenix` of 0 accepts any fenix.
    bool validate(std::size_t mappedSize, std::uint32_t fenix, std::string& error) const;
    std::uint32_t load(std::uint32_t const& field) const noexcept {
      return Mem::Atomics::load32Acquire(&field);
    }
  };

  struct Bucket {
    std::uint32_t linkVersion;  // with head: one 64-bit unit
    std::uint32_t head;
  };

  // Two buckets per configured entry, the file rounded up to whole pages and the spare bytes
  // used for further buckets.
  static std::uint32_t numBucketsFor(std::uint32_t tableSize) noexcept;
  static constexpr std::size_t fileSize(std::uint32_t numBuckets) noexcept {
    return headerSize + 8 * std::size_t(numBuckets);
  }
  static Header* header(char* base) noexcept { return reinterpret_cast<Header*>(base); }
  static Header const* header(char const* base) noexcept {
    return reinterpret_cast<Header const*>(base);
  }
  static char* bucket(char* base, std::uint32_t b) noexcept {
    return base + headerSize + 8 * std::size_t(b);
  }
  static char const* bucket(char const* base, std::uint32_t b) noexcept {
    return base + headerSize + 8 * std::size_t(b);
  }
};

static_assert(sizeof(BucketTable::Header) == 24);
static_assert(offsetof(BucketTable::Header, version) == 8);
static_assert(offsetof(BucketTable::Header, fenix) == 12);
static_assert(offsetof(BucketTable::Header, numBuckets) == 16);
static_assert(offsetof(BucketTable::Header, pid) == 20);
static_assert(sizeof(BucketTable::Bucket) == 8 && offsetof(BucketTable::Bucket, head) == 4);

}  // namespace Quarn
