#include "Quarn/ReaderMounter.h"

#include "Quarn/Fenix.h"
#include "Quarn/Files.h"

namespace Quarn {

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
  timer_.armIn(interval_);
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
  if (eventName != "corruption-detected") {
    std::uint32_t const fenix = FenixFile::read(rootPath_);
    std::uint32_t const mounted = table_.mountedFenix();
    KIV_TRACE(dh_, 5, "QuarnMap::ReaderMounter::notify() eventName: ", eventName,
              " fenixId: ", fenix, " quarnMap.fenixId: ", mounted, " mode: ", modeWord_);
    bool const tableThere = Util::memSize(rootPath_ + "/slots") > 0;
    // The writer's files are there but do not say which incarnation they are: nobody can mount
    // them until the writer writes the fenix file again. A mounted table stays. Said when the
    // fenix file itself changed or the condition outlived a remount interval, not for the
    // moment a starting writer has created its files but not yet its fenix file.
    if (fenix == 0 && tableThere && (eventName == "fenix" || eventName == remountTimeout)) {
      KIV_TRACE(dh_, 0, "ReaderMounter::notify() fenix file of ", name_, " in ", rootPath_,
                " damaged or missing", table_.mounted() ? ", staying mounted" : ", cannot mount");
    }
    bool const same = table_.mounted() && fenix == mounted && fenix != 0;
    bool const keep = table_.mounted() && table_.fullyAttached() && fenix == 0 && tableThere &&
                      eventName != MounterSm::rootRemoved;
    // A back end of the current incarnation that is still connecting (a shadow's first pass)
    // is given until the timer's next expiry before it is mounted afresh.
    if (keep || (same && (table_.fullyAttached() || eventName != remountTimeout))) {
      table_.wake();
    } else {
      table_.remount();
    }
  }
  settle();
}

void ReaderMounter::settle() {
  if (table_.fullyAttached()) {
    timer_.cancel();
    if (timeouts_ > 0) {
      KIV_TRACE(dh_, 3, "CANARY: ", name_, " ReaderMounter::timeout() remounted after ", timeouts_,
                " timeouts");
      timeouts_ = 0;
    }
  } else if (!timer_.armed()) {
    KIV_TRACE(dh_, 5, "QuarnMap::ReaderMounter::notify() arming remount timer");
    timer_.armIn(interval_);
  }
}

void ReaderMounter::timeout() {
  if (++timeouts_ == 1) {
    KIV_TRACE(dh_, 3, "ReaderMounter::timeout() start retrying to mount ", name_,
              ". This message can be safely ignored if the writer is not running.");
  }
  notify(remountTimeout);
}

void ReaderMounter::handleDisconnect() {
  KIV_TRACE(dh_, 3, "ReaderMounter::handleDisconnect() ", name_);
  table_.remount();
  settle();
}

}  // namespace Quarn
