#include "Quarn/MounterSm.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"

namespace Quarn {
namespace {

constexpr std::uint32_t rootMask = IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE |
                                   IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t ancestorMask =
    IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// The watch moves at most one level per missing directory; this only bounds a pathological race
// of directories created and removed while the watch is being placed.
constexpr int maxArmAttempts = 64;

Jorv::TraceHandle& trace() {
  return Jorv::Platform::getDebugHandler("Quarn::MounterSm");
}

std::string parentOf(std::string const& path) {
  auto slash = path.find_last_of('/');
  return slash == 0 || slash == std::string::npos ? std::string("/") : path.substr(0, slash);
}

// The child of `dir` on the way down to `root` ("/a" and "/a/b/c" give "/a/b").
std::string nextOnPath(std::string const& dir, std::string const& root) {
  auto start = dir == "/" ? 1 : dir.size() + 1;
  auto slash = root.find('/', start);
  return slash == std::string::npos ? root : root.substr(0, slash);
}

bool isDirectory(std::string const& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string normalised(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

MounterSm::MounterSm(std::string rootPath, Handler handler, Kiv::Activity& activity)
    : rootPath_(normalised(std::move(rootPath))),
      handler_(std::move(handler)),
      initialEvent_([this] { deliver(rootWatched); }, activity) {
  if (rootPath_.empty() || rootPath_[0] != '/') {
    throw Jorv::RuntimeException("MounterSm::MounterSm() root path is not absolute: " + rootPath_);
  }
  inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotifyFd_ < 0) {
    throw Jorv::RuntimeException(std::string("MounterSm::MounterSm() inotify_init1 failed: ") +
                                 std::strerror(errno));
  }
  try {
    fdWatch_ =
        Kiv::FdWatch(activity, inotifyFd_, EPOLLIN, [this](std::uint32_t) { handleReadable(); });
    arm();
  } catch (...) {
    ::close(inotifyFd_);
    throw;
  }
  if (watchingRoot()) initialEvent_.armIn(0);
}

MounterSm::~MounterSm() {
  *alive_ = false;
  fdWatch_.reset();
  ::close(inotifyFd_);
}

bool MounterSm::deliver(std::string const& eventName) {
  KIV_TRACE(trace(), 5, "MounterSm::deliver() root:", rootPath_, " event:", eventName);
  std::shared_ptr<bool> alive = alive_;
  handler_(eventName);
  return *alive;
}

// Places the watch on the root directory, or on its nearest existing ancestor. Starting from the
// root every time and re-checking the next directory down after watching an ancestor closes the
// race with a directory that appears between the failed attempt and the new watch.
void MounterSm::arm() {
  if (wd_ >= 0) ::inotify_rm_watch(inotifyFd_, wd_);  // may already be gone with its directory
  wd_ = -1;
  for (int attempt = 0; attempt < maxArmAttempts; ++attempt) {
    std::string path = rootPath_;
    int wd;
    while ((wd = ::inotify_add_watch(inotifyFd_, path.c_str(),
                                     path == rootPath_ ? rootMask : ancestorMask)) < 0) {
      if (path == "/") {
        throw Jorv::RuntimeException(std::string("MounterSm::arm() cannot watch / : ") +
                                     std::strerror(errno));
      }
      path = parentOf(path);
    }
    wd_ = wd;
    watched_ = path;
    if (path == rootPath_) {
      // The watch and the identity must name one directory: one replaced between the two calls
      // would leave the watch on a directory that no longer has the name.
      struct stat st {};
      if (::stat(path.c_str(), &st) == 0) {
        rootDev_ = st.st_dev;
        rootIno_ = st.st_ino;
        int const again = ::inotify_add_watch(inotifyFd_, path.c_str(), rootMask);
        if (again == wd) {
          KIV_TRACE(trace(), 5, "MounterSm::arm() root:", rootPath_, " watching:", watched_);
          return;
        }
        if (again >= 0) ::inotify_rm_watch(inotifyFd_, again);
      }
    } else if (!isDirectory(nextOnPath(path, rootPath_))) {
      KIV_TRACE(trace(), 5, "MounterSm::arm() root:", rootPath_, " watching:", watched_);
      return;
    }
    ::inotify_rm_watch(inotifyFd_, wd_);
    wd_ = -1;
  }
  throw Jorv::RuntimeException("MounterSm::arm() cannot place a stable watch for " + rootPath_);
}

bool MounterSm::rootReplaced() const {
  struct stat st {};
  return ::stat(rootPath_.c_str(), &st) != 0 || st.st_dev != rootDev_ || st.st_ino != rootIno_;
}

void MounterSm::handleReadable() {
  alignas(inotify_event) char buffer[8192];
  for (;;) {
    ssize_t n = ::read(inotifyFd_, buffer, sizeof buffer);
    if (n <= 0) return;  // EAGAIN: drained
    for (char* p = buffer; p < buffer + n;) {
      auto* ev = reinterpret_cast<inotify_event*>(p);
      p += sizeof(inotify_event) + ev->len;
      bool const rootWasWatched = watchingRoot();
      if (ev->mask & IN_Q_OVERFLOW) {
        // Events were lost: re-place the watch and let the owner re-read everything.
        arm();
        if (watchingRoot() && !deliver(rootWatched)) return;
        continue;
      }
      if (ev->wd != wd_) continue;  // a watch given up earlier
      std::string name = ev->len > 0 ? std::string(ev->name) : std::string();
      bool const selfGone =
          (ev->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) ||
          (rootWasWatched && rootReplaced());
      if (rootWasWatched && !selfGone) {
        if (!(ev->mask & IN_ISDIR) && !name.empty() && !deliver(name)) return;
        continue;
      }
      if (!selfGone &&
          watched_ + (watched_ == "/" ? "" : "/") + name != nextOnPath(watched_, rootPath_)) {
        continue;  // an unrelated entry of an ancestor
      }
      arm();
      if (rootWasWatched && !deliver(rootRemoved)) return;
      if (watchingRoot() && !deliver(rootWatched)) return;  // appeared (or was replaced at once)
    }
  }
}

}  // namespace Quarn
