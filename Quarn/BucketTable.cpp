#include "Quarn/BucketTable.h"

#include <unistd.h>

#include <cstring>
#include <sstream>

#include "Mem/Shared.h"
#include "Quarn/SlotTable.h"

namespace Quarn {

std::uint32_t BucketTable::numBucketsFor(std::uint32_t tableSize) noexcept {
  std::size_t const bytes = headerSize + 16 * std::size_t(tableSize);
  std::size_t const rounded = Mem::roundUpToWholePage(bytes);
  return static_cast<std::uint32_t>(2 * std::size_t(tableSize) + (rounded - bytes) / 8);
}

void BucketTable::Header::format(void* base, std::uint32_t numBuckets, std::uint32_t fenix) {
  Header h;
  std::memcpy(h.magic, BucketTable::magic, sizeof h.magic);
  h.version = BucketTable::version;
  h.fenix = fenix;
  h.numBuckets = numBuckets;
  h.pid = static_cast<std::uint32_t>(::getpid());
  char* const b = static_cast<char*>(base);
  Mem::Atomics::copyToShared(b, &h, sizeof h);
  for (std::uint32_t i = 0; i < numBuckets; ++i) {
    Mem::Atomics::store64Relaxed(bucket(b, i), Mem::Atomics::pack(0, noIndex));
  }
}

bool BucketTable::Header::validate(std::size_t mappedSize, std::uint32_t expectedFenix,
                                   std::string& error) const {
  std::ostringstream os;
  if (mappedSize < headerSize) {
    os << "BucketTable::validate() bad header file size: " << mappedSize
       << " wanted:" << headerSize;
  } else if (char m[8]; Mem::Atomics::copyFromShared(m, magic, 8),
                        std::memcmp(m, BucketTable::magic, 8) != 0) {
    os << "BucketTable::validate() bad magic: " << std::string(m, 8);
  } else if (load(version) != BucketTable::version) {
    os << "BucketTable::validate() bad version: " << load(version);
  } else if (expectedFenix != 0 && load(fenix) != expectedFenix) {
    os << "BucketTable::validate() bad fenix:" << load(fenix) << " wanted:" << expectedFenix;
  } else if (mappedSize < fileSize(load(numBuckets)) || load(numBuckets) == 0) {
    os << "BucketTable::validate() bad shmem size:" << mappedSize
       << " wanted:" << fileSize(load(numBuckets)) << " for " << load(numBuckets) << " buckets";
  } else {
    return true;
  }
  error = os.str();
  return false;
}

}  // namespace Quarn
