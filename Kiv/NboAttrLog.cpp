#include "Kiv/NboAttrLog.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "Jorv/Exception.h"
#include "Jorv/Trace.h"

namespace Kiv::NboAttrLog {

namespace {

Jorv::TraceHandle& trace() {
  static Jorv::TraceHandle& handle = Jorv::traceHandle("Kiv::NboAttrLog");
  return handle;
}

[[noreturn]] void bad(std::string const& what) {
  throw AttrLogRecordException(what);
}

std::uint32_t get32(std::uint8_t const* p) noexcept {
  return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}

void setNonBlocking(int fd) {
  int fl = ::fcntl(fd, F_GETFL);
  ::fcntl(fd, F_SETFL, fl | O_NONBLOCK);
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

std::unordered_map<std::string_view, TypeInfo const*>& types() {
  static auto* t = new std::unordered_map<std::string_view, TypeInfo const*>;
  return *t;
}

}  // namespace

// ---- Cursor and built-in codecs ----

std::uint8_t Cursor::u8() {
  if (p_ == end_) bad("truncated record");
  return *p_++;
}
std::uint16_t Cursor::u16() {
  if (left() < 2) bad("truncated record");
  std::uint16_t v = std::uint16_t(p_[0] << 8 | p_[1]);
  p_ += 2;
  return v;
}
std::uint32_t Cursor::u32() {
  if (left() < 4) bad("truncated record");
  std::uint32_t v = get32(p_);
  p_ += 4;
  return v;
}
std::string_view Cursor::bytes(std::size_t n) {
  if (left() < n) bad("truncated record");
  std::string_view v(reinterpret_cast<char const*>(p_), n);
  p_ += n;
  return v;
}
String8 Cursor::string() {
  std::uint32_t n = u32();
  return String8(bytes(n));
}
void Cursor::token(std::uint8_t t) {
  if (u8() != t) bad("bad token, expected " + std::to_string(t));
}
void Cursor::section(std::uint8_t s) {
  token(tokenSection);
  if (u8() != s) bad("bad section, expected " + std::to_string(s));
}
void Cursor::expectEnd() const {
  if (p_ != end_) bad("trailing bytes in record");
}

void nboWrite(Out& out, bool v) {
  out.put8(v ? 1 : 0);
}
void nboWrite(Out& out, std::uint8_t v) {
  out.put8(v);
}
void nboWrite(Out& out, std::uint16_t v) {
  out.put16(v);
}
void nboWrite(Out& out, std::uint32_t v) {
  out.put32(v);
}
void nboWrite(Out& out, std::string_view v) {
  out.put32(std::uint32_t(v.size()));
  out.putBytes(v);
}
bool nboRead(Cursor& in, bool const*) {
  std::uint8_t v = in.u8();
  if (v > 1) bad("bad Boolean " + std::to_string(v));
  return v == 1;
}
std::uint8_t nboRead(Cursor& in, std::uint8_t const*) {
  return in.u8();
}
std::uint16_t nboRead(Cursor& in, std::uint16_t const*) {
  return in.u16();
}
std::uint32_t nboRead(Cursor& in, std::uint32_t const*) {
  return in.u32();
}
String8 nboRead(Cursor& in, String8 const*) {
  return in.string();
}

void typeRegister(TypeInfo const& info) {
  types()[info.name] = &info;
}
TypeInfo const* typeFind(std::string_view name) {
  auto it = types().find(name);
  return it == types().end() ? nullptr : it->second;
}

// ---- SaBase ----

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
  KIV_TRACE(trace(), 5, "sync mode ", mode, " for ", entity().name());
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
  KIV_TRACE(trace(), 1, "adapter of ", entity().name(), " failed on attribute ", id);
  if (out_) out_->channel().endpoint().errorIs("notification failed on attribute " + std::to_string(id));
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

void SaBase::checkRemoteWrite() const {
  if ((flags_ & readOnlyProxy) && !(flags_ & remoteWritable)) {
    throw Jorv::RuntimeException("write-update from readonly proxy: " + entity().fullPath());
  }
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

// ---- Out ----

Out::Out(Channel& channel, std::size_t highWater) : channel_(channel), highWater_(highWater) {}

Out::~Out() {
  if (flushTimer_) channel_.endpoint().activity().timerDel(flushTimer_);
  queue_.clear();
  std::vector<Ptr<SaBase>> roots;
  for (auto& [e, sa] : adapters_) {
    if (sa->parent_ == nullptr) roots.push_back(sa);
  }
  for (auto& sa : roots) sa->detach();  // a root detaches its members' adapters
  for (auto& [e, sa] : adapters_) sa->out_ = nullptr;
  adapters_.clear();
  roots_.clear();
}

bool Out::blocked() const noexcept {
  return buffered() >= highWater_ || !channel_.open();
}

void Out::put16(std::uint16_t v) {
  buf_.push_back(std::uint8_t(v >> 8));
  buf_.push_back(std::uint8_t(v));
}
void Out::put32(std::uint32_t v) {
  std::uint8_t b[4] = {std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8),
                       std::uint8_t(v)};
  buf_.insert(buf_.end(), b, b + 4);
}

void Out::recordBegin(MsgHeader const& h) {
  recordStart_ = buf_.size();
  put32(0);
  put32(std::uint32_t(h.attributeId));
  put32(h.entityId);
  put32(h.parentId);
  put8(h.flags);
  put8(0);
  put8(0);
  put8(0);
}

void Out::recordEnd() {
  std::uint32_t len = std::uint32_t(buf_.size() - recordStart_ - MsgHeader::wireSize);
  for (int i = 0; i < 4; ++i) buf_[recordStart_ + i] = std::uint8_t(len >> (24 - 8 * i));
  ++records_;
  if (!channel_.open()) {
    buf_.resize(recordStart_);  // nobody will read it
    return;
  }
  // Records written in one activity round leave together, in one send.
  if (buffered() >= highWater_) flush();
  else armFlush();
}

void Out::transactionMarker(SaBase const& sa, std::int32_t id, std::uint8_t token,
                            std::uint32_t count) {
  recordBegin(MsgHeader{0, id, sa.entityId(), sa.parentEntityId(), flagTransaction});
  put8(token);
  put32(count);
  recordEnd();
}

void Out::syncModeIs(std::uint32_t mode) {
  recordBegin(MsgHeader{0, syncModeId, 0, 0, flagRecord});
  put8(tokenBegin);
  put32(mode);
  put8(tokenEnd);
  recordEnd();
}

void Out::fullStateBegin() {
  syncModeIs(syncModeFull);
  syncDonePending_ = true;  // sync mode 2 follows once the queue has drained (runFlowOuts)
}

SaBase* Out::adapter(Entity const* e) const {
  auto it = adapters_.find(e);
  return it == adapters_.end() ? nullptr : it->second;
}

void Out::flowOutEnqueue(SaBase& sa) {
  queue_.push_back(&sa);
  armFlush();
}

void Out::armFlush() {
  if (flushArmed_ || !channel_.open()) return;
  flushArmed_ = true;
  flushTimer_ = channel_.endpoint().activity().timerIs(Activity::now(), [this] {
    flushTimer_ = 0;
    flushArmed_ = false;
    flush();
  });
}

void Out::runFlowOuts() {
  if (runningFlowOuts_) return;
  runningFlowOuts_ = true;
  struct Reset {
    bool& b;
    ~Reset() { b = false; }
  } reset{runningFlowOuts_};
  // Each pass either finishes the front adapter or stops because the output blocked, so the loop
  // ends; the bound is only a guard against an adapter that reports progress it did not make.
  for (std::size_t guard = 0; !queue_.empty() && !blocked() && guard < 16 * (queue_.size() + 16);
       ++guard) {
    Ptr<SaBase> sa = queue_.front();
    FlowOut* f = sa->flowOut_.get();
    if (!f || sa->out_ != this) {
      queue_.pop_front();
      continue;
    }
    f->blocked_ = false;
    AttributeId stop = sa->handleAttrFlowOut(f->attributeId());
    if (stop != 0) {
      if (sa->flowOut_) {
        sa->flowOut_->attributeId_ = stop;
        sa->flowOut_->blocked_ = true;
      }
      break;
    }
    if (!queue_.empty() && queue_.front() == sa) queue_.pop_front();
    if (sa->flowOut_ && !sa->flowOut_->hasDirtyAttributes()) {
      sa->flowOutDel();
    } else if (sa->flowOut_) {
      queue_.push_back(sa);  // dirtied again while it ran
    }
  }
  if (queue_.empty() && syncDonePending_ && !blocked()) {
    syncDonePending_ = false;
    syncModeIs(syncModeDone);
  }
}

void Out::compact() {
  if (head_ == buf_.size()) {
    buf_.clear();
    head_ = 0;
  } else if (head_ > 64 * 1024 && head_ * 2 > buf_.size()) {
    buf_.erase(buf_.begin(), buf_.begin() + std::ptrdiff_t(head_));
    head_ = 0;
  }
}

void Out::flush() {
  if (!channel_.open()) return;
  while (head_ < buf_.size()) {
    ssize_t n = ::send(channel_.fd_, buf_.data() + head_, buf_.size() - head_,
                       MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n > 0) {
      head_ += std::size_t(n);
      written_ += std::uint64_t(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    channel_.close(n < 0 ? String8(std::string("send: ") + std::strerror(errno)) : String8());
    return;
  }
  compact();
  channel_.watchOut(head_ < buf_.size());
  if (!queue_.empty() || syncDonePending_) {
    if (buffered() < highWater_ / 2 + 1) runFlowOuts();
  }
}

// ---- In ----

In::In(Channel& channel) : channel_(channel) {}
In::~In() = default;

void In::announce(std::uint32_t id, TypeInfo const* type, std::uint32_t parentId) {
  if (id == 0 || id > kMaxEntityId) bad("entity identifier out of range: " + std::to_string(id));
  if (!known_.emplace(id, Known{type, parentId}).second) {
    bad("entity identifier already bound: " + std::to_string(id));
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

void In::process() {
  while (buf_.size() - head_ >= MsgHeader::wireSize) {
    std::uint8_t const* p = buf_.data() + head_;
    MsgHeader h;
    h.length = get32(p);
    h.attributeId = std::int32_t(get32(p + 4));
    h.entityId = get32(p + 8);
    h.parentId = get32(p + 12);
    h.flags = p[16];
    if (h.length > kMaxRecordBytes) bad("record too long: " + std::to_string(h.length));
    if ((h.flags != flagRecord && h.flags != flagTransaction) || p[17] || p[18] || p[19]) {
      bad("bad record header");
    }
    if (buf_.size() - head_ < MsgHeader::wireSize + h.length) break;
    std::span<std::uint8_t const> body(p + MsgHeader::wireSize, h.length);
    if (h.flags == flagTransaction) {
      Cursor c(body);
      std::uint8_t token = c.u8();
      c.u32();
      c.expectEnd();
      if (h.entityId != 0 && !known_.count(h.entityId)) {
        bad("entity identifier out of range: " + std::to_string(h.entityId));
      }
      if (token == tokenBegin) {
        if (++depth_ > kMaxTransactionDepth) bad("transactions nested too deep");
      } else if (token == tokenEnd) {
        if (depth_ == 0) bad("transaction end without begin");
        --depth_;
      } else {
        bad("bad transaction token");
      }
    } else {
      validate(h, body);
    }
    if (depth_ > 0 || !pending_.empty()) {
      pendingBytes_ += h.length + MsgHeader::wireSize;
      if (pendingBytes_ > kMaxPendingBytes) bad("transaction too large");
      pending_.emplace_back(h, std::vector<std::uint8_t>(body.begin(), body.end()));
      head_ += MsgHeader::wireSize + h.length;
      if (depth_ == 0) {
        auto records = std::move(pending_);
        pending_.clear();
        pendingBytes_ = 0;
        for (auto& [ph, pb] : records) apply(ph, pb);
      }
    } else {
      // `body` stays valid: bytes fed while records are applied wait in later_.
      apply(h, body);
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

void In::validate(MsgHeader const& h, std::span<std::uint8_t const> body) {
  Cursor c(body);
  c.token(tokenBegin);
  if (h.attributeId == createId) {
    c.section(1);
    String8 typeName = c.string();
    TypeInfo const* type = typeFind(typeName);
    if (!type) bad("unknown type name: " + typeName);
    c.section(3);
    String8 argument = c.string();
    type->checkArgument(argument);
    c.section(4);
    std::uint32_t id = c.u32();
    c.token(tokenEnd);
    c.expectEnd();
    if (id != h.entityId || h.parentId != 0) bad("creation record identifiers disagree");
    announce(id, type, 0);
    return;
  }
  if (h.attributeId == syncModeId) {
    std::uint32_t mode = c.u32();
    c.token(tokenEnd);
    c.expectEnd();
    if (mode != syncModeFull && mode != syncModeDone) bad("bad sync mode " + std::to_string(mode));
    return;
  }
  auto it = known_.find(h.entityId);
  if (it == known_.end() || it->second.parentId != h.parentId) {
    bad("entity identifier out of range: " + std::to_string(h.entityId));
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
  if (midTransaction) bad("stream cut mid-transaction");
  if (midRecord) bad("stream cut mid-record");
}

// ---- Channel ----

Channel::Channel(Endpoint& endpoint, int fd, String8 description)
    : endpoint_(endpoint),
      fd_(fd),
      description_(std::move(description)),
      out_(*this, endpoint.options().highWater),
      in_(*this) {
  setNonBlocking(fd_);
  watch_ = FdWatch(endpoint.activity(), fd_, EPOLLIN, [this](std::uint32_t ev) { onEvents(ev); });
}

Channel::~Channel() {
  if (closeTimer_) endpoint_.activity().timerDel(closeTimer_);
  watch_.reset();
  if (fd_ >= 0) ::close(fd_);
}

void Channel::watchOut(bool on) {
  if (on == watchingOut_ || fd_ < 0) return;
  watchingOut_ = on;
  watch_.eventsIs(on ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

void Channel::close(String8 const& error) {
  if (fd_ < 0) return;
  error_ = error;
  watch_.reset();
  ::close(fd_);
  fd_ = -1;
  if (!error.empty()) endpoint_.errorIs(description_ + ": " + error);
  Endpoint* ep = &endpoint_;
  Channel* self = this;
  closeTimer_ = endpoint_.activity().timerIs(Activity::now(), [ep, self] {
    self->closeTimer_ = 0;
    ep->channelClosed(self);
  });
}

void Channel::onEvents(std::uint32_t events) {
  if (events & EPOLLOUT) out_.flush();
  if (!open() || !(events & (EPOLLIN | EPOLLHUP | EPOLLERR))) return;
  std::uint8_t buf[64 * 1024];
  for (int rounds = 0; rounds < 16 && open(); ++rounds) {
    ssize_t n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
    try {
      if (n > 0) {
        in_.feed(std::span<std::uint8_t const>(buf, std::size_t(n)));
        if (std::size_t(n) < sizeof buf) break;
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      if (n == 0) in_.endOfStream();
      close(n < 0 ? String8(std::string("recv: ") + std::strerror(errno)) : String8());
    } catch (std::exception const& e) {
      // Bad input: nothing of the offending record or transaction was applied. Closing makes the
      // peer reconnect and send its full state again.
      close(e.what());
    }
  }
}

// ---- Endpoint ----

Endpoint::Endpoint(Activity& activity, Options options) : activity_(activity), options_(options) {}

Endpoint::~Endpoint() {
  channels_.clear();
}

void Endpoint::serve(Ptr<Entity> const& entity) {
  served_.push_back(entity);
  for (auto& ch : channels_) {
    if (!ch->open()) continue;
    attachOne(entity, ch->out());
    ch->out().runFlowOuts();
  }
}

void Endpoint::read(Ptr<Entity> const& entity) {
  readRoots_.push_back(entity);
}

Ptr<Entity> Endpoint::readRoot(std::string_view typeName, std::string_view name) const {
  for (auto const* list : {&readRoots_, &created_}) {
    for (auto const& e : *list) {
      if (e->attributeTable().typeName == typeName && e->name() == name) return e;
    }
  }
  return nullptr;
}

Ptr<Entity> Endpoint::bindRoot(TypeInfo const& type, String8 const& argument) {
  if (Ptr<Entity> e = readRoot(type.name, argument)) return e;
  // Entities a peer creates outside the read roots are kept for the process: bound their number.
  if (created_.size() >= kMaxCreatedRoots) throw AttrLogRecordException("too many root entities");
  Ptr<Entity> e = type.create(argument);
  created_.push_back(e);
  return e;
}

std::vector<Channel*> Endpoint::channels() const {
  std::vector<Channel*> v;
  for (auto const& c : channels_) {
    if (c->open()) v.push_back(c.get());
  }
  return v;
}

bool Endpoint::synced() const {
  for (auto const& c : channels_) {
    if (c->open() && c->in().syncMode() == syncModeDone) return true;
  }
  return false;
}

void Endpoint::errorIs(String8 const& error) {
  ++errors_;
  lastError_ = error;
  KIV_TRACE(trace(), 1, error);
}

Channel& Endpoint::adopt(int fd, String8 const& description) {
  channels_.push_back(std::make_unique<Channel>(*this, fd, description));
  ++connections_;
  Channel& ch = *channels_.back();
  attachServed(ch.out());
  return ch;
}

void Endpoint::attachServed(Out& out) {
  out.fullStateBegin();
  for (auto const& e : served_) attachOne(e, out);
  out.runFlowOuts();
}

void Endpoint::attachOne(Ptr<Entity> const& e, Out& out) {
  if (TypeInfo const* type = typeFind(e->attributeTable().typeName)) type->newWriter(*e, out);
}

void Endpoint::channelClosed(Channel* channel) {
  auto it = std::find_if(channels_.begin(), channels_.end(),
                         [channel](auto const& c) { return c.get() == channel; });
  if (it == channels_.end()) return;
  std::unique_ptr<Channel> dead = std::move(*it);
  channels_.erase(it);
  dead.reset();
  onChannelClosed();
}

// ---- Server and Client ----

namespace {

sockaddr_un unixAddress(std::string const& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.size() >= sizeof a.sun_path) {
    throw Jorv::RuntimeException("NboAttrLog: socket path too long: " + path);
  }
  std::memcpy(a.sun_path, path.data(), path.size());
  return a;
}

}  // namespace

Server::Server(Activity& activity, std::string path, Options options)
    : Endpoint(activity, options), path_(std::move(path)) {
  sockaddr_un a = unixAddress(path_);
  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) throw Jorv::RuntimeException("NboAttrLog::Server: socket failed");
  ::unlink(path_.c_str());
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      ::listen(listenFd_, 16) != 0) {
    std::string err = std::strerror(errno);
    ::close(listenFd_);
    throw Jorv::RuntimeException("NboAttrLog::Server: cannot listen on " + path_ + ": " + err);
  }
  watch_ = FdWatch(activity, listenFd_, EPOLLIN, [this](std::uint32_t) { onAccept(); });
}

Server::~Server() {
  channelsClear();
  watch_.reset();
  ::close(listenFd_);
  ::unlink(path_.c_str());
}

void Server::onAccept() {
  for (;;) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    adopt(fd, "peer of " + path_);
  }
}

Client::Client(Activity& activity, std::string path, Options options)
    : Endpoint(activity, options), path_(std::move(path)) {
  tryConnect();
}

Client::~Client() {
  if (retryTimer_) activity().timerDel(retryTimer_);
  channelsClear();  // the outputs go first: they detach the adapters dropped below
}

Channel* Client::channel() const {
  auto v = channels();
  return v.empty() ? nullptr : v.front();
}

void Client::tryConnect() {
  retryTimer_ = 0;
  sockaddr_un a = unixAddress(path_);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
    adopt(fd, "connection to " + path_);
    return;
  }
  if (fd >= 0) ::close(fd);
  retryTimer_ = activity().timerIs(Activity::now() + options().reconnectSeconds,
                                   [this] { tryConnect(); });
}

void Client::onChannelClosed() {
  if (!retryTimer_) {
    retryTimer_ = activity().timerIs(Activity::now() + options().reconnectSeconds,
                                     [this] { tryConnect(); });
  }
}

void Client::attachOne(Ptr<Entity> const& e, Out& out) {
  auto it = adapters_.find(e.ptr());
  if (it != adapters_.end()) {
    it->second->doRemountSelf(out);
    out.rootIs(it->second);
  } else if (TypeInfo const* type = typeFind(e->attributeTable().typeName)) {
    adapters_.emplace(e.ptr(), type->newWriter(*e, out));
  }
}

void socketPair(int fds[2]) {
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) {
    throw Jorv::RuntimeException("NboAttrLog: socketpair failed");
  }
}

}  // namespace Kiv::NboAttrLog
