#include "Kiv/Entity.h"

#include <algorithm>
#include <array>
#include <exception>
#include <span>
#include <typeinfo>

#include "Jorv/Platform.h"
#include "Jorv/Trace.h"
#include "Kiv/Type.h"

namespace Kiv {

namespace {

Jorv::TraceHandle& notificationTrace() {
  static Jorv::TraceHandle& handle = Jorv::traceHandle("Kiv::Notification");
  return handle;
}

constexpr AttributeDecl kEntityAttributes[] = {
    {"fwkKey", Entity::fwkKeyId, "", AttributeKind::framework},
    {"name", Entity::nameId, "Kiv::Name", AttributeKind::framework},
    {"parent", Entity::parentId, "Kiv::Entity", AttributeKind::framework},
    {"version", Entity::versionId, "U32", AttributeKind::framework},
    {"references", Entity::referencesId, "U32", AttributeKind::framework},
    {"zeroReferences", Entity::zeroReferencesId, "Bool", AttributeKind::framework},
    {"isNondestructing", Entity::isNondestructingId, "Bool", AttributeKind::lifecycle},
};

}  // namespace

AttributeTable const kEntityAttributeTable{"Kiv::Entity", kEntityAttributes, nullptr};

std::uint32_t bitReverse(std::uint32_t v) noexcept {
  v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
  v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
  v = ((v >> 4) & 0x0f0f0f0fu) | ((v & 0x0f0f0f0fu) << 4);
  v = ((v >> 8) & 0x00ff00ffu) | ((v & 0x00ff00ffu) << 8);
  return (v >> 16) | (v << 16);
}

AttributeTable const& Entity::attributeTable() const {
  return kEntityAttributeTable;
}

TypeDescriptor const& Entity::fwkType() const {
  return typeIs(attributeTable().typeName);
}

Value Entity::attributeOp(AttributeRequest const& request) {
  return attributeOpOwn(request);
}

Value Entity::attributeOp(AttributeRequest const& request) const {
  if (request.modifying()) throwConstInstance();
  // Only reads get past the check: nothing is modified through the cast.
  return const_cast<Entity*>(this)->attributeOpOwn(request);
}

Value Entity::attributeOpOwn(AttributeRequest const& request) {
  return attributeOpBase(request);
}

Value Entity::attributeOpBase(AttributeRequest const& request) {
  String8 const name = attributeString(request.id);
  if (request.index != nullptr) throwBadIndex(name);
  auto const typed = [&](auto v, std::string_view typeName) {
    return Value(std::move(v), &typeIs(typeName));
  };
  if (request.op == AttributeRequest::read) {
    switch (request.id) {
      case nameId:
        return typed(name_, "Kiv::Name");
      case parentId:
        return typed(Ptr<Entity>(parent()), "Kiv::Entity");
      case referencesId:
        return typed(references(), "U32");
      case zeroReferencesId:
        return typed(zeroReferences_, "Bool");
      case isNondestructingId:
        return typed(isNondestructing_, "Bool");
      default:
        break;
    }
  } else if (request.op == AttributeRequest::write && request.id == isNondestructingId) {
    if (request.value == nullptr) throwTypeException(name, "value required");
    std::optional<bool> v = request.value->to<bool>();
    if (!v) throwTypeException(name, "cannot convert " + request.value->text() + " to Bool");
    isNondestructingIs(*v);
    return Value();
  }
  throwOperationNotSupported(name, request.op);
}

String8 Entity::attributeString(AttributeId id) const {
  AttributeDecl const* decl = attributeTable().find(id);
  return decl ? String8(decl->name) : String8("unknown");
}

Entity::~Entity() {
  liveEntityDel(this);
  // Registered notifiees hold references, so none can be left here; detach defensively anyway so
  // that a stray one never follows a dangling pointer.
  for (NotifieeConst* n : notifiees_) n->inList_ = false;
}

void Entity::onLastRef() {
  if (isNondestructing_) {
    zeroReferencesIs(true);
    return;
  }
  destroy();
}

void Entity::parentIs(Entity* parent, AttributeId memberAttributeId) {
  if (!parent) memberAttributeId = 0;
  if (parent_ == parent && memberAttributeId_ == memberAttributeId) return;
  parent_ = parent;
  memberAttributeId_ = memberAttributeId;
  notify(parentId, &NotifieeConst::onParent);
  parentChanged();
}

String8 Entity::fullPath() const {
  String8 path = name_;
  for (Entity const* e = parent(); e != nullptr; e = e->parent()) path = e->name_ + "/" + path;
  return path;
}

void Entity::isNondestructingIs(bool value) {
  // With a reference left, whoever drops the last one (a handler, or `keep` below) frees it.
  auto const keep = keepAlive();
  if (attributeIs(isNondestructing_, value, isNondestructingId,
                  &NotifieeConst::onIsNondestructing) &&
      !value && zeroReferences_ && !keep) {
    destroy();
  }
}

void Entity::zeroReferencesIs(bool value) {
  attributeIs(zeroReferences_, value, zeroReferencesId, &NotifieeConst::onZeroReferences);
}

void Entity::notifieeDel(NotifieeConst* n) const noexcept {
  auto it = std::find(notifiees_.begin(), notifiees_.end(), n);
  if (it != notifiees_.end()) notifiees_.erase(it);
}

void Entity::walk(AttributeId id, Call call, void const* context) const {
  std::size_t const count = notifiees_.size();
  if (count == 0) return;
  // Keep this entity alive across the walk (a handler may drop the last outside reference). An
  // entity that has no reference left (it is being destroyed) has no notifiee either, since every
  // registered notifiee holds a reference to it.
  auto const self = keepAlive();
  // The snapshot keeps every reference-counted notifiee alive for the walk. A notifiee that is not
  // reference counted (a plain member of its owner) is not referenced here, which is why each
  // entry is looked up in the live list before it is called: one that left the list, or was
  // destroyed (destruction leaves the list), is skipped without being touched.
  struct Entry {
    NotifieeConst* notifiee = nullptr;
    Ptr<NotifieeConst> keep;
  };
  std::array<Entry, kInlineNotifiees> inlineSnapshot;
  std::vector<Entry> heapSnapshot;
  std::span<Entry> snapshot;
  if (count <= kInlineNotifiees) {
    snapshot = std::span(inlineSnapshot.data(), count);
  } else {
    heapSnapshot.resize(count);
    snapshot = heapSnapshot;
  }
  for (std::size_t i = 0; i < count; ++i) {
    snapshot[i].notifiee = notifiees_[i];
    if (notifiees_[i]->references() > 0) snapshot[i].keep = notifiees_[i];
  }
  for (Entry const& entry : snapshot) {
    if (std::find(notifiees_.begin(), notifiees_.end(), entry.notifiee) == notifiees_.end()) {
      continue;
    }
    NotifieeConst& n = *entry.notifiee;
    try {
      call(context, n);
    } catch (...) {
      if (notificationTrace().enabled(1)) {
        char const* what = "non-standard exception";
        try {
          throw;
        } catch (std::exception const& e) {
          what = e.what();
        } catch (...) {
        }
        KIV_TRACE(notificationTrace(), 1, "notifiee ", n.name(), " threw on attribute ", id, ": ",
                  what);
      }
      try {
        n.onNotificationException(id);
      } catch (...) {
        KIV_TRACE(notificationTrace(), 1, "notifiee ", n.name(),
                  " threw from onNotificationException(", id, ")");
      }
    }
  }
}

Entity::NotifieeConst::~NotifieeConst() {
  if (inList_) notifier_->notifieeDel(this);
}

void Entity::NotifieeConst::isRegisteredNotifieeIs(bool value) {
  isRegisteredNotifiee_ = value;
  if (!notifier_) return;
  if (value && !inList_) {
    notifier_->notifieeAdd(this);
    inList_ = true;
  } else if (!value && inList_) {
    notifier_->notifieeDel(this);
    inList_ = false;
  }
}

String8 Entity::NotifieeConst::name() const {
  return Jorv::demangle(typeid(*this).name());
}

void Entity::NotifieeConst::notifierBaseIs(Entity const* notifier) {
  if (notifier_.ptr() == notifier) return;
  if (inList_) {
    notifier_->notifieeDel(this);
    inList_ = false;
  }
  notifier_ = notifier;  // may release the last reference to the old notifier
  if (notifier_ && isRegisteredNotifiee_) {
    notifier_->notifieeAdd(this);
    inList_ = true;
  }
}

}  // namespace Kiv
