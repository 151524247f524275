#include "Kiv/Type.h"

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Kiv/Exception.h"

namespace Kiv {

namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<TypeDescriptor>, std::less<>> byName;
  std::vector<TypeDescriptor const*> inOrder;
};

// Never destroyed: descriptors live as long as the process, and static objects of any library
// may ask for them while they are destroyed.
Registry& registry() {
  static Registry* r = new Registry;
  return *r;
}

std::atomic<IntrospectionReactor*> gReactor{nullptr};

}  // namespace

TypeDescriptor& typeIs(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.byName.find(name);
  if (it != r.byName.end()) return *it->second;
  auto d = std::make_unique<TypeDescriptor>(String8(name));
  TypeDescriptor& ref = *d;
  r.byName.emplace(std::string(name), std::move(d));
  r.inOrder.push_back(&ref);
  return ref;
}

TypeDescriptor* type(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.byName.find(name);
  return it == r.byName.end() ? nullptr : it->second.get();
}

std::vector<TypeDescriptor const*> types() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  return r.inOrder;
}

AttributeDescriptor const* TypeDescriptor::attribute(std::string_view name) const noexcept {
  for (auto const& a : attributes_) {
    if (a.name.view() == name) return &a;
  }
  return nullptr;
}

AttributeDescriptor const* TypeDescriptor::attribute(AttributeId id) const noexcept {
  for (auto const& a : attributes_) {
    if (a.id == id) return &a;
  }
  return nullptr;
}

Value TypeDescriptor::construct(std::span<Value const> args) const {
  if (!constructor_) {
    throw OperationNotSupportedException(String8(name_) + ": no generic constructor");
  }
  return constructor_(args);
}

IntrospectionReactor* introspectionReactor() noexcept {
  return gReactor.load(std::memory_order_acquire);
}

void introspectionReactorIs(IntrospectionReactor* reactor) noexcept {
  gReactor.store(reactor, std::memory_order_release);
}

void IntrospectionReactor::namespaceOpen(std::string_view name) {
  namespaces_.emplace_back(name);
}

void IntrospectionReactor::namespaceClose() {
  if (!namespaces_.empty()) namespaces_.pop_back();
}

String8 IntrospectionReactor::currentNamespace() const {
  String8 out;
  for (auto const& n : namespaces_) {
    if (!out.empty()) out += "::";
    out += n;
  }
  return out;
}

void IntrospectionReactor::typeOpen(TypeDescriptor& type, std::string_view keyName,
                                    std::string_view keyTypeName) {
  bool const skip = type.defined_;
  open_.push_back(&type);
  skipping_.push_back(skip);
  if (skip) return;
  type.defined_ = true;
  type.keyName_ = String8(keyName);
  type.keyType_ = keyTypeName.empty() ? nullptr : &typeIs(keyTypeName);
}

void IntrospectionReactor::typeKindIs(TypeKind kind) {
  if (!open_.empty() && !skipping_.back()) open_.back()->kind_ = kind;
}

void IntrospectionReactor::genericInterfaceIs(bool v) {
  if (!open_.empty() && !skipping_.back()) open_.back()->genericInterface_ = v;
}

void IntrospectionReactor::attributeIs(std::string_view name, std::string_view typeName,
                                       std::uint32_t flags, AttributeId id,
                                       std::string_view keyName, std::string_view keyTypeName) {
  if (open_.empty() || skipping_.back()) return;
  open_.back()->attributes_.push_back({String8(name), id, &typeIs(typeName), flags,
                                       String8(keyName),
                                       keyTypeName.empty() ? nullptr : &typeIs(keyTypeName)});
}

void IntrospectionReactor::enumeratorIs(std::string_view name, std::uint32_t value) {
  if (!open_.empty() && !skipping_.back())
    open_.back()->enumerators_.push_back({String8(name), value});
}

void IntrospectionReactor::constantIs(std::string_view name, Value value) {
  if (!open_.empty() && !skipping_.back()) {
    open_.back()->constants_.push_back({String8(name), std::move(value)});
  }
}

void IntrospectionReactor::typeClose() {
  if (open_.empty()) return;
  open_.pop_back();
  skipping_.pop_back();
}

AttributeHandle const* TypeDescriptor::handle(std::string_view name) const noexcept {
  for (auto const& h : handles_) {
    if (h.name().view() == name) return &h;
  }
  return nullptr;
}

AttributeHandle const& TypeDescriptor::handleIs(std::string_view name) {
  if (AttributeHandle const* h = handle(name)) return *h;
  return handles_.emplace_back(*this, String8(name));
}

void schemaDefine(IntrospectionReactor& reactor, std::span<std::string_view const> namespaces,
                  std::span<SchemaType const> types) {
  std::vector<SchemaType const*> alphabetical;
  for (auto const& t : types) alphabetical.push_back(&t);
  std::sort(alphabetical.begin(), alphabetical.end(),
            [](SchemaType const* a, SchemaType const* b) { return a->name < b->name; });
  for (SchemaType const* t : alphabetical) t->fetch();
  for (std::string_view n : namespaces) reactor.namespaceOpen(n);
  for (auto const& t : types) {
    if (t.define) t.define(reactor);
  }
  for (std::size_t i = 0; i < namespaces.size(); ++i) reactor.namespaceClose();
}

void schemaBind(std::span<SchemaType const> types, SchemaRegistration& registration) {
  for (auto const& t : types) {
    t.fetch();
    TypeDescriptor& d = typeIs(t.name);
    d.boundNameIs(String8(t.name));
    if (t.handleNames) {
      for (String8 const& n : t.handleNames()) d.handleIs(n.view()).descriptor();
    }
  }
  registration.run();
}

void SchemaRegistration::run() {
  if (hasRun()) return;
  IntrospectionReactor* reactor = introspectionReactor();
  if (reactor == nullptr || !reactor->active()) return;
  if (run_.exchange(true, std::memory_order_acq_rel)) return;
  define_(*reactor);
}

AttributeDescriptor const* AttributeHandle::descriptor() const noexcept {
  AttributeDescriptor const* d = resolved_.load(std::memory_order_acquire);
  if (d == nullptr) {
    d = type_->attribute(name_.view());
    if (d != nullptr) resolved_.store(d, std::memory_order_release);
  }
  return d;
}

}  // namespace Kiv
