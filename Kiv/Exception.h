#pragma once
// The entity framework's exceptions. Each carries its message text unchanged (`what()`), so that
// callers and tests can compare it exactly. All derive from Jorv::Exception; catch the specific
// type to tell a bad value (RangeException) from misuse of an instance or a request.

#include <cstddef>
#include <string>
#include <string_view>

#include "Jorv/Exception.h"

namespace Kiv {

// A value, a number or a text is outside what the receiving type accepts.
class RangeException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// An attempt to modify an instance that is held read-only.
class ConstException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// A value of the wrong type (or no value) was offered for an attribute.
class TypeException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// An index was given where none is allowed, or it does not name a member.
class BadIndexException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// The operation is not defined for that attribute or object.
class OperationNotSupportedException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// An argument names something that does not exist.
class UnknownArgumentException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// A required reference argument was null.
class NullArgumentException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// No entity identifier could be obtained for an entity sent over the attribute log.
class EntityIdUnavailableException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// An attribute-log record could not be written or read back.
class AttrLogRecordException : public Jorv::Exception {
 public:
  using Jorv::Exception::Exception;
};

// Throws RangeException with `message`. Out of line so that callers' hot paths stay small.
[[noreturn]] void throwRangeException(std::string const& message);

// The generic attribute interface's refusals, with their text layout:
//   ConstException                  "attempting to modify a const instance"
//   BadIndexException               "attribute 'joins': no index allowed"
//   TypeException                   "attribute 'iAmDf': <why>" (for example "value required")
//   OperationNotSupportedException  "attribute 'oList': operation 128 not supported"
//   UnknownArgumentException        "MrouteClearFlags: unknown argument 2" (1-based position)
[[noreturn]] void throwConstInstance();
[[noreturn]] void throwBadIndex(std::string_view attribute);
[[noreturn]] void throwTypeException(std::string_view attribute, std::string_view why);
[[noreturn]] void throwOperationNotSupported(std::string_view attribute, unsigned operation);
[[noreturn]] void throwUnknownArgument(std::string_view type, std::size_t position);

}  // namespace Kiv
