// Attribute-log replication of clear requests between two processes over a Unix socket.
//
// A forked reader process attaches to the benchmark's ClearConfigColl and acknowledges, once per
// activity round, the latest countersCount it applied (and how many changes it applied) on a
// pipe. Benchmarks:
//   BM_AttrLogClearConfigUpdate      batches of 1000 changes, each batch until acknowledged:
//                                    changes per second with the reader keeping up
//   BM_AttrLogClearConfigLatency     one change until acknowledged: median and 99th percentile
//   BM_AttrLogCoalescing             1,000,000 changes over 1,000 entities with the reader
//                                    stopped: bytes sent after it resumes, against one record per
//                                    dirty attribute (bytes_ratio)
// Baselines in the same run: the same change applied to a local entity with a notifiee
// (BM_BaselineClearConfigLocal), and a bare 4-byte ping-pong between the two processes
// (BM_BaselinePipeRoundTrip), the floor of any cross-process acknowledgement.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "Bidir/AttrLog.h"

namespace {

namespace Bidir = Routing::Pim::Bidir;
namespace Log = Kiv::NboAttrLog;

struct Ack {
  std::uint32_t value;
  std::uint32_t applied;
};

// The reader process: reports member "red" (and member "sentinel") changes on `ackFd`; echoes
// 4-byte pings on `pingFd`.
[[noreturn]] void readerProcess(std::string const& path, int ackFd, int pingFd) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Kiv::Activity act;
  auto cfg = Bidir::configCollFactory("cfg");
  auto clr = Bidir::clearConfigCollFactory("clr");
  struct Watch : Bidir::ClearConfig::NotifieeConst {
    Kiv::Activity* act;
    int fd;
    Ack ack{0, 0};
    bool armed = false;
    void onCountersCount() override {
      ack.value = notifier()->countersCount();
      ++ack.applied;
      if (armed) return;
      armed = true;
      act->timerIs(Kiv::Activity::now(), [this] {
        armed = false;
        [[maybe_unused]] auto n = ::write(fd, &ack, sizeof ack);
      });
    }
  };
  struct CollWatch : Bidir::ClearConfigColl::NotifieeConst {
    Kiv::Ptr<Watch> red, sentinel;
    void onVrfClearConfig(L3::VrfName n) override {
      Kiv::Ptr<Watch>& w = n == L3::VrfName("red") ? red : sentinel;
      if (n != L3::VrfName("red") && n != L3::VrfName("sentinel")) return;
      if (auto c = notifier()->vrfClearConfig(n)) w->notifierIs(Kiv::Ptr<Bidir::ClearConfig const>(c));
    }
  };
  Kiv::Ptr<CollWatch> coll(new CollWatch);
  for (auto* w : {&coll->red, &coll->sentinel}) {
    *w = new Watch;
    (*w)->act = &act;
    (*w)->fd = ackFd;
  }
  coll->notifierIs(Kiv::Ptr<Bidir::ClearConfigColl const>(clr));
  auto client = Bidir::configurationAttach(act, path, cfg, clr);
  Kiv::FdWatch ping(act, pingFd, EPOLLIN, [pingFd](std::uint32_t) {
    std::uint32_t v;
    if (::read(pingFd, &v, sizeof v) == sizeof v) {
      [[maybe_unused]] auto n = ::write(pingFd, &v, sizeof v);
    }
  });
  act.run();
  std::_Exit(0);
}

// The writing side with its reader process, made once for the whole run.
struct Pair {
  Kiv::Activity act;
  std::string dir;
  Kiv::Ptr<Bidir::ConfigColl> cfg = Bidir::configCollFactory("cfg");
  Kiv::Ptr<Bidir::ClearConfigColl> clr = Bidir::clearConfigCollFactory("clr");
  Kiv::Ptr<Bidir::ClearConfig> red, sentinel;
  std::unique_ptr<Log::Server> server;
  pid_t child = -1;
  int ackFd = -1, pingFd = -1;
  Ack last{0, 0};
  Kiv::FdWatch ackWatch;

  Pair() {
    char tmpl[] = "/tmp/attrlog-bench-XXXXXX";
    dir = ::mkdtemp(tmpl);
    red = clr->vrfClearConfigIs("red");
    sentinel = clr->vrfClearConfigIs("sentinel");
    for (int i = 0; i < 1000; ++i) clr->vrfClearConfigIs(L3::VrfName("vrf" + std::to_string(i)));
    // A mark well above one batch, so the benchmarks that keep up never coalesce.
    server = Bidir::configurationServe(act, dir + "/sock", cfg, clr, {1 << 20, 0.02});
    int ack[2], ping[2];
    if (::pipe(ack) != 0 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, ping) != 0) std::abort();
    child = ::fork();
    if (child == 0) {
      ::close(ack[0]);
      ::close(ping[0]);
      readerProcess(dir + "/sock", ack[1], ping[1]);
    }
    ::close(ack[1]);
    ::close(ping[1]);
    ackFd = ack[0];
    pingFd = ping[0];
    ::fcntl(ackFd, F_SETFL, O_NONBLOCK);
    ackWatch = Kiv::FdWatch(act, ackFd, EPOLLIN, [this](std::uint32_t) {
      Ack a;
      while (::read(ackFd, &a, sizeof a) == sizeof a) last = a;
    });
    while (server->channels().empty() || server->channels().front()->out().flowOutPending()) {
      act.runOnce(0.1);
    }
    red->countersCountIs(1);
    waitAck(1);
  }
  ~Pair() {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ackWatch.reset();
    server.reset();
    std::filesystem::remove_all(dir);
  }
  Log::Out& out() { return server->channels().front()->out(); }
  void waitAck(std::uint32_t value) {
    while (last.value != value) act.runOnce(1.0);
  }
};

Pair& pair() {
  static Pair* p = new Pair;  // kept: the reader process lives as long as the run
  return *p;
}

void BM_AttrLogClearConfigUpdate(benchmark::State& state) {
  Pair& p = pair();
  std::uint32_t v = p.red->countersCount();
  std::uint32_t const appliedBefore = p.last.applied;
  std::uint64_t changes = 0;
  for (auto _ : state) {
    for (int k = 0; k < 1000; ++k) p.red->countersCountIs(++v);
    changes += 1000;
    p.waitAck(v);
  }
  state.SetItemsProcessed(std::int64_t(changes));
  // 1.0 when every change was applied in the reader, none coalesced away.
  state.counters["applied_fraction"] = double(p.last.applied - appliedBefore) / double(changes);
}
BENCHMARK(BM_AttrLogClearConfigUpdate)->UseRealTime();

void BM_AttrLogClearConfigLatency(benchmark::State& state) {
  Pair& p = pair();
  std::uint32_t v = p.red->countersCount();
  std::vector<double> us;
  for (auto _ : state) {
    double const t0 = Kiv::Activity::now();
    p.red->countersCountIs(++v);
    p.waitAck(v);
    us.push_back((Kiv::Activity::now() - t0) * 1e6);
  }
  std::sort(us.begin(), us.end());
  state.counters["median_us"] = us[us.size() / 2];
  state.counters["p99_us"] = us[us.size() * 99 / 100];
}
BENCHMARK(BM_AttrLogClearConfigLatency)->UseRealTime();

void BM_AttrLogCoalescing(benchmark::State& state) {
  Pair& p = pair();
  std::vector<Kiv::Ptr<Bidir::ClearConfig>> members;
  for (int i = 0; i < 1000; ++i) members.push_back(p.clr->vrfClearConfig(L3::VrfName("vrf" + std::to_string(i))));
  std::uint32_t v = 0;
  double ratio = 0, dirty = 0;
  // The output's default mark here: the figure includes what waits in it when the reader stops.
  p.out().highWaterIs(Log::Endpoint::Options{}.highWater);
  for (auto _ : state) {
    ::kill(p.child, SIGSTOP);
    for (int k = 0; k < 1000000; ++k) {
      members[std::size_t(k) % members.size()]->countersCountIs(++v);
      if (k % 4096 == 0) p.act.runOnce(0);
    }
    std::uint32_t const mark = 0xa0000000u + p.sentinel->countersCount() + 1;  // no other ack has it
    p.sentinel->countersCountIs(mark);
    std::uint64_t const sentBefore = p.out().bytesWritten();
    std::size_t const buffered = p.out().buffered();
    ::kill(p.child, SIGCONT);
    while (p.last.value != mark) p.act.runOnce(1.0);
    double const after = double(p.out().bytesWritten() - sentBefore);
    // One countersCount record: header, begin token, the 32-bit value, end token.
    double const oneRecord = double(Log::MsgHeader::wireSize + 1 + 4 + 1);
    dirty = 1001;  // every member once, and the sentinel
    ratio = after / (dirty * oneRecord);
    state.counters["buffered_at_stop"] = double(buffered);
  }
  p.out().highWaterIs(1 << 20);
  state.counters["bytes_ratio"] = ratio;
  state.counters["dirty_attributes"] = dirty;
}
BENCHMARK(BM_AttrLogCoalescing)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BaselineClearConfigLocal(benchmark::State& state) {
  auto c = Bidir::clearConfigFactory("red");
  struct Watch : Bidir::ClearConfig::NotifieeConst {
    std::uint32_t seen = 0;
    void onCountersCount() override { seen = notifier()->countersCount(); }
  };
  Kiv::Ptr<Watch> w(new Watch);
  w->notifierIs(Kiv::Ptr<Bidir::ClearConfig const>(c));
  std::uint32_t v = 0;
  for (auto _ : state) {
    c->countersCountIs(++v);
    benchmark::DoNotOptimize(w->seen);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BaselineClearConfigLocal);

void BM_BaselinePipeRoundTrip(benchmark::State& state) {
  Pair& p = pair();
  std::uint32_t v = 0;
  for (auto _ : state) {
    ++v;
    if (::write(p.pingFd, &v, sizeof v) != sizeof v) std::abort();
    std::uint32_t back = 0;
    if (::read(p.pingFd, &back, sizeof back) != sizeof back || back != v) std::abort();
  }
}
BENCHMARK(BM_BaselinePipeRoundTrip)->UseRealTime();

}  // namespace
