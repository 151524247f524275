#pragma once
// ClearLog: the agent's record of the last clear request it began or finished, one line in a
// file of the run's root: "<count> started|done <key>", the key in its text form.
//
// It must outlive a SIGKILL of the agent, and a record that cannot be trusted must stop the run:
// guessing would make a restarted agent act on a request twice or pass one over, and the
// reader would then differ from the agent without a word. So
//   - read() tells "no record" (a first start) from a record, and throws, naming the path and
//     what is wrong with it, when the file exists but cannot be read or holds anything else;
//   - write() writes the new record aside and renames it over the old one, so a SIGKILL leaves
//     the old record or the new one, never a part; a failed write or rename throws, naming the
//     path and the cause.
// Failures are `Jorv::RuntimeException`.

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

  void write(Entry const& entry) const {
    std::string const aside = path_ + ".new";
    {
      errno = 0;
      std::ofstream out(aside, std::ios::trunc);
      if (out)
        out << unsigned(entry.count) << (entry.done ? " done " : " started ") << entry.key << '\n';
      if (out) out.close();
      if (!out) fail("cannot be written at " + aside, errnoText());
    }
    std::error_code ec;
    std::filesystem::rename(aside, path_, ec);
    if (ec) fail("cannot be replaced by " + aside, ec.message());
  }

 private:
  static std::string errnoText() { return errno != 0 ? std::strerror(errno) : "I/O error"; }
  [[noreturn]] void fail(std::string const& what, std::string const& cause) const {
    throw Jorv::RuntimeException("clear-request log " + path_ + ": " + what + ": " + cause);
  }

  std::string path_;
};

}  // namespace BidirAgent
