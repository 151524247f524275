#pragma once
// Registration of the library's types with the framework's introspection.
//
// The library carries a ".kiv.type" data section listing the qualified name of every type it
// registers, NUL-terminated, in registration order (kivTypeNames()). Loading the library creates
// the trace handle "RootPathBase::Kiv", then binds the descriptor of each of the first twelve
// types (the Routing::Pim::Bidir ones) in that order, keeping a handle for each attribute of the
// entity types, runs the schema registration and marks the library initialised. The table records
// and state machines of Routing::Pim::Bidir::Quarn (the rest of the list) register the same way
// from their own load-time code.
//
// Schema registration runs once per process, on the first `_fwkType()` of any of the twelve types
// or at load, whichever comes first, but only once the process's introspection reactor is active;
// until then it is deferred and every `_fwkType()` tries again. The descriptors themselves exist
// from the first `_fwkType()` on, and are the same before and after registration.

#include <string_view>
#include <vector>

namespace Routing::Pim::Bidir {

// The ".kiv.type" list, in order.
std::vector<std::string_view> kivTypeNames();

// Runs the Routing::Pim::Bidir schema registration if it has not run and the reactor is active.
void schemaRegister();
bool schemaRegistered() noexcept;

// True once the library's load-time initialisation has completed.
bool libraryInitialized() noexcept;

}  // namespace Routing::Pim::Bidir
