#pragma once
// Kiv::NboAttrLog wire format: the records of the attribute log, their limits, the bounded reader
// of a record's body (Cursor) and the codecs of the built-in types.
//
// The stream is a sequence of records, each a MsgHeader (20 bytes) followed by `length` bytes of
// body:
//
//   u32 length | i32 attributeId | u32 entityId | u32 parentId | u8 flags | 3 bytes zero
//
// `entityId` and `parentId` are the entity's two channel identifiers: its own, and that of the
// entity whose collection holds it (0 for a root). Identifiers are allocated by the writing side
// of a connection, from 1 up, and announced in the stream before use: a root by a creation record,
// a collection member by its collection's member record. They are valid for one connection only.
//
// flags 1 (record): body = token 1 (begin), payload, token 3 (end). The payload is
//   attributeId 136  creation: section 1 the type name (string), section 3 the construction
//                    argument (string), section 4 the new entity identifier (u32); each section
//                    is token 2 and the section number (u8) before its value
//   attributeId 135  sync mode (u32): 1 the full state follows, 2 the full state has been sent
//   attributeId >0   the attribute's value in its wire encoding (nboWrite/nboRead below); for a
//                    collection, the member's key then the member's new entity identifier
//   attributeId <0   deletion of the member of collection -attributeId whose key follows
// flags 2 (transaction marker): body = token 1 or 3 and a u32 count. Records between a begin and
//   its end (markers nest) are applied together when the outermost end arrives, never partly.
//
// Values: unsigned integers big-endian; Boolean one byte 0 or 1; strings a u32 byte count and the
// bytes. Every length and identifier read is checked against the record and the connection's
// bindings before use; a record that fails the checks is an error of the connection (see In).

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Kiv/String8.h"

namespace Kiv::NboAttrLog {

inline constexpr std::uint8_t tokenBegin = 1;
inline constexpr std::uint8_t tokenSection = 2;
inline constexpr std::uint8_t tokenEnd = 3;
inline constexpr std::int32_t syncModeId = 135;
inline constexpr std::int32_t createId = 136;
inline constexpr std::uint8_t flagRecord = 1;
inline constexpr std::uint8_t flagTransaction = 2;
inline constexpr std::uint32_t syncModeFull = 1;
inline constexpr std::uint32_t syncModeDone = 2;
inline constexpr std::uint32_t kMaxRecordBytes = 4096;        // body of one record
inline constexpr std::uint32_t kMaxEntityId = 1u << 24;       // identifiers 1..kMaxEntityId
inline constexpr unsigned kMaxTransactionDepth = 16;

struct MsgHeader {
  static constexpr std::size_t wireSize = 20;
  std::uint32_t length = 0;
  std::int32_t attributeId = 0;
  std::uint32_t entityId = 0;
  std::uint32_t parentId = 0;
  std::uint8_t flags = 0;
};

// Big-endian 32-bit word at `p` (the header's and the values' layout).
inline std::uint32_t load32(std::uint8_t const* p) noexcept {
  return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}

// Raises AttrLogRecordException with `what`: the error of a record that cannot be read.
[[noreturn]] void recordError(std::string const& what);

class Out;

// Bounded reader of one record's body. Every read past the end raises AttrLogRecordException
// "truncated record".
class Cursor {
 public:
  explicit Cursor(std::span<std::uint8_t const> bytes)
      : p_(bytes.data()), end_(p_ + bytes.size()) {}
  std::uint8_t u8();
  std::uint16_t u16();
  std::uint32_t u32();
  std::string_view bytes(std::size_t n);
  std::uint8_t const* position() const noexcept { return p_; }
  String8 string();
  // Reads one byte and raises "bad token" unless it is `token`.
  void token(std::uint8_t token);
  void section(std::uint8_t section);
  std::size_t left() const noexcept { return std::size_t(end_ - p_); }
  void expectEnd() const;  // raises "trailing bytes in record" unless all was read

 private:
  std::uint8_t const* p_;
  std::uint8_t const* end_;
};

// Codecs of the built-in types; value types add `nboWrite(Out&, T const&)` and
// `nboRead(Cursor&, T const* tag)` beside themselves (found by argument-dependent lookup).
void nboWrite(Out& out, bool v);
void nboWrite(Out& out, std::uint8_t v);
void nboWrite(Out& out, std::uint16_t v);
void nboWrite(Out& out, std::uint32_t v);
void nboWrite(Out& out, std::string_view v);
bool nboRead(Cursor& in, bool const*);
std::uint8_t nboRead(Cursor& in, std::uint8_t const*);
std::uint16_t nboRead(Cursor& in, std::uint16_t const*);
std::uint32_t nboRead(Cursor& in, std::uint32_t const*);
String8 nboRead(Cursor& in, String8 const*);

}  // namespace Kiv::NboAttrLog
