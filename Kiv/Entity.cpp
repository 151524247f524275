#include "Kiv/Entity.h"

#include <algorithm>
#include <array>
#include <exception>
#include <span>
#include <typeinfo>

#include "Jorv/Platform.h"
#include "Kiv/Trace.h"

namespace Kiv {

namespace {

Kiv::TraceHandle& notificationTrace() {
  static Kiv::TraceHandle& handle = Kiv::traceHandle("Kiv::Notification");
  return handle;
}

constexpr AttributeDecl kEntityAttributes[] = {
    {"fwkKey", Entity::fwkKeyId, "", AttributeKind::framework},
    {"name", Entity::nameId, "Kiv::Name", AttributeKind::framework},
    {"parent", Entity::parentId, "Kiv::Entity", AttributeKind::framework},
    {"version", Entity::versionId, "U32", AttributeKind::framework},
    {"references", Entity::referencesId, "U32", AttributeKind::framework},
    {"zeroReferences", Entity::zeroReferencesId, "Bool", AttributeKind::framework},
    {"isNondestructing", Entity::isNondestructingId, "Bool", AttributeKind::framework},
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

String8 Entity::attributeString(AttributeId id) const {
  AttributeDecl const* decl = attributeTable().find(id);
  return decl ? String8(decl->name) : String8("unknown");
}

Entity::~Entity() {
  // Registered notifiees hold references, so none can be left here; detach defensively anyway so
  // that a stray one never follows a dangling pointer.
  for (NotifieeConst* n : notifiees_) n->inList_ = false;
}

void Entity::onLastRef() {
  if (isNondestructing_) {
    zeroReferencesIs(true);
    return;
  }
  delete this;
}

void Entity::parentIs(Entity* parent, AttributeId memberAttributeId) {
  if (!parent) memberAttributeId = 0;
  if (parent_ == parent && memberAttributeId_ == memberAttributeId) return;
  parent_ = parent;
  memberAttributeId_ = memberAttributeId;
  notify(parentId, &NotifieeConst::onParent);
}

void Entity::isNondestructingIs(bool value) {
  if (attributeIs(isNondestructing_, value, isNondestructingId,
                  &NotifieeConst::onIsNondestructing) &&
      !value && zeroReferences_ && references() == 0) {
    delete this;
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
  // entity being destroyed has no reference left and no notifiee either, so it never gets here
  // with a count of zero unless it was never referenced.
  Ptr<Entity const> self = references() > 0 ? this : nullptr;
  std::array<Ptr<NotifieeConst>, kInlineNotifiees> inlineSnapshot;
  std::vector<Ptr<NotifieeConst>> heapSnapshot;
  std::span<Ptr<NotifieeConst>> snapshot;
  if (count <= kInlineNotifiees) {
    std::copy(notifiees_.begin(), notifiees_.end(), inlineSnapshot.begin());
    snapshot = std::span(inlineSnapshot.data(), count);
  } else {
    heapSnapshot.assign(notifiees_.begin(), notifiees_.end());
    snapshot = heapSnapshot;
  }
  for (Ptr<NotifieeConst>& n : snapshot) {
    if (!n->inList_ || n->notifier_.ptr() != this) continue;  // left during the walk
    try {
      call(context, *n);
    } catch (...) {
      if (notificationTrace().enabled(1)) {
        char const* what = "non-standard exception";
        try {
          throw;
        } catch (std::exception const& e) {
          what = e.what();
        } catch (...) {
        }
        KIV_TRACE(notificationTrace(), 1, "notifiee ", n->name(), " threw on attribute ", id, ": ",
                  what);
      }
      try {
        n->onNotificationException(id);
      } catch (...) {
        KIV_TRACE(notificationTrace(), 1, "notifiee ", n->name(),
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
