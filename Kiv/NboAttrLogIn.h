#pragma once
// Kiv::NboAttrLog input: the reading half of a channel (In).

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Kiv/NboAttrLogSaBase.h"

namespace Kiv::NboAttrLog {

// The reading half of a channel: parses records, checks each before anything is applied, and
// applies records (or whole transactions) through the entities' reading adapters.
//
// What the peer may do is checked before anything is held or applied, by the endpoint's rules
// (Endpoint::Options): its creation records bind only what the endpoint lets them bind, records
// addressed to an entity that this side serves are refused ("write-update from readonly proxy: "
// and the entity's name), and what one connection holds is bounded: identifiers announced at
// once (Options::maxEntities), bytes of an open transaction (Options::maxPendingBytes), and the
// unread rest of the stream (one read from the socket plus one record). Nothing applied is
// undone by a later refusal; the channel closes at the first one.
class In {
 public:
  explicit In(Channel& channel);
  ~In();
  In(In const&) = delete;
  In& operator=(In const&) = delete;

  Channel& channel() const noexcept { return channel_; }
  // Hands bytes from the stream to the parser. Raises AttrLogRecordException (or the range error
  // of a bad value) at the first bad record; nothing of that record, or of the transaction it is
  // part of, is applied. A record error's text begins with the record's header, "record (entity
  // 2, parent 1, attribute 261, length 4): truncated record". Re-entrant calls (from a handler)
  // only queue their bytes.
  void feed(std::span<std::uint8_t const> bytes);
  // The stream ended: raises "stream cut mid-transaction" if a transaction is open (its records
  // are dropped) or "stream cut mid-record" inside a record.
  void endOfStream();

  std::uint32_t syncMode() const noexcept { return syncMode_; }
  // Identifiers the peer holds announced now, and bytes of its stream held here (not yet parsed,
  // or records of an open transaction); the most of each this connection has held.
  std::size_t entities() const noexcept { return known_.size(); }
  std::size_t bytesHeld() const noexcept {
    return buf_.size() - head_ + later_.size() + pending_.size();
  }
  std::size_t peakEntities() const noexcept { return peakEntities_; }
  std::size_t peakBytesHeld() const noexcept { return peakBytesHeld_; }
  std::uint64_t recordsApplied() const noexcept { return applied_; }
  // The record being applied (valid inside handleAttrDeserialization).
  Cursor& cursor() { return *cursor_; }
  MsgHeader const& header() const noexcept { return header_; }

  // Validation-time bookkeeping of identifiers (see TypeInfo::validate). `readOnly`: the entity
  // this side serves that the identifier stands for; every record addressed to it is refused.
  struct Known {
    TypeInfo const* type;
    std::uint32_t parentId;
    Entity const* readOnly = nullptr;
  };
  void announce(std::uint32_t id, TypeInfo const* type, std::uint32_t parentId,
                Entity const* readOnly = nullptr);
  // A collection member announced under `key` (its encoded bytes) of collection entity `parentId`;
  // a member announced again under the same key, or deleted, releases its old identifier.
  void announceMember(std::uint32_t parentId, std::string_view key, std::uint32_t id,
                      TypeInfo const* type);
  void memberGone(std::uint32_t parentId, std::string_view key) noexcept;
  // Apply-time bindings of identifiers to reading adapters.
  void bind(std::uint32_t id, Ptr<SaBase> const& sa) { bound_[id] = sa; }
  void unbind(std::uint32_t id) noexcept { bound_.erase(id); }
  SaBase* bound(std::uint32_t id) const;

 private:
  void process();
  // Checks a transaction marker and follows its nesting.
  void checkMarker(MsgHeader const& h, std::span<std::uint8_t const> body);
  void validate(MsgHeader const& h, std::span<std::uint8_t const> body);
  void apply(MsgHeader const& h, std::span<std::uint8_t const> body);
  // The identifier a record is addressed to, which must be known under `parentId` and writable.
  Known const& addressee(std::uint32_t id, std::uint32_t parentId) const;
  void noteHeld() noexcept;

  Channel& channel_;
  std::vector<std::uint8_t> buf_;
  std::vector<std::uint8_t> later_;
  std::size_t head_ = 0;
  bool processing_ = false;
  unsigned depth_ = 0;
  std::vector<std::uint8_t> pending_;  // whole records (header and body) of an open transaction
  std::uint32_t syncMode_ = 0;
  std::uint64_t applied_ = 0;
  std::unordered_map<std::uint32_t, Known> known_;
  std::map<std::pair<std::uint32_t, std::string>, std::uint32_t> memberIds_;
  std::unordered_map<std::uint32_t, Ptr<SaBase>> bound_;
  MsgHeader header_;
  Cursor* cursor_ = nullptr;
  std::size_t peakEntities_ = 0;
  std::size_t peakBytesHeld_ = 0;
};

}  // namespace Kiv::NboAttrLog
