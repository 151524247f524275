#pragma once
// Trace handles: named, levelled logging channels, the base layer's debug handlers.
//
// A handle is looked up by name once (`Jorv::traceHandle`) and lives for the whole process. A line
// is produced only when its level is at most the handle's level, so a disabled trace costs one
// relaxed atomic load; callers use KIV_TRACE so that the arguments are not even formatted then.
// Levels: 0 errors, 1 warnings, 3 progress, 5 detail, 8 function entry, 9 everything.
//
// Every handle starts at level 0: errors are written by default. The environment variable
// KIV_TRACE sets levels by name, later items winning:
// KIV_TRACE="PimBidir::QuarnWriter=8,Quarn-*=3" (a trailing '*' matches a prefix; "*=-1" silences
// everything, errors included).
//
// Lines go to the installed sink (`Jorv::traceSinkIs`), by default standard error, one line each:
// "<UTC time with microseconds> <pid> <handle>[<level>] <text>", written with one write(2) so that
// lines of several processes sharing a terminal or a log file do not interleave.

#include <atomic>
#include <sstream>
#include <string>
#include <string_view>

namespace Jorv {

class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void write(std::string_view handle, int level, std::string_view text) = 0;
};

class TraceHandle {
 public:
  explicit TraceHandle(std::string name, int level);
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  std::string const& name() const noexcept { return name_; }
  int level() const noexcept { return level_.load(std::memory_order_relaxed); }
  void levelIs(int level) noexcept { level_.store(level, std::memory_order_relaxed); }
  bool enabled(int level) const noexcept { return level <= this->level(); }

  // Writes one line at `level` (no check of the level: use KIV_TRACE or `enabled` first).
  void write(int level, std::string_view text) const;

  // Out of line and cold: a trace site costs its caller one load and a branch, not the
  // formatting code.
  template <class... Args>
  [[gnu::cold, gnu::noinline]] void trace(int level, Args const&... args) const {
    if (!enabled(level)) return;
    std::ostringstream os;
    (os << ... << args);
    write(level, os.str());
  }

 private:
  std::string name_;
  std::atomic<int> level_;
};

// The handle of that name, created on first use. The reference stays valid for the process.
TraceHandle& traceHandle(std::string_view name);

// Sets the level of every existing and future handle whose name matches `pattern` (exact, or a
// prefix followed by '*').
void traceLevelIs(std::string_view pattern, int level);

// Installs the sink that receives every line (nullptr restores standard error). The sink must
// outlive its installation. Returns the previous sink.
TraceSink* traceSinkIs(TraceSink* sink);

}  // namespace Jorv

#define KIV_TRACE(handle, lvl, ...)                                \
  do {                                                             \
    if ((handle).enabled(lvl)) [[unlikely]] (handle).trace((lvl), __VA_ARGS__); \
  } while (false)
