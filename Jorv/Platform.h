#pragma once
// Platform services of the base library: debug handlers (named trace handles) and type names.

#include <string>
#include <string_view>
#include <typeinfo>

#include "Jorv/Trace.h"

namespace Jorv {

using DebugHandler = Jorv::TraceHandle;

struct Platform {
  // The debug handler of that name; the same object for the same name for the whole process.
  static DebugHandler& getDebugHandler(std::string_view name) { return Jorv::traceHandle(name); }
};

// The demangled name of `T`'s run-time type. A type may choose the name it is known by in file
// headers and messages by declaring `static constexpr char const* typeName = "...";` (for example
// a wrapper that wants to be known by the record it wraps).
std::string demangle(char const* mangled);

template <class T>
std::string typeName() {
  if constexpr (requires { T::typeName; }) {
    return std::string(T::typeName);
  } else {
    return demangle(typeid(T).name());
  }
}

}  // namespace Jorv
