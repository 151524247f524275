// The writer child of the quarnctl tests (Processes.h): this test binary re-executed with
// QUARNCTL_TEST_WRITER="<mode> <root> <command fd> <answer fd>".

#include <sys/epoll.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

#include "Bidir/Df/RpaRpfStatus.h"
#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"
#include "Bidir/Quarn/GroupQuarnWriterSm.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Kiv/Activity.h"
#include "Pim/RpHashStatus.h"
#include "Processes.h"

namespace QuarnctlTest {
namespace {

namespace Bidir = Routing::Pim::Bidir;
using Quarn::QuarnType;

std::string text(auto const& v) {
  std::string s = valueToStrep(v);
  if (s.size() >= 2 && s.front() == '\'') s = s.substr(1, s.size() - 2);
  return s;
}

Lanx::IpGenAddr rpAddr(std::uint32_t r) {
  return Lanx::IpGenAddr::ipv4Addr(0x0a000001u + r);
}

// Three RPs; the last group's range has none, so its RP and RPF are unset.
void publishForeignTables(Routing::Pim::RpHashStatus& rpHash,
                          Bidir::Df::Quarn::RpaRpfStatus& rpaRpf) {
  for (std::uint32_t g = 0; g + 1 < kGroups; ++g) {
    Lanx::IpGenAddr const addr = Lanx::IpGenAddr::ipv4Addr(0xef020000u + g);
    rpHash.rpHashIs(Routing::Pim::RpHash{Lanx::IpGenPrefix(addr), rpAddr(g % 3)});
  }
  for (std::uint32_t r = 0; r < 3; ++r) {
    Bidir::Df::Quarn::RpaRpf rec(rpAddr(r));
    rec.rpfInterface = Lanx::IntfId("Ethernet" + std::to_string(r + 1));
    rec.rpf.intfId = rec.rpfInterface;
    rec.rpaIndex = std::uint16_t(r + 1);
    rpaRpf.rpaRpfIs(rec);
  }
}

void buildGroups(Bidir::Status& status) {
  for (std::uint32_t g = 0; g < kGroups; ++g) {
    auto group = status.groupIs(Lanx::IpGenAddr::ipv4Addr(0xef020000u + g));
    group->creationTimeIs(100.0 + g);
    group->inactiveIs(g % 5 == 0);
    for (std::uint32_t i = 0; i < kIntfs; ++i) {
      auto intf = group->groupIntfIs(Lanx::IntfId("Ethernet" + std::to_string(i + 1)));
      intf->iAmDfIs((g + i) % 4 != 0);
      intf->localReceiverIncludeIs((g * 7 + i) % 3 == 0);
      intf->joinStateIs(Bidir::GroupIntf::JoinState((g + i) % 3));
      intf->lastJoinReceivedIs(1000.25 + g + i / 8.0);
      intf->forwardIs(intf->oList());
    }
    group->upJoinStateIs(group->joinDesired() ? Bidir::Group::upJoined : Bidir::Group::upNotJoined);
  }
}

// What this process computes from its own Status, one line per group and per interface, in the
// form the test derives from quarnctl's JSON.
void writeExpected(Bidir::Status const& status, std::string const& path) {
  std::ofstream out(path);
  for (auto const& g : status.groupIter()) {
    out << "G " << text(g.groupAddr()) << ' ' << text(g.upJoinState()) << ' ' << g.inactive() << ' '
        << text(g.rp()) << ' ' << text(g.rpaRpf().rpfInterface) << ' ' << g.joinDesired() << '\n';
    for (auto const& i : g.groupIntfIter()) {
      out << "I " << text(g.groupAddr()) << ' ' << text(i.intfId()) << ' ' << text(i.joinState())
          << ' ' << i.forward() << ' ' << i.localReceiverInclude() << ' ' << i.iAmDf() << ' '
          << i.oList() << ' ' << i.pimInclude() << '\n';
    }
  }
}

// Runs the activity, handing each command line to `obey`, until the test closes the pipe.
[[noreturn]] void serve(int commandFd, int answerFd, std::function<void(std::string const&)> obey) {
  Kiv::Activity& activity = Kiv::Activity::current();
  auto answer = [&](char const* a) { (void)!::write(answerFd, a, std::strlen(a)); };
  std::string pending;
  Kiv::FdWatch commands(activity, commandFd, EPOLLIN, [&](std::uint32_t) {
    char buf[4096];
    ssize_t const n = ::read(commandFd, buf, sizeof buf);
    if (n <= 0) std::_Exit(0);
    pending.append(buf, std::size_t(n));
    for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos;) {
      obey(pending.substr(0, nl));
      pending.erase(0, nl + 1);
      answer("ok\n");
    }
  });
  answer("ready\n");
  for (;;) activity.runOnce(-1);
}

int stateWriter(std::string const& root, int commandFd, int answerFd) {
  auto rpHash = Kiv::newPtr<Routing::Pim::RpHashStatus>("rpHash");
  auto rpaRpf = Kiv::newPtr<Bidir::Df::Quarn::RpaRpfStatus>("rpaRpf");
  rpHash->rpHashControl().init(QuarnType::writer, false, kGroups);
  rpaRpf->rpaRpfControl().init(QuarnType::writer, false, 16);
  publishForeignTables(*rpHash, *rpaRpf);
  Kiv::Ptr<Bidir::Status> status = Bidir::statusFactory("default");
  status->rpHashStatusIs(rpHash);
  status->rpaRpfStatusIs(rpaRpf);
  Kiv::Ptr<Bidir::Quarn::Status> quarn = Bidir::Quarn::statusFactory("default");
  // Sized for this state, not an agent's: every test reads every byte of these files.
  quarn->groupControl().init(QuarnType::writer, false, 2 * kGroups);
  quarn->groupIntfControl().init(QuarnType::writer, false, 2 * kGroups * kIntfs);
  buildGroups(*status);
  status->initializedIs(true);
  auto const writer = Bidir::Quarn::groupQuarnWriterSmFactory(status, quarn);
  writeExpected(*status, root + "/expected");
  serve(commandFd, answerFd, [](std::string const&) {});
}

int tableWriter(std::string const&, int commandFd, int answerFd) {
  Kiv::Ptr<Bidir::Quarn::Status> quarn = Bidir::Quarn::statusFactory("default");
  quarn->groupControl().init(QuarnType::writer, false, 64);
  serve(commandFd, answerFd, [&](std::string const& line) {
    std::istringstream in(line);
    std::string op, addr;
    in >> op >> addr;
    Lanx::IpGenAddr const key = Kiv::strepToValue<Lanx::IpGenAddr>(addr);
    if (op == "del") {
      quarn->groupDel(key);
      return;
    }
    Bidir::Quarn::Group g;
    g.key = key;
    g.creationTime = 5.5;
    in >> g.inactive;
    quarn->groupIs(g);
  });
}

int writerChild(std::string const& value) {
  std::istringstream in(value);
  std::string mode, root;
  int commandFd = -1, answerFd = -1;
  in >> mode >> root >> commandFd >> answerFd;
  ::setenv("QUARN_ROOT", root.c_str(), 1);
  return mode == "state" ? stateWriter(root, commandFd, answerFd)
                         : tableWriter(root, commandFd, answerFd);
}

[[maybe_unused]] bool const childHook = TestSupport::childRole(kWriterRole, writerChild);

}  // namespace
}  // namespace QuarnctlTest
