#pragma once
// MrouteClearFlags: what a clear request covers, one 32-bit word of which only bits 0 (clearAll:
// every group of the VRF) and 1 (clearGroup: the one group named beside it) are defined.
//
// Every source that hands over a raw word checks it (constructor, valueIs, text, the word inside
// a ClearConfig::GroupKey): a word above 3 is refused with Kiv::RangeException
// "MrouteClearFlags::value > 0x3 not allowed" and nothing is stored. The one exception is
// fromWordUnchecked, the reader of a lone word from the attribute log, which keeps whatever it is
// given; the two published constants are built with it too.
//
// Comparisons look at the whole word as an unsigned number. There is deliberately no operator<:
// flags are not a key; operator> is the negation of operator<=.
//
// Text: Value('Routing::Pim::Bidir::MrouteClearFlags', ** {'clearAll': False, 'clearGroup': True,
// 'value': 2}). Reading sets or clears one bit per Boolean, replaces the word with the low 32 bits
// of 'value' (read as a signed 64-bit integer), in the order the attributes come, and checks the
// word once, after the closing parenthesis.

#include <cstdint>
#include <iosfwd>
#include <tuple>

#include "Kiv/Attribute.h"
#include "Kiv/String8.h"

namespace Kiv::NboAttrLog {
class Out;
class Cursor;
}  // namespace Kiv::NboAttrLog

namespace Routing::Pim::Bidir {

class MrouteClearFlags {
 public:
  static constexpr char const* typeName = "Routing::Pim::Bidir::MrouteClearFlags";
  static constexpr std::uint32_t clearAllBit = 0x1;
  static constexpr std::uint32_t clearGroupBit = 0x2;
  static constexpr std::uint32_t maxValue = clearAllBit | clearGroupBit;

  // The two single-bit values, published to introspection as constants of this type.
  static MrouteClearFlags const clearAll_;
  static MrouteClearFlags const clearGroup_;

  constexpr MrouteClearFlags() = default;
  explicit MrouteClearFlags(std::uint32_t value) { valueIs(value); }
  // Reads one value at the cursor and leaves the cursor behind it.
  MrouteClearFlags(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end);
  // The attribute-log reader of a lone word: unchecked, on purpose.
  static constexpr MrouteClearFlags fromWordUnchecked(std::uint32_t word) noexcept {
    MrouteClearFlags f;
    f.word_ = word;
    return f;
  }

  std::uint32_t value() const noexcept { return word_; }
  void valueIs(std::uint32_t value);
  bool clearAll() const noexcept { return word_ & clearAllBit; }
  void clearAllIs(bool v) noexcept { bitIs(clearAllBit, v); }
  bool clearGroup() const noexcept { return word_ & clearGroupBit; }
  void clearGroupIs(bool v) noexcept { bitIs(clearGroupBit, v); }

  bool operator==(MrouteClearFlags const& o) const noexcept { return word_ == o.word_; }
  bool operator!=(MrouteClearFlags const& o) const noexcept { return word_ != o.word_; }
  bool operator<=(MrouteClearFlags const& o) const noexcept { return word_ <= o.word_; }
  bool operator>(MrouteClearFlags const& o) const noexcept { return !(*this <= o); }
  bool operator>=(MrouteClearFlags const& o) const noexcept { return word_ >= o.word_; }
  bool operator!() const noexcept { return word_ == 0; }

  static constexpr auto attributes() {
    return std::tuple{
        Kiv::property<&MrouteClearFlags::clearAll, &MrouteClearFlags::clearAllIs>("clearAll", 2,
                                                                                  "Bool"),
        Kiv::property<&MrouteClearFlags::clearGroup, &MrouteClearFlags::clearGroupIs>("clearGroup",
                                                                                      3, "Bool"),
        Kiv::property<&MrouteClearFlags::value, &MrouteClearFlags::valueFromText>("value", 4,
                                                                                  "U32"),
    };
  }

  static Kiv::TypeDescriptor const& _fwkType();

  // Throws the range error unless `value` is at most maxValue.
  static void checkValue(std::uint32_t value);

 private:
  void bitIs(std::uint32_t bit, bool v) noexcept { word_ = v ? word_ | bit : word_ & ~bit; }
  // Text keeps the low 32 bits of the integer read; the word is checked once the value is read.
  void valueFromText(std::int64_t v) noexcept { word_ = static_cast<std::uint32_t>(v); }

  std::uint32_t word_ = 0;
};

inline constexpr MrouteClearFlags MrouteClearFlags::clearAll_ =
    MrouteClearFlags::fromWordUnchecked(MrouteClearFlags::clearAllBit);
inline constexpr MrouteClearFlags MrouteClearFlags::clearGroup_ =
    MrouteClearFlags::fromWordUnchecked(MrouteClearFlags::clearGroupBit);

Kiv::String8 valueToStrep(MrouteClearFlags const& v);
std::ostream& operator<<(std::ostream& os, MrouteClearFlags const& v);

// Attribute-log form: the word as u32, read back unchecked (fromWordUnchecked).
void nboWrite(Kiv::NboAttrLog::Out& out, MrouteClearFlags const& v);
MrouteClearFlags nboRead(Kiv::NboAttrLog::Cursor& in, MrouteClearFlags const*);

}  // namespace Routing::Pim::Bidir
