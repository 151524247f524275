#pragma once
// ClearLog: the agent's record of the last clear request it began or finished, one line in a
// file of the run's root: "<count> started|done <key>", the key in its text form, padded with
// spaces to kRecordBytes.
//
// It must outlive a SIGKILL of the agent, and a record that cannot be trusted must stop the run:
// guessing would make a restarted agent act on a request twice or pass one over, and the
// reader would then differ from the agent without a word. It must also be writable while the
// file system is full (the tables' growth may have taken the last page), or the agent would
// stop for its own bookkeeping. So
//   - reserve() creates the file with its page allocated and a blank record (aside, then
//     renamed into place), once, while there is space: at the agent's start;
//   - write() overwrites the record in place with one write of kRecordBytes at offset 0, which
//     needs no new space; a write within one page is copied whole before a fatal signal is
//     acted on, so a SIGKILL leaves the old record or the new one, never a part;
//   - read() tells "no record" (no file, or the blank record of reserve()) from a record, and
//     throws, naming the path and what is wrong with it, when the file cannot be read or holds
//     anything else.
// A failure to reserve, open or write throws, naming the path and the cause. Failures are
// `Jorv::RuntimeException`.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>

#include "Bidir/ClearConfig.h"
#include "Jorv/Exception.h"
#include "Kiv/Exception.h"
#include "Kiv/Text.h"

namespace BidirAgent {

class ClearLog {
 public:
  struct Entry {
    std::uint8_t count = 0;  // ClearConfig::groupsCount of the request
    bool done = false;       // false: begun, perhaps cut off halfway
    Routing::Pim::Bidir::ClearConfig::GroupKey key;
  };

  static constexpr std::size_t kRecordBytes = 512;  // within one page

  explicit ClearLog(std::string path) : path_(std::move(path)) {}
  std::string const& path() const { return path_; }

  std::optional<Entry> read() const {
    std::error_code ec;
    if (!std::filesystem::exists(path_, ec) && !ec) return std::nullopt;
    errno = 0;
    std::ifstream in(path_);
    if (!in) fail("cannot be read", errnoText());
    std::string line, rest;
    std::getline(in, line);
    if (std::getline(in, rest) && !rest.empty()) fail("holds more than one record", line);
    bool const padded = !line.empty();
    line.erase(line.find_last_not_of(' ') + 1);
    if (padded && line.empty()) return std::nullopt;  // reserved, nothing recorded yet
    std::istringstream fields(line);
    unsigned count = 0;
    std::string state, key;
    if (!(fields >> count >> state) || count > 255 || (state != "started" && state != "done")) {
      fail("malformed record '" + line + "'", "expected \"<count 0..255> started|done <key>\"");
    }
    std::getline(fields >> std::ws, key);
    Entry entry;
    entry.count = std::uint8_t(count);
    entry.done = state == "done";
    try {
      entry.key = Kiv::strepToValue<Routing::Pim::Bidir::ClearConfig::GroupKey>(key);
    } catch (Kiv::RangeException const& e) {
      fail("malformed record '" + line + "'", e.what());
    }
    return entry;
  }

  // Creates the file with a blank record, its space allocated; does nothing when it exists.
  void reserve() const {
    std::error_code ec;
    if (std::filesystem::exists(path_, ec) || ec) return;  // an error: the next write says it
    std::string const aside = path_ + ".new";
    int const fd = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) fail("cannot be reserved at " + aside, std::strerror(errno));
    int const error = ::posix_fallocate(fd, 0, kRecordBytes);
    bool const written = error == 0 && writeRecord(fd, "");
    int const cause = error != 0 ? error : errno;
    ::close(fd);
    if (!written) fail("cannot be reserved at " + aside, std::strerror(cause));
    std::filesystem::rename(aside, path_, ec);
    if (ec) fail("cannot be reserved by renaming " + aside, ec.message());
  }

  // Overwrites the record in place (reserving the file first when it does not exist).
  void write(Entry const& entry) const {
    reserve();
    std::ostringstream text;
    text << unsigned(entry.count) << (entry.done ? " done " : " started ") << entry.key;
    if (text.str().size() >= kRecordBytes) fail("record too long", text.str());
    int const fd = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) fail("cannot be written", std::strerror(errno));
    bool const written = writeRecord(fd, text.str());
    int const cause = errno;
    ::close(fd);
    if (!written) fail("cannot be written", std::strerror(cause));
  }

 private:
  // `text` (shorter than a record) padded to one record, written at offset 0 in one call.
  static bool writeRecord(int fd, std::string text) {
    text.resize(kRecordBytes - 1, ' ');
    text += '\n';
    return ::pwrite(fd, text.data(), text.size(), 0) == ssize_t(text.size());
  }
  static std::string errnoText() { return errno != 0 ? std::strerror(errno) : "I/O error"; }
  [[noreturn]] void fail(std::string const& what, std::string const& cause) const {
    throw Jorv::RuntimeException("clear-request log " + path_ + ": " + what + ": " + cause);
  }

  std::string path_;
};

}  // namespace BidirAgent
