#include "Processes.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "Kiv/Activity.h"

namespace QuarnctlTest {
namespace {

double now() {
  return Kiv::Activity::now();
}

pid_t spawnQuarnctl(std::vector<std::string> const& args, int out, int err) {
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    std::vector<char*> argv{const_cast<char*>(QUARNCTL_PATH)};
    for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(QUARNCTL_PATH, argv.data());
    std::_Exit(127);
  }
  return pid;
}

int exitCodeOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Reads what is there on `fd` into `into`; false at end of file.
bool drain(int fd, std::string& into) {
  char buf[65536];
  ssize_t const n = ::read(fd, buf, sizeof buf);
  if (n > 0) into.append(buf, std::size_t(n));
  return n > 0 || (n < 0 && errno == EINTR);
}

}  // namespace

std::vector<std::string> Outcome::lines() const {
  std::vector<std::string> out;
  std::istringstream in(this->out);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

Outcome quarnctl(std::vector<std::string> const& args, double seconds) {
  int out[2], err[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe");
  pid_t const pid = spawnQuarnctl(args, out[1], err[1]);
  ::close(out[1]);
  ::close(err[1]);
  Outcome r;
  double const deadline = now() + seconds;
  bool outOpen = true, errOpen = true;
  while ((outOpen || errOpen) && now() < deadline) {
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    if (::poll(fds, 2, 100) <= 0) continue;
    if (outOpen && fds[0].revents) outOpen = drain(out[0], r.out);
    if (errOpen && fds[1].revents) errOpen = drain(err[0], r.err);
  }
  if (outOpen || errOpen) ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  r.exitCode = exitCodeOf(status);
  ::close(out[0]);
  ::close(err[0]);
  return r;
}

Running::Running(std::vector<std::string> const& args) {
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  pid_ = spawnQuarnctl(args, out[1], STDERR_FILENO);
  ::close(out[1]);
  fd_ = out[0];
}

Running::~Running() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(fd_);
}

std::optional<std::string> Running::line(double seconds) {
  double const deadline = now() + seconds;
  for (;;) {
    std::size_t const nl = pending_.find('\n');
    if (nl != std::string::npos) {
      std::string l = pending_.substr(0, nl);
      pending_.erase(0, nl + 1);
      return l;
    }
    double const left = deadline - now();
    if (left <= 0) return std::nullopt;
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, int(left * 1000) + 1) > 0 && !drain(fd_, pending_)) return std::nullopt;
  }
}

int Running::stop(int signal) {
  ::kill(pid_, signal);
  double const deadline = now() + 10;
  int status = 0;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (now() > deadline) return -1;
    ::usleep(10000);  // the exit itself is what is awaited; nothing to poll on
  }
  pid_ = -1;
  return exitCodeOf(status);
}

std::map<std::string, FileState> snapshot(std::string const& root) {
  std::map<std::string, FileState> out;
  for (auto const& e : std::filesystem::recursive_directory_iterator(root)) {
    struct stat st {};
    if (::lstat(e.path().c_str(), &st) != 0) continue;
    FileState f;
    f.mtimeNs = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
    if (S_ISREG(st.st_mode)) {
      std::ifstream in(e.path(), std::ios::binary);
      f.bytes.assign(std::istreambuf_iterator<char>(in), {});
    }
    out[e.path().string()] = std::move(f);
  }
  struct stat st {};
  ::lstat(root.c_str(), &st);
  out[root].mtimeNs = st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec;
  return out;
}

Writer::Writer(TestSupport::Children& children, std::string const& mode, std::string const& root) {
  int cmd[2], ans[2];
  if (::pipe(cmd) != 0 || ::pipe(ans) != 0) throw std::runtime_error("pipe");
  pid_ = children.spawn(mode + " " + root + " " + std::to_string(cmd[0]) + " " +
                        std::to_string(ans[1]));
  ::close(cmd[0]);
  ::close(ans[1]);
  ::fcntl(cmd[1], F_SETFD, FD_CLOEXEC);
  ::fcntl(ans[0], F_SETFD, FD_CLOEXEC);
  commands_ = cmd[1];
  answers_ = ans[0];
  if (answer(30) != "ready") throw std::runtime_error("the writer did not start");
}

Writer::~Writer() {
  ::close(commands_);
  ::close(answers_);
}

void Writer::command(std::string const& line) {
  std::string const text = line + "\n";
  if (::write(commands_, text.data(), text.size()) != ssize_t(text.size()) || answer(10) != "ok") {
    throw std::runtime_error("the writer did not do: " + line);
  }
}

std::string Writer::answer(double seconds) {
  std::string got;
  double const deadline = now() + seconds;
  while (got.find('\n') == std::string::npos && now() < deadline) {
    pollfd p{answers_, POLLIN, 0};
    if (::poll(&p, 1, 100) > 0 && !drain(answers_, got)) break;
  }
  return got.substr(0, got.find('\n'));
}

}  // namespace QuarnctlTest
