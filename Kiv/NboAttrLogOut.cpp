#include "Kiv/NboAttrLogOut.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Kiv/NboAttrLogTransport.h"

namespace Kiv::NboAttrLog {

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
    if (n < 0) {
      channel_.closeAfter("send", errno);
    } else {
      channel_.close(String8());
    }
    return;
  }
  compact();
  channel_.watchOut(head_ < buf_.size());
  if (!queue_.empty() || syncDonePending_) {
    if (buffered() < highWater_ / 2 + 1) runFlowOuts();
  }
}

}  // namespace Kiv::NboAttrLog
