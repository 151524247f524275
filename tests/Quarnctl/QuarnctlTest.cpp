// quarnctl end to end: the program run as a process against tables that a writer process writes
// under a private root (Processes.h, Writers.cpp), its JSON lines parsed and compared with what
// the writer wrote and computed. Covers: every command leaves every file of a live table as it
// was; what ls, dump and get report; the group state with its computed values; check on planted
// damage; watch across writer restarts and a new incarnation; records of an unknown type;
// the command line's exit codes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "Processes.h"
#include "Quarn/QuarnMap.h"
#include "Quarn/ReaderMounter.h"
#include "Quarn/SlotTable.h"
#include "Quarn/TestRecord.h"
#include "support/JsonLine.h"
#include "support/QuarnRoot.h"

using namespace QuarnctlTest;
using TestSupport::Json;
using TestSupport::JsonReader;

namespace {

class Quarnctl : public ::testing::Test {
 protected:
  Outcome run(std::vector<std::string> args) {
    args.insert(args.begin(), {"--root", root.path()});
    return quarnctl(args);
  }
  // The command's JSON lines, each parsed (the command must succeed).
  std::vector<Json> json(std::vector<std::string> args) {
    args.push_back("--json");
    Outcome const r = run(args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");
    std::vector<Json> out;
    for (auto const& l : r.lines()) out.push_back(JsonReader::parse(l));
    return out;
  }
  std::string table(char const* name) const { return root.table(name); }

  TestSupport::QuarnRoot root;
  TestSupport::Children children{kWriterRole};
};

TEST_F(Quarnctl, EveryCommandLeavesEveryFileOfALiveTableAsItWas) {
  Writer writer(children, "state", root.path());
  auto const before = snapshot(root.path());
  std::vector<std::vector<std::string>> const commands = {{"ls"},
                                                          {"stat", "groupIntf"},
                                                          {"dump", "groupIntf"},
                                                          {"dump", "rpaRpf", "--limit", "1"},
                                                          {"get", "group", "239.2.0.4"},
                                                          {"check", "groupIntf"},
                                                          {"check", "rpHash"},
                                                          {"groups"},
                                                          {"group", "239.2.0.4"}};
  for (bool asJson : {false, true}) {
    for (auto args : commands) {
      if (asJson) args.push_back("--json");
      Outcome const r = run(args);
      EXPECT_EQ(r.exitCode, 0) << args[0] << ": " << r.err;
      EXPECT_FALSE(r.out.empty()) << args[0];
      ASSERT_TRUE(snapshot(root.path()) == before) << args[0] << " changed a file";
    }
  }
  Running watch({"--root", root.path(), "watch", "groupIntf"});
  ASSERT_TRUE(watch.line().value_or("").find(" attached groupIntf ") != std::string::npos);
  EXPECT_EQ(json({"ls"}).at(1)["readers"].n, 0) << "a watch is not one of the writer's readers";
  EXPECT_EQ(watch.stop(SIGINT), 0);
  EXPECT_TRUE(snapshot(root.path()) == before) << "watch changed a file";
}

TEST_F(Quarnctl, LsDumpAndGetReportWhatTheWriterWrote) {
  Writer writer(children, "state", root.path());
  std::vector<Json> const tables = json({"ls"});
  ASSERT_EQ(tables.size(), 4u);
  std::map<std::string, double> records;
  for (Json const& t : tables) {
    records[t["table"].s] = t["records"].n;
    EXPECT_EQ(t["writerPid"].n, writer.pid());
    EXPECT_TRUE(t["writerAlive"].b);
    EXPECT_EQ(t["readers"].n, 0) << "quarnctl must not count as a reader";
    EXPECT_EQ(t["corruption"].kind, Json::null);
    EXPECT_EQ(t["problem"].kind, Json::null);
  }
  EXPECT_EQ(records, (std::map<std::string, double>{{"group", kGroups},
                                                    {"groupIntf", kGroups * kIntfs},
                                                    {"rpHash", kGroups - 1},
                                                    {"rpaRpf", 3}}));
  Json const stat = json({"stat", "group"}).at(0);
  EXPECT_EQ(stat["slots"]["occupiedSlots"].n, kGroups);
  EXPECT_EQ(stat["slots"]["valueTypeName"].s, "Routing::Pim::Bidir::Quarn::Group");
  EXPECT_EQ(stat["conquer1"]["tableId"].n, 0);
  EXPECT_EQ(stat["conquer2"]["tableId"].n, 1);

  std::set<std::string> keys;
  for (Json const& r : json({"dump", "groupIntf"})) {
    keys.insert(r["key"]["groupAddr"].s + "," + r["key"]["intfId"].s);
    EXPECT_EQ(r["value"]["key"]["intfId"].s, r["key"]["intfId"].s);
  }
  EXPECT_EQ(keys.size(), kGroups * kIntfs);
  EXPECT_EQ(json({"dump", "groupIntf", "--limit", "5"}).size(), 5u);
  std::vector<Json> const ofGroup = json({"dump", "groupIntf", "--key", "239.2.0.3"});
  ASSERT_EQ(ofGroup.size(), kIntfs);
  for (Json const& r : ofGroup) EXPECT_EQ(r["key"]["groupAddr"].s, "239.2.0.3");

  Json const got = json({"get", "groupIntf", "239.2.0.3,Ethernet2"}).at(0);
  EXPECT_EQ(got["value"]["key"]["intfId"].s, "Ethernet2");
  EXPECT_EQ(got["value"]["lastJoinReceived"].n, 1000.25 + 3 + 1 / 8.0);
  Outcome const text = run({"get", "rpHash", "239.2.0.4/32"});
  EXPECT_EQ(text.out, "Value('Routing::Pim::RpHash', ** {'key': 239.2.0.4/32, 'rp': 10.0.0.2})\n");
  Outcome const absent = run({"get", "group", "239.9.9.9"});
  EXPECT_EQ(absent.exitCode, 1);
  EXPECT_EQ(absent.err, "quarnctl: no record of key '239.9.9.9' in table 'group'\n");
}

// "G addr upJoinState inactive rp rpfInterface joinDesired" and "I addr intf joinState forward
// localReceiverInclude iAmDf oList pimInclude", as the writer wrote them from its own Status.
std::multiset<std::string> lines(std::string const& path) {
  std::multiset<std::string> out;
  std::ifstream in(path);
  for (std::string l; std::getline(in, l);) out.insert(l);
  return out;
}

TEST_F(Quarnctl, GroupsMatchTheWritersOwnStatusComputedValuesIncluded) {
  Writer writer(children, "state", root.path());
  writer.command("orphan 239.2.9.1");  // a reader leaves it out: no group, no interface
  std::multiset<std::string> seen;
  for (Json const& g : json({"groups"})) {
    std::string const addr = g["group"].s;
    seen.insert("G " + addr + " " + g["upJoinState"].s + " " + std::to_string(g["inactive"].b) +
                " " + g["rp"].s + " " + g["rpaRpf"]["rpfInterface"].s + " " +
                std::to_string(g["joinDesired"].b));
    for (Json const& i : g["interfaces"].items) {
      seen.insert("I " + addr + " " + i["intfId"].s + " " + i["joinState"].s + " " +
                  std::to_string(i["forward"].b) + " " +
                  std::to_string(i["localReceiverInclude"].b) + " " + std::to_string(i["iAmDf"].b) +
                  " " + std::to_string(i["oList"].b) + " " + std::to_string(i["pimInclude"].b));
    }
  }
  std::multiset<std::string> const expected = lines(root.path() + "/expected");
  ASSERT_EQ(expected.size(), kGroups * (1 + kIntfs));
  EXPECT_EQ(seen, expected);
  // The group whose range has no RP: its RP and RPF interface are unset.
  EXPECT_EQ(std::count_if(expected.begin(), expected.end(),
                          [](std::string const& l) {
                            return l.starts_with("G 239.2.0.11 ") &&
                                   l.find("   ") != std::string::npos;
                          }),
            1);

  std::vector<Json> const one = json({"group", "239.2.0.7"});
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0]["interfaces"].items.size(), kIntfs);
  EXPECT_EQ(run({"group", "239.2.9.9"}).exitCode, 1);
  EXPECT_EQ(run({"group", "239.2.9.1"}).exitCode, 1);
}

// The slot flags word and the header's occupiedSlots of the table in `dir`, planted or read.
struct SlotFile {
  explicit SlotFile(std::string const& dir) : fd(::open((dir + "/slots").c_str(), O_RDWR)) {}
  ~SlotFile() { ::close(fd); }
  std::uint32_t word(off_t at) const {
    std::uint32_t v = 0;
    EXPECT_EQ(::pread(fd, &v, 4, at), 4);
    return v;
  }
  void wordIs(off_t at, std::uint32_t v) const { EXPECT_EQ(::pwrite(fd, &v, 4, at), 4); }
  // The flags word of the first occupied slot.
  off_t occupiedFlags() const {
    std::uint32_t const slotSize = word(offsetof(Quarn::SlotTable::Header, slotSize));
    for (std::uint32_t i = 0;; ++i) {
      off_t const at = off_t(Quarn::SlotTable::fileSize(slotSize, i)) +
                       off_t(offsetof(Quarn::SlotTable::Slot, flags));
      if (word(at) & Quarn::SlotTable::OCCUPIED) return at;
    }
  }
  int fd;
};

TEST_F(Quarnctl, CheckReportsPlantedDamageInTheValidatorsWordsAndChangesNothing) {
  {
    Writer writer(children, "table", root.path());
    for (int g = 1; g <= 8; ++g) writer.command("put 239.4.0." + std::to_string(g) + " 0");
    children.kill(writer.pid());  // an abandoned table: nobody repairs what is planted
  }
  SlotFile slots(table("group"));
  off_t const flagsAt = slots.occupiedFlags();
  std::uint32_t const flags = slots.word(flagsAt);
  off_t const occupiedAt = offsetof(Quarn::SlotTable::Header, occupiedSlots);
  char hex[16];
  std::snprintf(hex, sizeof hex, "%x", flags | Quarn::SlotTable::LOOKASIDE);
  struct Case {
    char const* what;
    off_t at;
    std::uint32_t value;
    std::string message;  // the first line of the output; "" for a valid table
  };
  std::vector<Case> const cases = {
      {"intact", flagsAt, flags, ""},
      {"stuck LOOKASIDE", flagsAt, flags | Quarn::SlotTable::LOOKASIDE,
       std::string("Validator::markOccupied() stuck LOOKASIDE bit: 0x") + hex},
      {"occupiedSlots one too high", occupiedAt, 9,
       "Validator::walkOccupiedSlots() mismatch header->occupiedSlots:9 count:8"},
      {"bad magic", 0, 0x4b524f57, "SlotTable::Header::validate() bad magic: WORKNSLT"},
  };
  std::uint32_t const magic = slots.word(0);
  for (Case const& c : cases) {
    slots.wordIs(c.at, c.value);
    auto const before = snapshot(root.path());
    Outcome const r = run({"check", "group"});
    EXPECT_TRUE(snapshot(root.path()) == before) << c.what;
    if (c.message.empty()) {
      EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
      EXPECT_TRUE(r.out.starts_with("group valid: 8 records, fenix ")) << r.out;
    } else {
      EXPECT_EQ(r.exitCode, 1) << c.what;
      EXPECT_EQ(r.out, c.message + "\n") << c.what;
      Outcome const j = run({"check", "group", "--json"});
      Json const outcome = JsonReader::parse(j.out);
      EXPECT_FALSE(outcome["valid"].b);
      EXPECT_EQ(outcome["message"].s, c.message);
    }
    slots.wordIs(flagsAt, flags);
    slots.wordIs(occupiedAt, 8);
    slots.wordIs(0, magic);
  }
}

TEST_F(Quarnctl, WatchPrintsEachNetChangeInOrderAndGoesOnAcrossWriterRestarts) {
  auto writer = std::make_unique<Writer>(children, "table", root.path());
  for (char const* g : {"239.3.0.1", "239.3.0.2", "239.3.0.3"})
    writer->command("put " + std::string(g) + " 0");
  Running watch({"--root", root.path(), "--json", "watch", "group"});
  auto next = [&] {
    std::optional<std::string> const l = watch.line();
    EXPECT_TRUE(l.has_value());
    return JsonReader::parse(l.value_or("{}"));
  };
  Json const attached = next();
  EXPECT_EQ(attached["event"].s, "attached");
  EXPECT_EQ(attached["records"].n, 3);

  writer->command("put 239.3.0.4 0");
  writer->command("put 239.3.0.2 1");
  writer->command("put 239.3.0.2 1");  // the same value again: no line
  writer->command("del 239.3.0.3");
  writer->command("put 239.3.0.1 0");  // unchanged: no line
  for (auto [event, key] :
       {std::pair{"add", "239.3.0.4"}, {"change", "239.3.0.2"}, {"remove", "239.3.0.3"}}) {
    Json const l = next();
    EXPECT_EQ(l["event"].s, event);
    EXPECT_EQ(l["key"].s, key);
    EXPECT_EQ(l.has("value"), std::string(event) != "remove");
    if (std::string(event) == "change") {
      EXPECT_TRUE(l["value"]["inactive"].b);
    }
  }

  // The writer dies and another one takes the same files over (same incarnation).
  pid_t const first = writer->pid();
  children.kill(first);
  writer.reset();
  Json const gone = next();
  EXPECT_EQ(gone["event"].s, "writer");
  EXPECT_EQ(gone["pid"].n, first);
  EXPECT_FALSE(gone["alive"].b);
  writer = std::make_unique<Writer>(children, "table", root.path());
  Json const started = next();
  EXPECT_EQ(started["event"].s, "writer");
  EXPECT_EQ(started["pid"].n, writer->pid());
  writer->command("put 239.3.0.9 0");
  Json const added = next();
  EXPECT_EQ(added["event"].s, "add");
  EXPECT_EQ(added["key"].s, "239.3.0.9");

  // A new incarnation on fresh files: one remount line, then every key it no longer holds.
  children.kill(writer->pid());
  writer.reset();
  std::filesystem::remove_all(table("group"));
  writer = std::make_unique<Writer>(children, "table", root.path());
  writer->command("put 239.3.0.7 0");
  std::set<std::string> removed;
  std::string seen;  // for the failure message
  bool remounted = false, addedNew = false;
  while (!(remounted && addedNew && removed.size() == 4)) {
    std::optional<std::string> const l = watch.line();
    ASSERT_TRUE(l) << "after:\n" << seen;
    seen += *l + "\n";
    Json const j = JsonReader::parse(*l);
    std::string const ev = j["event"].s;
    if (ev == "remount") remounted = true;
    if (ev == "remove") removed.insert(j["key"].s);
    if (ev == "add") addedNew = j["key"].s == "239.3.0.7" && remounted;
    EXPECT_TRUE(ev == "remount" || ev == "remove" || ev == "add" || ev == "writer" ||
                ev == "detached")
        << *l;
  }
  EXPECT_EQ(removed, (std::set<std::string>{"239.3.0.1", "239.3.0.2", "239.3.0.4", "239.3.0.9"}));
  EXPECT_EQ(watch.stop(SIGTERM), 0);
}

TEST_F(Quarnctl, RecordsOfAnUnknownTypeDumpAsBytesAndOddTextStaysValidJson) {
  Kiv::Activity activity;
  Quarn::QuarnMap<QuarnTest::TestKey, QuarnTest::TestWrapper> map("odd", nullptr, root.path(),
                                                                  activity);
  map.init(Quarn::QuarnType::writer, false, 16);
  QuarnTest::TestWrapper const rec = QuarnTest::record(7, 1, 0xabcd);
  map.safeWrite(rec);
  std::string hex;
  for (unsigned char b : std::string(reinterpret_cast<char const*>(&rec), sizeof rec)) {
    char two[3];
    std::snprintf(two, sizeof two, "%02x", b);
    hex += two;
  }
  EXPECT_EQ(run({"dump", "odd"}).out, "size 28 hex " + hex + "\n");
  Json const d = json({"dump", "odd"}).at(0);
  EXPECT_EQ(d["type"].s, "QuarnTest::TestRecord");
  EXPECT_EQ(d["hex"].s, hex);
  EXPECT_EQ(run({"get", "odd", "1"}).exitCode, 1);

  // A class name with quotes, a backslash, a control byte and a byte that is not UTF-8.
  std::string const odd =
      "a\"b\\c\x01"
      "d\xff";
  SlotFile slots(table("odd"));
  ASSERT_EQ(::pwrite(slots.fd, odd.c_str(), odd.size() + 1,
                     offsetof(Quarn::SlotTable::Header, classTypeName)),
            ssize_t(odd.size() + 1));
  Json const listed = json({"ls"}).at(0);
  EXPECT_EQ(listed["class"].s,
            "a\"b\\c\x01"
            "d\xc3\xbf");
  EXPECT_NE(listed["problem"].s.find("checksum"), std::string::npos);
}

TEST_F(Quarnctl, CommandLineMistakesExitTwoWithOneLineAndHelpExitsZero) {
  for (auto const& args : std::vector<std::vector<std::string>>{
           {"--help"}, {"dump", "--help"}, {"--help", "watch"}, {"groups", "--help"}}) {
    Outcome const r = quarnctl(args);
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.out.starts_with("Usage: quarnctl")) << args[0];
  }
  for (auto const& args : std::vector<std::vector<std::string>>{{},
                                                                {"bogus"},
                                                                {"dump"},
                                                                {"dump", "group", "extra"},
                                                                {"dump", "group", "--limit", "x"},
                                                                {"dump", "group", "--bad", "1"},
                                                                {"ls", "--root"}}) {
    Outcome const r = quarnctl(args);
    EXPECT_EQ(r.exitCode, 2) << (args.empty() ? "" : args[0]);
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.out, "");
  }
  Outcome const empty = run({"ls"});  // a root without tables is an answer, not an error
  EXPECT_EQ(empty.exitCode, 0);
  EXPECT_EQ(empty.lines().size(), 1u);
  Writer writer(children, "table", root.path());
  Outcome const badKey = run({"get", "group", "not-an-address"});
  EXPECT_EQ(badKey.exitCode, 2);
  EXPECT_TRUE(badKey.err.starts_with("quarnctl: bad key 'not-an-address'")) << badKey.err;
  Outcome const absent = run({"dump", "nope"});
  EXPECT_EQ(absent.exitCode, 1);
  EXPECT_EQ(absent.err, "quarnctl: no table 'nope' under " + root.path() + " (tables: group)\n");
  // Files without an incarnation: the reason a reading mount gives.
  std::filesystem::create_directory(root.path() + "/half");
  std::ofstream(root.path() + "/half/slots") << "not yet a table";
  Outcome const half = run({"dump", "half"});
  EXPECT_EQ(half.exitCode, 1);
  EXPECT_EQ(half.err, "quarnctl: " + Quarn::mountObstacle("half", root.path() + "/half", 0) + "\n");
  EXPECT_NE(half.err.find("fenix file of half"), std::string::npos) << half.err;
  Outcome const noRoot = quarnctl({"--root", root.path() + "/missing", "ls"});
  EXPECT_EQ(noRoot.exitCode, 1);
  EXPECT_TRUE(noRoot.err.starts_with("quarnctl: no table root ")) << noRoot.err;
}

}  // namespace
