// What a reading process holds of its own after one full pass over a shared group-interface
// table of 500,000 entries, per reading mode: the direct reader ("reader", the lean mode,
// BM_QuarnReaderPrivateBytes), the key shadow (BM_QuarnKeyShadowPrivateBytes) and the shadow
// with values (BM_QuarnShadowPrivateBytes).
//
// The reader runs in another process (this executable re-executed), mounts the table through a
// table front and counts the keys it is told of until it has heard every entry once (a direct
// reader reports the whole table when it attaches, a shadow on its first pass). Counter
// `private_bytes`: how much its private memory (Private_Clean + Private_Dirty of
// /proc/self/smaps_rollup) grew from just before the mount to the end of that pass. The table's
// files are shared with the writer and do not count. The target for the direct reader is at
// most 4 MB.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include "BenchSupport.h"
#include "Kiv/Activity.h"
#include "Quarn/QuarnMap.h"

extern char** environ;

namespace {

using Map = Quarn::QuarnMap<BenchSupport::GroupIntfKey, BenchSupport::Wrapper>;
constexpr char const* roleVariable = "QUARN_BENCH_PRIVATE_BYTES";

std::uint64_t privateBytes() {
  std::ifstream rollup("/proc/self/smaps_rollup");
  std::uint64_t total = 0;
  for (std::string line; std::getline(rollup, line);) {
    if (line.rfind("Private_Clean:", 0) == 0 || line.rfind("Private_Dirty:", 0) == 0) {
      total += std::stoull(line.substr(line.find(':') + 1)) * 1024;  // in kB
    }
  }
  return total;
}

struct Counter final : Quarn::KeyNotifier<BenchSupport::GroupIntfKey> {
  std::uint64_t keys = 0;
  void onKey(BenchSupport::GroupIntfKey const&) override { ++keys; }
};

// The reading process: "<root dir> <mode> <entries> <result fd>". Writes the growth of its
// private bytes, or 0 when it did not hear every entry within a minute.
int readerRole(std::string const& arg) {
  std::istringstream in(arg);
  std::string dir;
  int mode = 0, fd = -1;
  std::uint64_t entries = 0;
  in >> dir >> mode >> entries >> fd;
  Kiv::Activity activity;
  Counter counter;
  std::uint64_t const before = privateBytes();
  Map map("groupIntf", &counter, dir, activity);
  map.yieldTimeIs(0);
  map.init(Quarn::QuarnType(mode), false, 0);
  double const deadline = Kiv::Activity::now() + 60;
  while (counter.keys < entries && Kiv::Activity::now() < deadline) activity.runOnce(0.05);
  std::uint64_t const grown = counter.keys >= entries ? privateBytes() - before : 0;
  (void)!::write(fd, &grown, sizeof grown);
  return 0;
}

[[maybe_unused]] bool const roleHook = [] {
  if (char const* value = std::getenv(roleVariable)) std::_Exit(readerRole(value));
  return false;
}();

void privateBytesOf(benchmark::State& state, Quarn::QuarnType mode) {
  auto const entries = std::uint32_t(state.range(0));
  BenchSupport::TempRoot root;
  Kiv::Activity activity;
  Map writer("groupIntf", nullptr, root.path(), activity);
  writer.init(Quarn::QuarnType::writer, false, entries);
  std::uint64_t n = 0;
  for (auto const& key : BenchSupport::keys(entries))
    writer.safeWrite(BenchSupport::recordFor(key, ++n));
  int result[2];
  if (::pipe(result) != 0) return state.SkipWithError("pipe");
  std::uint64_t grown = 0;
  for (auto _ : state) {
    std::string const arg = root.path() + " " + std::to_string(int(mode)) + " " +
                            std::to_string(entries) + " " + std::to_string(result[1]);
    pid_t const child = ::fork();
    if (child == 0) {
      ::setenv(roleVariable, arg.c_str(), 1);
      char const* argv[] = {"/proc/self/exe", nullptr};
      ::execve("/proc/self/exe", const_cast<char**>(argv), environ);
      std::_Exit(127);
    }
    // The writer serves the reader's wake-up channel while it reads.
    pollfd p{result[0], POLLIN, 0};
    double const deadline = Kiv::Activity::now() + 90;
    while (::poll(&p, 1, 0) == 0 && Kiv::Activity::now() < deadline) activity.runOnce(0.01);
    bool const got =
        ::poll(&p, 1, 0) == 1 && ::read(result[0], &grown, sizeof grown) == sizeof grown;
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    if (!got || grown == 0) {
      state.SkipWithError("the reader did not hear every entry");
      break;
    }
  }
  ::close(result[0]);
  ::close(result[1]);
  state.counters["private_bytes"] = double(grown);
}

void BM_QuarnReaderPrivateBytes(benchmark::State& state) {
  privateBytesOf(state, Quarn::QuarnType::reader);
}
void BM_QuarnKeyShadowPrivateBytes(benchmark::State& state) {
  privateBytesOf(state, Quarn::QuarnType::keyshadow);
}
void BM_QuarnShadowPrivateBytes(benchmark::State& state) {
  privateBytesOf(state, Quarn::QuarnType::shadow);
}

}  // namespace

BENCHMARK(BM_QuarnReaderPrivateBytes)->Arg(500000)->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuarnKeyShadowPrivateBytes)->Arg(500000)->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuarnShadowPrivateBytes)->Arg(500000)->Iterations(2)->Unit(benchmark::kMillisecond);
