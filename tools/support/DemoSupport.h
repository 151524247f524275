#pragma once
// What the demonstration programs share: fixed-size messages on pipes, a lag histogram, child
// process teardown, and the private table root that lives as long as the run, is removed at its
// end (by the supervisor, or by its last child when the supervisor is killed), and turns
// SIGINT/SIGTERM into a clean stop of the supervising activity.

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

#include "Jorv/Exception.h"
#include "Kiv/Activity.h"

namespace DemoSupport {

// One whole message per write: below PIPE_BUF a write is never interleaved with another.
template <class T>
void send(int fd, T const& message) {
  static_assert(sizeof(T) < PIPE_BUF);
  (void)!::write(fd, &message, sizeof message);
}

// Reads one whole message; false at end of file or on a short read.
template <class T>
bool receive(int fd, T& message) {
  return ::read(fd, &message, sizeof message) == ssize_t(sizeof message);
}

// Microseconds: exact below 100 ms, one overflow bucket above.
class LagHistogram {
 public:
  void add(double seconds) {
    double const us = std::max(0.0, seconds * 1e6);
    ++total_;
    max_ = std::max(max_, us);
    if (us < double(counts_.size())) ++counts_[std::size_t(us)];
  }
  double percentile(double p) const {
    if (total_ == 0) return 0;
    auto const rank = std::uint64_t(std::ceil(p * double(total_)));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < counts_.size(); ++i) {
      seen += counts_[i];
      if (seen >= rank) return double(i);
    }
    return max_;
  }
  double max() const { return max_; }
  std::uint64_t total() const { return total_; }

 private:
  std::vector<std::uint32_t> counts_ = std::vector<std::uint32_t>(100000, 0);
  std::uint64_t total_ = 0;
  double max_ = 0;
};

// SIGKILLs and reaps a child, closes its two pipe ends; pid becomes -1. With `leftover`, each
// whole Message the child wrote before it died and that was not read yet goes to it first: the
// child was the last holder of the pipe's write end, so the reads end at end of file.
template <class Message = char, class Leftover = std::nullptr_t>
void stopChild(pid_t& pid, int reportFd, int commandFd, Leftover&& leftover = nullptr) {
  if (pid <= 0) return;
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  pid = -1;
  if constexpr (!std::is_null_pointer_v<std::remove_cvref_t<Leftover>>) {
    Message m;
    while (receive(reportFd, m)) leftover(m);
  }
  ::close(reportFd);
  ::close(commandFd);
}

// The supervisor's activity, stopped by SIGINT and SIGTERM (async-signal-safe: Activity::stop).
inline std::atomic<Kiv::Activity*> loopForSignals{nullptr};
inline volatile std::sig_atomic_t interrupted = 0;

// The supervisor's pid, for its children (exec'd ones too) to tell its death from a hang-up.
inline constexpr char const* kSupervisorVariable = "DEMO_SUPERVISOR_PID";

// Runs `body(root)` with a fresh private table root "/dev/shm/<prefix>-XXXXXX" (also the
// children's $QUARN_ROOT), SIGINT/SIGTERM stopping `loopForSignals`, and removes the root
// afterwards, whatever happened. Returns body's status, 1 when it throws.
template <class Body>
int withPrivateRoot(char const* prefix, Body&& body) {
  std::string pattern = std::string("/dev/shm/") + prefix + "-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  ::setenv("QUARN_ROOT", pattern.c_str(), 1);
  ::setenv(kSupervisorVariable, std::to_string(::getpid()).c_str(), 1);
  struct sigaction sa {};
  sa.sa_handler = [](int) {
    interrupted = 1;
    if (Kiv::Activity* loop = loopForSignals.load()) loop->stop();
  };
  ::sigemptyset(&sa.sa_mask);
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  int status = 1;
  try {
    status = body(pattern);
  } catch (std::exception const& e) {
    std::fprintf(stderr, "%s: %s\n", prefix, e.what());
  }
  std::error_code ec;
  std::filesystem::remove_all(pattern, ec);
  return status;
}

// ---- a supervisor killed with SIGKILL leaves no root behind
//
// The supervisor removes the root when it ends, but a SIGKILL gives it no chance; its children
// then do it. Protocol:
//   - the supervisor's death reaches each child as kSupervisorGone (PR_SET_PDEATHSIG), armed in
//     the child right after fork with the signal blocked, so that one arriving before the child
//     is ready waits (the mask and the pending signal survive exec);
//   - each child holds a shared flock on the root directory while it runs;
//   - on the signal (or when the child finds, once ready, that its parent is no longer the
//     supervisor: it died before the death signal was armed), the child drops its shared lock
//     and tries for an exclusive one without waiting. Only a child that finds no other holder
//     gets it, so the last child to let go removes the root; two that let go together may both
//     get it, and the second removes nothing. Then the child exits.
// Everything the handler does is an async-signal-safe system call: it may interrupt the child
// anywhere (the agent building its state, a table write), and nothing of the child matters any
// more.

inline constexpr int kSupervisorGone = SIGHUP;  // a terminal hang-up kills the supervisor too

// Armed in a forked child, before anything else (see above).
inline void armSupervisorDeath() {
  sigset_t gone;
  ::sigemptyset(&gone);
  ::sigaddset(&gone, kSupervisorGone);
  ::sigprocmask(SIG_BLOCK, &gone, nullptr);
  ::prctl(PR_SET_PDEATHSIG, kSupervisorGone);
}

namespace detail {

inline int rootFd = -1;
inline pid_t supervisor = 0;
inline char rootPath[PATH_MAX] = {};

// Removes `name` (in directory `parentFd`) and everything below it, `depth` levels at most;
// true when it is gone. Entries are removed while the directory is read, so it is read again
// while a pass removes something (a few passes at most: nothing adds entries any more).
inline bool removeTree(int parentFd, char const* name, int depth) {
  int const fd = ::openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd >= 0) {
    alignas(struct dirent64) char buf[4096];
    bool removed = true;
    for (int pass = 0; removed && depth > 0 && pass < 8; ++pass) {
      removed = false;
      ::lseek(fd, 0, SEEK_SET);
      for (ssize_t n; (n = ::getdents64(fd, buf, sizeof buf)) > 0;) {
        for (ssize_t at = 0; at < n;) {
          auto const* entry = reinterpret_cast<struct dirent64 const*>(buf + at);
          at += entry->d_reclen;
          if (::strcmp(entry->d_name, ".") == 0 || ::strcmp(entry->d_name, "..") == 0) continue;
          removed = (entry->d_type == DT_DIR ? removeTree(fd, entry->d_name, depth - 1)
                                             : ::unlinkat(fd, entry->d_name, 0) == 0) ||
                    removed;
        }
      }
    }
    ::close(fd);
  }
  return ::unlinkat(parentFd, name, AT_REMOVEDIR) == 0;
}

[[noreturn]] inline void leave() {
  ::flock(rootFd, LOCK_UN);
  if (::flock(rootFd, LOCK_EX | LOCK_NB) == 0) removeTree(AT_FDCWD, rootPath, 8);
  ::_exit(0);
}

inline void onSupervisorGone(int) {
  if (::getppid() != supervisor) leave();  // else a hang-up: the death signal follows
}

}  // namespace detail

// In a child, once it knows its root: takes its shared lock on it and handles the supervisor's
// death from now on, including a death that came before. Throws when the root cannot be held.
inline void dieWithSupervisor(std::string const& root) {
  char const* pid = std::getenv(kSupervisorVariable);
  if (pid == nullptr || root.size() >= sizeof detail::rootPath) {
    throw Jorv::RuntimeException("dieWithSupervisor(): no supervisor pid, or root too long");
  }
  detail::supervisor = pid_t(std::atol(pid));
  std::memcpy(detail::rootPath, root.c_str(), root.size() + 1);
  detail::rootFd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (detail::rootFd < 0 && ::getppid() != detail::supervisor) ::_exit(0);  // all gone already
  if (detail::rootFd < 0 || ::flock(detail::rootFd, LOCK_SH) != 0) {
    throw Jorv::RuntimeException("cannot hold the table root " + root + ": " +
                                 std::strerror(errno));
  }
  struct sigaction sa {};
  sa.sa_handler = detail::onSupervisorGone;
  ::sigfillset(&sa.sa_mask);
  ::sigaction(kSupervisorGone, &sa, nullptr);
  sigset_t gone;
  ::sigemptyset(&gone);
  ::sigaddset(&gone, kSupervisorGone);
  ::sigprocmask(SIG_UNBLOCK, &gone, nullptr);  // a signal already pending is handled here
  if (::getppid() != detail::supervisor) detail::leave();
}

// In a child that learnt otherwise that the supervisor is gone (its command pipe ended, which
// may come before the death signal): leaves as the signal would.
[[noreturn]] inline void supervisorGone() {
  if (detail::rootFd >= 0) detail::leave();
  ::_exit(0);
}

}  // namespace DemoSupport
