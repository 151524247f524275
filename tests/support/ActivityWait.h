#pragma once
// Test helpers for code driven by an activity: run the loop until a condition holds or a
// deadline passes (never a fixed sleep), and a private temporary root directory.

#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

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

// A fresh directory under TMPDIR (or /tmp), removed with everything in it on destruction.
class TempRoot {
 public:
  TempRoot() {
    std::string pattern = (std::filesystem::temp_directory_path() / "bidirpim-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempRoot(TempRoot const&) = delete;
  TempRoot& operator=(TempRoot const&) = delete;

  std::string const& path() const { return path_; }
  std::string operator/(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace TestSupport
