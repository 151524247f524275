// group_reader: a show command's side. Attaches to the group tables under the table root
// ($QUARN_ROOT, else /dev/shm/quarn), prints the groups, then every change it is told of until
// Ctrl-C. Build: see README.md, "Installing and consuming".
#include <csignal>
#include <iostream>

#include "Bidir/Quarn/Status.h"

namespace BQ = Routing::Pim::Bidir::Quarn;
static Kiv::Activity* loop;  // the process's event loop; Ctrl-C stops it
static volatile std::sig_atomic_t interrupted = 0;

static void print(char const* what, BQ::Group const& g) {
  std::cout << what << ' ' << g.key << ' ' << g.upJoinState << (g.inactive ? " inactive" : "")
            << std::endl;
}

// Hears the key of every group record that changed; the table says what the record is now.
struct GroupPrinter : BQ::Status::NotifieeConst {
  void onGroup(Lanx::IpGenAddr const& addr) override {
    BQ::Group const record = notifier()->group(addr);
    if (record.key == addr) {
      print("changed", record);
    } else {
      std::cout << "removed " << addr << std::endl;  // absent: a default record
    }
  }
};

int main() try {
  loop = &Kiv::Activity::current();
  std::signal(SIGINT, [](int) { interrupted = 1, loop->stop(); });
  auto tables = BQ::statusFactory("default");
  // "keyshadow" keeps a private copy of the keys, so a group that goes is reported too.
  tables->mount(Quarn::QuarnType::keyshadow);
  std::cout << "waiting for the table " << tables->groupControl().rootPath() << std::endl;
  while (!tables->groupControl().fullyAttached() && !interrupted) loop->runOnce(1);
  for (auto it = tables->groupIterator(); it; ++it) print("group", *it);
  auto printer = Kiv::newPtr<GroupPrinter>();
  printer->notifierIs(tables);  // from now on, on this loop's thread
  loop->run();
  return 0;
} catch (std::exception const& e) {
  std::cerr << "group_reader: " << e.what() << std::endl;
  return 1;
}
