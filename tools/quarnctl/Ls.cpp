// `ls` (every table under the root, one line each) and `stat TABLE` (every header field of every
// file of one table). Both read headers with pread (Tables.h): nothing is mapped.

#include <cstdio>
#include <cstring>
#include <string>
#include <variant>
#include <vector>

#include "Commands.h"
#include "Json.h"
#include "Tables.h"

namespace Quarnctl {
namespace {

std::string humanBytes(std::uint64_t bytes) {
  char buf[32];
  if (bytes < 10 * 1024) {
    std::snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(bytes));
  } else if (bytes < 10ull * 1024 * 1024) {
    std::snprintf(buf, sizeof buf, "%.1fK", double(bytes) / 1024);
  } else {
    std::snprintf(buf, sizeof buf, "%.1fM", double(bytes) / (1024 * 1024));
  }
  return buf;
}

std::string hex32(std::uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

std::string writerText(TableInfo const& t) {
  if (t.writerPid == 0) return "-";
  return std::to_string(t.writerPid) + (t.writerAlive ? " alive" : " gone");
}

void lsJson(Output& out, std::string const& root, TableInfo const& t) {
  Json::Writer w(out.buffer());
  w.beginObject().field("table", t.name);
  w.field("class", t.classTypeName()).field("valueType", t.valueTypeName());
  w.field("records", t.records()).field("slots", t.numSlots()).field("tableSize", t.tableSize());
  w.field("bytes", t.bytesOnDisk()).field("fenix", t.fenix);
  w.field("writerPid", t.writerPid).field("writerAlive", t.writerAlive);
  w.field("readers", t.readers());
  w.key("corruption");
  if (t.corruption) {
    w.string(*t.corruption);
  } else {
    w.null();
  }
  w.key("problem");
  if (auto const why = tableProblem(root, t)) {
    w.string(*why);
  } else {
    w.null();
  }
  w.endObject().endLine();
}

int runLs(Context& ctx, CommandLine const&) {
  std::vector<std::string> const names = tableNames(ctx.root);
  // An empty root is a fine answer; a missing or unreadable one is not.
  if (auto const why = rootProblem(ctx.root)) throw Failure(*why);
  std::vector<std::vector<std::string>> rows;
  if (!ctx.json) {
    rows.push_back(
        {"TABLE", "RECORDS", "SLOTS", "SIZE", "BYTES", "FENIX", "WRITER", "READERS", "TYPE"});
  }
  for (std::string const& name : names) {
    TableInfo const t = readTableInfo(ctx.root, name);
    if (ctx.json) {
      lsJson(ctx.out, ctx.root, t);
      continue;
    }
    std::string type = t.slots ? t.classTypeName() : std::string("?");
    if (t.slots && t.valueTypeName() != t.classTypeName()) {
      type.append(" (").append(t.valueTypeName()).append(")");
    }
    rows.push_back({t.name, std::to_string(t.records()), std::to_string(t.numSlots()),
                    std::to_string(t.tableSize()), humanBytes(t.bytesOnDisk()), hex32(t.fenix),
                    writerText(t), std::to_string(t.readers()), type});
    if (t.corruption) rows.back().push_back("CORRUPTION REPORTED: " + *t.corruption);
    if (auto const why = tableProblem(ctx.root, t)) rows.back().push_back("UNREADABLE: " + *why);
  }
  printColumns(ctx.out, rows);
  return exitOk;
}

// ---- stat

using FieldValue = std::variant<std::uint64_t, std::string>;
struct Field {
  char const* name;
  FieldValue value;
};

std::vector<Field> slotFields(Quarn::SlotTable::Header const& h) {
  return {{"magic", std::string(h.magic, ::strnlen(h.magic, sizeof h.magic))},
          {"version", h.version},
          {"fenix", h.fenix},
          {"valueTypeName", std::string(h.valueTypeName, ::strnlen(h.valueTypeName, 64))},
          {"classTypeName", std::string(h.classTypeName, ::strnlen(h.classTypeName, 64))},
          {"valueSize", h.valueSize},
          {"slotSize", h.slotSize},
          {"tableSize", h.tableSize},
          {"checksum", h.checksum},
          {"occupiedSlots", h.occupiedSlots},
          {"freeSlots", h.freeSlots},
          {"numSlotsVersion", h.numSlotsVersion},
          {"numSlots", h.numSlots}};
}

std::vector<Field> bucketFields(Quarn::BucketTable::Header const& h) {
  return {{"magic", std::string(h.magic, ::strnlen(h.magic, sizeof h.magic))},
          {"version", h.version},
          {"fenix", h.fenix},
          {"numBuckets", h.numBuckets},
          {"pid", h.pid}};
}

std::vector<Field> conquerFields(Quarn::ConquerTable::Header const& h) {
  return {{"magic", std::string(h.magic, ::strnlen(h.magic, sizeof h.magic))},
          {"version", h.version},
          {"fenix", h.fenix},
          {"minSeq", h.minSeq},
          {"numReaders", h.numReaders},
          {"currentTable", h.currentTable},
          {"tableId", h.tableId},
          {"state", h.state},
          {"capacity", h.capacity},
          {"currentPos", h.currentPos}};
}

template <class H>
void statFile(Context& ctx, Json::Writer& w, char const* label, FileInfo const& f,
              std::optional<H> const& header, std::vector<Field> (*fields)(H const&)) {
  std::vector<Field> all;
  if (header) all = fields(*header);
  if (ctx.json) {
    w.key(label).beginObject().field("path", f.path).field("bytes", f.bytes);
    w.field("headerPresent", header.has_value());
    for (Field const& fd : all) {
      w.key(fd.name);
      if (auto const* text = std::get_if<std::string>(&fd.value)) {
        w.string(*text);
      } else {
        w.number(std::get<std::uint64_t>(fd.value));
      }
    }
    w.endObject();
    return;
  }
  std::string& out = ctx.out.buffer();
  out += std::string(label) + "  " + f.path + "  " + std::to_string(f.bytes) + " bytes" +
         (header ? "" : "  (no header)") + "\n";
  // Name-value pairs, wrapped before 96 columns.
  std::string line(" ");
  for (Field const& fd : all) {
    auto const* text = std::get_if<std::string>(&fd.value);
    std::string item(" ");
    item.append(fd.name).append(" ");
    item.append(text ? *text : std::to_string(std::get<std::uint64_t>(fd.value)));
    if (line.size() + item.size() > 96) {
      out.append(line).append("\n");
      line.erase(1);  // back to the one leading blank
    }
    line.append(item);
  }
  if (line.size() > 1) out.append(line).append("\n");
}

int runStat(Context& ctx, CommandLine const& line) {
  std::string const& name = line.operands[0];
  TableInfo const t = readTableInfo(ctx.root, name);
  // A table whose headers fail their checks is still described: that is what stat is for.
  // Only one that is not there at all is an error.
  if (!t.slotsFile.present && !t.bucketsFile.present) {
    if (auto const why = tableProblem(ctx.root, t)) throw Failure(*why);
  }
  auto const problem = tableProblem(ctx.root, t);
  double const occupancy = t.numSlots() ? double(t.records()) / t.numSlots() : 0;
  double const growth = t.tableSize() ? double(t.numSlots()) / t.tableSize() : 0;
  Json::Writer w(ctx.out.buffer());
  if (ctx.json) {
    w.beginObject().field("table", t.name).field("dir", t.dir).field("fenix", t.fenix);
    w.field("writerPid", t.writerPid).field("writerAlive", t.writerAlive);
    w.field("readers", t.readers()).field("records", t.records());
    w.field("occupancy", occupancy).field("growth", growth);
    w.key("corruption");
    t.corruption ? void(w.string(*t.corruption)) : void(w.null());
    w.key("problem");
    problem ? void(w.string(*problem)) : void(w.null());
  } else {
    std::string& out = ctx.out.buffer();
    out += "table " + t.name + "  " + t.dir + "\n";
    out += "writer " + writerText(t) + "  fenix file " + hex32(t.fenix) + "  readers counted " +
           std::to_string(t.readers()) + "\n";
    char buf[160];
    std::snprintf(buf, sizeof buf,
                  "records %u in %u slots (occupancy %.1f%%), table size %u (slots at %.2f of "
                  "it)\n",
                  t.records(), t.numSlots(), occupancy * 100, t.tableSize(), growth);
    out += buf;
    out += "corruption report " + (t.corruption ? "'" + *t.corruption + "'" : std::string("none")) +
           "\n";
    if (problem) out += "unreadable: " + *problem + "\n";
  }
  statFile(ctx, w, "slots", t.slotsFile, t.slots, slotFields);
  statFile(ctx, w, "buckets", t.bucketsFile, t.buckets, bucketFields);
  statFile(ctx, w, "conquer1", t.conquerFiles[0], t.conquer[0], conquerFields);
  statFile(ctx, w, "conquer2", t.conquerFiles[1], t.conquer[1], conquerFields);
  if (ctx.json) w.endObject().endLine();
  return exitOk;
}

}  // namespace

CommandDecl const& lsCommand() {
  static CommandDecl const decl{
      "ls",
      "ls",
      "every table under the root, one line each",
      "Lists every table under the root, one line each: its name, records, slots and configured\n"
      "size, bytes on disk, incarnation (fenix), the writer's process id and whether it runs,\n"
      "the readers the writer counts, and the record type its slot header names. A table with a\n"
      "corruption report, or one that cannot be read, says so at the end of its line.\n"
      "With --json, one object per table: \"table\", \"class\", \"valueType\", \"records\",\n"
      "\"slots\", \"tableSize\", \"bytes\", \"fenix\", \"writerPid\", \"writerAlive\", "
      "\"readers\",\n"
      "\"corruption\" (the report, or null) and \"problem\" (why it cannot be read, or null).\n",
      {},
      {},
      runLs};
  return decl;
}

CommandDecl const& statCommand() {
  static CommandDecl const decl{
      "stat",
      "stat TABLE",
      "every header field of every file of a table",
      "Shows every header field of the table's four files (slots, buckets and both notification\n"
      "tables: currentTable, minSeq, currentPos, capacity, ...), occupancy and growth, the\n"
      "writer and the readers it counts. A table whose headers fail their checks is still\n"
      "shown, with the reason it cannot be read.\n"
      "With --json, one object: \"table\", \"dir\", \"fenix\", \"writerPid\", \"writerAlive\",\n"
      "\"readers\", \"records\", \"occupancy\", \"growth\", \"corruption\", \"problem\", and per "
      "file\n"
      "(\"slots\", \"buckets\", \"conquer1\", \"conquer2\") an object of \"path\", \"bytes\",\n"
      "\"headerPresent\" and every header field by its name.\n",
      {"TABLE"},
      {},
      runStat};
  return decl;
}

}  // namespace Quarnctl
