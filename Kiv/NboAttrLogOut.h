#pragma once
// Kiv::NboAttrLog output: the writing half of a channel (Out) and an adapter's deferred output
// (FlowOut).
//
// Out keeps a bounded buffer: once `highWater` bytes wait for the socket the output is blocked,
// and adapters record changes as dirty bits in a FlowOut instead of writing; when the socket
// drains below half the mark, Out runs the pending flow-outs in the order they blocked.

#include <any>
#include <cstdint>
#include <deque>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Kiv/Activity.h"
#include "Kiv/Exception.h"
#include "Kiv/NboAttrLogSaBase.h"

namespace Kiv::NboAttrLog {

// One bit per replicated attribute, in flow-out order (bit 0: isNondestructing).
class KivDirtyBitSet0 {
 public:
  void bitIs(std::uint32_t bit) noexcept { bits_ |= bit; }
  void bitDel(std::uint32_t bit) noexcept { bits_ &= ~bit; }
  bool bit(std::uint32_t bit) const noexcept { return (bits_ & bit) != 0; }
  bool any() const noexcept { return bits_ != 0; }
  std::uint32_t value() const noexcept { return bits_; }

 private:
  std::uint32_t bits_ = 0;
};

// Deferred output of one adapter: what is still to be written once the output drains.
class FlowOut {
 public:
  KivDirtyBitSet0& kivDirtyBitSet0() noexcept { return dirty_; }
  bool hasDirtyAttributes() const noexcept { return dirty_.any(); }
  AttributeId attributeId() const noexcept { return attributeId_; }
  void attributeIdIs(AttributeId id) noexcept { attributeId_ = id; }
  bool blocked() const noexcept { return blocked_; }
  void blockedIs(bool v) noexcept { blocked_ = v; }
  // A collection's resume point: the key of the member at which its walk stopped.
  std::any& bookmark() noexcept { return bookmark_; }
  String8 const& connection() const noexcept { return connection_; }

 private:
  friend class SaBase;
  friend class Out;
  KivDirtyBitSet0 dirty_;
  AttributeId attributeId_ = 0;
  bool blocked_ = false;
  bool queued_ = false;
  std::any bookmark_;
  String8 connection_;
};

// The writing half of a channel.
class Out {
 public:
  Out(Channel& channel, std::size_t highWater);
  ~Out();
  Out(Out const&) = delete;
  Out& operator=(Out const&) = delete;

  Channel& channel() const noexcept { return channel_; }
  // Bytes waiting in this side's buffer (not yet accepted by the socket).
  std::size_t buffered() const noexcept { return buf_.size() - head_; }
  std::size_t highWater() const noexcept { return highWater_; }
  void highWaterIs(std::size_t bytes) noexcept { highWater_ = bytes; }
  bool blocked() const noexcept;
  bool flowOutPending() const noexcept { return !queue_.empty(); }
  std::uint64_t bytesWritten() const noexcept { return written_; }  // accepted by the socket
  std::uint64_t recordsWritten() const noexcept { return records_; }

  // Record building: begin, values through nboWrite, end. Records are written whole.
  void recordBegin(MsgHeader const& header);
  void recordEnd();
  void put8(std::uint8_t v) { buf_.push_back(v); }
  void put16(std::uint16_t v);
  void put32(std::uint32_t v);
  void putBytes(std::string_view v) { buf_.insert(buf_.end(), v.begin(), v.end()); }
  // A whole attribute record: header for (sa, id), token 1, `body` (writes the value), token 3.
  template <class F>
  void attributeRecord(SaBase const& sa, std::int32_t id, F const& body) {
    recordBegin(MsgHeader{0, id, sa.entityId(), sa.parentEntityId(), flagRecord});
    put8(tokenBegin);
    body();
    put8(tokenEnd);
    recordEnd();
  }
  void transactionMarker(SaBase const& sa, std::int32_t id, std::uint8_t token,
                         std::uint32_t count);
  void syncModeIs(std::uint32_t mode);

  // Identifiers are not reused on one connection (a reader may still hold a removed one); past
  // the reader's range the entity cannot be sent until the next connection starts afresh.
  std::uint32_t newEntityId() {
    if (nextEntityId_ > kMaxEntityId) {
      throw EntityIdUnavailableException("attribute log: entity identifiers of this connection "
                                         "exhausted");
    }
    return nextEntityId_++;
  }
  void rootIs(Ptr<SaBase> const& sa) { roots_.push_back(sa); }
  // Starts a full-state send: sync mode 1 now, 2 once every flow-out has finished.
  void fullStateBegin();
  SaBase* adapter(Entity const* e) const;
  // Queues `sa` to flow out when the output drains.
  void flowOutEnqueue(SaBase& sa);
  // Runs queued flow-outs while the output is not blocked.
  void runFlowOuts();
  // Sends what the socket accepts now.
  void flush();

 private:
  friend class SaBase;
  friend class Channel;
  void compact();
  void armFlush();

  Channel& channel_;
  std::size_t highWater_;
  std::vector<std::uint8_t> buf_;
  std::size_t head_ = 0;
  std::size_t recordStart_ = 0;
  std::uint64_t written_ = 0;
  std::uint64_t records_ = 0;
  std::uint32_t nextEntityId_ = 1;
  bool syncDonePending_ = false;
  bool flushArmed_ = false;
  bool runningFlowOuts_ = false;
  Activity::Id flushTimer_ = 0;
  std::unordered_map<Entity const*, SaBase*> adapters_;
  std::vector<Ptr<SaBase>> roots_;  // adapters of served entities owned by this output
  std::deque<Ptr<SaBase>> queue_;
};

}  // namespace Kiv::NboAttrLog
