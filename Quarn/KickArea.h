#pragma once
// The shared part of the wake-up channel of one table: a small memory object that the writer
// makes (an anonymous memfd, sealed against resizing) and hands, with the two wake-up eventfds, to
// each reader over the kick socket (Quarn/KickChannel.h). It never appears under the table root,
// so nothing is left behind and a new writer incarnation starts with a fresh one.
//
// Layout (version 1, host byte order, 8192 bytes):
//   0    char[8] magic "QUARNKIK"
//   8    u32     version
//   12   u32     maxReaders: the number of acknowledgement slots
//   64   u64     sequence: the writer's last appended notification sequence
//   128  u64     sleep word: generation (high 32 bits), sleepers (low 32 bits)
//   192  u64[maxReaders] acknowledgement slots: what the reader given slot i has consumed
// `sequence` and the sleep word sit on cache lines of their own: the writer stores the first on
// every write; readers change the second only when they go to sleep or wake.
//
// Sleep protocol (no lost wake-up, every access sequentially consistent):
// - A reader that has drained the queue up to s adds itself to `sleepers` (generation g kept),
//   then loads `sequence`: above s means the writer appended meanwhile, and the reader takes
//   itself out again and reads on. Otherwise it waits for a wake-up.
// - The writer stores `sequence` after every append, then loads the sleep word. With sleepers it
//   takes them all in one compare-exchange, (g, n) -> (g + 1, 0), and wakes them.
// Whichever of the two handshakes comes second in the total order sees the other's store.
// A reader is woken for its own sleep exactly when the generation moved past g; a wake-up that
// finds the generation unchanged is for someone else. A reader that wakes for another reason
// while still counted takes itself out ((g, n) -> (g, n - 1)) only while the generation is g.
//
// Why eventfds, watched edge-triggered, and not a futex: a reader waits on its activity (epoll)
// and the library starts no threads, so what it waits on must be a descriptor. Why one sleeper
// woken by the writer and the rest by that sleeper: a call that wakes every waiter (FUTEX_WAKE
// of all, a write to an eventfd all of them watch) makes the kernel wake each sleeper in the
// caller's time, about 1.4 us a sleeper on a virtual machine, so 16 sleeping readers made a
// write cost the writer seven times its cost with one. With EPOLLEXCLUSIVE the writer's one
// write wakes one sleeper, whatever their number, and that reader's broadcast pays for the rest.
//
// Robustness: the word and the slots are written by other processes, so nothing read from them
// is an index or a length. A damaged word costs at most a spurious wake-up (sleepers that never
// go) or a late one (a reader left uncounted, which its own fallback timer catches); every loop
// over it is bounded.

#include <cstddef>
#include <cstdint>

#include "Mem/Atomics.h"

namespace Quarn::KickArea {

inline constexpr char magic[8] = {'Q', 'U', 'A', 'R', 'N', 'K', 'I', 'K'};
inline constexpr std::uint32_t version = 1;
inline constexpr std::size_t sequenceOffset = 64;
inline constexpr std::size_t sleepWordOffset = 128;
inline constexpr std::size_t slotsOffset = 192;
inline constexpr std::size_t size = 8192;
inline constexpr std::uint32_t maxReaders = (size - slotsOffset) / 8;

struct Header {
  char magic[8];
  std::uint32_t version;
  std::uint32_t maxReaders;
};
static_assert(sizeof(Header) <= sequenceOffset);
static_assert(maxReaders == 1000);

inline char* sequenceWord(char* base) noexcept {
  return base + sequenceOffset;
}
inline char* sleepWord(char* base) noexcept {
  return base + sleepWordOffset;
}
// Slot `i`, which must be below maxReaders.
inline char* slot(char* base, std::uint32_t i) noexcept {
  return base + slotsOffset + 8 * std::size_t(i);
}

constexpr std::uint32_t sleepers(std::uint64_t word) noexcept {
  return Mem::Atomics::lowWord(word);
}
constexpr std::uint32_t generation(std::uint64_t word) noexcept {
  return Mem::Atomics::highWord(word);
}
constexpr std::uint64_t sleepWordOf(std::uint32_t generation, std::uint32_t sleepers) noexcept {
  return Mem::Atomics::pack(sleepers, generation);
}

// Attempts of a compare-exchange loop on the sleep word before the caller gives up: only a
// process that keeps changing the word defeats them.
inline constexpr int casAttempts = 64;

}  // namespace Quarn::KickArea
