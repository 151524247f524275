#pragma once
// A minimal JSON reader for tests that check a program's JSON lines: one value per call, the
// whole text must be that value. Strict: anything that is not JSON throws std::runtime_error, so
// a test also catches output that a real consumer would refuse.

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TestSupport {

struct Json {
  enum Kind { null, boolean, number, string, array, object };
  Kind kind = null;
  bool b = false;
  double n = 0;
  std::string s;
  std::vector<Json> items;
  // An object's members in order: names[i] names values[i]. (Two vectors, not one of pairs: a
  // pair needs Json complete where a vector of Json does not.)
  std::vector<std::string> names;
  std::vector<Json> values;

  bool has(std::string_view key) const {
    for (auto const& name : names) {
      if (name == key) return true;
    }
    return false;
  }
  Json const& operator[](std::string_view key) const {
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (names[i] == key) return values[i];
    }
    throw std::runtime_error("no member " + std::string(key));
  }
};

class JsonReader {
 public:
  static Json parse(std::string_view text) {
    JsonReader r(text);
    Json v = r.value();
    r.blank();
    if (r.i_ != text.size()) r.fail("trailing text");
    return v;
  }

 private:
  explicit JsonReader(std::string_view t) : t_(t) {}

  [[noreturn]] void fail(char const* what) const {
    throw std::runtime_error(std::string("bad JSON (") + what + ") at " + std::to_string(i_) +
                             ": " + std::string(t_));
  }
  void blank() {
    while (i_ < t_.size() && (t_[i_] == ' ' || t_[i_] == '\t' || t_[i_] == '\n' || t_[i_] == '\r'))
      ++i_;
  }
  bool take(char c) {
    blank();
    if (i_ < t_.size() && t_[i_] == c) {
      ++i_;
      return true;
    }
    return false;
  }
  void need(char c) {
    if (!take(c)) fail("expected punctuation");
  }
  bool word(std::string_view w) {
    if (t_.substr(i_, w.size()) != w) return false;
    i_ += w.size();
    return true;
  }

  Json value() {
    blank();
    Json v;
    if (i_ >= t_.size()) fail("end of input");
    char const c = t_[i_];
    if (c == '{') {
      v.kind = Json::object;
      ++i_;
      if (take('}')) return v;
      do {
        blank();
        std::string key = str();
        need(':');
        v.names.push_back(std::move(key));
        v.values.push_back(value());
      } while (take(','));
      need('}');
    } else if (c == '[') {
      v.kind = Json::array;
      ++i_;
      if (take(']')) return v;
      do v.items.push_back(value());
      while (take(','));
      need(']');
    } else if (c == '"') {
      v.kind = Json::string;
      v.s = str();
    } else if (word("true") || word("false")) {
      v.kind = Json::boolean;
      v.b = t_[i_ - 1] == 'e' && t_[i_ - 2] == 'u';
    } else if (word("null")) {
      v.kind = Json::null;
    } else {
      v.kind = Json::number;
      std::string const rest(t_.substr(i_, 40));
      char* end = nullptr;
      v.n = std::strtod(rest.c_str(), &end);
      if (end == rest.c_str() || !(c == '-' || (c >= '0' && c <= '9'))) fail("not a value");
      i_ += std::size_t(end - rest.c_str());
    }
    return v;
  }

  std::string str() {
    if (i_ >= t_.size() || t_[i_] != '"') fail("expected a string");
    ++i_;
    std::string out;
    while (i_ < t_.size() && t_[i_] != '"') {
      auto const c = static_cast<unsigned char>(t_[i_++]);
      if (c < 0x20) fail("control character in a string");
      if (c != '\\') {
        out += char(c);
        continue;
      }
      if (i_ >= t_.size()) fail("end in an escape");
      char const e = t_[i_++];
      static constexpr std::string_view escaped = "\"\\/ntrbf", meant = "\"\\/\n\t\r\b\f";
      if (std::size_t const k = escaped.find(e); k != std::string_view::npos) {
        out += meant[k];
        continue;
      }
      if (e != 'u') fail("bad escape");
      if (i_ + 4 > t_.size()) fail("short \\u escape");
      unsigned long const cp = std::strtoul(std::string(t_.substr(i_, 4)).c_str(), nullptr, 16);
      i_ += 4;
      if (cp < 0x80) {
        out += char(cp);
      } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
      } else {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
      }
    }
    if (i_ >= t_.size()) fail("unterminated string");
    ++i_;
    return out;
  }

  std::string_view t_;
  std::size_t i_ = 0;
};

}  // namespace TestSupport
