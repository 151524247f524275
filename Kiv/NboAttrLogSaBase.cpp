#include "Kiv/NboAttrLogSaBase.h"

#include <string>
#include <unordered_map>

#include "Jorv/Exception.h"
#include "Kiv/NboAttrLogOut.h"
#include "Kiv/NboAttrLogTransport.h"

namespace Kiv::NboAttrLog {

namespace {

std::unordered_map<std::string_view, TypeInfo const*>& types() {
  static auto* t = new std::unordered_map<std::string_view, TypeInfo const*>;
  return *t;
}

}  // namespace

Jorv::TraceHandle& logTrace() {
  static Jorv::TraceHandle& handle = Jorv::traceHandle("Kiv::NboAttrLog");
  return handle;
}

void typeRegister(TypeInfo const& info) {
  types()[info.name] = &info;
}
TypeInfo const* typeFind(std::string_view name) {
  auto it = types().find(name);
  return it == types().end() ? nullptr : it->second;
}

SaBase::~SaBase() = default;

std::uint32_t SaBase::parentEntityId() const noexcept {
  return parent_ ? parent_->entityId_ : 0;
}

bool SaBase::outputLive() const noexcept {
  return out_ && out_->channel().open();
}

FlowOut* SaBase::flowOutIs(Out& out, String8 const& connection, bool blocked, AttributeId id) {
  if (!flowOut_) {
    flowOut_ = std::make_unique<FlowOut>();
    flowOut_->connection_ = connection;
  }
  flowOut_->blocked_ = blocked;
  flowOut_->attributeId_ = id;
  if (!flowOut_->queued_) {
    flowOut_->queued_ = true;
    out.flowOutEnqueue(*this);
  }
  return flowOut_.get();
}

void SaBase::flowOutDel() noexcept {
  if (flowOut_) freeResyncState(*flowOut_);
  flowOut_.reset();
}

void SaBase::handleAttrTransaction(AttributeId, std::uint8_t, std::uint32_t) {}
void SaBase::freeResyncState(FlowOut&) {}

void SaBase::syncModeIs(std::uint32_t mode) {
  KIV_TRACE(logTrace(), 5, "sync mode ", mode, " for ", entity().name());
}

void SaBase::detach() noexcept {
  Ptr<SaBase> const keep(this);  // leaving the output's roots may drop the last reference
  if (out_) {
    out_->adapters_.erase(&entity());
    std::erase_if(out_->roots_, [this](Ptr<SaBase> const& r) { return r.ptr() == this; });
  }
  out_ = nullptr;
  flowOut_.reset();
}

void SaBase::attachOut(Out& out, SaBase* parent) {
  entityId_ = out.newEntityId();  // may throw: nothing is bound yet
  out_ = &out;
  parent_ = parent;
  out.adapters_[&entity()] = this;
}

bool SaBase::mustDefer() const noexcept {
  return out_->blocked() || (flowOut_ && flowOut_->queued_) || out_->flowOutPending();
}

void SaBase::deferAttribute(std::uint32_t bit, AttributeId id) {
  FlowOut* f = flowOutIs(*out_, out_->channel().description(), out_->blocked(),
                         flowOut_ ? flowOut_->attributeId() : 0);
  (void)id;
  f->kivDirtyBitSet0().bitIs(bit);
}

void SaBase::notificationExceptionIs(AttributeId id) noexcept {
  KIV_TRACE(logTrace(), 1, "adapter of ", entity().name(), " failed on attribute ", id);
  if (out_) {
    out_->channel().endpoint().errorIs("notification failed on attribute " + std::to_string(id));
  }
}

SaBase::FlowInGuard::FlowInGuard(SaBase& sa, AttributeId id)
    : channel_(&sa.in_->channel()), entity_(channel_->flowInEntity_), id_(channel_->flowInId_) {
  channel_->flowInEntity_ = &sa.entity();
  channel_->flowInId_ = id;
}
SaBase::FlowInGuard::~FlowInGuard() {
  channel_->flowInEntity_ = entity_;
  channel_->flowInId_ = id_;
}

SaBase::ActiveGuard::ActiveGuard(SaBase& sa) : sa_(sa) {
  if (sa.flags_ & reactorActive) throw Jorv::RuntimeException("entity reactor is already active");
  sa.flags_ |= reactorActive;
}

void throwReadOnlyWrite(Entity const& entity) {
  throw Jorv::RuntimeException("write-update from readonly proxy: " + entity.fullPath());
}

void SaBase::checkRemoteWrite() const {
  if ((flags_ & readOnlyProxy) && !(flags_ & remoteWritable)) throwReadOnlyWrite(entity());
}

void SaBase::checkLocalWrite() const {
  if ((flags_ & readOnlyProxy) && !(flags_ & remoteWritable)) {
    throw ConstException("write to readonly proxy: " + entity().fullPath());
  }
}

Ptr<SaBase> SaBase::memberAdapterFor(Entity const&) { return nullptr; }

bool SaBase::isFlowIn(AttributeId id) const noexcept {
  return out_ && out_->channel().flowIn(&entity(), id);
}

}  // namespace Kiv::NboAttrLog
