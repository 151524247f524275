#pragma once
// A small key and record for engine tests, laid out like the real records (4-byte packed, key
// first), plus helpers shared by the engine test files.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <ostream>
#include <string>

#include "Jorv/Exception.h"
#include "Jorv/Platform.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "Quarn/IterHint.h"

namespace QuarnTest {

struct TestKey {
  std::uint32_t id = 0;
  // Keys with the same group collide into one bucket chain on purpose.
  std::uint32_t group = 0;
  std::uint32_t hash() const noexcept { return group * 2654435761u; }
  friend bool operator==(TestKey const&, TestKey const&) = default;
  friend bool operator<(TestKey const& a, TestKey const& b) {
    return a.group != b.group ? a.group < b.group : a.id < b.id;
  }
  friend std::ostream& operator<<(std::ostream& os, TestKey const& k) {
    return os << k.group << "/" << k.id;
  }
};

struct TestRecord {
  static constexpr char const* typeName = "QuarnTest::TestRecord";
  TestKey key;
  std::uint32_t value = 0;
  std::uint32_t extra[4] = {};
};

using TestWrapper = KivQuarn::KivQuarnMapValueWrapper<TestRecord, TestKey>;
static_assert(sizeof(TestWrapper) == 28);

// The debug handler every engine test hands its tables; trace captures name it too.
constexpr char const* testHandle = "QuarnTest";
inline Jorv::DebugHandler& dh() {
  return Jorv::Platform::getDebugHandler(testHandle);
}

// The message of the exception of type E that `f` raises; "no exception" when it returns.
template <class E = Jorv::Exception, class F>
std::string failure(F&& f) {
  try {
    f();
  } catch (E const& e) {
    return e.what();
  }
  return "no exception";
}

inline TestWrapper record(std::uint32_t group, std::uint32_t id, std::uint32_t value) {
  TestWrapper w;
  w.key = TestKey{id, group};
  w.value = value;
  return w;
}

// A private temporary root directory, removed with everything in it.
class TempRoot {
 public:
  TempRoot() {
    char pattern[] = "/dev/shm/quarn-test-XXXXXX";
    char* dir = ::mkdtemp(pattern);
    path_ = dir != nullptr ? dir : "";
  }
  ~TempRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempRoot(TempRoot const&) = delete;
  TempRoot& operator=(TempRoot const&) = delete;
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace QuarnTest

#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "Jorv/Trace.h"
#include "Quarn/WriterKick.h"

namespace QuarnTest {

// The bytes of a file, to check layouts at their offsets.
inline std::vector<unsigned char> fileBytes(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
template <class T = std::uint32_t>
T at(std::vector<unsigned char> const& bytes, std::size_t offset) {
  T v{};
  if (offset + sizeof v <= bytes.size()) std::memcpy(&v, bytes.data() + offset, sizeof v);
  return v;
}

// Collects trace lines of every handle while installed.
class TraceCapture : public Jorv::TraceSink {
 public:
  explicit TraceCapture(std::string const& handle, int level = 9) : handle_(handle) {
    Jorv::traceLevelIs(handle, level);
    previous_ = Jorv::traceSinkIs(this);
  }
  ~TraceCapture() override {
    Jorv::traceSinkIs(previous_);
    Jorv::traceLevelIs(handle_, -1);
  }
  void write(std::string_view handle, int level, std::string_view text) override {
    handles_.emplace_back(handle);
    lines_.emplace_back(text);
    levels_.push_back(level);
  }
  bool contains(std::string_view needle) const { return count(needle) > 0; }
  std::vector<std::string> const& lines() const { return lines_; }
  // The lines of the handle named `handle`, each led by its level: "<level> <text>".
  std::vector<std::string> leveledLines(std::string_view handle) const {
    std::vector<std::string> out;
    for (std::size_t i = 0; i < lines_.size(); ++i) {
      if (handles_[i] == handle) out.push_back(std::to_string(levels_[i]) + " " + lines_[i]);
    }
    return out;
  }
  void clear() {
    handles_.clear();
    lines_.clear();
    levels_.clear();
  }
  std::size_t count(std::string_view needle, int maxLevel = 9) const {
    std::size_t n = 0;
    for (std::size_t i = 0; i < lines_.size(); ++i) {
      n += levels_[i] <= maxLevel && lines_[i].find(needle) != std::string::npos;
    }
    return n;
  }
  // Lines at error level (0) holding `needle`.
  std::size_t errors(std::string_view needle) const { return count(needle, 0); }

 private:
  std::string handle_;
  Jorv::TraceSink* previous_;
  std::vector<std::string> handles_, lines_;
  std::vector<int> levels_;
};

// Readers as the writer sees them: the lowest acknowledged sequence and the number of wake-ups.
class TestKick final : public Quarn::WriterKick {
 public:
  void doKickSleepers(std::uint64_t) override { ++kicks; }
  std::uint64_t lowestSequence() const override { return lowest; }
  std::uint32_t numReaders() const override { return readers; }

  std::uint64_t lowest = noReaders;
  std::uint32_t readers = 0;
  std::uint64_t kicks = 0;
};

// Every entry of a table as key -> value, walked with the table's first and `next` (a callable
// (table, key, out, hint) -> bool); a key delivered twice fails the test.
template <class Table, class Next>
std::map<TestKey, std::uint32_t> tableContents(Table& table, Next next) {
  std::map<TestKey, std::uint32_t> out;
  TestWrapper w;
  Quarn::IterHint hint;
  for (bool more = table.first(0, w, hint); more; more = next(table, TestKey(w.key), w, hint)) {
    EXPECT_TRUE(out.emplace(w.key, w.value).second) << "key delivered twice";
  }
  return out;
}

}  // namespace QuarnTest
