#pragma once
// Shared pieces of the benchmarks: the group-interface keys and records they write, and a private
// root directory for their tables.

#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Bidir/GroupIntfKey.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"

namespace BenchSupport {

using Routing::Pim::Bidir::GroupIntfKey;
using Record = Routing::Pim::Bidir::Quarn::GroupIntf;
using Wrapper = KivQuarn::KivQuarnMapValueWrapper<Record, GroupIntfKey>;

// n distinct keys (5000 groups x n/5000 VLAN interfaces) in a shuffled order shared by all runs.
inline std::vector<GroupIntfKey> const& keys(std::size_t n) {
  static std::vector<GroupIntfKey> cache;
  if (cache.size() != n) {
    cache.clear();
    std::size_t const groups = 5000;
    std::vector<Lanx::IntfId> intfs;
    for (std::size_t v = 1; v <= (n + groups - 1) / groups; ++v) {
      intfs.emplace_back("Vlan" + std::to_string(v));
    }
    for (std::size_t i = 0; i < n; ++i) {
      auto const group =
          Lanx::IpGenAddr::ipv4Addr(0xef000000u + static_cast<std::uint32_t>(i % groups));
      cache.emplace_back(group, intfs[i / groups]);
    }
    std::shuffle(cache.begin(), cache.end(), std::mt19937(42));
  }
  return cache;
}

inline Wrapper recordFor(GroupIntfKey const& key, std::uint64_t n) {
  Wrapper r;
  r.key = key;
  r.forward = (n & 1) != 0;
  r.joinState = Record::JoinState::joined;
  r.lastJoinReceived = static_cast<double>(n);
  r.iAmDf = true;
  return r;
}

class TempRoot {
 public:
  TempRoot() {
    char pattern[] = "/dev/shm/quarn-bench-XXXXXX";
    path_ = ::mkdtemp(pattern);
  }
  ~TempRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

// Tables built with the defaults live under $QUARN_ROOT: a private root while this lives.
struct PrivateRoot {
  PrivateRoot() { ::setenv("QUARN_ROOT", tmp.path().c_str(), 1); }
  ~PrivateRoot() { ::unsetenv("QUARN_ROOT"); }
  TempRoot tmp;
};

}  // namespace BenchSupport
