// `groups` and `group ADDRESS`: the Bidir group state the "group" and "groupIntf" tables hold,
// rebuilt the way a reader process rebuilds it, with the values computed from it.
//
// The records are read in slot order (SlotScan) and written into in-process copies of the tables
// (a Quarn::Status whose tables are local writers, never mounted), whose notifications drive
// GroupQuarnReaderSm: it builds the Status, groups and interfaces from them exactly as it does
// from a mounted table. The RP hash and RPA-RPF tables, when they are under the root, are copied
// the same way into the entities the computations read (rp, rpaRpf, joinDesired). Nothing is
// mapped for writing and the writer never hears of this reader.

#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Bidir/Df/RpaRpfStatus.h"
#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"
#include "Bidir/Quarn/GroupQuarnReaderSm.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Commands.h"
#include "Json.h"
#include "KeyText.h"
#include "Pim/RpHashStatus.h"
#include "RecordJson.h"
#include "SlotScan.h"
#include "Tables.h"

namespace Quarnctl {
namespace {

namespace Bidir = Routing::Pim::Bidir;
using Quarn::QuarnType;

// The table `name` under the root, which must hold `Record`s.
template <class Record>
TableInfo tableOf(Context& ctx, std::string const& name) {
  TableInfo t = readableTable(ctx.root, name);
  if (t.valueTypeName() != Record::typeName || t.slots->valueSize != sizeof(Record)) {
    throw Failure("table '" + name + "' holds " + t.valueTypeName() + " records of " +
                  std::to_string(t.slots->valueSize) + " bytes, not " + Record::typeName + " (" +
                  std::to_string(sizeof(Record)) + " bytes)");
  }
  return t;
}

// Calls f(record) for every record of table `t` for which `wanted` holds.
template <class Record, class Wanted, class F>
void forEachRecord(TableInfo const& t, Wanted&& wanted, F&& f) {
  SlotScan(t.dir).forEach([&](std::uint32_t, void const* bytes) {
    Record r;
    std::memcpy(static_cast<void*>(&r), bytes, sizeof r);
    if (wanted(r)) f(r);
    return true;
  });
}

// A local writer sized for the shared table's records: sizes are not limits, but a table made
// for far fewer records than it gets has too few buckets.
template <class Map>
void initLocal(Map& map, TableInfo const& t) {
  map.init(QuarnType::writer, true, std::max({t.tableSize(), t.records(), 1u}));
}

void note(std::string const& line) {
  std::string const text = "quarnctl: " + line + "\n";
  (void)!::write(STDERR_FILENO, text.data(), text.size());
}

struct GroupState {
  Kiv::Ptr<Routing::Pim::RpHashStatus> rpHash;
  Kiv::Ptr<Bidir::Df::Quarn::RpaRpfStatus> rpaRpf;
  Kiv::Ptr<Bidir::Status> status;
  Kiv::Ptr<Bidir::Quarn::Status> quarn;
  Kiv::Ptr<Bidir::Quarn::GroupQuarnReaderSm> reader;
};

// The RP hash and RPA-RPF tables, when present and readable; without them the computed values
// are those of a Status that has no such table.
void loadForeignTables(Context& ctx, GroupState& s) {
  std::vector<std::string> const names = tableNames(ctx.root);
  auto const present = [&](char const* n) {
    return std::find(names.begin(), names.end(), n) != names.end();
  };
  auto const all = [](auto const&) { return true; };
  try {
    if (present("rpHash")) {
      TableInfo const t = tableOf<Routing::Pim::RpHash>(ctx, "rpHash");
      s.rpHash = Kiv::newPtr<Routing::Pim::RpHashStatus>("rpHash");
      initLocal(s.rpHash->rpHashControl(), t);
      forEachRecord<Routing::Pim::RpHash>(t, all, [&](auto const& r) { s.rpHash->rpHashIs(r); });
      s.status->rpHashStatusIs(s.rpHash);
    }
    if (present("rpaRpf")) {
      TableInfo const t = tableOf<Bidir::Df::Quarn::RpaRpf>(ctx, "rpaRpf");
      s.rpaRpf = Kiv::newPtr<Bidir::Df::Quarn::RpaRpfStatus>("rpaRpf");
      initLocal(s.rpaRpf->rpaRpfControl(), t);
      forEachRecord<Bidir::Df::Quarn::RpaRpf>(t, all,
                                              [&](auto const& r) { s.rpaRpf->rpaRpfIs(r); });
      s.status->rpaRpfStatusIs(s.rpaRpf);
    }
  } catch (Failure const& e) {
    note(std::string("computing without it: ") + e.what());
  }
}

// The groups (all, or the one `only` names) with their interfaces and the foreign tables.
GroupState rebuild(Context& ctx, Lanx::IpGenAddr const* only) {
  TableInfo const groups = tableOf<Bidir::Quarn::Group>(ctx, "group");
  TableInfo const intfs = tableOf<Bidir::Quarn::GroupIntf>(ctx, "groupIntf");
  GroupState s;
  s.status = Bidir::statusFactory("default");
  loadForeignTables(ctx, s);
  s.quarn = Bidir::Quarn::statusFactory("quarnctl");
  initLocal(s.quarn->groupControl(), groups);
  initLocal(s.quarn->groupIntfControl(), intfs);
  s.reader = Bidir::Quarn::groupQuarnReaderSmFactory(s.status, s.quarn);
  forEachRecord<Bidir::Quarn::Group>(
      groups, [&](auto const& r) { return only == nullptr || r.key == *only; },
      [&](auto const& r) { s.quarn->groupIs(r); });
  forEachRecord<Bidir::Quarn::GroupIntf>(
      intfs, [&](auto const& r) { return only == nullptr || r.key.groupAddr() == *only; },
      [&](auto const& r) { s.quarn->groupIntfIs(r); });
  return s;
}

// The rebuilt state may hold half a million entities; taking them apart one by one would cost a
// fifth of the command. The process ends here instead, once everything is written out.
[[noreturn]] void finish(Output& out) {
  out.flush();
  std::_Exit(exitOk);
}

// The members of a collection, ordered by `key` (the collections keep a hash order).
template <class Range, class Key>
auto sortedBy(Range const& members, Key key) {
  using Member = std::remove_cvref_t<decltype(*members.begin())>;
  std::vector<Kiv::Ptr<Member const>> out;
  for (auto const& m : members) out.push_back(&m);
  std::sort(out.begin(), out.end(),
            [&](auto const& a, auto const& b) { return key(*a) < key(*b); });
  return out;
}
auto sortedGroups(Bidir::Status const& status) {
  return sortedBy(status.groupIter(), [](Bidir::Group const& g) { return g.groupAddr(); });
}
auto sortedIntfs(Bidir::Group const& group) {
  return sortedBy(group.groupIntfIter(), [](Bidir::GroupIntf const& i) { return i.intfId(); });
}

char const* yesNo(bool v) {
  return v ? "yes" : "no";
}

std::string number(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f", v);
  return buf;
}

void groupJson(Output& out, Bidir::Group const& g) {
  Json::Writer w(out.buffer());
  w.beginObject().field("group", bareText(g.groupAddr()));
  w.field("creationTime", g.creationTime()).field("upJoinState", bareText(g.upJoinState()));
  w.field("inactive", g.inactive()).field("rp", bareText(g.rp()));
  w.key("rpaRpf");
  jsonValue(w, g.rpaRpf());
  w.field("joinDesired", g.joinDesired());
  w.key("interfaces").beginArray();
  for (auto const& i : sortedIntfs(g)) {
    w.beginObject().field("intfId", bareText(i->intfId()));
    w.field("joinState", bareText(i->joinState())).field("forward", i->forward());
    w.field("lastJoinReceived", i->lastJoinReceived());
    w.field("localReceiverInclude", i->localReceiverInclude()).field("iAmDf", i->iAmDf());
    w.field("oList", i->oList()).field("pimInclude", i->pimInclude());
    w.endObject();
  }
  w.endArray().endObject().endLine();
  out.lineDone();
}

int runGroups(Context& ctx, CommandLine const&) {
  GroupState const s = rebuild(ctx, nullptr);
  std::vector<std::vector<std::string>> rows;
  if (!ctx.json) {
    rows.push_back(
        {"GROUP", "UPSTREAM", "INACTIVE", "RP", "RPF-INTF", "JOIN-DESIRED", "INTFS", "OLIST"});
  }
  for (auto const& g : sortedGroups(*s.status)) {
    if (ctx.json) {
      groupJson(ctx.out, *g);
      continue;
    }
    std::size_t intfs = 0, olist = 0;
    for (auto const& i : g->groupIntfIter()) {
      ++intfs;
      olist += i.oList();
    }
    rows.push_back({bareText(g->groupAddr()), bareText(g->upJoinState()), yesNo(g->inactive()),
                    bareText(g->rp()), bareText(g->rpaRpf().rpfInterface), yesNo(g->joinDesired()),
                    std::to_string(intfs), std::to_string(olist)});
  }
  printColumns(ctx.out, rows);
  finish(ctx.out);
}

int runGroup(Context& ctx, CommandLine const& line) {
  Lanx::IpGenAddr const addr = parseKey<Lanx::IpGenAddr>(line.operands[0], false).key;
  GroupState const s = rebuild(ctx, &addr);
  Kiv::Ptr<Bidir::Group const> const g = s.status->group(addr);
  if (!g) throw Failure("no group " + line.operands[0] + " in table 'group'");
  if (ctx.json) {
    groupJson(ctx.out, *g);
    return exitOk;
  }
  auto const rpaRpf = g->rpaRpf();
  std::string& out = ctx.out.buffer();
  out += "group " + bareText(g->groupAddr()) + "  upJoinState " + bareText(g->upJoinState()) +
         "  inactive " + yesNo(g->inactive()) + "  creationTime " + number(g->creationTime()) +
         "\n";
  out += "rp " + bareText(g->rp()) + "  rpf " + bareText(rpaRpf.rpfInterface) + " via " +
         bareText(rpaRpf.rpf.neighbor) + "  rpaIndex " + std::to_string(rpaRpf.rpaIndex) +
         "  joinDesired " + yesNo(g->joinDesired()) + "\n";
  std::vector<std::vector<std::string>> rows{{"INTF", "JOIN-STATE", "FORWARD", "LAST-JOIN",
                                              "LOCAL-RECEIVER", "DF", "OLIST", "PIM-INCLUDE"}};
  for (auto const& i : sortedIntfs(*g)) {
    rows.push_back({bareText(i->intfId()), bareText(i->joinState()), yesNo(i->forward()),
                    number(i->lastJoinReceived()), yesNo(i->localReceiverInclude()),
                    yesNo(i->iAmDf()), yesNo(i->oList()), yesNo(i->pimInclude())});
  }
  printColumns(ctx.out, rows);
  return exitOk;
}

constexpr char const* kGroupJson =
    "With --json, one object per group: \"group\", \"creationTime\", \"upJoinState\",\n"
    "\"inactive\", \"rp\", \"rpaRpf\" (the RPA-RPF record of the RP, every field), "
    "\"joinDesired\"\n"
    "and \"interfaces\": per interface \"intfId\", \"joinState\", \"forward\",\n"
    "\"lastJoinReceived\", \"localReceiverInclude\", \"iAmDf\", \"oList\", \"pimInclude\".\n";

}  // namespace

CommandDecl const& groupsCommand() {
  static std::string const help =
      std::string(
          "Rebuilds the Bidir group state from the 'group' and 'groupIntf' tables as a reader\n"
          "process does (GroupQuarnReaderSm), with the 'rpHash' and 'rpaRpf' tables when they\n"
          "are under the root, and prints one line per group, by address: upstream state,\n"
          "inactive, its RP and the RPF interface toward it, joinDesired, interfaces and how\n"
          "many are in its olist.\n") +
      kGroupJson;
  static CommandDecl const decl{
      "groups", "groups", "the Bidir groups with their computed values", help, {}, {}, runGroups};
  return decl;
}

CommandDecl const& groupCommand() {
  static std::string const help =
      std::string(
          "One group as 'groups' rebuilds it, in full: its attributes, RP, RPF interface and\n"
          "neighbour, joinDesired, and a line per interface with its attributes, oList and\n"
          "pimInclude. Exits 1 when the group is not in the table.\n") +
      kGroupJson;
  static CommandDecl const decl{
      "group", "group ADDRESS", "one group, every interface", help, {"ADDRESS"}, {}, runGroup};
  return decl;
}

}  // namespace Quarnctl
