#include "Quarn/ConquerTable.h"

#include <cstring>
#include <sstream>

#include "Mem/Shared.h"

namespace Quarn {

std::uint32_t ConquerTable::initialCapacity() noexcept {
  std::size_t const page = Mem::pageSize();
  return page < headerSize ? 0 : static_cast<std::uint32_t>((page - headerSize) / entrySize);
}

void ConquerTable::Header::format(void* base, std::uint32_t tableId, std::uint32_t capacity,
                                  std::uint32_t fenix) {
  Header h;
  std::memcpy(h.magic, ConquerTable::magic, sizeof h.magic);
  h.version = ConquerTable::version;
  h.fenix = fenix;
  h.minSeq = 0;
  h.numReaders = 0;
  h.currentTable = 0;
  h.tableId = tableId;
  h.state = formattedState;
  h.capacity = capacity;
  h.currentPos = 0;
  char* const b = static_cast<char*>(base);
  // Everything before the reserved word, then everything after it.
  Mem::Atomics::copyToShared(b, &h, offsetof(Header, reserved));
  Mem::Atomics::copyToShared(b + offsetof(Header, currentTable), &h.currentTable,
                             entriesOffset - offsetof(Header, currentTable));
}

bool ConquerTable::Header::validate(std::size_t mappedSize, std::uint32_t expectedFenix,
                                    std::string& error) const {
  std::ostringstream os;
  if (mappedSize < headerSize) {
    os << "ConquerTable::validate() bad header file size: " << mappedSize
       << " wanted:" << headerSize;
  } else if (char m[8]; Mem::Atomics::copyFromShared(m, magic, 8),
                        std::memcmp(m, ConquerTable::magic, 8) != 0) {
    os << "ConquerTable::validate() bad magic: " << std::string(m, 8);
  } else if (load(version) != ConquerTable::version) {
    os << "ConquerTable::validate() bad version: " << load(version)
       << " conquer version: " << ConquerTable::version;
  } else if (load(fenix) != expectedFenix) {
    os << "ConquerTable::validate() bad fenix:" << load(fenix) << " wanted:" << expectedFenix;
  } else if (mappedSize < fileSize(load(capacity))) {
    os << "ConquerTable::validate() bad shmem size:" << mappedSize
       << " wanted:" << fileSize(load(capacity)) << " for " << load(capacity) << " notifications";
  } else if (load(tableId) >= 2) {
    os << "ConquerTable::validate() bad tableId:" << load(tableId);
  } else {
    return true;
  }
  error = os.str();
  return false;
}

}  // namespace Quarn
