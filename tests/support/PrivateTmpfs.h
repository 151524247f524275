#pragma once
// A small file system of a test's own that can be filled without filling the machine's: a child
// process enters a private mount namespace (every mount made private to it), mounts a tmpfs of
// the asked size on a fresh directory and waits. The test and the processes it starts reach that
// tmpfs through the child's root, /proc/<child>/root/<directory> (`path()`). Where mount
// namespaces or mounts are not permitted, `available()` is false and `why()` says what failed:
// tests then skip. The child goes when the object goes (or when the test process dies), and the
// tmpfs with it.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace TestSupport {

class PrivateTmpfs {
 public:
  explicit PrivateTmpfs(std::size_t bytes) {
    char pattern[] = "/tmp/quarn-tmpfs-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
      why_ = std::string("mkdtemp: ") + std::strerror(errno);
      return;
    }
    dir_ = pattern;
    std::string const options = "size=" + std::to_string(bytes);
    int report[2], hold[2];
    if (::pipe2(report, O_CLOEXEC) != 0 || ::pipe2(hold, O_CLOEXEC) != 0) {
      why_ = std::string("pipe: ") + std::strerror(errno);
      return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(report[0]);
      ::close(hold[1]);
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      // Only system calls from here on: the parent may have threads.
      int const step = enter(dir_.c_str(), options.c_str());
      int const status[2] = {step, step == 0 ? 0 : errno};
      (void)!::write(report[1], status, sizeof status);
      char byte;
      while (::read(hold[0], &byte, 1) < 0 && errno == EINTR) {
      }
      std::_Exit(0);
    }
    ::close(report[1]);
    ::close(hold[0]);
    holdFd_ = hold[1];
    int status[2] = {-1, 0};
    ssize_t const n = ::read(report[0], status, sizeof status);
    ::close(report[0]);
    if (pid_ < 0 || n != sizeof status || status[0] != 0) {
      static char const* const steps[] = {"", "unshare(CLONE_NEWNS)", "making mounts private",
                                          "mount -t tmpfs"};
      why_ = pid_ < 0 ? std::string("fork failed")
             : n != sizeof status
                 ? std::string("the mounting child died")
                 : std::string(steps[status[0]]) + ": " + std::strerror(status[1]);
      return;
    }
    path_ = "/proc/" + std::to_string(pid_) + "/root" + dir_;
  }
  ~PrivateTmpfs() {
    if (holdFd_ >= 0) ::close(holdFd_);  // the child's read returns: it exits
    if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    if (!dir_.empty()) ::rmdir(dir_.c_str());
  }
  PrivateTmpfs(PrivateTmpfs const&) = delete;
  PrivateTmpfs& operator=(PrivateTmpfs const&) = delete;

  bool available() const noexcept { return !path_.empty(); }
  std::string const& why() const noexcept { return why_; }
  std::string const& path() const noexcept { return path_; }

  // Bytes still free.
  std::size_t freeBytes() const {
    struct statvfs st {};
    if (::statvfs(path_.c_str(), &st) != 0) return 0;
    return std::size_t(st.f_bavail) * st.f_frsize;
  }
  // Takes all free space but `leave` bytes (whole pages) in a filler file. False on failure.
  bool fill(std::size_t leave = 0) {
    release();
    std::size_t const free = freeBytes();
    if (free <= leave) return free == leave;
    int const fd = ::open((path_ + "/filler").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    bool const ok = ::posix_fallocate(fd, 0, off_t(free - leave)) == 0;
    ::close(fd);
    return ok && freeBytes() == leave;
  }
  // Gives the filler's space back.
  void release() { ::unlink((path_ + "/filler").c_str()); }

 private:
  // In the child: 0, or the step that failed (errno set). With the user namespace as the fallback
  // for a process that may not make mount namespaces of its own.
  static int enter(char const* dir, char const* options) {
    if (::unshare(CLONE_NEWNS) != 0 && !(errno == EPERM && enterUserNamespace())) return 1;
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 2;
    if (::mount("tmpfs", dir, "tmpfs", 0, options) != 0) return 3;
    return 0;
  }
  static bool enterUserNamespace() {
    uid_t const uid = ::getuid();
    gid_t const gid = ::getgid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    char map[64];
    int const fd1 = ::open("/proc/self/setgroups", O_WRONLY);
    if (fd1 >= 0) {
      (void)!::write(fd1, "deny", 4);
      ::close(fd1);
    }
    auto const writeMap = [&](char const* file, unsigned id) {
      int const n = std::snprintf(map, sizeof map, "0 %u 1", id);
      int const fd = ::open(file, O_WRONLY);
      bool const ok = fd >= 0 && ::write(fd, map, std::size_t(n)) == n;
      if (fd >= 0) ::close(fd);
      return ok;
    };
    return writeMap("/proc/self/uid_map", uid) && writeMap("/proc/self/gid_map", gid);
  }

  std::string dir_;
  std::string path_;
  std::string why_;
  pid_t pid_ = -1;
  int holdFd_ = -1;
};

}  // namespace TestSupport
