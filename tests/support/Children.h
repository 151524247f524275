#pragma once
// Child processes of a test: this test binary re-executed with an environment variable naming
// the child's role. A file defines the role with TestSupport::childRole at namespace scope; it
// runs before main() in the child and exits there, so the child never runs tests.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

namespace TestSupport {

// If `variable` is set, runs `role` with its value (the child dies with its parent) and exits.
inline bool childRole(char const* variable, int (*role)(std::string const&)) {
  if (char const* value = std::getenv(variable)) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::_Exit(role(value));
  }
  return false;
}

// Children started with `variable`=value; every one still running is SIGKILLed and reaped when
// this object dies.
class Children {
 public:
  explicit Children(char const* variable) : variable_(variable) {}
  ~Children() {
    for (pid_t pid : pids_) reap(pid);
  }
  Children(Children const&) = delete;
  Children& operator=(Children const&) = delete;

  pid_t spawn(std::string const& value) {
    pid_t const pid = ::fork();
    if (pid == 0) {
      ::setenv(variable_, value.c_str(), 1);
      char const* argv[] = {"/proc/self/exe", "--gtest_list_tests", nullptr};
      ::execve("/proc/self/exe", const_cast<char**>(argv), environ);
      std::_Exit(127);
    }
    pids_.push_back(pid);
    return pid;
  }
  void kill(pid_t pid) {
    reap(pid);
    std::erase(pids_, pid);
  }
  // True once `pid` has exited (reaped here, its wait status in `*status`); never blocks.
  bool exited(pid_t pid, int* status) {
    if (::waitpid(pid, status, WNOHANG) != pid) return false;
    std::erase(pids_, pid);
    return true;
  }

 private:
  static void reap(pid_t pid) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  char const* variable_;
  std::vector<pid_t> pids_;
};

}  // namespace TestSupport
