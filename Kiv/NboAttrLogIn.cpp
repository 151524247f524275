#include "Kiv/NboAttrLogIn.h"

#include <string>

#include "Kiv/NboAttrLogTransport.h"

namespace Kiv::NboAttrLog {


In::In(Channel& channel) : channel_(channel) {}
In::~In() = default;

void In::announce(std::uint32_t id, TypeInfo const* type, std::uint32_t parentId) {
  if (id == 0 || id > kMaxEntityId) recordError("entity identifier out of range: " + std::to_string(id));
  if (!known_.emplace(id, Known{type, parentId}).second) {
    recordError("entity identifier already bound: " + std::to_string(id));
  }
}

void In::announceMember(std::uint32_t parentId, std::string_view key, std::uint32_t id,
                        TypeInfo const* type) {
  announce(id, type, parentId);
  auto [it, inserted] = memberIds_.try_emplace({parentId, std::string(key)}, id);
  if (!inserted) {
    known_.erase(it->second);
    it->second = id;
  }
}

void In::memberGone(std::uint32_t parentId, std::string_view key) noexcept {
  auto it = memberIds_.find({parentId, std::string(key)});
  if (it == memberIds_.end()) return;
  known_.erase(it->second);
  memberIds_.erase(it);
}

SaBase* In::bound(std::uint32_t id) const {
  auto it = bound_.find(id);
  return it == bound_.end() ? nullptr : it->second.ptr();
}

void In::feed(std::span<std::uint8_t const> bytes) {
  if (processing_) {
    later_.insert(later_.end(), bytes.begin(), bytes.end());
    return;
  }
  buf_.insert(buf_.end(), bytes.begin(), bytes.end());
  processing_ = true;
  try {
    process();
    while (!later_.empty()) {
      buf_.insert(buf_.end(), later_.begin(), later_.end());
      later_.clear();
      process();
    }
  } catch (...) {
    // The stream cannot be trusted past a bad record: drop it all (the channel closes).
    processing_ = false;
    buf_.clear();
    later_.clear();
    head_ = 0;
    pending_.clear();
    pendingBytes_ = 0;
    depth_ = 0;
    throw;
  }
  processing_ = false;
}

namespace {

// Runs `f` on the record of header `h`: a record error raised in it says which record it is.
template <class F>
void onRecord(MsgHeader const& h, F const& f) {
  try {
    f();
  } catch (AttrLogRecordException const& e) {
    throw AttrLogRecordException("record (entity " + std::to_string(h.entityId) + ", parent " +
                                 std::to_string(h.parentId) + ", attribute " +
                                 std::to_string(h.attributeId) + ", length " +
                                 std::to_string(h.length) + "): " + e.what());
  }
}

}  // namespace

void In::process() {
  while (buf_.size() - head_ >= MsgHeader::wireSize) {
    std::uint8_t const* p = buf_.data() + head_;
    MsgHeader h;
    h.length = load32(p);
    h.attributeId = std::int32_t(load32(p + 4));
    h.entityId = load32(p + 8);
    h.parentId = load32(p + 12);
    h.flags = p[16];
    onRecord(h, [&] {
      if (h.length > kMaxRecordBytes) recordError("record too long: " + std::to_string(h.length));
      if ((h.flags != flagRecord && h.flags != flagTransaction) || p[17] || p[18] || p[19]) {
        recordError("bad record header");
      }
    });
    if (buf_.size() - head_ < MsgHeader::wireSize + h.length) break;
    std::span<std::uint8_t const> body(p + MsgHeader::wireSize, h.length);
    onRecord(h, [&] {
      if (h.flags == flagTransaction) {
        checkMarker(h, body);
      } else {
        validate(h, body);
      }
    });
    if (depth_ > 0 || !pending_.empty()) {
      pendingBytes_ += h.length + MsgHeader::wireSize;
      if (pendingBytes_ > kMaxPendingBytes) onRecord(h, [] { recordError("transaction too large"); });
      pending_.emplace_back(h, std::vector<std::uint8_t>(body.begin(), body.end()));
      head_ += MsgHeader::wireSize + h.length;
      if (depth_ == 0) {
        auto records = std::move(pending_);
        pending_.clear();
        pendingBytes_ = 0;
        for (auto& [ph, pb] : records) onRecord(ph, [&] { apply(ph, pb); });
      }
    } else {
      // `body` stays valid: bytes fed while records are applied wait in later_.
      onRecord(h, [&] { apply(h, body); });
      head_ += MsgHeader::wireSize + h.length;
    }
  }
  if (head_ == buf_.size()) {
    buf_.clear();
    head_ = 0;
  } else if (head_ > 0) {
    buf_.erase(buf_.begin(), buf_.begin() + std::ptrdiff_t(head_));
    head_ = 0;
  }
}

void In::checkMarker(MsgHeader const& h, std::span<std::uint8_t const> body) {
  Cursor c(body);
  std::uint8_t token = c.u8();
  c.u32();
  c.expectEnd();
  if (h.entityId != 0 && !known_.count(h.entityId)) {
    recordError("entity identifier out of range: " + std::to_string(h.entityId));
  }
  if (token == tokenBegin) {
    if (++depth_ > kMaxTransactionDepth) recordError("transactions nested too deep");
  } else if (token == tokenEnd) {
    if (depth_ == 0) recordError("transaction end without begin");
    --depth_;
  } else {
    recordError("bad transaction token");
  }
}

void In::validate(MsgHeader const& h, std::span<std::uint8_t const> body) {
  Cursor c(body);
  c.token(tokenBegin);
  if (h.attributeId == createId) {
    c.section(1);
    String8 typeName = c.string();
    TypeInfo const* type = typeFind(typeName);
    if (!type) recordError("unknown type name: " + typeName);
    c.section(3);
    String8 argument = c.string();
    type->checkArgument(argument);
    c.section(4);
    std::uint32_t id = c.u32();
    c.token(tokenEnd);
    c.expectEnd();
    if (id != h.entityId || h.parentId != 0) recordError("creation record identifiers disagree");
    announce(id, type, 0);
    return;
  }
  if (h.attributeId == syncModeId) {
    std::uint32_t mode = c.u32();
    c.token(tokenEnd);
    c.expectEnd();
    if (mode != syncModeFull && mode != syncModeDone) recordError("bad sync mode " + std::to_string(mode));
    return;
  }
  auto it = known_.find(h.entityId);
  if (it == known_.end() || it->second.parentId != h.parentId) {
    recordError("entity identifier out of range: " + std::to_string(h.entityId));
  }
  it->second.type->validate(*this, h, c);
  c.token(tokenEnd);
  c.expectEnd();
}

void In::apply(MsgHeader const& h, std::span<std::uint8_t const> body) {
  Cursor c(body);
  header_ = h;
  cursor_ = &c;
  struct Reset {
    Cursor*& p;
    ~Reset() { p = nullptr; }
  } reset{cursor_};
  if (h.flags == flagTransaction) {
    std::uint8_t token = c.u8();
    std::uint32_t count = c.u32();
    if (SaBase* sa = bound(h.entityId)) {
      Ptr<SaBase> keep = sa;
      sa->handleAttrTransaction(AttributeId(h.attributeId), token, count);
    }
    return;
  }
  c.token(tokenBegin);
  if (h.attributeId == createId) {
    c.section(1);
    TypeInfo const* type = typeFind(c.string());
    c.section(3);
    String8 argument = c.string();
    Ptr<Entity> e = channel_.endpoint().bindRoot(*type, argument);
    bind(h.entityId, type->newReader(*e, *this));
  } else if (h.attributeId == syncModeId) {
    syncMode_ = c.u32();
  } else if (SaBase* sa = bound(h.entityId)) {
    Ptr<SaBase> keep = sa;
    sa->handleAttrDeserialization(AttributeId(h.attributeId), 0, 1, *this);
  }
  ++applied_;
}

void In::endOfStream() {
  bool midTransaction = depth_ > 0;
  bool midRecord = head_ != buf_.size();
  pending_.clear();
  pendingBytes_ = 0;
  depth_ = 0;
  if (midTransaction) recordError("stream cut mid-transaction");
  if (midRecord) recordError("stream cut mid-record");
}

}  // namespace Kiv::NboAttrLog
