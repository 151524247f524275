#include "Kiv/NboAttrLogWire.h"

#include "Kiv/Exception.h"
#include "Kiv/NboAttrLogOut.h"

namespace Kiv::NboAttrLog {

void recordError(std::string const& what) {
  throw AttrLogRecordException(what);
}

std::uint8_t Cursor::u8() {
  if (p_ == end_) recordError("truncated record");
  return *p_++;
}
std::uint16_t Cursor::u16() {
  if (left() < 2) recordError("truncated record");
  std::uint16_t v = std::uint16_t(p_[0] << 8 | p_[1]);
  p_ += 2;
  return v;
}
std::uint32_t Cursor::u32() {
  if (left() < 4) recordError("truncated record");
  std::uint32_t v = load32(p_);
  p_ += 4;
  return v;
}
std::string_view Cursor::bytes(std::size_t n) {
  if (left() < n) recordError("truncated record");
  std::string_view v(reinterpret_cast<char const*>(p_), n);
  p_ += n;
  return v;
}
String8 Cursor::string() {
  std::uint32_t n = u32();
  return String8(bytes(n));
}
void Cursor::token(std::uint8_t t) {
  if (u8() != t) recordError("bad token, expected " + std::to_string(t));
}
void Cursor::section(std::uint8_t s) {
  token(tokenSection);
  if (u8() != s) recordError("bad section, expected " + std::to_string(s));
}
void Cursor::expectEnd() const {
  if (p_ != end_) recordError("trailing bytes in record");
}

void nboWrite(Out& out, bool v) {
  out.put8(v ? 1 : 0);
}
void nboWrite(Out& out, std::uint8_t v) {
  out.put8(v);
}
void nboWrite(Out& out, std::uint16_t v) {
  out.put16(v);
}
void nboWrite(Out& out, std::uint32_t v) {
  out.put32(v);
}
void nboWrite(Out& out, std::string_view v) {
  out.put32(std::uint32_t(v.size()));
  out.putBytes(v);
}
bool nboRead(Cursor& in, bool const*) {
  std::uint8_t v = in.u8();
  if (v > 1) recordError("bad Boolean " + std::to_string(v));
  return v == 1;
}
std::uint8_t nboRead(Cursor& in, std::uint8_t const*) {
  return in.u8();
}
std::uint16_t nboRead(Cursor& in, std::uint16_t const*) {
  return in.u16();
}
std::uint32_t nboRead(Cursor& in, std::uint32_t const*) {
  return in.u32();
}
String8 nboRead(Cursor& in, String8 const*) {
  return in.string();
}

}  // namespace Kiv::NboAttrLog
