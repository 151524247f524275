#include "Quarn/QuarnShadow.h"

namespace Quarn {

Syncer::Syncer(Jorv::DebugHandler& dh, Hooks hooks, Kiv::Activity& activity)
    : dh_(dh), hooks_(std::move(hooks)), timer_([this] { timeout(); }, activity) {}

void Syncer::sync(std::uint32_t numSlots, bool resync) {
  timer_.cancel();
  numSlots_ = numSlots;
  resync_ = resync;
  current_ = 0;
  slices_ = 0;
  active_ = true;
  doSync();
}

void Syncer::stop() {
  timer_.cancel();
  if (active_ && !resync_) {
    KIV_TRACE(dh_, 3, "Syncer::doSync() Interrupted shadow initialization, synced ", current_,
              " of ", numSlots_, " slots");
  }
  active_ = false;
}

void Syncer::timeout() {
  if (!active_) {
    KIV_TRACE(dh_, 1, "Syncer unexpectedly stopped syncing");
    return;
  }
  doSync();
}

void Syncer::notifying(bool on) {
  KIV_TRACE(dh_, 5, "Syncer::notifying() notifying: ", on);
  bool const resume = on && !notifying_;
  notifying_ = on;
  if (resume && active_ && !timer_.armed()) doSync();
}

void Syncer::doSync() {
  if (!active_) return;
  if (!notifying_) {
    KIV_TRACE(dh_, 5, "Syncer::doSync() notifications temporarily disabled");
    return;
  }
  double const start = Kiv::Activity::now();
  ++slices_;
  KIV_TRACE(dh_, 5, "Syncer::doSync() Syncing, resync:", resync_, " sample:", sample_,
            " yieldTime:", yieldTime_, " currentSlot:", current_, " start:", start);
  std::uint32_t handled = 0;
  try {
    while (current_ < numSlots_) {
      hooks_.doSlot(current_, resync_);
      ++current_;
      if (!active_ || !notifying_) return;  // stopped or paused by the notifier
      if (yieldTime_ > 0 && ++handled >= sample_ && Kiv::Activity::now() - start > yieldTime_) {
        // Between slices the activity serves everything else that is ready.
        timer_.armIn(0);
        return;
      }
    }
  } catch (CorruptionDetectedException const& e) {
    KIV_TRACE(dh_, 1, "Syncer::doSync() corruption detected: ", e.what());
    stop();
    hooks_.corrupted(e.what());
    return;
  }
  active_ = false;
  hooks_.complete(resync_);
}

}  // namespace Quarn
