#include "Jorv/Trace.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Jorv {
namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<TraceHandle>, std::less<>> handles;
  std::vector<std::pair<std::string, int>> patterns;  // later entries win
  std::atomic<TraceSink*> sink{nullptr};

  Registry() {
    char const* env = std::getenv("KIV_TRACE");
    if (env == nullptr) return;
    std::string_view settings(env);
    while (!settings.empty()) {
      auto comma = settings.find(',');
      std::string_view item = settings.substr(0, comma);
      settings = comma == std::string_view::npos ? std::string_view() : settings.substr(comma + 1);
      auto eq = item.find('=');
      if (eq == std::string_view::npos) continue;
      patterns.emplace_back(std::string(item.substr(0, eq)),
                            std::atoi(std::string(item.substr(eq + 1)).c_str()));
    }
  }
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: handles outlive static destructors
  return *r;
}

bool matches(std::string_view pattern, std::string_view name) {
  if (!pattern.empty() && pattern.back() == '*') {
    return name.substr(0, pattern.size() - 1) == pattern.substr(0, pattern.size() - 1);
  }
  return pattern == name;
}

}  // namespace

TraceHandle::TraceHandle(std::string name, int level) : name_(std::move(name)), level_(level) {}

void TraceHandle::write(int level, std::string_view text) const {
  TraceSink* sink = registry().sink.load(std::memory_order_acquire);
  if (sink != nullptr) {
    sink->write(name_, level, text);
    return;
  }
  timeval tv{};
  ::gettimeofday(&tv, nullptr);
  std::tm utc{};
  ::gmtime_r(&tv.tv_sec, &utc);
  char stamp[40];
  std::size_t const n = std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(stamp + n, sizeof stamp - n, ".%06ldZ", static_cast<long>(tv.tv_usec));
  std::string line;
  line.reserve(text.size() + name_.size() + 64);
  line.append(stamp).append(" ").append(std::to_string(::getpid())).append(" ").append(name_);
  line.append("[").append(std::to_string(level)).append("] ").append(text).append("\n");
  // One write per line; a short write (a full pipe) is finished, an error drops the line.
  std::size_t done = 0;
  while (done < line.size()) {
    ssize_t const w = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) break;
    done += std::size_t(w);
  }
}

TraceHandle& traceHandle(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.handles.find(name);
  if (it != r.handles.end()) return *it->second;
  int level = 0;  // errors by default
  for (auto const& [pattern, patternLevel] : r.patterns) {
    if (matches(pattern, name)) level = patternLevel;
  }
  auto handle = std::make_unique<TraceHandle>(std::string(name), level);
  TraceHandle& ref = *handle;
  r.handles.emplace(std::string(name), std::move(handle));
  return ref;
}

void traceLevelIs(std::string_view pattern, int level) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.patterns.emplace_back(std::string(pattern), level);
  for (auto& [name, handle] : r.handles) {
    if (matches(pattern, name)) handle->levelIs(level);
  }
}

TraceSink* traceSinkIs(TraceSink* sink) {
  return registry().sink.exchange(sink, std::memory_order_acq_rel);
}

}  // namespace Jorv
