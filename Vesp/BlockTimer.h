#pragma once
// Vesp: cheap block timers. A `Vesp::BlockTimer` measures the scope it lives in and adds one
// count and the elapsed steady-clock nanoseconds to a named `Vesp::Counter`. Counters are
// registered once per name (the first use of a name takes a lock; every later block only does
// two relaxed atomic adds), live for the whole process and can be read at any time by a test
// (`Vesp::counter(name)`) or dumped by a tool (`Vesp::report`).
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace Vesp {

// Per-name totals. Relaxed atomics: the totals are statistics, read without ordering against
// the measured work; each field is individually consistent.
class Counter {
 public:
  explicit Counter(std::string name) : name_(std::move(name)) {}
  Counter(const Counter&) = delete;
  Counter& operator=(const Counter&) = delete;

  const std::string& name() const noexcept { return name_; }
  std::uint64_t count() const noexcept { return count_.load(std::memory_order_relaxed); }
  std::uint64_t nanoseconds() const noexcept { return ns_.load(std::memory_order_relaxed); }
  void add(std::uint64_t ns) noexcept {
    count_.fetch_add(1, std::memory_order_relaxed);
    ns_.fetch_add(ns, std::memory_order_relaxed);
  }
  void reset() noexcept {
    count_.store(0, std::memory_order_relaxed);
    ns_.store(0, std::memory_order_relaxed);
  }

 private:
  std::string name_;
  std::atomic<std::uint64_t> count_{0};
  std::atomic<std::uint64_t> ns_{0};
};

// The counter of `name`, created on first use; the reference stays valid for the process.
Counter& counter(std::string_view name);
// Every counter, in order of first use.
std::vector<const Counter*> counters();
// One line per counter: "<name> count=<n> ns=<total> avg_ns=<total/n>".
void report(std::ostream& os);
// Zeroes every counter (names stay registered).
void resetAll() noexcept;

// Times its own scope into `counter`.
class BlockTimer {
 public:
  explicit BlockTimer(Counter& c) noexcept : counter_(c), start_(std::chrono::steady_clock::now()) {}
  explicit BlockTimer(std::string_view name) : BlockTimer(counter(name)) {}
  ~BlockTimer() {
    auto d = std::chrono::steady_clock::now() - start_;
    counter_.add(static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(d).count()));
  }
  BlockTimer(const BlockTimer&) = delete;
  BlockTimer& operator=(const BlockTimer&) = delete;

 private:
  Counter& counter_;
  std::chrono::steady_clock::time_point start_;
};

}  // namespace Vesp

// Times the enclosing block under a literal name; the counter is looked up once per site.
#define VESP_CONCAT2_(a, b) a##b
#define VESP_CONCAT_(a, b) VESP_CONCAT2_(a, b)
#define VESP_BLOCK(name)                                                         \
  static ::Vesp::Counter& VESP_CONCAT_(vespCounter_, __LINE__) = ::Vesp::counter(name); \
  ::Vesp::BlockTimer VESP_CONCAT_(vespTimer_, __LINE__)(VESP_CONCAT_(vespCounter_, __LINE__))
