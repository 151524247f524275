// `watch TABLE` (see WatchTable.h).

#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <cstdio>

#include "Commands.h"
#include "Quarn/Files.h"
#include "WatchTable.h"

namespace Quarnctl {
namespace {

std::atomic<Kiv::Activity*> stopActivity{nullptr};
volatile std::sig_atomic_t stopFlag = 0;

extern "C" void onStopSignal(int) {
  stopFlag = 1;
  if (Kiv::Activity* a = stopActivity.load(std::memory_order_relaxed)) a->stop();
}

int runWatch(Context& ctx, CommandLine const& line) {
  std::string const& name = line.operands[0];
  TableInfo const t = readableTable(ctx.root, name);
  RecordKind const* kind = recordKind(t.valueTypeName(), t.slots->valueSize);
  if (kind == nullptr) {
    throw Failure("table '" + name + "' holds " + t.valueTypeName() + " records of " +
                  std::to_string(t.slots->valueSize) +
                  " bytes, a type this build does not know: watch needs to read its keys");
  }
  return kind->watch(ctx, name);
}

}  // namespace

void installStopHandlers(Kiv::Activity& activity) {
  stopActivity.store(&activity, std::memory_order_relaxed);
  struct sigaction sa {};
  sa.sa_handler = onStopSignal;
  sigemptyset(&sa.sa_mask);
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  // A closed pipe ends the output, not the process in the middle of a write.
  ::signal(SIGPIPE, SIG_IGN);
}

bool stopRequested() noexcept {
  return stopFlag != 0;
}

double wallTime() noexcept {
  timeval tv{};
  ::gettimeofday(&tv, nullptr);
  return double(tv.tv_sec) + double(tv.tv_usec) / 1e6;
}

std::string clockText(double wall) {
  auto const seconds = static_cast<std::time_t>(wall);
  std::tm tm{};
  ::localtime_r(&seconds, &tm);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03d", tm.tm_hour, tm.tm_min, tm.tm_sec,
                int((wall - double(seconds)) * 1000) % 1000);
  return buf;
}

Json::Writer WatchLines::begin(char const* event) {
  double const now = wallTime();
  std::string& out = ctx_.out.buffer();
  Json::Writer w(out);
  if (ctx_.json) {
    w.beginObject().field("time", now).field("table", table_).field("event", std::string(event));
  } else {
    out += clockText(now) + " " + event;
  }
  return w;
}

void WatchLines::end(Json::Writer& w) {
  if (ctx_.json) w.endObject();
  ctx_.out.buffer() += '\n';
  ctx_.out.lineDone();
}

void WatchLines::attached(std::uint32_t fenix, std::size_t records) {
  Json::Writer w = begin("attached");
  if (ctx_.json) {
    w.field("fenix", fenix).field("records", records);
  } else {
    ctx_.out.buffer() += ' ' + table_ + " fenix " + std::to_string(fenix) + ", " +
                         std::to_string(records) + " records";
  }
  end(w);
}

void WatchLines::remount(std::uint32_t from, std::uint32_t to) {
  Json::Writer w = begin("remount");
  if (ctx_.json) {
    w.field("fenix", to).field("previousFenix", from);
  } else {
    ctx_.out.buffer() += ' ' + table_ + " new incarnation: fenix " + std::to_string(from) + " -> " +
                         std::to_string(to);
  }
  end(w);
}

void WatchLines::detached(std::string const& reason) {
  Json::Writer w = begin("detached");
  if (ctx_.json) {
    w.field("reason", reason);
  } else {
    ctx_.out.buffer().append(" ").append(table_).append(": ").append(reason);
  }
  end(w);
}

void WatchLines::writer(std::uint32_t pid, bool alive) {
  Json::Writer w = begin("writer");
  if (ctx_.json) {
    w.field("pid", pid).field("alive", alive);
  } else {
    ctx_.out.buffer().append(" ").append(std::to_string(pid)).append(alive ? " running" : " gone");
  }
  end(w);
}

void WatchLines::change(char const* event, RecordKind const& kind, void const* key,
                        void const* value) {
  Json::Writer w = begin(event);
  if (ctx_.json) {
    w.key("key");
    kind.keyJson(w, key);
    if (value != nullptr) {
      w.key("value");
      kind.json(w, value);
    }
  } else {
    ctx_.out.buffer().append(" ").append(kind.keyText(key));
    if (value != nullptr) ctx_.out.buffer().append(" ").append(kind.text(value));
  }
  end(w);
}

void WatchLines::checkWriter(std::string const& dir) {
  std::string const owner = Quarn::Util::fileRead(dir + "/last-owner");
  auto const pid = std::uint32_t(std::strtoul(owner.c_str(), nullptr, 10));
  bool const alive = processAlive(pid_t(pid));
  if (writerKnown_ && pid == writerPid_ && alive == writerAlive_) return;
  // The writer at the start is part of the starting point; only its changes are news.
  if (writerKnown_ && pid != 0) writer(pid, alive);
  writerKnown_ = true;
  writerPid_ = pid;
  writerAlive_ = alive;
}

CommandDecl const& watchCommand() {
  static CommandDecl const decl{
      "watch",
      "watch TABLE",
      "follow a table, one line per net change of a key",
      "Follows TABLE and prints one line per net change of a key, until interrupted (Ctrl-C,\n"
      "SIGTERM): the time, 'add', 'change' or 'remove', the key and, for add and change, the new\n"
      "value. A value rewritten unchanged prints nothing. What the table holds when the watch\n"
      "starts is its starting point: one 'attached' line gives its incarnation and size.\n"
      "Lines of their own: 'remount' (the writer started a new incarnation of the table),\n"
      "'detached' (the table went away, with the reason; watching goes on and attaches again),\n"
      "'writer' (the writing process changed or ended).\n"
      "The writer does not see this reader: it is not counted among the table's readers and\n"
      "never holds back the writer.\n"
      "With --json: {\"time\", \"table\", \"event\", \"key\", \"value\"} per change, and\n"
      "{\"time\", \"table\", \"event\", ...} with \"fenix\", \"records\", \"previousFenix\",\n"
      "\"reason\", \"pid\", \"alive\" for the other lines.\n",
      {"TABLE"},
      {},
      runWatch};
  return decl;
}

}  // namespace Quarnctl
