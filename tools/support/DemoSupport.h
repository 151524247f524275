#pragma once
// What the demonstration programs share: fixed-size messages on pipes, a lag histogram, child
// process teardown, and the private table root that lives as long as the run, is removed at its
// end, and turns SIGINT/SIGTERM into a clean stop of the supervising activity.

#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

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

}  // namespace DemoSupport
