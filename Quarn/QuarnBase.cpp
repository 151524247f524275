#include "Quarn/QuarnBase.h"

namespace Quarn {

std::string quarnTypeWord(QuarnType type) {
  switch (type) {
    case QuarnType::writer:
      return "writer";
    case QuarnType::shadow:
      return "shadow";
    case QuarnType::reader:
      return "reader";
    case QuarnType::keyshadow:
      return "keyshadow";
  }
  return std::to_string(static_cast<std::uint32_t>(type));
}

}  // namespace Quarn
