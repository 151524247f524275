#include "Lanx/IpGenAddr.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <optional>
#include <ostream>

#include "Lanx/Text.h"

namespace Lanx {

namespace {

// Dotted quad: exactly four decimal fields 0..255, no leading zeros (they read as octal to some
// tools, so they are refused rather than guessed).
bool parseIpv4(std::string_view text, std::uint8_t* out) noexcept {
  for (int i = 0; i < 4; ++i) {
    auto dot = text.find('.');
    std::string_view field = i < 3 ? text.substr(0, dot) : text;
    if (i < 3 && dot == std::string_view::npos) return false;
    unsigned long v;
    if (!Text::parseDecimal(field, 3, v) || v > 255) return false;
    if (field.size() > 1 && field[0] == '0') return false;
    out[i] = static_cast<std::uint8_t>(v);
    if (i < 3) text.remove_prefix(dot + 1);
  }
  return true;
}

int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// RFC 4291 text: up to eight groups of 1..4 hex digits, at most one "::", an optional dotted-quad
// tail standing for the last two groups.
bool parseIpv6(std::string_view text, std::uint8_t* out) noexcept {
  std::uint16_t groups[8] = {};
  int count = 0;
  int gap = -1;  // index in `groups` where "::" stands
  if (text.starts_with("::")) {
    gap = 0;
    text.remove_prefix(2);
    if (text.empty()) {
      std::fill(out, out + 16, 0);
      return true;
    }
  } else if (text.starts_with(":")) {
    return false;
  }
  while (true) {
    if (count == 8) return false;
    auto colon = text.find(':');
    std::string_view field = text.substr(0, colon);
    if (colon == std::string_view::npos && field.find('.') != std::string_view::npos) {
      if (count > 6) return false;
      std::uint8_t v4[4];
      if (!parseIpv4(field, v4)) return false;
      groups[count++] = static_cast<std::uint16_t>((v4[0] << 8) | v4[1]);
      groups[count++] = static_cast<std::uint16_t>((v4[2] << 8) | v4[3]);
      break;
    }
    if (field.empty() || field.size() > 4) return false;
    unsigned v = 0;
    for (char c : field) {
      int d = hexDigit(c);
      if (d < 0) return false;
      v = v * 16 + static_cast<unsigned>(d);
    }
    groups[count++] = static_cast<std::uint16_t>(v);
    if (colon == std::string_view::npos) break;
    text.remove_prefix(colon + 1);
    if (text.starts_with(":")) {
      if (gap >= 0) return false;
      gap = count;
      text.remove_prefix(1);
      if (text.empty()) break;
    } else if (text.empty()) {
      return false;
    }
  }
  if (gap < 0 && count != 8) return false;
  if (gap >= 0 && count == 8) return false;  // "::" must stand for at least one group
  std::uint16_t full[8] = {};
  int tail = gap < 0 ? 0 : count - gap;
  int head = count - tail;
  for (int i = 0; i < head; ++i) full[i] = groups[i];
  for (int i = 0; i < tail; ++i) full[8 - tail + i] = groups[head + i];
  for (int i = 0; i < 8; ++i) {
    out[2 * i] = static_cast<std::uint8_t>(full[i] >> 8);
    out[2 * i + 1] = static_cast<std::uint8_t>(full[i] & 0xff);
  }
  return true;
}

std::string ipv4Text(std::uint8_t const* b) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  return buf;
}

// RFC 5952: lower-case hex without leading zeros, the longest run (>= 2) of zero groups
// compressed to "::" (the first such run on a tie), and IPv4-mapped addresses with a dotted tail.
std::string ipv6Text(std::uint8_t const* b) {
  std::uint16_t g[8];
  for (int i = 0; i < 8; ++i) g[i] = static_cast<std::uint16_t>((b[2 * i] << 8) | b[2 * i + 1]);
  bool mapped = g[0] == 0 && g[1] == 0 && g[2] == 0 && g[3] == 0 && g[4] == 0 && g[5] == 0xffff;
  int groupsShown = mapped ? 6 : 8;
  int bestStart = -1, bestLen = 1;
  for (int i = 0; i < groupsShown;) {
    if (g[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < groupsShown && g[j] == 0) ++j;
    if (j - i > bestLen) bestStart = i, bestLen = j - i;
    i = j;
  }
  std::string out;
  char buf[8];
  for (int i = 0; i < groupsShown; ++i) {
    if (i == bestStart) {
      out += "::";
      i += bestLen - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') out += ':';
    std::snprintf(buf, sizeof buf, "%x", g[i]);
    out += buf;
  }
  if (mapped) {
    if (out.back() != ':') out += ':';
    out += ipv4Text(b + 12);
  }
  return out;
}

}  // namespace

IpGenAddr IpGenAddr::ipv4Addr(std::uint32_t hostOrder) noexcept {
  IpGenAddr a;
  a.family_ = ipv4;
  for (int i = 0; i < 4; ++i) a.bytes_[i] = static_cast<std::uint8_t>(hostOrder >> (24 - 8 * i));
  return a;
}

IpGenAddr IpGenAddr::ipv6Addr(std::array<std::uint8_t, 16> const& bytes) noexcept {
  IpGenAddr a;
  a.family_ = ipv6;
  a.bytes_ = bytes;
  return a;
}

IpGenAddr::IpGenAddr(Ip6Addr const& addr) noexcept : family_(ipv6), bytes_(addr.bytes()) {}

IpGenAddr::IpGenAddr(std::string_view text) {
  if (text.empty()) return;
  if (text.find(':') != std::string_view::npos) {
    if (!parseIpv6(text, bytes_.data())) Text::throwBadText("invalid IPv6 address", text);
    family_ = ipv6;
  } else {
    if (!parseIpv4(text, bytes_.data())) Text::throwBadText("invalid IPv4 address", text);
    family_ = ipv4;
  }
}

IpGenAddr IpGenAddr::unspecified(Family family) noexcept {
  IpGenAddr a;
  if (family == ipv4 || family == ipv6) a.family_ = family;
  return a;
}

std::uint32_t IpGenAddr::ipv4HostOrder() const noexcept {
  if (family_ != ipv4) return 0;
  return (std::uint32_t{bytes_[0]} << 24) | (std::uint32_t{bytes_[1]} << 16) |
         (std::uint32_t{bytes_[2]} << 8) | std::uint32_t{bytes_[3]};
}

std::string IpGenAddr::toString() const {
  switch (family_) {
    case ipv4:
      return ipv4Text(bytes_.data());
    case ipv6:
      return ipv6Text(bytes_.data());
    case unset:
      return {};
  }
  // A foreign family word (only from a corrupt record): show it rather than guess.
  return "family" + std::to_string(family_) + "?";
}

std::ostream& operator<<(std::ostream& os, IpGenAddr const& addr) {
  return os << addr.toString();
}

IpGenAddr sequenceToValue(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end,
                          IpGenAddr const*) {
  auto token = Text::readToken(cursor, end, [](char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) || c == '.' || c == ':';
  });
  return IpGenAddr(token);
}

}  // namespace Lanx
