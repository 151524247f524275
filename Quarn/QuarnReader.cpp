#include "Quarn/QuarnReader.h"

#include <cerrno>
#include <cstring>

namespace Quarn {
namespace {

// Maps the whole file read-only; `who` starts the failure message.
bool attachWholeFile(Mem::Shared& mem, char const* who, std::string& error) {
  if (mem.sizeOnDisk() == 0) {
    error = std::string(who) + "no shared memory region " + mem.path();
    return false;
  }
  if (!mem.attachReadOnly()) {
    error = std::string(who) + "cannot attach to shmem size:" + std::to_string(mem.sizeOnDisk()) +
            " " + mem.path();
    return false;
  }
  return true;
}

}  // namespace

BucketReader::BucketReader(Jorv::DebugHandler& dh, std::string const& rootPath)
    : dh_(dh), mem_("buckets", rootPath) {}

bool BucketReader::attach(std::string& error) {
  return attachWholeFile(mem_, "BucketReader::attach() ", error);
}

bool BucketReader::validate(std::uint32_t fenix, std::string& error) {
  auto const* h = BucketTable::header(mem_.base());
  if (!h->validate(mem_.mappedSize(), fenix, error)) return false;
  // Fixed when the file is formatted: read once, then the mapping covers every bucket.
  numBuckets_ = h->load(h->numBuckets);
  return true;
}

void BucketReader::outOfRange(std::uint32_t b) const {
  std::ostringstream os;
  os << "BucketReader::getRef() out-of-range, index:" << b << " max:" << numBuckets_;
  KIV_TRACE(dh_, 0, os.str());
  throw CorruptionDetectedException(os.str());
}

SlotReader::SlotReader(Jorv::DebugHandler& dh, std::string const& rootPath)
    : dh_(dh), mem_("slots", rootPath) {}

bool SlotReader::attach(std::string& error) {
  return attachWholeFile(mem_, "SlotReader::attach() ", error);
}

bool SlotReader::validate(std::uint32_t fenix, std::string& error) {
  auto const* h = SlotTable::header(mem_.base());
  if (!h->validate(mem_.mappedSize(), fenix, error)) return false;
  slotSize_ = h->load(h->slotSize);
  valueSize_ = h->load(h->valueSize);
  fenix_ = h->load(h->fenix);
  numSlots_ = Mem::Atomics::highWord(h->numSlotsUnit());
  // The header may have grown since the file was mapped: map no more than it vouched for.
  numSlots_ = std::uint32_t(std::min<std::size_t>(
      numSlots_, (mem_.mappedSize() - SlotTable::headerSize) / slotSize_ - 1));
  return true;
}

bool SlotReader::doResize() {
  // The writer may grow again while this maps: the header then fails its size check against a
  // mapping made for fewer slots than it now announces. Map again for the new count; numSlots
  // only grows within an incarnation, so this ends (the bound guards against a header that keeps
  // changing for some other reason).
  for (int attempt = 0;; ++attempt) {
    auto const* h = SlotTable::header(mem_.base());
    std::uint32_t const n = Mem::Atomics::highWord(h->numSlotsUnit());
    std::size_t const bytes = SlotTable::fileSize(slotSize_, n);
    KIV_TRACE(dh_, 5, "SlotReader::doResize() requesting to map ", n,
              " slots. Requested file resize to ", bytes);
    char const* const oldBase = mem_.base();
    if (bytes != mem_.mappedSize() && !mem_.remapReadOnly(bytes)) {
      KIV_TRACE(dh_, 1, "SlotReader::doResize() failed to resize shared memory ", mem_.path(),
                " to ", bytes, ": ", std::strerror(errno));
      return false;
    }
    if (mem_.base() != oldBase) {
      KIV_TRACE(dh_, 5, "SlotReader::doResize() changed base address mapping from ",
                static_cast<void const*>(oldBase), " to ", static_cast<void const*>(mem_.base()));
    }
    h = SlotTable::header(mem_.base());
    std::string error;
    if (!h->validate(mem_.mappedSize(), fenix_, error)) {
      if (Mem::Atomics::highWord(h->numSlotsUnit()) != n && attempt < 64) continue;
      std::string text = "SlotReader::doResize() header corruption, " + error;
      KIV_TRACE(dh_, 0, text);
      throw CorruptionDetectedException(text);
    }
    numSlots_ = n;
    KIV_TRACE(dh_, 5, "SlotReader::doResize() successful");
    return true;
  }
}

void SlotReader::detach() noexcept {
  mem_.detach();
  numSlots_ = 0;
}

void SlotReader::outOfRange(std::uint32_t i) const {
  std::ostringstream os;
  os << "SlotReader::Slots::operator[] out-of-range index:" << i
     << " max:" << std::int64_t(numSlots_) - 1;
  KIV_TRACE(dh_, 0, os.str());
  throw CorruptionDetectedException(os.str());
}

}  // namespace Quarn
