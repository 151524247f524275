#include "Quarn/ConquerReader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "Quarn/Exceptions.h"

namespace Quarn {

ConquerReader::ConquerReader(Jorv::DebugHandler& dh, std::string rootPath, Kiv::Activity* activity,
                             std::function<void()> onNotify, double pollInterval)
    : dh_(dh),
      rootPath_(std::move(rootPath)),
      activity_(activity),
      onNotify_(std::move(onNotify)),
      mem_{Mem::Shared("conquer.1", rootPath_), Mem::Shared("conquer.2", rootPath_)},
      pollInterval_(activity != nullptr ? pollInterval : 0) {}

ConquerReader::~ConquerReader() = default;

void ConquerReader::corruption(std::string const& text) const {
  KIV_TRACE(dh_, 1, text);  // the table front reports it once per incident
  throw CorruptionDetectedException(text);
}

bool ConquerReader::initialize(std::uint32_t fenix, std::string& error) {
  for (std::uint32_t t = 0; t < 2; ++t) {
    std::string why;
    if (!mem_[t].attachReadOnly()) {
      why = "ConquerReader::attach() cannot attach to file " + mem_[t].path() + ": " +
            std::strerror(errno);
    } else if (!header(t)->validate(mem_[t].mappedSize(), fenix, why)) {
      why = "ConquerReader::attach() " + why;
    } else {
      continue;
    }
    error = "ConquerReader::initialize() attach failed " + why;
    KIV_TRACE(dh_, 1, error);
    detach();
    return false;
  }
  // Start at the end of the queue, read consistently: the table must not switch meanwhile.
  for (;;) {
    std::uint32_t const t = currentTable();
    if (!doResize(t)) {
      error = "ConquerReader::initialize() attach failed: cannot map " + mem_[t].path();
      detach();
      return false;
    }
    std::uint32_t const pos = std::min(header(t)->load(header(t)->currentPos), mappedCapacity(t));
    std::uint64_t const seq =
        pos > 0 ? sequenceAt(t, pos - 1) : Mem::Atomics::load64Acquire(&header(0)->minSeq);
    if (currentTable() != t) continue;
    table_ = t;
    pos_ = pos;
    lastSeq_ = seq;
    break;
  }
  drained_ = sleeping_ = outOfSync_ = false;
  if (polling()) {
    // Re-armed before the owner runs: the owner may detach (and so destroy the timer) inside.
    poll_ = std::make_unique<Kiv::Timer>(
        [this] {
          poll_->armIn(pollInterval_);
          if (onNotify_) onNotify_();
        },
        *activity_);
    poll_->armIn(pollInterval_);
  } else if (activity_ != nullptr) {
    kick_ = std::make_unique<ReaderKickSm>(
        rootPath_,
        ReaderKickSm::Handlers{[this](bool c, std::uint32_t n) { handleConnected(c, n); },
                               [this](std::uint64_t) {
                                 sleeping_ = false;
                                 if (onNotify_) onNotify_();
                               }},
        *activity_);
    KIV_TRACE(dh_, 5, "ConquerReader::initialize(): ReaderKickSm ", kick_->socketPath(),
              " connected:", kick_->connected());
  }
  KIV_TRACE(dh_, 3, "ConquerReader::initialize() table:", table_, " pos:", pos_,
            " lastSeq:", lastSeq_);
  return true;
}

void ConquerReader::detach() {
  kick_.reset();
  poll_.reset();
  mem_[0].detach();
  mem_[1].detach();
}

std::uint32_t ConquerReader::currentTable() const {
  std::uint32_t const t = header(0)->load(header(0)->currentTable);
  if (t > 1) {
    std::ostringstream os;
    os << "ConquerTable::getTable() bad tableId: " << t;
    corruption(os.str());
  }
  return t;
}

std::uint32_t ConquerReader::mappedCapacity(std::uint32_t t) const noexcept {
  std::size_t const mapped = mem_[t].mappedSize();
  return mapped < ConquerTable::headerSize
             ? 0
             : std::uint32_t((mapped - ConquerTable::headerSize) / ConquerTable::entrySize);
}

bool ConquerReader::doResize(std::uint32_t t) {
  std::uint32_t const capacity = header(t)->load(header(t)->capacity);
  if (capacity <= mappedCapacity(t)) return true;
  std::size_t const bytes = ConquerTable::fileSize(capacity);
  KIV_TRACE(dh_, 5, "ConquerReader::doResize() requesting to map ", capacity,
            " conquer notifications. Requested file resize to ", bytes);
  char const* const old = mem_[t].base();
  if (!mem_[t].remapReadOnly(bytes)) {
    KIV_TRACE(dh_, 1, "ConquerReader::doResize() failed to map ", mem_[t].path(), " to ", bytes);
    return false;
  }
  if (mem_[t].base() != old) {
    KIV_TRACE(dh_, 5, "ConquerReader::doResize() changed base address mapping from ",
              static_cast<void const*>(old), " to ", static_cast<void const*>(mem_[t].base()));
  }
  KIV_TRACE(dh_, 5, "ConquerReader::doResize() successful");
  return true;
}

void ConquerReader::search(std::uint32_t t) {
  std::uint32_t low = 0;
  std::uint32_t high = std::min(header(t)->load(header(t)->currentPos), mappedCapacity(t));
  while (low < high) {
    std::uint32_t const mid = (low + high) / 2;
    KIV_TRACE(dh_, 9, "ConquerReader::findPosition() mid pos:", mid);
    if (sequenceAt(t, mid) <= lastSeq_) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  KIV_TRACE(dh_, 8, "ConquerReader::findPosition() low pos:", low);
  table_ = t;
  pos_ = low;
  if (prunedPast()) search(t);
}

bool ConquerReader::prunedPast() {
  std::uint64_t const minSeq = Mem::Atomics::load64Acquire(&header(0)->minSeq);
  if (minSeq <= lastSeq_) return false;
  KIV_TRACE(dh_, 1, "ConquerReader::findPosition() queue pruned past lastSeq:", lastSeq_,
            " minSeq:", minSeq, ", out of sync");
  outOfSync_ = true;
  lastSeq_ = minSeq;
  return true;
}

void ConquerReader::findPosition() {
  if (!attached()) return;
  std::uint32_t t = currentTable();
  if (t == table_) return;
  for (;;) {
    // Files only grow within an incarnation and the writer sizes a table before it switches to
    // it: a table that cannot be mapped as far as its header says is damaged. Returning would
    // leave the position in the old table and make conquer() spin on it.
    if (!doResize(t)) {
      std::ostringstream os;
      os << "ConquerReader::findPosition() cannot map " << mem_[t].path() << " to capacity "
         << header(t)->load(header(t)->capacity);
      corruption(os.str());
    }
    search(t);
    std::uint32_t const now = currentTable();
    if (now == t) return;
    KIV_TRACE(dh_, 5, "ConquerReader::findPosition() conquerSwapped again");
    t = now;
  }
}

bool ConquerReader::doConquer(std::uint32_t& count, Consumer const& consumer) {
  if (!attached()) return true;  // nothing to read until initialized again
  findPosition();
  std::uint32_t const t = table_;
  // A reader the writer did not count yet (it counts readers only when its event loop accepts
  // their connection) may be pruned past without a table switch in between that it could see:
  // after two compactions the current table is its own table again. minSeq tells, on every pass.
  if (prunedPast()) search(t);
  // A slow reader can see its table reused more than once in one pass (each reuse rewrites the
  // entries under it); only a contradiction that survives several searches is corruption.
  int searchesLeft = 8;
  std::uint32_t const limit = pos_ + sample_;
  for (;;) {
    std::uint32_t const curPos = header(t)->load(header(t)->currentPos);
    if (pos_ > curPos) {
      if (currentTable() != t) return false;  // switched: the next pass finds the position
      if (searchesLeft-- > 0) {
        search(t);
        continue;
      }
      std::ostringstream os;
      os << "ConquerReader::doConquer() unexpected position in " << mem_[t].path()
         << " active queue, currentPos:" << curPos << " tablePos:" << pos_;
      corruption(os.str());
    }
    if (pos_ == curPos) return true;
    if (pos_ >= limit) return false;
    if (pos_ >= mappedCapacity(t) && (!doResize(t) || pos_ >= mappedCapacity(t))) {
      std::ostringstream os;
      os << "ConquerReader::ConquerSlots::operator[] out-of-range index:" << pos_
         << " max:" << mappedCapacity(t);
      KIV_TRACE(dh_, 1, os.str());
      return true;  // cannot read further now; nothing is lost, the position stands
    }
    char const* const e = ConquerTable::entry(mem_[t].base(), pos_);
    std::uint64_t const seq = ConquerTable::sequence(e);
    std::uint32_t const slot = ConquerTable::slotIndex(e);
    bool const ordered = seq > lastSeq_ && (pos_ == 0 || sequenceAt(t, pos_ - 1) <= lastSeq_);
    if (mem_[t].damaged() || mem_[0].damaged()) {  // zeros, not entries (Mem/Shared.h)
      corruption("ConquerReader::doConquer() " + mem_[t].path() + " truncated under its mapping");
    }
    if (currentTable() != t) return false;
    if (prunedPast()) {  // the table was refilled after a prune during this pass
      search(t);
      continue;
    }
    if (!ordered) {
      if (searchesLeft-- > 0) {  // the table was reused under us: find the position again
        search(t);
        continue;
      }
      std::ostringstream os;
      os << "ConquerReader::doConquer() unexpected sequence in " << mem_[t].path()
         << " in active queue, lastSeq:" << lastSeq_ << " notifSeq:" << seq << " notifSlot:" << slot
         << " currentPos:" << curPos << " tablePos:" << pos_;
      corruption(os.str());
    }
    ++pos_;
    lastSeq_ = seq;
    if (slot == noIndex) {
      KIV_TRACE(dh_, 9, "ConquerReader::doConquer() pos:", pos_ - 1, " is tombstoned");
      continue;
    }
    KIV_TRACE(dh_, 8, "ConquerReader::doConquer() notifying slot:", slot, " currentPos:", pos_,
              " table currentPos:", curPos);
    ++count;
    consumer(slot);
  }
}

std::uint64_t ConquerReader::conquer(Consumer const& consumer) {
  double const start = Kiv::Activity::now();
  KIV_TRACE(dh_, 8, "ConquerReader::conquer() Walking conquer queue, sample:", sample_,
            " yieldTime:", yieldTime_, " currentPos:", pos_, " start:", start);
  std::uint32_t count = 0;
  drained_ = false;
  while (!(drained_ = doConquer(count, consumer))) {
    if (yieldTime_ > 0 && Kiv::Activity::now() - start > yieldTime_) break;
  }
  KIV_TRACE(dh_, 8, "ConquerReader::conquer() Consumed ", count, " notifications in ",
            Kiv::Activity::now() - start, " seconds until sequence:", lastSeq_,
            " currentPos:", pos_, " yield:", yieldTime_, " stop:", drained_);
  if (drained_ && kick_ != nullptr) {
    sleeping_ = true;
    kick_->sleepAt(lastSeq_);
  } else {
    handleAck();
  }
  return lastSeq_;
}

void ConquerReader::handleAck() {
  KIV_TRACE(dh_, 8, "ConquerReader::handleAck() minSeq:", lastSeq_);
  sleeping_ = false;
  if (kick_ != nullptr) kick_->sendSequence(lastSeq_);
}

void ConquerReader::handleConnected(bool connected, std::uint32_t connections) {
  KIV_TRACE(dh_, 3, "ConquerReader::handleConnected() connections: ", connections,
            " connected:", connected);
  if (!connected || kick_ == nullptr) return;
  // A new connection starts unknown to the writer: tell it where this reader stands.
  if (sleeping_) {
    kick_->sleepAt(lastSeq_);
  } else {
    kick_->sendSequence(lastSeq_);
  }
}

}  // namespace Quarn
