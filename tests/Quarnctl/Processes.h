#pragma once
// The processes of the quarnctl tests: the program itself (run to completion, or followed line by
// line while it watches), the writer child (Writers.cpp) driven over a pair of pipes, and a
// snapshot of every file under a root to prove that nothing changed.

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/Children.h"

namespace QuarnctlTest {

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;
  std::vector<std::string> lines() const;
};

// Runs quarnctl with `args` to its end (killed after `seconds`).
Outcome quarnctl(std::vector<std::string> const& args, double seconds = 30);

// A quarnctl that keeps running (watch): its standard output read line by line.
class Running {
 public:
  explicit Running(std::vector<std::string> const& args);
  ~Running();
  // The next line, or nothing when none came within `seconds`.
  std::optional<std::string> line(double seconds = 10);
  // Sends `signal` and returns the exit code (-1 when it did not exit within 10 s).
  int stop(int signal);

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  std::string pending_;
};

// Every file and directory under `root`: its bytes (regular files) and modification time.
struct FileState {
  std::string bytes;
  long long mtimeNs = 0;
  bool operator==(FileState const&) const = default;
};
std::map<std::string, FileState> snapshot(std::string const& root);

// The writer child: "state" builds a whole Bidir state (groups, interfaces, the RP hash and
// RPA-RPF tables) exported by GroupQuarnWriterSm and writes what it computes from it to
// <root>/expected; "table" writes the group table alone and obeys `put ADDR INACTIVE` and
// `del ADDR`. Each answers "ready" once its tables are written and "ok" after each command.
class Writer {
 public:
  Writer(TestSupport::Children& children, std::string const& mode, std::string const& root);
  ~Writer();
  pid_t pid() const noexcept { return pid_; }
  // Sends a command and waits for its answer.
  void command(std::string const& line);

 private:
  std::string answer(double seconds);

  pid_t pid_ = -1;
  int commands_ = -1;
  int answers_ = -1;
};

inline constexpr char const* kWriterRole = "QUARNCTL_TEST_WRITER";
inline constexpr std::uint32_t kGroups = 12;
inline constexpr std::uint32_t kIntfs = 6;

}  // namespace QuarnctlTest
