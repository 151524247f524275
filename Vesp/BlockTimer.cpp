#include "Vesp/BlockTimer.h"

#include <deque>
#include <memory>
#include <mutex>

namespace Vesp {
namespace {

// Counters are never removed, so references handed out stay valid; a deque of unique_ptr keeps
// addresses stable and the order of first use.
struct Registry {
  std::mutex mutex;
  std::deque<std::unique_ptr<Counter>> all;
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: timers may run during static teardown
  return *r;
}

}  // namespace

Counter& counter(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  for (auto& c : r.all) {
    if (c->name() == name) return *c;
  }
  r.all.push_back(std::make_unique<Counter>(std::string(name)));
  return *r.all.back();
}

std::vector<const Counter*> counters() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::vector<const Counter*> out;
  out.reserve(r.all.size());
  for (auto& c : r.all) out.push_back(c.get());
  return out;
}

void report(std::ostream& os) {
  for (const Counter* c : counters()) {
    std::uint64_t n = c->count();
    std::uint64_t ns = c->nanoseconds();
    os << c->name() << " count=" << n << " ns=" << ns << " avg_ns=" << (n ? ns / n : 0) << '\n';
  }
}

void resetAll() noexcept {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  for (auto& c : r.all) c->reset();
}

}  // namespace Vesp
