#pragma once
// A private table root for one test: the engine's default root directory ($QUARN_ROOT) points at
// a fresh temporary directory while the object lives, so tables built with the defaults (as an
// entity's bound tables are) and child processes, which inherit the environment, use it.

#include <cstdlib>
#include <string>

#include "Quarn/TestRecord.h"

namespace TestSupport {

class QuarnRoot {
 public:
  QuarnRoot() { ::setenv("QUARN_ROOT", tmp_.path().c_str(), 1); }
  ~QuarnRoot() { ::unsetenv("QUARN_ROOT"); }
  QuarnRoot(QuarnRoot const&) = delete;
  QuarnRoot& operator=(QuarnRoot const&) = delete;
  std::string const& path() const { return tmp_.path(); }
  std::string table(std::string const& name) const { return tmp_.path() + "/" + name; }

 private:
  QuarnTest::TempRoot tmp_;
};

}  // namespace TestSupport
