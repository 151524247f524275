#include "Common.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <type_traits>

#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"

namespace BidirAgent {

void tellDoing(int reportFd, Role role, char const* what) {
  Report r;
  r.kind = Report::doing;
  r.role = role;
  r.time = now();
  std::snprintf(r.text, sizeof r.text, "%s", what);
  send(reportFd, r);
}

Lanx::IpGenAddr groupAddr(std::uint32_t i) {
  return Lanx::IpGenAddr::ipv4Addr(0xef010000u + i);
}
std::uint32_t groupIndex(Lanx::IpGenAddr const& addr, std::uint32_t limit) {
  if (addr.family() != Lanx::IpGenAddr::ipv4) return limit;
  std::uint32_t const i = addr.ipv4HostOrder() - 0xef010000u;
  return i < limit ? i : limit;
}
Lanx::IntfId intfId(std::uint32_t j) {
  return Lanx::IntfId("Ethernet" + std::to_string(j + 1));
}
Lanx::IpGenAddr rpAddr(std::uint32_t r) {
  return Lanx::IpGenAddr::ipv4Addr(0x0a000001u + r);
}
char const* roleName(Role role) {
  switch (role) {
    case Role::rpdf:
      return "rp/df";
    case Role::agent:
      return "agent";
    case Role::reader:
      return "reader";
    case Role::config:
      return "config";
  }
  return "?";
}

namespace {

// FNV-1a over the bytes of trivially copyable values (all of them free of padding: pinned by
// their headers).
class Hasher {
 public:
  template <class T>
  Hasher& operator<<(T const& v) {
    static_assert(std::is_trivially_copyable_v<T>);
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &v, sizeof bytes);
    for (unsigned char b : bytes) h_ = (h_ ^ b) * 1099511628211ull;
    return *this;
  }
  std::uint64_t value() const { return h_ ^ (h_ >> 29); }

 private:
  std::uint64_t h_ = 1469598103934665603ull;
};

}  // namespace

std::uint64_t writeDigest(Bidir::Status const& status, std::string const& path) {
  std::vector<Kiv::Ptr<Bidir::Group const>> groups;
  for (auto const& g : status.groupIter()) groups.push_back(&g);
  std::sort(groups.begin(), groups.end(),
            [](auto const& a, auto const& b) { return a->groupAddr() < b->groupAddr(); });
  std::ofstream out(path, std::ios::trunc);
  Hasher all;
  for (auto const& g : groups) {
    Hasher h;
    h << g->groupAddr() << g->creationTime() << g->upJoinState() << g->inactive()
      << g->joinDesired() << g->rp() << g->rpaRpf() << g->rpaIndex()
      << const_cast<Bidir::Group&>(*g).routeKey();
    std::vector<Kiv::Ptr<Bidir::GroupIntf const>> intfs;
    for (auto const& i : g->groupIntfIter()) intfs.push_back(&i);
    std::sort(intfs.begin(), intfs.end(),
              [](auto const& a, auto const& b) { return a->intfId() < b->intfId(); });
    for (auto const& i : intfs) {
      h << i->intfId() << i->joinState() << i->lastJoinReceived() << i->forward()
        << i->localReceiverInclude() << i->iAmDf() << i->joins() << i->pimInclude() << i->oList();
    }
    all << h.value();
    out << g->groupAddr() << ' ' << intfs.size() << ' ' << std::hex << h.value() << std::dec
        << '\n';
  }
  return all.value();
}

}  // namespace BidirAgent
