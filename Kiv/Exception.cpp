#include "Kiv/Exception.h"

namespace Kiv {

void throwRangeException(std::string const& message) {
  throw RangeException(message);
}

}  // namespace Kiv
