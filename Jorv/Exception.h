#pragma once
// Base exception types of the platform. Every failure of the library is reported by an exception
// that carries its message text; `what()` returns that text unchanged, so callers and tests can
// compare it exactly.

#include <exception>
#include <string>
#include <utility>

namespace Jorv {

class Exception : public std::exception {
 public:
  explicit Exception(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }
  std::string const& message() const noexcept { return message_; }

 private:
  std::string message_;
};

// Misuse of an object at run time (an operation in a state that does not allow it).
class RuntimeException : public Exception {
 public:
  using Exception::Exception;
};

// A memory resource (a mapping, a file resize) could not be obtained.
class MemoryResourceException : public Exception {
 public:
  using Exception::Exception;
};

// An object was initialised a second time, or with parameters it cannot accept.
class InvalidInitializeException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Jorv
