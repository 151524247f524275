#include "Kiv/NboAttrLogIn.h"

#include <algorithm>
#include <string>

#include "Kiv/NboAttrLogTransport.h"

namespace Kiv::NboAttrLog {

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

MsgHeader headerAt(std::uint8_t const* p) noexcept {
  return MsgHeader{load32(p), std::int32_t(load32(p + 4)), load32(p + 8), load32(p + 12), p[16]};
}

}  // namespace

In::In(Channel& channel) : channel_(channel) {}
In::~In() = default;

void In::announce(std::uint32_t id, TypeInfo const* type, std::uint32_t parentId,
                  Entity const* readOnly) {
  if (id == 0 || id > kMaxEntityId) {
    recordError("entity identifier out of range: " + std::to_string(id));
  }
  std::size_t const most = channel_.endpoint().options().maxEntities;
  if (known_.size() >= most) {
    recordError("too many entities on one connection: " + std::to_string(most));
  }
  if (!known_.emplace(id, Known{type, parentId, readOnly}).second) {
    recordError("entity identifier already bound: " + std::to_string(id));
  }
  noteHeld();
}

void In::announceMember(std::uint32_t parentId, std::string_view key, std::uint32_t id,
                        TypeInfo const* type) {
  // The identifier a key had before is released first, so that a member announced again never
  // counts twice against the bound.
  auto it = memberIds_.find({parentId, std::string(key)});
  if (it != memberIds_.end()) known_.erase(it->second);
  announce(id, type, parentId);
  memberIds_.insert_or_assign({parentId, std::string(key)}, id);
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

void In::noteHeld() noexcept {
  peakEntities_ = std::max(peakEntities_, known_.size());
  peakBytesHeld_ = std::max(peakBytesHeld_, bytesHeld());
}

void In::feed(std::span<std::uint8_t const> bytes) {
  if (processing_) {
    later_.insert(later_.end(), bytes.begin(), bytes.end());
    noteHeld();
    return;
  }
  buf_.insert(buf_.end(), bytes.begin(), bytes.end());
  noteHeld();
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
    depth_ = 0;
    throw;
  }
  processing_ = false;
}

void In::process() {
  while (buf_.size() - head_ >= MsgHeader::wireSize) {
    std::uint8_t const* p = buf_.data() + head_;
    MsgHeader const h = headerAt(p);
    onRecord(h, [&] {
      if (h.length > kMaxRecordBytes) recordError("record too long: " + std::to_string(h.length));
      if ((h.flags != flagRecord && h.flags != flagTransaction) || p[17] || p[18] || p[19]) {
        recordError("bad record header");
      }
    });
    std::size_t const size = MsgHeader::wireSize + h.length;
    if (buf_.size() - head_ < size) break;
    std::span<std::uint8_t const> body(p + MsgHeader::wireSize, h.length);
    onRecord(h, [&] {
      if (h.flags == flagTransaction) {
        checkMarker(h, body);
      } else {
        validate(h, body);
      }
    });
    if (depth_ == 0 && pending_.empty()) {
      // `body` stays valid: bytes fed while records are applied wait in later_.
      onRecord(h, [&] { apply(h, body); });
      head_ += size;
      continue;
    }
    std::size_t const most = channel_.endpoint().options().maxPendingBytes;
    if (pending_.size() + size > most) {
      onRecord(h, [&] { recordError("transaction too large: over " + std::to_string(most)); });
    }
    pending_.insert(pending_.end(), p, p + size);
    head_ += size;
    noteHeld();
    if (depth_ == 0) {
      // The outermost end: apply the transaction's records, checked already, in order.
      std::vector<std::uint8_t> const records = std::move(pending_);
      pending_.clear();
      for (std::size_t at = 0; at < records.size();) {
        MsgHeader const ph = headerAt(records.data() + at);
        std::span<std::uint8_t const> pb(records.data() + at + MsgHeader::wireSize, ph.length);
        onRecord(ph, [&] { apply(ph, pb); });
        at += MsgHeader::wireSize + ph.length;
      }
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

In::Known const& In::addressee(std::uint32_t id, std::uint32_t parentId) const {
  auto it = known_.find(id);
  if (it == known_.end() || it->second.parentId != parentId) {
    recordError("entity identifier out of range: " + std::to_string(id));
  }
  if (it->second.readOnly) throwReadOnlyWrite(*it->second.readOnly);
  return it->second;
}

void In::checkMarker(MsgHeader const& h, std::span<std::uint8_t const> body) {
  Cursor c(body);
  std::uint8_t token = c.u8();
  c.u32();
  c.expectEnd();
  // A reader has nothing to apply together; a transaction from it could only be held.
  if (channel_.endpoint().options().peers == Endpoint::Peers::readers) {
    recordError("transaction from readonly peer");
  }
  if (h.entityId != 0) addressee(h.entityId, h.parentId);
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
    // Writing peers bind a read root, else a served entity (read-only), else a root made for the
    // connection; reading peers bind a served entity and nothing else.
    Endpoint const& endpoint = channel_.endpoint();
    bool const readers = endpoint.options().peers == Endpoint::Peers::readers;
    Entity const* served = nullptr;
    if (readers || !endpoint.readRoot(type->name, argument)) {
      served = endpoint.servedRoot(type->name, argument).ptr();
      if (!served && readers) {
        recordError("create from readonly peer: " + typeName + " " + argument);
      }
    }
    announce(id, type, 0, served);
    return;
  }
  if (h.attributeId == syncModeId) {
    std::uint32_t mode = c.u32();
    c.token(tokenEnd);
    c.expectEnd();
    if (mode != syncModeFull && mode != syncModeDone) {
      recordError("bad sync mode " + std::to_string(mode));
    }
    return;
  }
  addressee(h.entityId, h.parentId).type->validate(*this, h, c);
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
    // A served entity is bound read-only: validation refuses whatever is addressed to it, so
    // there is nothing to apply it to.
    auto known = known_.find(h.entityId);
    if (known != known_.end() && !known->second.readOnly) {
      Ptr<Entity> e = channel_.bindRoot(*type, argument);
      bind(h.entityId, type->newReader(*e, *this));
    }
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
  depth_ = 0;
  if (midTransaction) recordError("stream cut mid-transaction");
  if (midRecord) recordError("stream cut mid-record");
}

}  // namespace Kiv::NboAttrLog
