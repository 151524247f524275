// `groups` and `group ADDRESS`: the Bidir group state the "group" and "groupIntf" tables hold,
// rebuilt the way a reader process rebuilds it, with the values computed from it.
//
// Each table is read once, in slot order (SlotScan), into plain records grouped by group address.
// Then one group at a time is built under a local Bidir::Status with the table reader's own record
// copies (Quarn::doUpdateGroup, doUpdateGroupIntf), printed from its entities (rp, rpaRpf,
// joinDesired, oList and pimInclude are the entities' own computations) and removed again. Only
// one group's entities live at a time: building all half a million of them before printing the
// first cost more than twice as much (the entities and the live-entity registry no longer fit in
// the caches). The RP hash and RPA-RPF tables, when they are under the root, are copied into the
// local tables the computations read. Nothing is mapped for writing and the writer never hears of
// this reader.

#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "Bidir/Df/RpaRpfStatus.h"
#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"
#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Bidir/Quarn/GroupUpdate.h"
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

// Calls f(record) for every record of table `t`, in slot order.
template <class Record, class F>
void forEachRecord(TableInfo const& t, F&& f) {
  SlotScan(t.dir).forEach([&](std::uint32_t, void const* bytes) {
    Record r;
    std::memcpy(static_cast<void*>(&r), bytes, sizeof r);
    f(r);
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

// The Status the groups are built under, with the tables their computations read.
struct Computing {
  Kiv::Ptr<Routing::Pim::RpHashStatus> rpHash;
  Kiv::Ptr<Bidir::Df::Quarn::RpaRpfStatus> rpaRpf;
  Kiv::Ptr<Bidir::Status> status = Bidir::statusFactory("default");
};

// The RP hash and RPA-RPF tables, when present and readable; without them the computed values
// are those of a Status that has no such table.
void loadForeignTables(Context& ctx, Computing& c) {
  std::vector<std::string> const names = tableNames(ctx.root);
  auto const present = [&](char const* n) {
    return std::find(names.begin(), names.end(), n) != names.end();
  };
  try {
    if (present("rpHash")) {
      TableInfo const t = tableOf<Routing::Pim::RpHash>(ctx, "rpHash");
      c.rpHash = Kiv::newPtr<Routing::Pim::RpHashStatus>("rpHash");
      initLocal(c.rpHash->rpHashControl(), t);
      forEachRecord<Routing::Pim::RpHash>(t, [&](auto const& r) { c.rpHash->rpHashIs(r); });
      c.status->rpHashStatusIs(c.rpHash);
    }
    if (present("rpaRpf")) {
      TableInfo const t = tableOf<Bidir::Df::Quarn::RpaRpf>(ctx, "rpaRpf");
      c.rpaRpf = Kiv::newPtr<Bidir::Df::Quarn::RpaRpfStatus>("rpaRpf");
      initLocal(c.rpaRpf->rpaRpfControl(), t);
      forEachRecord<Bidir::Df::Quarn::RpaRpf>(t, [&](auto const& r) { c.rpaRpf->rpaRpfIs(r); });
      c.status->rpaRpfStatusIs(c.rpaRpf);
    }
  } catch (Failure const& e) {
    note(std::string("computing without it: ") + e.what());
  }
}

// One group's records: its own and its interfaces', these ordered by interface.
struct GroupRecords {
  Bidir::Quarn::Group group;
  std::vector<Bidir::Quarn::GroupIntf> intfs;
};

// Orders `records` by keyOf(record) and keeps one record per key, the one read last: a pass over
// a live table meets a record twice when the writer moves it to a later slot meanwhile, and the
// later copy is the newer one.
template <class Record, class KeyOf>
void sortKeepingLast(std::vector<Record>& records, KeyOf keyOf) {
  auto const before = [&](Record const& a, Record const& b) { return keyOf(a) < keyOf(b); };
  std::stable_sort(records.begin(), records.end(), before);
  auto kept = records.begin();
  for (auto it = records.begin(); it != records.end(); ++it) {
    if (std::next(it) != records.end() && !before(*it, *std::next(it))) continue;
    if (kept != it) *kept = std::move(*it);
    ++kept;
  }
  records.erase(kept, records.end());
}

// The groups (all, or the one `only` names) ordered by address, each with its interfaces. What
// the table reader takes in: a key whose record is the default record is absent (an absent key
// looks up as that record), and an interface whose group has no record is left out.
std::vector<GroupRecords> readGroups(Context& ctx, Lanx::IpGenAddr const* only) {
  TableInfo const groupTable = tableOf<Bidir::Quarn::Group>(ctx, "group");
  TableInfo const intfTable = tableOf<Bidir::Quarn::GroupIntf>(ctx, "groupIntf");
  std::vector<GroupRecords> groups;
  groups.reserve(only ? 1 : groupTable.records());
  forEachRecord<Bidir::Quarn::Group>(groupTable, [&](Bidir::Quarn::Group const& r) {
    if (r != Bidir::Quarn::Group() && (only == nullptr || r.key == *only))
      groups.push_back({r, {}});
  });
  sortKeepingLast(
      groups, [](GroupRecords const& g) -> auto const& { return g.group.key; });
  struct AddrHash {
    std::size_t operator()(Lanx::IpGenAddr const& a) const noexcept { return a.hash(); }
  };
  std::unordered_map<Lanx::IpGenAddr, GroupRecords*, AddrHash> byAddr(groups.size());
  for (GroupRecords& g : groups) byAddr.emplace(g.group.key, &g);
  // A group's interfaces mostly lie together in slot order (written one after the other): the
  // last group found is tried first.
  GroupRecords* last = nullptr;
  forEachRecord<Bidir::Quarn::GroupIntf>(intfTable, [&](Bidir::Quarn::GroupIntf const& r) {
    Lanx::IpGenAddr const& addr = r.key.groupAddr();
    if (last == nullptr || last->group.key != addr) {
      auto const it = byAddr.find(addr);
      if (it == byAddr.end()) return;
      last = it->second;
    }
    if (r != Bidir::Quarn::GroupIntf()) last->intfs.push_back(r);
  });
  for (GroupRecords& g : groups) {
    sortKeepingLast(g.intfs, [](Bidir::Quarn::GroupIntf const& r) { return r.key.intfId(); });
  }
  return groups;
}

// One group built under `status` from its records as the table reader builds it, its interfaces
// in the order of the records; removed from `status` again when this goes.
class BuiltGroup {
 public:
  BuiltGroup(Bidir::Status& status, GroupRecords const& records)
      : status_(status), group_(status.groupIs(records.group.key)) {
    Bidir::Quarn::doUpdateGroup(group_, records.group);
    intfs_.reserve(records.intfs.size());
    for (Bidir::Quarn::GroupIntf const& r : records.intfs) {
      intfs_.push_back(group_->groupIntfIs(r.key.intfId()));
      Bidir::Quarn::doUpdateGroupIntf(intfs_.back(), r);
    }
  }
  ~BuiltGroup() {
    intfs_.clear();
    status_.groupDel(group_->groupAddr());
  }
  BuiltGroup(BuiltGroup const&) = delete;
  BuiltGroup& operator=(BuiltGroup const&) = delete;

  Bidir::Group const& group() const noexcept { return *group_; }
  std::vector<Kiv::Ptr<Bidir::GroupIntf>> const& intfs() const noexcept { return intfs_; }

 private:
  Bidir::Status& status_;
  Kiv::Ptr<Bidir::Group> const group_;
  std::vector<Kiv::Ptr<Bidir::GroupIntf>> intfs_;
};

char const* yesNo(bool v) {
  return v ? "yes" : "no";
}

std::string number(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f", v);
  return buf;
}

void groupJson(Output& out, BuiltGroup const& built) {
  Bidir::Group const& g = built.group();
  Json::Writer w(out.buffer());
  w.beginObject().field("group", bareText(g.groupAddr()));
  w.field("creationTime", g.creationTime()).field("upJoinState", bareText(g.upJoinState()));
  w.field("inactive", g.inactive()).field("rp", bareText(g.rp()));
  w.key("rpaRpf");
  jsonValue(w, g.rpaRpf());
  w.field("joinDesired", g.joinDesired());
  w.key("interfaces").beginArray();
  for (auto const& i : built.intfs()) {
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
  std::vector<GroupRecords> const groups = readGroups(ctx, nullptr);
  Computing c;
  loadForeignTables(ctx, c);
  std::vector<std::vector<std::string>> rows;
  if (!ctx.json) {
    rows.reserve(groups.size() + 1);
    rows.push_back(
        {"GROUP", "UPSTREAM", "INACTIVE", "RP", "RPF-INTF", "JOIN-DESIRED", "INTFS", "OLIST"});
  }
  for (GroupRecords const& records : groups) {
    BuiltGroup const built(*c.status, records);
    if (ctx.json) {
      groupJson(ctx.out, built);
      continue;
    }
    Bidir::Group const& g = built.group();
    auto const olist = std::count_if(built.intfs().begin(), built.intfs().end(),
                                     [](auto const& i) { return i->oList(); });
    rows.push_back({bareText(g.groupAddr()), bareText(g.upJoinState()), yesNo(g.inactive()),
                    bareText(g.rp()), bareText(g.rpaRpf().rpfInterface), yesNo(g.joinDesired()),
                    std::to_string(built.intfs().size()), std::to_string(olist)});
  }
  printColumns(ctx.out, rows);
  return exitOk;
}

int runGroup(Context& ctx, CommandLine const& line) {
  Lanx::IpGenAddr const addr = parseKey<Lanx::IpGenAddr>(line.operands[0], false).key;
  std::vector<GroupRecords> const groups = readGroups(ctx, &addr);
  if (groups.empty()) throw Failure("no group " + line.operands[0] + " in table 'group'");
  Computing c;
  loadForeignTables(ctx, c);
  BuiltGroup const built(*c.status, groups.front());
  if (ctx.json) {
    groupJson(ctx.out, built);
    return exitOk;
  }
  Bidir::Group const& g = built.group();
  auto const rpaRpf = g.rpaRpf();
  std::string& out = ctx.out.buffer();
  out += "group " + bareText(g.groupAddr()) + "  upJoinState " + bareText(g.upJoinState()) +
         "  inactive " + yesNo(g.inactive()) + "  creationTime " + number(g.creationTime()) + "\n";
  out += "rp " + bareText(g.rp()) + "  rpf " + bareText(rpaRpf.rpfInterface) + " via " +
         bareText(rpaRpf.rpf.neighbor) + "  rpaIndex " + std::to_string(rpaRpf.rpaIndex) +
         "  joinDesired " + yesNo(g.joinDesired()) + "\n";
  std::vector<std::vector<std::string>> rows{{"INTF", "JOIN-STATE", "FORWARD", "LAST-JOIN",
                                              "LOCAL-RECEIVER", "DF", "OLIST", "PIM-INCLUDE"}};
  for (auto const& i : built.intfs()) {
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
          "process does, with the 'rpHash' and 'rpaRpf' tables when they\n"
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
