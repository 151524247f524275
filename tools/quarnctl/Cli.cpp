#include "Cli.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "Commands.h"
#include "Mem/Shared.h"

namespace Quarnctl {

void Output::flush() {
  char const* p = buffer_.data();
  std::size_t left = buffer_.size();
  while (left > 0) {
    ssize_t const n = ::write(STDOUT_FILENO, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      broken_ = true;
      break;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  buffer_.clear();
}

void printColumns(Output& out, std::vector<std::vector<std::string>> const& rows) {
  std::vector<std::size_t> width;
  for (auto const& row : rows) {
    width.resize(std::max(width.size(), row.size()), 0);
    for (std::size_t i = 0; i < row.size(); ++i) width[i] = std::max(width[i], row[i].size());
  }
  for (auto const& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(width[i] - row[i].size() + 2, ' ');
    }
    out.buffer() += line + "\n";
    out.lineDone();
  }
}

std::uint64_t CommandLine::count(std::string_view command, std::string_view name,
                                 std::uint64_t fallback) const {
  std::string const* v = option(name);
  if (v == nullptr) return fallback;
  std::uint64_t n = 0;
  bool ok = !v->empty() && v->size() <= 18;
  for (char c : *v) {
    ok = ok && c >= '0' && c <= '9';
    n = n * 10 + std::uint64_t(c - '0');
  }
  if (!ok) {
    throw UsageError(std::string(command) + ": " + std::string(name) + " wants a count, not '" +
                     *v + "'");
  }
  return n;
}

CommandLine parseCommand(CommandDecl const& decl, std::span<std::string const> words) {
  CommandLine line;
  std::string const cmd(decl.name);
  for (std::size_t i = 0; i < words.size(); ++i) {
    std::string const& w = words[i];
    if (w.size() > 2 && w.starts_with("--")) {
      bool known = false;
      for (auto const o : decl.valueOptions) known = known || o == w;
      if (!known) throw UsageError(cmd + ": unknown option " + w);
      if (i + 1 >= words.size()) throw UsageError(cmd + ": " + w + " needs a value");
      line.options[w] = words[++i];
    } else {
      line.operands.push_back(w);
    }
  }
  if (line.operands.size() < decl.operands.size()) {
    throw UsageError(cmd + ": missing " + std::string(decl.operands[line.operands.size()]) + " (" +
                     std::string(decl.synopsis) + ")");
  }
  if (line.operands.size() > decl.operands.size()) {
    throw UsageError(cmd + ": unexpected argument '" + line.operands[decl.operands.size()] + "'");
  }
  return line;
}

std::span<CommandDecl const> commands() {
  static CommandDecl const all[] = {lsCommand(),     statCommand(),  dumpCommand(),
                                    getCommand(),    checkCommand(), watchCommand(),
                                    groupsCommand(), groupCommand()};
  return all;
}

namespace {

void programHelp(Output& out) {
  std::string& s = out.buffer();
  s += "Usage: quarnctl [--root DIR] [--json] COMMAND [ARGS...]\n\n"
       "Shows the shared-memory tables under a root directory, their records and the Bidir group\n"
       "state they hold. It only reads: it maps files read-only, takes no lock, writes nothing\n"
       "under the root and is never counted among a table's readers.\n\nCommands:\n";
  for (CommandDecl const& c : commands()) {
    std::string line = "  " + std::string(c.synopsis);
    line.resize(std::max<std::size_t>(line.size() + 2, 40), ' ');
    s += line + std::string(c.summary) + "\n";
  }
  s += "\nOptions (anywhere on the line):\n"
       "  --root DIR   the directory holding the table directories (default: $QUARN_ROOT,\n"
       "               else /dev/shm/quarn)\n"
       "  --json       JSON lines on standard output: one object per table, record, change or\n"
       "               group, with stable field names, and nothing else\n"
       "  --help       this text; COMMAND --help: the command's\n\n"
       "Exit status: 0 done; 1 a table absent or unreadable, a key not found, a check failed;\n"
       "2 a wrong command line.\n";
}

void commandHelp(Output& out, CommandDecl const& c) {
  out.buffer() += "Usage: quarnctl [--root DIR] [--json] " + std::string(c.synopsis) + "\n\n" +
                  std::string(c.help);
}

CommandDecl const* findCommand(std::string_view name) {
  for (CommandDecl const& c : commands()) {
    if (c.name == name) return &c;
  }
  return nullptr;
}

void fail(char const* what) {
  std::string const line = std::string("quarnctl: ") + what + "\n";
  (void)!::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

int runQuarnctl(int argc, char** argv) {
  Context ctx;
  bool help = false;
  std::string rootOption;
  bool rootGiven = false;
  std::vector<std::string> words;
  try {
    for (int i = 1; i < argc; ++i) {
      std::string const w = argv[i];
      if (w == "--help" || w == "-h") {
        help = true;
      } else if (w == "--json") {
        ctx.json = true;
      } else if (w == "--root") {
        if (i + 1 >= argc) throw UsageError("--root needs a directory");
        rootOption = argv[++i];
        rootGiven = true;
        if (rootOption.empty()) throw UsageError("--root needs a directory");
      } else {
        words.push_back(w);
      }
    }
    CommandDecl const* cmd = nullptr;
    if (!words.empty()) {
      cmd = findCommand(words.front());
      if (cmd == nullptr && !help) {
        throw UsageError("unknown command '" + words.front() + "' (quarnctl --help lists them)");
      }
    }
    if (help) {
      if (cmd != nullptr) {
        commandHelp(ctx.out, *cmd);
      } else {
        programHelp(ctx.out);
      }
      return exitOk;
    }
    if (cmd == nullptr) throw UsageError("no command given (quarnctl --help lists them)");
    ctx.root = rootGiven ? rootOption : Mem::defaultRootDir();
    while (ctx.root.size() > 1 && ctx.root.back() == '/') ctx.root.pop_back();
    CommandLine const line = parseCommand(*cmd, std::span<std::string const>(words).subspan(1));
    return cmd->run(ctx, line);
  } catch (UsageError const& e) {
    ctx.out.flush();
    fail(e.what());
    return exitUsage;
  } catch (Failure const& e) {
    ctx.out.flush();
    fail(e.what());
    return exitFailed;
  } catch (std::exception const& e) {
    ctx.out.flush();
    fail(e.what());
    return exitFailed;
  }
}

}  // namespace Quarnctl
