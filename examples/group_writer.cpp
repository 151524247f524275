// group_writer: the agent's side. Owns the group tables under the table root ($QUARN_ROOT, else
// /dev/shm/quarn), publishes three groups, then takes a fourth away and brings it back every
// second until Ctrl-C.
#include <csignal>
#include <cstdio>

#include "Bidir/Quarn/GroupQuarnWriterSm.h"
#include "Kiv/Timer.h"

namespace Bidir = Routing::Pim::Bidir;
static Kiv::Activity* loop;  // the process's event loop; Ctrl-C stops it

static void addGroup(Bidir::Status& status, std::uint32_t i) {  // 239.1.1.<i>, two interfaces
  auto group = status.groupIs(Lanx::IpGenAddr::ipv4Addr(0xef010100 + i));
  group->creationTimeIs(Kiv::Activity::now());
  for (char const* name : {"Ethernet1", "Ethernet2"}) {
    auto intf = group->groupIntfIs(Lanx::IntfId(name));
    intf->joinStateIs(Bidir::GroupIntf::joined);
    intf->lastJoinReceivedIs(Kiv::Activity::now());
    intf->forwardIs(true);
  }
  group->upJoinStateIs(Bidir::Group::upJoined);
}

int main() try {
  loop = &Kiv::Activity::current();
  std::signal(SIGINT, [](int) { loop->stop(); });
  auto status = Bidir::statusFactory("default");         // the agent's state of one VRF
  auto tables = Bidir::Quarn::statusFactory("default");  // its two tables, mounted as writer:
  tables->mount(Quarn::QuarnType::writer);               // refused while another writer lives
  tables->groupIntfDelAll();  // a fresh start drops what an earlier life left (an agent that
  tables->groupDelAll();      // takes it back runs GroupQuarnRestartSm instead)
  for (std::uint32_t i = 1; i <= 3; ++i) addGroup(*status, i);
  status->initializedIs(true);
  // Exports the whole state now, then each change inside the setter that makes it.
  auto writer = Bidir::Quarn::groupQuarnWriterSmFactory(status, tables);
  std::printf("writer: %u groups published in table %s\n", tables->groupCount(),
              tables->groupControl().rootPath().c_str());
  std::fflush(stdout);
  auto const fourth = Lanx::IpGenAddr::ipv4Addr(0xef010104);
  Kiv::Timer flap(
      [&] {
        status->group(fourth) ? status->groupDel(fourth) : addGroup(*status, 4);
        flap.armIn(1);
      },
      *loop);
  flap.armIn(1);
  loop->run();
  return 0;
} catch (std::exception const& e) {
  std::fprintf(stderr, "group_writer: %s\n", e.what());
  return 1;
}
