#include "Json.h"

#include <charconv>
#include <cmath>

namespace Quarnctl::Json {
namespace {

// Length of the valid UTF-8 sequence at text[i], or 0 when none starts there (overlong forms,
// surrogates and code points above U+10FFFF are not valid).
std::size_t utf8Length(std::string_view text, std::size_t i) {
  auto const b = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
  auto const cont = [&](std::size_t k) { return i + k < text.size() && (b(k) & 0xC0) == 0x80; };
  unsigned char const c = b(0);
  if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
  if (c >= 0xE0 && c <= 0xEF) {
    if (!cont(1) || !cont(2)) return 0;
    if ((c == 0xE0 && b(1) < 0xA0) || (c == 0xED && b(1) > 0x9F)) return 0;
    return 3;
  }
  if (c >= 0xF0 && c <= 0xF4) {
    if (!cont(1) || !cont(2) || !cont(3)) return 0;
    if ((c == 0xF0 && b(1) < 0x90) || (c == 0xF4 && b(1) > 0x8F)) return 0;
    return 4;
  }
  return 0;
}

void appendEscape(std::string& out, unsigned char c) {
  static constexpr char hex[] = "0123456789abcdef";
  out += "\\u00";
  out += hex[c >> 4];
  out += hex[c & 0xF];
}

// Bytes that a JSON string holds as they are: printable ASCII other than '"' and '\\'.
constexpr bool plainByte(unsigned char c) {
  return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
}

}  // namespace

void appendString(std::string& out, std::string_view text) {
  out += '"';
  for (std::size_t i = 0; i < text.size();) {
    std::size_t run = i;
    while (run < text.size() && plainByte(static_cast<unsigned char>(text[run]))) ++run;
    out.append(text.data() + i, run - i);  // the common case: the whole text at once
    if ((i = run) == text.size()) break;
    auto const c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      std::size_t const n = utf8Length(text, i);
      if (n == 0) {
        appendEscape(out, c);
        ++i;
      } else {
        out.append(text.substr(i, n));
        i += n;
      }
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          appendEscape(out, c);
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  out += '"';
}

void Writer::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (first_.empty()) return;
  if (!first_.back()) out_ += ',';
  first_.back() = false;
}

Writer& Writer::beginObject() {
  separate();
  out_ += '{';
  first_.push_back(true);
  return *this;
}

Writer& Writer::endObject() {
  out_ += '}';
  first_.pop_back();
  return *this;
}

Writer& Writer::beginArray() {
  separate();
  out_ += '[';
  first_.push_back(true);
  return *this;
}

Writer& Writer::endArray() {
  out_ += ']';
  first_.pop_back();
  return *this;
}

Writer& Writer::key(std::string_view name) {
  separate();
  appendString(out_, name);
  out_ += ':';
  afterKey_ = true;
  return *this;
}

Writer& Writer::string(std::string_view text) {
  separate();
  appendString(out_, text);
  return *this;
}

Writer& Writer::boolean(bool v) {
  separate();
  out_ += v ? "true" : "false";
  return *this;
}

Writer& Writer::null() {
  separate();
  out_ += "null";
  return *this;
}

Writer& Writer::number(double v) {
  if (!std::isfinite(v)) return null();
  separate();
  char buf[32];
  auto const r = std::to_chars(buf, buf + sizeof buf, v);
  out_.append(buf, r.ptr);
  return *this;
}

}  // namespace Quarnctl::Json
