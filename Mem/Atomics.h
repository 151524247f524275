#pragma once
// The one place where words of shared memory are read and written concurrently.
//
// One writer process changes the table files while reader processes map them; every word that
// can change while someone else looks at it goes through these functions, never through a plain
// load or store (which would be a data race). All accesses are lock-free `std::atomic_ref`
// operations on naturally aligned words.
//
// Orders used by the table engine:
// - Links (a 32-bit version followed by a 32-bit index, one 64-bit unit) are published with
//   `store64Release` and read with `load64Acquire`: whoever sees a link also sees the slot
//   it points to, fully written.
// - Values are copied word by word with relaxed atomics (`copyToShared`, `copyFromShared`) and
//   bracketed by a flags word, seqlock style. Writer: flags+2 (release), `fenceRelease`, copy,
//   flags+2|1 (release). Reader: flags (acquire), copy, `fenceAcquire`, flags again (relaxed);
//   equal flags mean the copy is consistent, because a copy that saw any of the writer's value
//   stores also sees the flags store that preceded them. The table engine writes the bracket once,
//   in Quarn/ValueSeq.h.
// - Counters and positions that publish appended data (currentPos, numSlots) are stored release
//   after the data and loaded acquire before it.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Mem::Atomics {

// ThreadSanitizer does not model stand-alone fences. Under it the fences become no-ops and the
// word-wise copies use release stores and acquire loads instead, which give the same guarantee
// (a reader whose copy saw any new value word also sees the flags store that preceded it) in a
// form the sanitizer understands. Production builds keep the cheaper relaxed copies and fences.
#if defined(__SANITIZE_THREAD__)
inline constexpr bool modelFencesAsOrderedCopies = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
inline constexpr bool modelFencesAsOrderedCopies = true;
#else
inline constexpr bool modelFencesAsOrderedCopies = false;
#endif
#else
inline constexpr bool modelFencesAsOrderedCopies = false;
#endif
inline constexpr std::memory_order copyStoreOrder =
    modelFencesAsOrderedCopies ? std::memory_order_release : std::memory_order_relaxed;
inline constexpr std::memory_order copyLoadOrder =
    modelFencesAsOrderedCopies ? std::memory_order_acquire : std::memory_order_relaxed;

static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free &&
                  std::atomic_ref<std::uint32_t>::is_always_lock_free,
              "Hardware does not support Atomics");

inline std::uint64_t load64Acquire(void const* p) noexcept {
  return std::atomic_ref<std::uint64_t>(*static_cast<std::uint64_t*>(const_cast<void*>(p)))
      .load(std::memory_order_acquire);
}
inline void store64Release(void* p, std::uint64_t v) noexcept {
  std::atomic_ref<std::uint64_t>(*static_cast<std::uint64_t*>(p))
      .store(v, std::memory_order_release);
}
inline std::uint64_t load64Relaxed(void const* p) noexcept {
  return std::atomic_ref<std::uint64_t>(*static_cast<std::uint64_t*>(const_cast<void*>(p)))
      .load(std::memory_order_relaxed);
}
inline void store64Relaxed(void* p, std::uint64_t v) noexcept {
  std::atomic_ref<std::uint64_t>(*static_cast<std::uint64_t*>(p))
      .store(v, std::memory_order_relaxed);
}

inline std::uint32_t load32Acquire(void const* p) noexcept {
  return std::atomic_ref<std::uint32_t>(*static_cast<std::uint32_t*>(const_cast<void*>(p)))
      .load(std::memory_order_acquire);
}
inline void store32Release(void* p, std::uint32_t v) noexcept {
  std::atomic_ref<std::uint32_t>(*static_cast<std::uint32_t*>(p))
      .store(v, std::memory_order_release);
}
inline std::uint32_t load32Relaxed(void const* p) noexcept {
  return std::atomic_ref<std::uint32_t>(*static_cast<std::uint32_t*>(const_cast<void*>(p)))
      .load(std::memory_order_relaxed);
}
inline void store32Relaxed(void* p, std::uint32_t v) noexcept {
  std::atomic_ref<std::uint32_t>(*static_cast<std::uint32_t*>(p))
      .store(v, std::memory_order_relaxed);
}

// Sequentially consistent accesses, for the two-sided handshakes where a store must be ordered
// before a later load of another word (a sleeper announces itself, then checks for news; the
// writer publishes news, then checks for sleepers): neither acquire nor release orders a store
// before a load. Every one of them takes part in the single total order of such operations.
inline std::uint64_t load64SeqCst(void const* p) noexcept {
  return std::atomic_ref<std::uint64_t>(*static_cast<std::uint64_t*>(const_cast<void*>(p)))
      .load(std::memory_order_seq_cst);
}
inline void store64SeqCst(void* p, std::uint64_t v) noexcept {
  std::atomic_ref<std::uint64_t>(*static_cast<std::uint64_t*>(p))
      .store(v, std::memory_order_seq_cst);
}
// Replaces `expected` by `desired`; false, with `expected` set to the word found, when the word
// was not `expected`.
inline bool compareExchange64SeqCst(void* p, std::uint64_t& expected,
                                    std::uint64_t desired) noexcept {
  return std::atomic_ref<std::uint64_t>(*static_cast<std::uint64_t*>(p))
      .compare_exchange_strong(expected, desired, std::memory_order_seq_cst);
}
inline std::uint64_t fetchAdd64SeqCst(void* p, std::uint64_t v) noexcept {
  return std::atomic_ref<std::uint64_t>(*static_cast<std::uint64_t*>(p))
      .fetch_add(v, std::memory_order_seq_cst);
}

// A 64-bit unit of two 32-bit words (low word first in memory, little-endian hosts only).
constexpr std::uint64_t pack(std::uint32_t low, std::uint32_t high) noexcept {
  return std::uint64_t(low) | (std::uint64_t(high) << 32);
}
constexpr std::uint32_t lowWord(std::uint64_t v) noexcept {
  return std::uint32_t(v);
}
constexpr std::uint32_t highWord(std::uint64_t v) noexcept {
  return std::uint32_t(v >> 32);
}

inline void fenceAcquire() noexcept {
  if constexpr (!modelFencesAsOrderedCopies) std::atomic_thread_fence(std::memory_order_acquire);
}
inline void fenceRelease() noexcept {
  if constexpr (!modelFencesAsOrderedCopies) std::atomic_thread_fence(std::memory_order_release);
}

// Word-wise relaxed copies between private and shared memory. `bytes` must be a multiple of 4
// and both addresses 4-byte aligned (every record of the engine is laid out that way). A shared
// address that is 8-byte aligned (every value area of the engine's slots) is copied in 8-byte
// words, half the accesses; a copy is consistent only as the value bracket makes it, never by
// the width of its words.
inline void copyToShared(void* shared, void const* local, std::size_t bytes) noexcept {
  auto* dst = static_cast<unsigned char*>(shared);
  auto const* src = static_cast<unsigned char const*>(local);
  std::size_t i = 0;
  if (reinterpret_cast<std::uintptr_t>(dst) % 8 == 0) {
    for (; i + 8 <= bytes; i += 8) {
      std::uint64_t w;
      std::memcpy(&w, src + i, 8);
      std::atomic_ref<std::uint64_t>(*reinterpret_cast<std::uint64_t*>(dst + i))
          .store(w, copyStoreOrder);
    }
  }
  for (; i < bytes; i += 4) {
    std::uint32_t w;
    std::memcpy(&w, src + i, 4);
    std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(dst + i))
        .store(w, copyStoreOrder);
  }
}
inline void copyFromShared(void* local, void const* shared, std::size_t bytes) noexcept {
  auto* dst = static_cast<unsigned char*>(local);
  auto* src = static_cast<unsigned char*>(const_cast<void*>(shared));
  std::size_t i = 0;
  if (reinterpret_cast<std::uintptr_t>(src) % 8 == 0) {
    for (; i + 8 <= bytes; i += 8) {
      std::uint64_t const w =
          std::atomic_ref<std::uint64_t>(*reinterpret_cast<std::uint64_t*>(src + i))
              .load(copyLoadOrder);
      std::memcpy(dst + i, &w, 8);
    }
  }
  for (; i < bytes; i += 4) {
    std::uint32_t const w =
        std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(src + i))
            .load(copyLoadOrder);
    std::memcpy(dst + i, &w, 4);
  }
}

}  // namespace Mem::Atomics
