// libFuzzer target of the attribute log's reading side: arbitrary bytes (mutated valid streams
// from the seed corpus) are fed to a channel's input, whole and again in two pieces split where
// the first byte says. Both runs must end alike: the same error (or none) and the same entities,
// since a record or transaction is applied only once all of it has arrived and been checked.
// Refusals (the framework's exceptions) are expected; any other exception, a crash or a sanitizer
// report aborts the run. Every member must keep the key it was stored under.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "Bidir/AttrLog.h"

namespace {

namespace Bidir = Routing::Pim::Bidir;
namespace Log = Kiv::NboAttrLog;

struct Result {
  std::string error;
  std::string state;
};

Result run(std::uint8_t const* data, std::size_t size, std::size_t split) {
  static Kiv::Activity activity;
  Bidir::attrLogTypesRegister();
  auto cfg = Bidir::configCollFactory("cfg");
  auto clr = Bidir::clearConfigCollFactory("clr");
  Result r;
  {
    Log::Endpoint end(activity, Log::Endpoint::Options{});
    end.read(cfg);
    end.read(clr);
    int fds[2];
    Log::socketPair(fds);
    ::close(fds[1]);
    Log::In& in = end.adopt(fds[0], "fuzz").in();
    try {
      in.feed({data, split});
      in.feed({data + split, size - split});
      in.endOfStream();
    } catch (Jorv::Exception const& e) {
      r.error = e.what();
    }
  }
  std::ostringstream os;
  for (auto const& c : cfg->vrfConfigIter()) {
    if (c.parent() != cfg.ptr()) std::abort();
    os << c.vrfName() << " " << c.groupExpiryInterval() << ";";
  }
  for (auto const& c : clr->vrfClearConfigIter()) {
    if (c.parent() != clr.ptr()) std::abort();
    os << c.vrfName() << " " << c.groupKey() << " " << int(c.groupsCount()) << " "
       << c.countersCount() << ";";
  }
  r.state = os.str();
  return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  std::size_t const split = std::size_t(data[0]) * 7 % size;
  Result whole = run(data + 1, size - 1, 0);
  Result pieces = run(data + 1, size - 1, split == 0 ? 0 : split - 1);
  if (whole.error != pieces.error || whole.state != pieces.state) {
    std::fprintf(stderr, "whole and split disagree:\n  %s | %s\n  %s | %s\n", whole.error.c_str(),
                 whole.state.c_str(), pieces.error.c_str(), pieces.state.c_str());
    std::abort();
  }
  return 0;
}
