#pragma once
// Test helpers for code driven by an activity: run the loop until a condition holds or a
// deadline passes (never a fixed sleep).

#include <functional>

#include "Kiv/Activity.h"

namespace TestSupport {

// Runs `activity` until `done()` is true; false if `seconds` pass first.
inline bool runUntil(Kiv::Activity& activity, std::function<bool()> const& done,
                     double seconds = 10.0) {
  double const deadline = Kiv::Activity::now() + seconds;
  while (!done()) {
    double left = deadline - Kiv::Activity::now();
    if (left <= 0) return false;
    activity.runOnce(left < 0.05 ? left : 0.05);
  }
  return true;
}

}  // namespace TestSupport
