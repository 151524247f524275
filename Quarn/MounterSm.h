#pragma once
// Watches a table's root directory and tells its owner, by event name, when the files in it
// change, so that a reader can mount when the writer's files appear and remount when the writer
// starts a new incarnation, and a writer can react to a reader's corruption report.
//
// Events (delivered on the activity's thread, to the handler given at construction):
// - the name of a file of the root directory that was created, moved in, closed after writing,
//   deleted or moved away ("slots", "buckets", "fenix", "corruption-detected", ...). A file written by rename shows up
//   once under its final name (and once under its temporary name).
// - `rootWatched` ("root-watched"): the root directory exists and is watched from now on, so
//   every later change produces an event. Delivered once after construction if the directory
//   exists, and again whenever it appears (files may already be in it: re-read them).
// - `rootRemoved` ("root-removed"): the root directory was removed or moved away, or another
//   directory took its place. The kernel tells of a removed directory only once nothing refers to
//   it any more, and a reader's own mappings of the files that were in it do; so every event is
//   also checked against the identity (device, inode) of the directory the watch was placed on,
//   and a directory replaced under the watch is reported removed without waiting for the kernel.
//
// The root directory need not exist: the nearest existing ancestor is watched instead and the
// watch moves down as the missing directories appear. Everything is driven by inotify on the
// activity; nothing polls. The handler may destroy the MounterSm.

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "Kiv/Activity.h"
#include "Kiv/Timer.h"

namespace Quarn {

class MounterSm {
 public:
  using Handler = std::function<void(std::string const& eventName)>;
  static constexpr char const* rootWatched = "root-watched";
  static constexpr char const* rootRemoved = "root-removed";

  // Raises Jorv::RuntimeException when inotify is not available or `rootPath` is not absolute.
  MounterSm(std::string rootPath, Handler handler,
            Kiv::Activity& activity = Kiv::Activity::current());
  ~MounterSm();
  MounterSm(MounterSm const&) = delete;
  MounterSm& operator=(MounterSm const&) = delete;

  std::string const& rootPath() const noexcept { return rootPath_; }
  // True while the root directory itself (not an ancestor) is watched.
  bool watchingRoot() const noexcept { return watched_ == rootPath_; }
  // The directory currently watched: the root or its nearest existing ancestor.
  std::string const& watchedPath() const noexcept { return watched_; }

 private:
  void arm();
  // True when the path no longer names the directory the watch was placed on.
  bool rootReplaced() const;
  void handleReadable();
  // Calls the handler; false if the handler destroyed this object.
  bool deliver(std::string const& eventName);

  std::string rootPath_;
  Handler handler_;
  int inotifyFd_ = -1;
  int wd_ = -1;
  std::string watched_;
  // Identity of the watched root directory (meaningful while watchingRoot()).
  dev_t rootDev_ = 0;
  ino_t rootIno_ = 0;
  Kiv::FdWatch fdWatch_;
  Kiv::Timer initialEvent_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Quarn
