#pragma once
// The command line of quarnctl and what every command is handed.
//
//   quarnctl [--root DIR] [--json] COMMAND [ARGS...] [--help]
//
// Global options may stand anywhere on the line. Each command declares its operands and the
// options that take a value (`CommandDecl`); `parseCommand` checks the words against that
// declaration and raises UsageError with one line saying what was wrong (exit 2). `--help` on
// the program or after a command prints its help (exit 0).
//
// Exit codes: 0 done; 1 the table is absent or unreadable, a key is not there, a check failed;
// 2 the command line was wrong.

#include <cstdio>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Quarnctl {

inline constexpr int exitOk = 0;
inline constexpr int exitFailed = 1;
inline constexpr int exitUsage = 2;

// A wrong command line: the message is the one line printed after "quarnctl: ".
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// A command that cannot do its work (an absent table, a key not found): the message is printed
// after "quarnctl: " and the program exits 1.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Standard output, buffered in large blocks: a dump of half a million records is one write per
// block, not per line. `flush` after each line where a reader waits for lines (watch).
class Output {
 public:
  ~Output() { flush(); }
  std::string& buffer() noexcept { return buffer_; }
  // Writes the buffer out once it holds a block.
  void lineDone() {
    if (buffer_.size() >= kBlock) flush();
  }
  void flush();
  // Standard output was closed by its reader (EPIPE): nothing more can be said there.
  bool broken() const noexcept { return broken_; }

 private:
  static constexpr std::size_t kBlock = 256 * 1024;
  std::string buffer_;
  bool broken_ = false;
};

// Rows of cells as columns padded to the widest cell (the last column is not padded).
void printColumns(Output& out, std::vector<std::vector<std::string>> const& rows);

struct Context {
  std::string root;  // the directory holding the table directories
  bool json = false;
  Output out;
};

// The words after a command, checked against its declaration.
struct CommandLine {
  std::vector<std::string> operands;
  std::map<std::string, std::string, std::less<>> options;  // "--limit" -> "10"

  std::string const* option(std::string_view name) const {
    auto const it = options.find(name);
    return it == options.end() ? nullptr : &it->second;
  }
  // The option's value as a count (a decimal number), or `fallback` when absent.
  std::uint64_t count(std::string_view command, std::string_view name,
                      std::uint64_t fallback) const;
};

struct CommandDecl {
  std::string_view name;
  std::string_view synopsis;                   // "dump TABLE [--limit N] [--key TEXT]"
  std::string_view summary;                    // one line, for the program's help
  std::string_view help;                       // the command's help text, after its synopsis
  std::vector<std::string_view> operands;      // required, in order ("TABLE", "KEY")
  std::vector<std::string_view> valueOptions;  // options that take a value ("--limit")
  int (*run)(Context&, CommandLine const&);
};

// Checks `words` against `decl`; raises UsageError.
CommandLine parseCommand(CommandDecl const& decl, std::span<std::string const> words);

// The commands, in the order the help lists them.
std::span<CommandDecl const> commands();

// The whole program: parses argv, runs the command, maps errors to exit codes.
int runQuarnctl(int argc, char** argv);

}  // namespace Quarnctl
