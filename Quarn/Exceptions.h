#pragma once
// The table engine's two exceptions. Both carry the full message text, returned unchanged by
// `what()`.

#include "Jorv/Exception.h"

namespace Quarn {

// The table's memory contradicts its own invariants (a cycle, an index out of range, a key in the
// wrong chain, a notification entry naming the wrong slot). Nothing was repaired.
class CorruptionDetectedException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// The slot table could not grow to take a new key; the table is unchanged.
class TableFullException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

}  // namespace Quarn
