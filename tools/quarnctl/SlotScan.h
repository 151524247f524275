#pragma once
// Every record of a table in slot order, the order of the slot file, read through a read-only
// mapping: a sequential pass that touches each slot once, for any record type (values are copied
// as bytes, valueSize of them). Each value is copied consistently (Quarn::SlotReader::readValue)
// even while a writer changes the table; a pass over a live table sees each record as it was when
// its slot was read.

#include <cstdint>
#include <string>
#include <vector>

#include "Cli.h"
#include "Jorv/Platform.h"
#include "Quarn/QuarnReader.h"
#include "Quarn/SlotTable.h"

namespace Quarnctl {

class SlotScan {
 public:
  // Maps the slot file of the table in `dir`; raises Failure when it cannot be mapped or its
  // header fails its checks.
  explicit SlotScan(std::string const& dir);

  std::uint32_t valueSize() const noexcept { return slots_.valueSize(); }

  // Calls f(slotIndex, bytes) for each occupied slot, in slot order, until f returns false.
  // Raises Failure when the file was truncated under the mapping meanwhile.
  template <class F>
  void forEach(F&& f) {
    std::vector<char> value(valueSize());
    std::uint32_t const n = slots_.numSlots();
    for (std::uint32_t i = 0; i < n; ++i) {
      std::uint32_t const flags = slots_.readValue(slots_.slot(i), value.data(), value.size());
      if (!(flags & Quarn::SlotTable::OCCUPIED)) continue;
      if (!f(i, static_cast<void const*>(value.data()))) break;
    }
    checkIntact();
  }

 private:
  void checkIntact() const;

  std::string dir_;
  Quarn::SlotReader slots_;
};

}  // namespace Quarnctl
