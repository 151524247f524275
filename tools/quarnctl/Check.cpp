// `check TABLE`: the full validation a restarting writer runs (Quarn::Validator), over read-only
// mappings of the table's files (Quarn::QuarnWriter::inspect), on a live or an abandoned table.
//
// A live writer may change the table while the pass reads it, and a change caught half-way can
// look like damage. So a failing pass counts only when the writer changed nothing during it
// (ChangeStamp); otherwise the check runs again, a few times, and says on standard error when the
// writer never left it a quiet pass.

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "Commands.h"
#include "Json.h"
#include "Records.h"
#include "Tables.h"

namespace Quarnctl {
namespace {

constexpr int kMaxPasses = 5;

void say(std::string const& line) {
  std::string const text = "quarnctl: " + line + "\n";
  (void)!::write(STDERR_FILENO, text.data(), text.size());
}

// Reports on standard error, once a second, a pass that runs for more than a second.
class Progress {
 public:
  Progress(std::string table, int pass)
      : thread_([this, table = std::move(table), pass] {
          std::unique_lock lock(mutex_);
          auto const start = std::chrono::steady_clock::now();
          while (!cv_.wait_for(lock, std::chrono::seconds(1), [this] { return done_; })) {
            std::chrono::duration<double> const t = std::chrono::steady_clock::now() - start;
            char buf[64];
            std::snprintf(buf, sizeof buf, "%.0f s", t.count());
            say("check " + table + ": pass " + std::to_string(pass) + " running for " + buf);
          }
        }) {}
  ~Progress() {
    {
      std::lock_guard lock(mutex_);
      done_ = true;
    }
    cv_.notify_one();
    thread_.join();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool done_ = false;
  std::thread thread_;  // last: it uses the members above
};

// The header checks the validator starts with, for a table whose record type is unknown here.
// A file shorter than its header fails the size check, which comes before any field is read.
std::optional<std::string> headerFailure(TableInfo const& t) {
  std::string error;
  Quarn::BucketTable::Header const buckets = t.buckets.value_or(Quarn::BucketTable::Header{});
  if (!buckets.validate(t.bucketsFile.bytes, t.fenix, error)) return error;
  Quarn::SlotTable::Header const slots = t.slots.value_or(Quarn::SlotTable::Header{});
  if (!slots.validate(t.slotsFile.bytes, t.fenix, error)) return error;
  return std::nullopt;
}

void report(Context& ctx, TableInfo const& t, CheckOutcome const& o, int passes) {
  if (ctx.json) {
    Json::Writer w(ctx.out.buffer());
    w.beginObject().field("table", t.name).field("valid", o.valid);
    w.key("message");
    o.valid ? void(w.null()) : void(w.string(o.message));
    w.field("records", t.records()).field("fenix", t.fenix).field("passes", passes);
    w.endObject().endLine();
  } else if (o.valid) {
    ctx.out.buffer() += t.name + " valid: " + std::to_string(t.records()) + " records, fenix " +
                        std::to_string(t.fenix) + "\n";
  } else {
    ctx.out.buffer() += o.message + "\n";
  }
}

int runCheck(Context& ctx, CommandLine const& line) {
  std::string const& name = line.operands[0];
  TableInfo t = readTableInfo(ctx.root, name);
  // Damaged headers are the validator's to report; only a table that is not there is not.
  for (FileInfo const* f : {&t.slotsFile, &t.bucketsFile, &t.conquerFiles[0], &t.conquerFiles[1]}) {
    if (!f->present) {
      if (auto const why = tableProblem(ctx.root, t)) throw Failure(*why);
    }
  }
  RecordKind const* kind = t.slots ? recordKind(t.valueTypeName(), t.slots->valueSize) : nullptr;
  if (kind == nullptr) {
    CheckOutcome o;
    if (auto const failed = headerFailure(t)) {
      o.message = *failed;
    } else {
      o.message = "table '" + name + "' holds " + t.valueTypeName() +
                  " records, a type this build does not know: only its headers could be checked";
    }
    report(ctx, t, o, 1);
    return exitFailed;
  }
  CheckOutcome outcome;
  int pass = 1;
  for (;; ++pass) {
    ChangeStamp const before = changeStamp(ctx.root, name);
    {
      Progress progress(name, pass);
      outcome = kind->check(ctx.root, name, t.slots->tableSize);
    }
    bool const quiet = changeStamp(ctx.root, name) == before;
    if (outcome.valid || quiet) break;
    if (pass == kMaxPasses) {
      say("check " + name + ": the writer changed the table during each of " +
          std::to_string(pass) + " passes; the failure may be a change caught in flight");
      break;
    }
  }
  t = readTableInfo(ctx.root, name);
  report(ctx, t, outcome, pass);
  return outcome.valid ? exitOk : exitFailed;
}

}  // namespace

CommandDecl const& checkCommand() {
  static CommandDecl const decl{
      "check",
      "check TABLE",
      "the full validation of a table, read-only",
      "Runs the full validation a restarting writer runs (headers, file sizes, every hash\n"
      "chain, the free list, the notification queue and their cross-references) over read-only\n"
      "mappings, on a live or an abandoned table; nothing is written, no corruption is reported\n"
      "to the writer. Prints '<table> valid: ...' and exits 0, or prints the first failing\n"
      "check's message exactly as the validator words it and exits 1. On a live table a\n"
      "failing pass counts only if the writer changed nothing during it; the check runs again\n"
      "otherwise (up to 5 passes). A pass running longer than a second reports its progress on\n"
      "standard error.\n"
      "With --json, one object: \"table\", \"valid\", \"message\" (null when valid), \"records\",\n"
      "\"fenix\", \"passes\".\n",
      {"TABLE"},
      {},
      runCheck};
  return decl;
}

}  // namespace Quarnctl
