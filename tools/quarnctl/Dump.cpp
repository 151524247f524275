// `dump TABLE` (the records in slot order) and `get TABLE KEY` (one record, looked up).

#include <string>

#include "Commands.h"
#include "Json.h"
#include "Records.h"
#include "SlotScan.h"
#include "Tables.h"

namespace Quarnctl {
namespace {

// One record: its value text form, or its size and bytes when the type is unknown here.
void printRecord(Context& ctx, TableInfo const& t, RecordKind const* kind, std::uint32_t slot,
                 void const* bytes) {
  std::uint32_t const size = t.slots->valueSize;
  if (!ctx.json) {
    ctx.out.buffer() +=
        kind ? kind->text(bytes) : "size " + std::to_string(size) + " hex " + hexBytes(bytes, size);
    ctx.out.buffer() += '\n';
    ctx.out.lineDone();
    return;
  }
  Json::Writer w(ctx.out.buffer());
  w.beginObject().field("table", t.name).field("slot", slot);
  if (kind != nullptr) {
    w.key("key");
    kind->keyJson(w, bytes);
    w.key("value");
    kind->json(w, bytes);
  } else {
    w.field("type", t.valueTypeName()).field("size", size).field("hex", hexBytes(bytes, size));
  }
  w.endObject().endLine();
  ctx.out.lineDone();
}

RecordKind const* kindOf(TableInfo const& t) {
  return recordKind(t.valueTypeName(), t.slots->valueSize);
}

int runDump(Context& ctx, CommandLine const& line) {
  std::uint64_t const limit = line.count("dump", "--limit", UINT64_MAX);
  TableInfo const t = readableTable(ctx.root, line.operands[0]);
  RecordKind const* kind = kindOf(t);
  std::function<bool(void const*)> wanted;
  if (std::string const* key = line.option("--key")) {
    if (kind == nullptr) {
      throw Failure("table '" + t.name + "' holds " + t.valueTypeName() +
                    " records, a type this build does not know: its keys cannot be read");
    }
    wanted = kind->keyMatcher(*key, true);
  }
  std::uint64_t printed = 0;
  SlotScan scan(t.dir);
  if (limit > 0) {
    scan.forEach([&](std::uint32_t slot, void const* bytes) {
      if (wanted && !wanted(bytes)) return true;
      printRecord(ctx, t, kind, slot, bytes);
      return ++printed < limit;
    });
  }
  return exitOk;
}

int runGet(Context& ctx, CommandLine const& line) {
  TableInfo const t = readableTable(ctx.root, line.operands[0]);
  RecordKind const* kind = kindOf(t);
  if (kind == nullptr) {
    throw Failure("table '" + t.name + "' holds " + t.valueTypeName() +
                  " records, a type this build does not know: its keys cannot be read");
  }
  std::string const& key = line.operands[1];
  std::optional<std::string> const record = kind->lookup(t.dir, key);
  if (!record) throw Failure("no record of key '" + key + "' in table '" + t.name + "'");
  printRecord(ctx, t, kind, Quarn::noIndex, record->data());
  return exitOk;
}

}  // namespace

CommandDecl const& dumpCommand() {
  static CommandDecl const decl{
      "dump",
      "dump TABLE [--limit N] [--key TEXT]",
      "the records of a table, in slot order",
      "Prints the records of TABLE in slot order (the order of its memory), one per line, each\n"
      "in its value text form. A record of a type this build does not know prints as its size\n"
      "and bytes in hexadecimal.\n"
      "  --limit N    at most N records\n"
      "  --key TEXT   only the records of this key: its text form, or for a key of several\n"
      "               fields their values separated by commas; leading fields alone select\n"
      "               every key that agrees on them (--key 239.1.0.7 on the groupIntf table:\n"
      "               every interface of that group)\n"
      "With --json, one object per record: \"table\", \"slot\", \"key\" and \"value\" (the "
      "record,\n"
      "every field by name); for an unknown type \"type\", \"size\" and \"hex\" instead.\n",
      {"TABLE"},
      {"--limit", "--key"},
      runDump};
  return decl;
}

CommandDecl const& getCommand() {
  static CommandDecl const decl{
      "get",
      "get TABLE KEY",
      "one record, looked up by its key",
      "Looks KEY up in TABLE as a reader does (through the table's hash chains) and prints its\n"
      "record as dump does. KEY is the key's text form, or for a key of several fields their\n"
      "values separated by commas (239.1.0.7,Ethernet3). Exits 1 when the key is not there.\n"
      "With --json, the object dump prints (its \"slot\" is 4294967295: not known).\n",
      {"TABLE", "KEY"},
      {},
      runGet};
  return decl;
}

}  // namespace Quarnctl
