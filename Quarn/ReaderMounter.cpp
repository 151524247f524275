#include "Quarn/ReaderMounter.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Quarn/Fenix.h"
#include "Quarn/Files.h"
#include "Quarn/QuarnMap.h"

namespace Quarn {
namespace {

// The report file and the temporary files it is written through.
bool isCorruptionReport(std::string const& eventName) {
  return eventName.rfind("corruption-detected", 0) == 0;
}

// Why `path` cannot be read (permission), or empty. `mode` is as for access(2).
std::string denied(std::string const& path, int mode) {
  if (::access(path.c_str(), mode) == 0 || errno != EACCES) return {};
  return "permission denied: " + path;
}

}  // namespace

std::string mountObstacle(std::string const& name, std::string const& rootPath,
                          std::uint32_t fenix) {
  std::string const rootDir = rootPath.substr(0, rootPath.find_last_of('/'));
  struct stat st {};
  if (::stat(rootDir.c_str(), &st) != 0) {
    return errno == EACCES ? "permission denied: " + rootDir : "no root directory " + rootDir;
  }
  if (std::string why = denied(rootDir, R_OK | X_OK); !why.empty()) return why;
  if (::stat(rootPath.c_str(), &st) != 0) {
    return errno == EACCES ? "permission denied: " + rootPath
                           : "no table " + name + " in " + rootDir;
  }
  if (std::string why = denied(rootPath, R_OK | X_OK); !why.empty()) return why;
  for (char const* file : {"fenix", "slots", "buckets", "conquer.1", "conquer.2"}) {
    if (std::string why = denied(rootPath + "/" + file, R_OK); !why.empty()) return why;
  }
  if (fenix != 0) return {};
  std::string why =
      Util::memSize(rootPath + "/slots") > 0
          ? "fenix file of " + name + " in " + rootPath + " damaged or missing, cannot mount"
          : "no table files in " + rootPath;
  std::uint32_t const owner = quarnLastOwner(rootPath);
  if (owner != 0 && ::kill(pid_t(owner), 0) != 0 && errno == ESRCH) {
    why += "; its last writer, pid " + std::to_string(owner) + ", is gone";
  }
  return why;
}

ReaderMounter::ReaderMounter(Jorv::DebugHandler& dh, std::string name, std::string rootPath,
                             std::string modeWord, Table& table, double remountInterval,
                             Kiv::Activity& activity)
    : dh_(dh),
      name_(std::move(name)),
      rootPath_(std::move(rootPath)),
      modeWord_(std::move(modeWord)),
      table_(table),
      interval_(remountInterval),
      timer_([this] { timeout(); }, activity),
      sm_(std::make_unique<MounterSm>(
          rootPath_, [this](std::string const& event) { notify(event); }, activity)) {
  timer_.armIn(firstRetry < interval_ ? firstRetry : interval_);
}

void ReaderMounter::notify(std::string const& eventName) {
  ++events_;
  KIV_TRACE(dh_, 5, "ReaderMounter::notify() ", name_, " events:", events_,
            " eventName: ", eventName);
  if (!table_.notifyingOn()) {
    KIV_TRACE(dh_, 3, "ReaderMounter::notify() ignoring notify because ",
              "quarnMap notifications are off.");
    return;
  }
  std::uint32_t const fenix = FenixFile::read(rootPath_);
  if (isCorruptionReport(eventName)) {
    settle(fenix);
    return;
  }
  std::uint32_t const mounted = table_.mountedFenix();
  KIV_TRACE(dh_, 5, "QuarnMap::ReaderMounter::notify() eventName: ", eventName, " fenixId: ", fenix,
            " quarnMap.fenixId: ", mounted, " mode: ", modeWord_);
  bool const same = table_.mounted() && fenix == mounted && fenix != 0;
  // The writer's files are there but do not say which incarnation they are: nobody can mount
  // them until the writer writes the fenix file again, so a mounted table stays.
  bool const keep = table_.mounted() && table_.fullyAttached() && fenix == 0 &&
                    eventName != MounterSm::rootRemoved && Util::memSize(rootPath_ + "/slots") > 0;
  if (keep && !keptSaid_) {
    KIV_TRACE(dh_, 0, "ReaderMounter::notify() fenix file of ", name_, " in ", rootPath_,
              " damaged or missing, staying mounted");
  }
  keptSaid_ = keep;
  // A back end of the current incarnation that is still connecting (a shadow's first pass)
  // is given until the timer's next expiry before it is mounted afresh.
  if (keep || (same && (table_.fullyAttached() || eventName != remountTimeout))) {
    table_.wake();
    settle(fenix);
    return;
  }
  if (failing_ && fenix == failedFenix_ && eventName != remountTimeout && timer_.armed()) {
    KIV_TRACE(dh_, 8, "ReaderMounter::notify() ", name_, " retrying on the timer");
    return;
  }
  attempt(fenix);
}

void ReaderMounter::attempt(std::uint32_t fenix) {
  if (fenix != failedFenix_) delay_ = firstRetry;  // another incarnation: start over
  ++attempts_;
  table_.remount();
  settle(fenix);
}

void ReaderMounter::settle(std::uint32_t fenix) {
  if (table_.fullyAttached()) {
    timer_.cancel();
    if (timeouts_ > 0) {
      KIV_TRACE(dh_, 3, "CANARY: ", name_, " ReaderMounter::timeout() remounted after ", timeouts_,
                " timeouts");
      timeouts_ = 0;
    }
    if (!said_.empty()) KIV_TRACE(dh_, 3, "ReaderMounter: ", name_, " mounted, no longer waiting");
    failing_ = false;
    delay_ = firstRetry;
    reason_.clear();
    said_.clear();
    return;
  }
  failing_ = true;
  failedFenix_ = fenix;
  std::string why = mountObstacle(name_, rootPath_, fenix);
  if (why.empty()) why = table_.attachFailure();
  if (why.empty()) why = "not attached to incarnation " + std::to_string(fenix);
  if (why != reason_) {
    reason_ = std::move(why);
    reasonSince_ = Kiv::Activity::now();
  }
  if (!timer_.armed()) {
    KIV_TRACE(dh_, 5, "QuarnMap::ReaderMounter::notify() arming remount timer ", delay_);
    timer_.armIn(delay_);
    delay_ = delay_ * 2 < longest() ? delay_ * 2 : longest();
  }
}

void ReaderMounter::timeout() {
  if (++timeouts_ == 1) {
    KIV_TRACE(dh_, 3, "ReaderMounter::timeout() start retrying to mount ", name_,
              ". This message can be safely ignored if the writer is not running.");
  }
  notify(remountTimeout);
  // Said once it has held for the longest retry delay: a writer creating its files, or an
  // incarnation being replaced, is not worth an error.
  if (!reason_.empty() && reason_ != said_ && Kiv::Activity::now() - reasonSince_ >= longest()) {
    KIV_TRACE(dh_, 0, "ReaderMounter: ", name_, " (", modeWord_, ") cannot mount: ", reason_);
    said_ = reason_;
  }
}

void ReaderMounter::handleDisconnect() {
  KIV_TRACE(dh_, 3, "ReaderMounter::handleDisconnect() ", name_);
  attempt(FenixFile::read(rootPath_));
}

}  // namespace Quarn
