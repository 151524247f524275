#pragma once
// Type introspection: the process-wide registry of type descriptors.
//
// Every registered type has exactly one TypeDescriptor for the life of the process: created on
// first use (`typeIs`), never moved, changed only by definition, never removed. A descriptor
// carries the type's qualified name, its kind (entity, value, enumeration; `undefined` while the
// type is known by name only, as the framework's built-in types and other libraries' types are),
// its attributes (name, identifier, type descriptor, flag word: Kiv/Attribute.h), and for
// entity types the name and type of the key it is created from. Enumerations list their
// enumerators; value types may publish named constants. A type may offer a generic constructor
// (an entity type's factory, or a value type's constructor from arguments).
//
// Definition goes through the introspection reactor (IntrospectionReactor): a library's schema
// registration opens its namespaces, then opens each type, defines its kind and attributes, and
// closes it. Until the process has an active reactor, registration is deferred (SchemaRegistration
// below): descriptors exist but carry no attributes, and the next attempt tries again.
//
// All of this runs on the thread that loads libraries and owns the entities; the registry takes a
// lock only around its map, so a lookup from another thread is safe, a definition is not.

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "Kiv/Attribute.h"
#include "Kiv/Exception.h"
#include "Kiv/Ptr.h"
#include "Kiv/String8.h"
#include "Kiv/Value.h"

namespace Kiv {

enum class TypeKind : std::uint8_t { undefined, entity, value, enumeration };

class TypeDescriptor;
struct AttributeDescriptor;

// A process-wide handle naming one attribute of a type, resolved from the type's descriptor on
// first use after the type has been defined (null until then). Entity code names its attributes
// in notifications and in the attribute log through these.
class AttributeHandle {
 public:
  AttributeHandle(TypeDescriptor const& type, String8 name)
      : type_(&type), name_(std::move(name)) {}
  AttributeDescriptor const* descriptor() const noexcept;
  String8 const& name() const noexcept { return name_; }

 private:
  TypeDescriptor const* type_;
  String8 name_;
  mutable std::atomic<AttributeDescriptor const*> resolved_{nullptr};
};

struct AttributeDescriptor {
  String8 name;
  AttributeId id;
  TypeDescriptor const* type;
  std::uint32_t flags;
  // A collection's members' key (empty otherwise).
  String8 keyName;
  TypeDescriptor const* keyType = nullptr;
};

struct Enumerator {
  String8 name;
  std::uint32_t value;
};

struct NamedConstant {
  String8 name;
  Value value;
};

class TypeDescriptor {
 public:
  // Generic construction from arguments: an entity type's factory (from its key) or a value
  // type's constructor. Refuses a surplus argument with UnknownArgumentException.
  using Constructor = std::function<Value(std::span<Value const>)>;

  explicit TypeDescriptor(String8 name) : name_(std::move(name)) {}
  TypeDescriptor(TypeDescriptor const&) = delete;
  TypeDescriptor& operator=(TypeDescriptor const&) = delete;

  String8 const& name() const noexcept { return name_; }
  TypeKind kind() const noexcept { return kind_; }
  // Asked for by its own type (its `_fwkType()`), not only named by another's attribute.
  bool inUse() const noexcept { return inUse_; }
  bool genericInterface() const noexcept { return genericInterface_; }
  // The name the library bound this descriptor to at load time (empty until then).
  String8 const& boundName() const noexcept { return boundName_; }
  String8 const& keyName() const noexcept { return keyName_; }
  TypeDescriptor const* keyType() const noexcept { return keyType_; }

  std::deque<AttributeDescriptor> const& attributes() const noexcept { return attributes_; }
  AttributeDescriptor const* attribute(std::string_view name) const noexcept;
  AttributeDescriptor const* attribute(AttributeId id) const noexcept;
  std::vector<Enumerator> const& enumerators() const noexcept { return enumerators_; }
  std::vector<NamedConstant> const& constants() const noexcept { return constants_; }

  bool constructible() const noexcept { return static_cast<bool>(constructor_); }
  // Throws OperationNotSupportedException for a type without a generic constructor.
  Value construct(std::span<Value const> args) const;

  void inUseIs() noexcept { inUse_ = true; }
  void boundNameIs(String8 name) { boundName_ = std::move(name); }
  void constructorIs(Constructor c) { constructor_ = std::move(c); }

  // The handle kept for attribute `name` (nullptr when none was made).
  AttributeHandle const* handle(std::string_view name) const noexcept;
  AttributeHandle const& handleIs(std::string_view name);

 private:
  friend class IntrospectionReactor;

  String8 const name_;
  TypeKind kind_ = TypeKind::undefined;
  bool inUse_ = false;
  bool genericInterface_ = false;
  bool defined_ = false;
  String8 boundName_;
  String8 keyName_;
  TypeDescriptor const* keyType_ = nullptr;
  std::deque<AttributeDescriptor> attributes_;  // deque: descriptors handed out stay in place
  std::vector<Enumerator> enumerators_;
  std::vector<NamedConstant> constants_;
  Constructor constructor_;
  std::deque<AttributeHandle> handles_;
};

// The descriptor of `name`, created (kind undefined) if there is none yet.
TypeDescriptor& typeIs(std::string_view name);
// The descriptor of `name`, or nullptr.
TypeDescriptor* type(std::string_view name);
// Every descriptor, in order of creation.
std::vector<TypeDescriptor const*> types();

// The descriptor behind a type's `_fwkType()`: runs `registration` (which returns at once once it
// has run), then fetches the descriptor of `name` once, marks it in use and keeps it. `Tag` only
// makes the kept reference one per type.
template <class Tag>
TypeDescriptor& fwkTypeOf(std::string_view name, void (*registration)()) {
  registration();
  static TypeDescriptor& d = [&]() -> TypeDescriptor& {
    TypeDescriptor& t = typeIs(name);
    t.inUseIs();
    return t;
  }();
  return d;
}

// The framework's introspection reactor: the one way types are defined. A definition is a
// sequence namespaceOpen.. typeOpen, typeKindIs, genericInterfaceIs, attributes.., typeClose..
// namespaceClose. Defining a type that is already defined changes nothing (a second registration
// finds every descriptor in place).
class IntrospectionReactor {
 public:
  bool active() const noexcept { return active_.load(std::memory_order_acquire); }
  void activeIs(bool v) noexcept { active_.store(v, std::memory_order_release); }

  void namespaceOpen(std::string_view name);
  void namespaceClose();
  // The qualified namespace currently open ("Routing::Pim::Bidir").
  String8 currentNamespace() const;

  // Opens `type` for definition; with a key for entity types created from one.
  void typeOpen(TypeDescriptor& type, std::string_view keyName = {},
                std::string_view keyTypeName = {});
  void typeKindIs(TypeKind kind);
  void genericInterfaceIs(bool v);
  void attributeIs(std::string_view name, std::string_view typeName, std::uint32_t flags,
                   AttributeId id, std::string_view keyName = {},
                   std::string_view keyTypeName = {});
  void enumeratorIs(std::string_view name, std::uint32_t value);
  void constantIs(std::string_view name, Value value);
  void typeClose();

 private:
  std::atomic<bool> active_{false};
  std::vector<String8> namespaces_;
  std::vector<TypeDescriptor*> open_;  // nested types: an enumeration defined inside its owner
  std::vector<bool> skipping_;         // per open type: already defined, change nothing
};

// The process's introspection reactor, or nullptr. The framework installs one; it defines types
// only while it is active.
IntrospectionReactor* introspectionReactor() noexcept;
void introspectionReactorIs(IntrospectionReactor* reactor) noexcept;

// Run-once schema registration of one library. run(): if it has run, return; if the process has
// no active reactor, return without marking it run (a later call tries again); otherwise mark it
// run first (so that the `_fwkType()` calls the schema makes do not re-enter it), then call
// `define` with the reactor.
class SchemaRegistration {
 public:
  constexpr explicit SchemaRegistration(void (*define)(IntrospectionReactor&)) : define_(define) {}
  void run();
  bool hasRun() const noexcept { return run_.load(std::memory_order_acquire); }

 private:
  void (*define_)(IntrospectionReactor&);
  std::atomic<bool> run_{false};
};

// One type of a library's schema, as the library lists it (its load-time list order).
struct SchemaType {
  std::string_view name;             // qualified name
  TypeDescriptor const& (*fetch)();  // the type's _fwkType()
  // Defines the type (and the types nested in it); nullptr for a type defined inside another's.
  void (*define)(IntrospectionReactor&);
  // Entity types: the attribute names kept as handles, in schema order; nullptr otherwise.
  std::vector<String8> (*handleNames)();
};

// A library's schema registration body: fetches every descriptor in alphabetical order of the
// qualified names, opens `namespaces` in order, defines the types in list order (nested ones
// through their owner), closes the namespaces.
void schemaDefine(IntrospectionReactor& reactor, std::span<std::string_view const> namespaces,
                  std::span<SchemaType const> types);

// A library's load-time binding: for each type in list order, fetches its descriptor (the first
// fetch runs `registration`), binds it to the listed name and, for an entity type, keeps a handle
// for each of its attributes; then runs `registration` once more.
void schemaBind(std::span<SchemaType const> types, SchemaRegistration& registration);

}  // namespace Kiv
