#include "Quarn/SlotTable.h"

#include <cstring>
#include <sstream>
#include <vector>

#include "Jorv/Exception.h"
#include "Mem/Shared.h"
#include "Quarn/Hash.h"

namespace Quarn {
namespace {

void checkName(std::string const& name, char const* what) {
  if (name.size() < SlotTable::nameSize) return;
  std::ostringstream os;
  os << "SlotTable::Header() " << what << name << " exceeds " << SlotTable::nameSize
     << " characters";
  throw Jorv::RuntimeException(os.str());
}

template <class T>
std::uint32_t hashWord(T v) {
  return Util::hash(&v, sizeof v);
}

}  // namespace

std::uint32_t SlotTable::initialNumSlots(std::uint32_t slotSize) noexcept {
  std::size_t const page = Mem::pageSize();
  if (page < headerSize + slotSize) return 0;
  return static_cast<std::uint32_t>((page - (headerSize + slotSize)) / slotSize);
}

void SlotTable::initSlot(char* slot, std::uint32_t slotSize) noexcept {
  // Fresh slot: no link, no notification entry, no flags, zero value and padding.
  static constexpr std::uint32_t head[4] = {0, noIndex, noIndex, 0};
  Mem::Atomics::copyToShared(slot, head, sizeof head);
  for (std::uint32_t off = valueOffset; off < slotSize; off += 4) {
    Mem::Atomics::store32Relaxed(slot + off, 0);
  }
}

void SlotTable::Header::format(void* base, Jorv::DebugHandler& dh, std::string const& valueTypeName,
                               std::string const& className, std::uint32_t valueSize,
                               std::uint32_t numSlots, std::uint32_t tableSize,
                               std::uint32_t fenix) {
  checkName(valueTypeName, "value typename ");
  checkName(className, "class typename: ");
  Header h;
  std::memset(&h, 0, sizeof h);
  std::memcpy(h.magic, SlotTable::magic, sizeof h.magic);
  h.version = SlotTable::version;
  h.fenix = fenix;
  std::snprintf(h.valueTypeName, nameSize, "%s", valueTypeName.c_str());
  std::snprintf(h.classTypeName, nameSize, "%s", className.c_str());
  h.valueSize = valueSize;
  h.slotSize = slotSizeFor(valueSize);
  h.tableSize = tableSize;
  h.freeSlots = noIndex;
  h.numSlots = numSlots;
  h.checksum = h.computeChecksum();
  char* const b = static_cast<char*>(base);
  Mem::Atomics::copyToShared(b, &h, sizeof h);
  for (std::uint32_t i = 0; i <= numSlots; ++i) {
    initSlot(b + headerSize + std::size_t(h.slotSize) * i, h.slotSize);
  }
  KIV_TRACE(dh, 5, "SlotTable::Header() formatted numSlots:", numSlots, " tableSize:", tableSize,
            " fenix:", fenix, " checksum:", h.checksum);
}

std::uint32_t SlotTable::Header::computeChecksum() const {
  char names[2 * nameSize];
  Mem::Atomics::copyFromShared(names, valueTypeName, sizeof names);
  return Util::hash(names, nameSize) + Util::hash(names + nameSize, nameSize) +
         hashWord(load(valueSize)) + hashWord(load(slotSize)) + hashWord(load(tableSize));
}

bool SlotTable::Header::validate(std::size_t mappedSize, std::uint32_t expectedFenix,
                                 std::string& error) const {
  std::ostringstream os;
  if (mappedSize < headerSize) {
    os << "SlotTable::Header::validate() bad header file size: " << mappedSize;
    error = os.str();
    return false;
  }
  // slotSize sizes everything below: it must be the one its valueSize gives before any size
  // computed from it means something.
  std::uint32_t const slotSz = load(slotSize);
  if (char m[8];
      Mem::Atomics::copyFromShared(m, magic, 8), std::memcmp(m, SlotTable::magic, 8) != 0) {
    os << "SlotTable::Header::validate() bad magic: " << std::string(m, 8);
  } else if (load(version) != SlotTable::version) {
    os << "SlotTable::Header::validate() bad version: " << load(version);
  } else if (load(valueSize) > slotSz || slotSz != slotSizeFor(load(valueSize))) {
    os << "SlotTable::Header::validate() bad slotSize: " << slotSz
       << " valueSize: " << load(valueSize);
  } else if (mappedSize < headerSize + std::size_t(slotSz)) {
    os << "SlotTable::Header::validate() bad header file size: " << mappedSize;
  } else if (expectedFenix != 0 && load(fenix) != expectedFenix) {
    os << "SlotTable::validate() bad fenix:" << load(fenix) << " wanted:" << expectedFenix;
  } else if (std::uint32_t const sum = computeChecksum(); sum != load(checksum)) {
    os << "SlotTable::Header::validate() checksum fail: " << load(checksum) << " computed:" << sum;
  } else if (load(occupiedSlots) > load(numSlots)) {
    os << "SlotTable::Header::validate() bad occupiedSlots: " << load(occupiedSlots)
       << " num slots: " << load(numSlots);
  } else if (load(freeSlots) != noIndex && load(freeSlots) >= load(numSlots)) {
    os << "SlotTable::Header::validate() bad freeSlots: " << load(freeSlots)
       << " num slots: " << load(numSlots);
  } else if (mappedSize < fileSize(slotSz, load(numSlots))) {
    os << "SlotTable::Header::validate() bad shmem size:" << mappedSize
       << " wanted:" << fileSize(slotSz, load(numSlots));
  } else {
    return true;
  }
  error = os.str();
  return false;
}

}  // namespace Quarn
