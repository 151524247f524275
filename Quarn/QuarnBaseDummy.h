#pragma once
// The placeholder back end of a reading table front before it has attached (or after it has
// detached): every operation is a no-op that traces "QuarnBaseDummy::" and its name at level 8
// and answers with an empty result, so lookups find nothing and iteration yields nothing.

#include "Jorv/Platform.h"
#include "Quarn/QuarnBase.h"

namespace Quarn {

template <class Key, class Wrapper>
class QuarnBaseDummy final : public QuarnBase<Key, Wrapper> {
 public:
  // `type` is the mode of the front that will later replace this placeholder.
  QuarnBaseDummy(Jorv::DebugHandler& dh, QuarnType type) : dh_(dh), type_(type) {}

  QuarnType type() const override {
    trace("type");
    return type_;
  }
  bool initialize() override {
    trace("initialize");
    return false;
  }
  void detach() override { trace("detach"); }
  bool fullyAttached() const override { return false; }
  std::uint32_t fenixId() const override { return 0; }
  Wrapper lookup(Key const&, bool& found) override {
    trace("lookup");
    found = false;
    return Wrapper{};
  }
  bool first(std::uint32_t, Wrapper&, IterHint&) override {
    trace("first");
    return false;
  }
  bool next(Key const&, Wrapper&, IterHint&) override {
    trace("next");
    return false;
  }
  std::uint32_t members() const override {
    trace("members");
    return 0;
  }
  std::uint32_t maxSize() const override {
    trace("maxSize");
    return 0;
  }
  std::uint32_t capacity() const override {
    trace("capacity");
    return 0;
  }
  std::string mountStatus() const override {
    trace("mountStatus");
    return {};
  }
  std::string readerCounters() const override {
    trace("readerCounters");
    return {};
  }
  std::string writerCounters() const override {
    trace("writerCounters");
    return {};
  }
  bool validate() override {
    trace("validate");
    return false;
  }
  bool validateFiles() override {
    trace("validateFiles");
    return false;
  }
  void cleanup() override { trace("cleanup"); }

 private:
  void trace(char const* op) const { KIV_TRACE(dh_, 8, "QuarnBaseDummy::", op); }

  Jorv::DebugHandler& dh_;
  QuarnType type_;
};

}  // namespace Quarn
