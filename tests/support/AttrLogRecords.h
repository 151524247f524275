#pragma once
// Hand-built attribute-log records, in the layout that Kiv/NboAttrLogWire.h describes, for tests
// that play a peer: bad records, or a peer that writes what it may not.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace TestSupport {

struct AttrLogRecords {
  std::vector<std::uint8_t> b;
  AttrLogRecords& u8(std::uint8_t v) {
    b.push_back(v);
    return *this;
  }
  AttrLogRecords& u32(std::uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(std::uint8_t(v >> s));
    return *this;
  }
  AttrLogRecords& str(std::string const& s) {
    u32(std::uint32_t(s.size()));
    b.insert(b.end(), s.begin(), s.end());
    return *this;
  }
  // flags 1: body between tokens 1 and 3; flags 2 (transaction marker): body as given.
  AttrLogRecords& record(std::int32_t attr, std::uint32_t id, std::uint32_t parent,
                         std::function<void(AttrLogRecords&)> const& body,
                         std::uint8_t flags = 1) {
    AttrLogRecords inner;
    if (flags == 1) inner.u8(1);
    body(inner);
    if (flags == 1) inner.u8(3);
    u32(std::uint32_t(inner.b.size())).u32(std::uint32_t(attr)).u32(id).u32(parent).u8(flags);
    u8(0).u8(0).u8(0);
    b.insert(b.end(), inner.b.begin(), inner.b.end());
    return *this;
  }
  AttrLogRecords& create(std::string const& type, std::string const& arg, std::uint32_t id) {
    return record(136, id, 0, [&](AttrLogRecords& x) {
      x.u8(2).u8(1).str(type).u8(2).u8(3).str(arg).u8(2).u8(4).u32(id);
    });
  }
  AttrLogRecords& marker(std::int32_t attr, std::uint32_t id, std::uint8_t token) {
    return record(attr, id, 0, [&](AttrLogRecords& x) { x.u8(token).u32(0); }, 2);
  }
  AttrLogRecords& syncMode(std::uint32_t mode) {
    return record(135, 0, 0, [&](AttrLogRecords& x) { x.u32(mode); });
  }
};

}  // namespace TestSupport
