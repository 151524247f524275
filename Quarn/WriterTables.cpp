#include "Quarn/WriterTables.h"

#include <sys/mman.h>

#include <cmath>
#include <cstring>
#include <sstream>

#include "Jorv/Exception.h"
#include "Mem/Shared.h"
#include "Quarn/Exceptions.h"

namespace Quarn {

char const* TableFileReader::read(std::size_t offset, std::size_t length) {
  if (buffer_ && length <= chunkSize && mem_.readAt(buffer_.get(), length, offset)) {
    return buffer_.get();
  }
  if (!mem_.local()) {
    std::size_t const begin = offset / Mem::pageSize() * Mem::pageSize();
    // A failure (an old kernel, a range past a truncated end) leaves the pages to fault in one
    // by one on first touch; the truncation handler answers a fault past the end.
    (void)::madvise(mem_.base() + begin, offset + length - begin, MADV_POPULATE_READ);
  }
  return mem_.base() + offset;
}

std::string SlotCounters::str() const {
  std::ostringstream os;
  os << "allocs:" << allocs << " removes:" << removes << " writes:" << writes << " grows:" << grows
     << " growFailures:" << growFailures;
  return os.str();
}

Jorv::MemoryResourceException resizeFailure(AttachTexts const& texts, QuarnMem const& mem,
                                            std::size_t size) {
  std::string const cause = Mem::errorText(errno);
  std::ostringstream os;
  os << texts.prefix << texts.resizeFailure << size << " " << mem.name() << ": " << cause;
  return Jorv::MemoryResourceException(os.str());
}

bool attachTableFileImpl(Jorv::DebugHandler& dh, QuarnMem& mem, std::size_t initialSize,
                         std::uint32_t fenix, bool force, AttachTexts const& texts) {
  std::size_t const existing = mem.sizeOnDisk();
  auto const mapFailure = [&](std::size_t size) {
    std::string const cause = Mem::errorText(errno);
    std::ostringstream os;
    os << texts.prefix << texts.mapFailure << mem.name() << texts.mapFailureSize << size << ": "
       << cause;
    return Jorv::MemoryResourceException(os.str());
  };
  if (existing == 0 && !mem.onDisk()) {
    KIV_TRACE(dh, 5, texts.prefix, "to new file ", mem.name());
    if (!mem.attach(initialSize)) throw mapFailure(initialSize);
    return false;
  }
  if (existing == 0) {
    // An empty file that exists was truncated, and readers may still map the pages it had:
    // grown again in place, it would fill under them while they are told it shrank. It is
    // replaced like any other (below).
    KIV_TRACE(dh, 5, texts.prefix, "replace empty ", mem.name(), " by ", initialSize, " bytes");
    if (!mem.stageReplacement(initialSize)) throw resizeFailure(texts, mem, initialSize);
    return false;
  }
  KIV_TRACE(dh, 5, texts.prefix, "to existing ", mem.name(), " size:", existing);
  if (!mem.attach(existing)) throw mapFailure(existing);
  // Every table file carries its fenix at offset 12.
  if (!force && existing >= 16 && Mem::Atomics::load32Acquire(mem.base() + 12) == fenix) return true;
  // Readers may still map the old file, and go on reading it until they see the new fenix: a
  // new file takes its name once formatted (attachTableFile commits it), so a reader's mapping
  // keeps the old incarnation whole and unchanging, and no page vanishes under it. Formatted in
  // place, a file would change under readers that still map the others as they were (fresh
  // bucket heads naming slots of the old slot file): a mix they must report as corruption.
  // A local table has no readers and is resized in place.
  if (existing != initialSize || !mem.local()) {
    KIV_TRACE(dh, 5, texts.prefix, "replace ", existing, " bytes by ", initialSize, " bytes");
    if (!mem.stageReplacement(initialSize)) throw resizeFailure(texts, mem, initialSize);
  }
  KIV_TRACE(dh, 5, texts.prefix, "re-formatted ", mem.name());
  return false;
}

// ---- SlotWriterTable

SlotWriterTable::SlotWriterTable(Jorv::DebugHandler& dh, std::string const& rootPath, bool local,
                                 std::string valueTypeName, std::string className,
                                 std::uint32_t valueSize, std::uint32_t tableSize)
    : dh_(dh),
      mem_(dh, rootPath, "slots", local),
      valueTypeName_(std::move(valueTypeName)),
      className_(std::move(className)),
      valueSize_(valueSize),
      slotSize_(SlotTable::slotSizeFor(valueSize)),
      tableSize_(tableSize) {}

bool SlotWriterTable::attach(std::uint32_t fenix, bool force) {
  static constexpr AttachTexts texts{"SlotWriter::attach() ", "cannot attach to shmem ",
                                     " size:", "failed to resize shared memory to size "};
  std::uint32_t const initial = SlotTable::initialNumSlots(slotSize_);
  if (initial == 0) {
    throw Jorv::MemoryResourceException("SlotWriter::attach() slot size exceeds one page");
  }
  bool const kept =
      attachTableFile(dh_, mem_, SlotTable::fileSize(slotSize_, initial), fenix, force, texts, [&] {
        SlotTable::Header::format(mem_.base(), dh_, valueTypeName_, className_, valueSize_, initial,
                                  tableSize_, fenix);
        numSlots_ = initial;
        addFreeSlots(0, initial);
      });
  if (kept && !sameRecordLayout()) return attach(fenix, true);  // another record type's file
  if (kept) numSlots_ = mappedNumSlots();
  return kept;
}

bool SlotWriterTable::inspect() {
  if (!mem_.attachReadOnly()) return false;
  numSlots_ = mem_.mappedSize() < SlotTable::headerSize ? 0 : mappedNumSlots();
  return true;
}

std::uint32_t SlotWriterTable::mappedNumSlots() const {
  std::uint32_t const n = Mem::Atomics::highWord(header()->numSlotsUnit());
  std::size_t const mapped = mem_.mappedSize();
  return mapped < SlotTable::fileSize(slotSize_, 0)
             ? 0
             : std::min<std::size_t>(n, (mapped - SlotTable::fileSize(slotSize_, 0)) / slotSize_);
}

bool SlotWriterTable::sameRecordLayout() const {
  if (mem_.mappedSize() < SlotTable::headerSize) return false;
  SlotTable::Header const* const h = header();
  char names[2 * SlotTable::nameSize];
  Mem::Atomics::copyFromShared(names, h->valueTypeName, sizeof names);
  return h->load(h->valueSize) == valueSize_ && h->load(h->slotSize) == slotSize_ &&
         h->load(h->tableSize) == tableSize_ &&
         strnlen(names, SlotTable::nameSize) == valueTypeName_.size() &&
         valueTypeName_.compare(0, std::string::npos, names, valueTypeName_.size()) == 0 &&
         strnlen(names + SlotTable::nameSize, SlotTable::nameSize) == className_.size() &&
         className_.compare(0, std::string::npos, names + SlotTable::nameSize, className_.size()) ==
             0;
}

void SlotWriterTable::outOfRange(std::uint32_t i) const {
  std::ostringstream os;
  os << "SlotWriter::Slots::operator[] out-of-range index: " << i
     << " max:" << std::int64_t(numSlots_) - 1;
  throw CorruptionDetectedException(os.str());
}

void SlotWriterTable::addFreeSlots(std::uint32_t start, std::uint32_t end) {
  if (freeSlots() != noIndex) {
    throw CorruptionDetectedException("SlotWriterTable::addFreeSlots() free-list is not empty");
  }
  if (start > end || end > numSlots_) {
    std::ostringstream os;
    os << "SlotWriterTable::addFreeSlots() bad index range, start: " << start << " end: " << end;
    throw CorruptionDetectedException(os.str());
  }
  if (start == end) return;
  for (std::uint32_t i = start; i < end; ++i) {
    publishLink(slotUnchecked(i), i + 1 < end ? i + 1 : noIndex);
  }
  Mem::Atomics::store32Release(&header()->freeSlots, start);
}

bool SlotWriterTable::grow() {
  std::uint32_t const n = numSlots_;
  std::uint64_t target;
  if (n < tableSize_) {
    target = std::min<std::uint64_t>(2 * std::uint64_t(n), tableSize_);
  } else {
    target = static_cast<std::uint64_t>(std::ceil(static_cast<float>(n) * 1.1f));
  }
  if (target <= n) target = n + 1;
  std::size_t bytes = SlotTable::fileSize(slotSize_, static_cast<std::uint32_t>(0)) +
                      std::size_t(target) * slotSize_;
  target += (Mem::roundUpToWholePage(bytes) - bytes) / slotSize_;
  if (target >= noIndex) target = noIndex - 1;
  if (target <= n) {
    growError_ = 0;
    ++counters_.growFailures;
    return false;
  }
  auto const grown = static_cast<std::uint32_t>(target);
  if (grown > tableSize_) {
    KIV_TRACE(dh_, 3, "SlotWriter::grow() overflowing by ", grown - tableSize_, " slots");
  }
  bytes = SlotTable::fileSize(slotSize_, grown);
  char* const oldBase = mem_.base();
  if (!mem_.resize(bytes)) {
    // An error once per incident: while growth keeps failing, each retry is a warning.
    int const level = growError_ == 0 ? 0 : 1;
    growError_ = errno;
    KIV_TRACE(dh_, level, "SlotWriter::grow() failed to resize shared memory to size ", bytes,
              " - the system may be out of memory. ", mem_.name(), ": ",
              Mem::errorText(growError_));
    ++counters_.growFailures;
    return false;
  }
  if (mem_.base() != oldBase) {
    KIV_TRACE(dh_, 5, "SlotWriter::grow() remap base address changed from ",
              static_cast<void*>(oldBase), " to ", static_cast<void*>(mem_.base()));
  }
  growError_ = 0;
  for (std::uint32_t i = n; i < grown; ++i) SlotTable::initSlot(slotUnchecked(i), slotSize_);
  // Readers learn of the new slots only through this store, after they were initialised.
  std::uint32_t const version = header()->load(header()->numSlotsVersion);
  Mem::Atomics::store64Release(&header()->numSlotsVersion, Mem::Atomics::pack(version + 1, grown));
  numSlots_ = grown;
  addFreeSlots(n, grown);
  ++counters_.grows;
  KIV_TRACE(dh_, 3, "SlotWriter::grow() ", mem_.name(), " from ", n, " slots to ", grown);
  return true;
}

std::uint32_t SlotWriterTable::alloc() {
  SlotTable::Header* const h = header();
  if (h->load(h->freeSlots) == noIndex && !grow()) return noIndex;
  SlotTable::Header* const hh = header();  // grow() may have moved the mapping
  std::uint32_t const i = hh->load(hh->freeSlots);
  char* const s = slot(i);
  Mem::Atomics::store32Release(&hh->freeSlots, next(s));
  Mem::Atomics::store32Release(&hh->occupiedSlots, hh->load(hh->occupiedSlots) + 1);
  ++counters_.allocs;
  return i;
}

void SlotWriterTable::pushFree(std::uint32_t i) noexcept {
  SlotTable::Header* const h = header();
  std::uint32_t const previous = h->load(h->freeSlots);
  Mem::Atomics::store32Release(&h->freeSlots, i);
  publishLink(slotUnchecked(i), previous);
}

void SlotWriterTable::release(std::uint32_t i) noexcept {
  pushFree(i);
  SlotTable::Header* const h = header();
  Mem::Atomics::store32Release(&h->occupiedSlots, h->load(h->occupiedSlots) - 1);
}

void SlotWriterTable::cleanup() {
  KIV_TRACE(dh_, 3, "SlotWriter::cleanup() removing file: ", mem_.name());
  mem_.remove();
  numSlots_ = 0;
}

// ---- BucketWriterTable

BucketWriterTable::BucketWriterTable(Jorv::DebugHandler& dh, std::string const& rootPath,
                                     bool local, std::uint32_t tableSize)
    : dh_(dh),
      mem_(dh, rootPath, "buckets", local),
      numBuckets_(BucketTable::numBucketsFor(tableSize)) {}

bool BucketWriterTable::attach(std::uint32_t fenix, bool force) {
  static constexpr AttachTexts texts{"BucketWriter::attach() ", "cannot attach to shmem ",
                                     " of size:", "failed to resize shared memory to size "};
  bool const kept =
      attachTableFile(dh_, mem_, BucketTable::fileSize(numBuckets_), fenix, force, texts,
                      [&] { BucketTable::Header::format(mem_.base(), numBuckets_, fenix); });
  // A file made for another configured size hashes keys differently: start afresh.
  if (kept && header()->load(header()->numBuckets) != numBuckets_) return attach(fenix, true);
  return kept;
}

void BucketWriterTable::outOfRange(std::uint32_t b) const {
  std::ostringstream os;
  os << "BucketWriter::getRef() out-of-range, index:" << b << " max:" << numBuckets_;
  throw CorruptionDetectedException(os.str());
}

void BucketWriterTable::cleanup() {
  KIV_TRACE(dh_, 3, "BucketWriter::cleanup() removing file: ", mem_.name());
  mem_.remove();
}

}  // namespace Quarn
