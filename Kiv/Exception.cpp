#include "Kiv/Exception.h"

namespace Kiv {

void throwRangeException(std::string const& message) {
  throw RangeException(message);
}

void throwConstInstance() {
  throw ConstException("attempting to modify a const instance");
}

namespace {
std::string attributeText(std::string_view attribute) {
  return "attribute '" + std::string(attribute) + "': ";
}
}  // namespace

void throwBadIndex(std::string_view attribute) {
  throw BadIndexException(attributeText(attribute) + "no index allowed");
}

void throwTypeException(std::string_view attribute, std::string_view why) {
  throw TypeException(attributeText(attribute) + std::string(why));
}

void throwOperationNotSupported(std::string_view attribute, unsigned operation) {
  throw OperationNotSupportedException(attributeText(attribute) + "operation " +
                                       std::to_string(operation) + " not supported");
}

void throwUnknownArgument(std::string_view type, std::size_t position) {
  throw UnknownArgumentException(std::string(type) + ": unknown argument " +
                                 std::to_string(position));
}

}  // namespace Kiv
