#pragma once
// The supervising process of a demonstration: it forks its children, each with a pipe of
// fixed-size `Report`s to the supervisor and a pipe of `Command`s from it, reads their reports on
// its activity, fails the run when a child ends unexpectedly or reports a failure, and stops them
// all at the end (SIGKILL and reap). Children also end when the supervisor dies, and the last of
// them removes the private root (dieWithSupervisor, DemoSupport.h).
//
// `Report` has `kind`, `role` and `text`, and a `Report::failed` kind; `roleName(Role)` is found
// next to `Role`. The derived class handles every other report in `onReport`.

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "Jorv/Exception.h"
#include "Kiv/Activity.h"
#include "Kiv/Timer.h"
#include "tools/support/DemoSupport.h"

namespace DemoSupport {

// In a child: `e` reported to the supervisor as the role's failure. Returns the exit status.
template <class Report, class Role>
int reportFailure(int reportFd, Role role, std::exception const& e) {
  Report r;
  r.kind = Report::failed;
  r.role = role;
  std::snprintf(r.text, sizeof r.text, "%s", e.what());
  send(reportFd, r);
  return 1;
}

template <class Role, class Report>
class Supervisor {
 public:
  struct Child {
    Role role;
    pid_t pid = -1;
    int reportFd = -1;
    int commandFd = -1;
    Kiv::FdWatch watch;
    Report last;
  };

  // `giveUpText` ends the run when the give-up timer (armed by the derived class) expires.
  explicit Supervisor(std::string giveUpText)
      : progress_([this] { progress(); }, loop_),
        restart_([this] { restart(); }, loop_),
        stop_([this] { stop(); }, loop_),
        giveUp_([this, giveUpText = std::move(giveUpText)] { fail(giveUpText); }, loop_) {}
  Supervisor(Supervisor const&) = delete;
  Supervisor& operator=(Supervisor const&) = delete;
  virtual ~Supervisor() { stopAll(); }

 protected:
  // Forks a child for `role`; it runs `body(reportFd, commandFd)` and exits with what that
  // returns. The child leaves Ctrl-C (sent to the whole group) to the supervisor, holds no other
  // child's pipe ends, and hears of the supervisor's death: its body (or the program it execs)
  // calls dieWithSupervisor(root) first.
  template <class Body>
  Child& spawn(Role role, Body&& body) {
    int reports[2], commands[2];
    if (::pipe2(reports, O_CLOEXEC) != 0 || ::pipe2(commands, O_CLOEXEC) != 0) {
      throw Jorv::RuntimeException("pipe2() failed");
    }
    std::cout.flush();
    std::fflush(stdout);
    pid_t const pid = ::fork();
    if (pid < 0) throw Jorv::RuntimeException("fork() failed");
    if (pid == 0) {
      armSupervisorDeath();
      ::signal(SIGINT, SIG_IGN);
      ::signal(SIGTERM, SIG_DFL);
      ::close(reports[0]);
      ::close(commands[1]);
      for (auto const& other : children_) {
        if (other->pid <= 0) continue;  // its descriptors are closed, their numbers reused
        ::close(other->reportFd);
        ::close(other->commandFd);
      }
      std::_Exit(body(reports[1], commands[0]));
    }
    ::close(reports[1]);
    ::close(commands[0]);
    auto child = std::make_unique<Child>();
    child->role = role;
    child->pid = pid;
    child->reportFd = reports[0];
    child->commandFd = commands[1];
    Child* c = child.get();
    c->watch = Kiv::FdWatch(loop_, reports[0], EPOLLIN, [this, c](std::uint32_t) {
      Report r;
      if (receive(c->reportFd, r)) {
        dispatch(*c, r);
      } else {
        c->watch.reset();
        fail(std::string(roleName(c->role)) + " process ended unexpectedly");
      }
    });
    children_.push_back(std::move(child));
    return *c;
  }

  // One report of `child`: a failure ends the run, anything else goes to onReport.
  void dispatch(Child& child, Report const& r) {
    if (r.kind == Report::failed) {
      child.last = r;
      fail(std::string(roleName(r.role)) + " failed: " + r.text);
    } else {
      onReport(child, r);
      std::fflush(stdout);  // its lines as they come, also into a pipe or a file
    }
  }
  virtual void onReport(Child& child, Report const& r) = 0;
  // What the timers of the run do: a progress line, the restart halfway, the end of the churn.
  virtual void progress() = 0;
  virtual void restart() = 0;
  virtual void stop() = 0;

  void command(Child* child, auto const& c) {
    if (child != nullptr && child->pid > 0) send(child->commandFd, c);
  }
  // Ends the run with `why` (the first reason given is kept).
  void fail(std::string const& why) {
    if (error_.empty()) error_ = why;
    loop_.stop();
  }
  // Kills and reaps `child`; each whole report it wrote before and that was not read yet is
  // dispatched first.
  void killChild(Child& child) {
    if (child.pid <= 0) return;
    child.watch.reset();
    DemoSupport::stopChild<Report>(child.pid, child.reportFd, child.commandFd,
                                   [this, &child](Report const& r) { dispatch(child, r); });
  }
  void stopAll() {
    for (auto& c : children_) {
      if (c->pid <= 0) continue;
      c->watch.reset();
      DemoSupport::stopChild(c->pid, c->reportFd, c->commandFd);
    }
  }

  // Runs the activity until the run ends (stop, failure, SIGINT/SIGTERM). Returns 130 when
  // interrupted and 1 on a failure, each said on stdout, with every child stopped; 0 when the
  // derived class goes on to its summary, the children still running (they serve their tables
  // until keepUntilInterrupted() or the destructor stops them).
  int runToEnd() {
    loopForSignals = &loop_;
    loop_.run();
    loopForSignals = nullptr;
    double const elapsed = since();
    progress_.cancel();
    giveUp_.cancel();
    if (interrupted) {
      stopAll();
      std::printf("\ninterrupted after %.1f s: processes stopped, files removed\n", elapsed);
      return 130;
    }
    if (!error_.empty()) {
      stopAll();
      std::printf("FAILED: %s\n", error_.c_str());
      return 1;
    }
    return 0;
  }
  // After the summary: the children go on serving until SIGINT/SIGTERM, then stop. Returns
  // false, having said why, when a child ended or failed meanwhile.
  bool keepUntilInterrupted() {
    loopForSignals = &loop_;
    if (!interrupted) loop_.run();
    loopForSignals = nullptr;
    stopAll();
    if (!error_.empty()) {
      std::printf("FAILED while kept: %s\n", error_.c_str());
      return false;
    }
    return true;
  }
  double since() const { return Kiv::Activity::now() - start_; }

  Kiv::Activity loop_;
  Kiv::Timer progress_, restart_, stop_, giveUp_;
  std::vector<std::unique_ptr<Child>> children_;
  double start_ = Kiv::Activity::now();
  std::string error_;
};

}  // namespace DemoSupport
