// libFuzzer targets of the text readers: arbitrary bytes are parsed; a text that is accepted must
// print, and its printed form must parse back to an equal value and print the same again. Any
// other exception than a refusal (Kiv::RangeException), a disagreement or a sanitizer report
// aborts the run.
//
// One source, one binary per reader: FUZZ_TARGET names the reader (see fuzzOne below). Targets
// that cover several readers pick one by the first byte of the input.

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "Bidir/ClearConfigColl.h"
#include "Bidir/ConfigColl.h"
#include "Bidir/GroupIntfKey.h"
#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Bidir/States.h"
#include "Kiv/EntityText.h"
#include "Kiv/Text.h"
#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"

namespace {

using Kiv::String8;
using namespace Routing::Pim::Bidir;
namespace Records = Routing::Pim::Bidir::Quarn;

[[noreturn]] void disagree(char const* what, String8 const& a, String8 const& b) {
  std::fprintf(stderr, "%s disagree:\n  %s\n  %s\n", what, a.c_str(), b.c_str());
  std::abort();
}

// Equal values; a value holding a NaN equals nothing, not even itself, and is compared by its
// printed text alone (checked by the caller for every value).
template <class T>
bool same(T const& a, T const& b) {
  if constexpr (std::is_same_v<T, double>) {
    return std::isnan(a) ? std::isnan(b) && std::signbit(a) == std::signbit(b)
                         : std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
  } else {
    return a == b || !(a == a);
  }
}

template <class T>
String8 print(T const& v) {
  using Kiv::valueToStrep;
  return valueToStrep(v);
}

// Parse, and on success print, parse the print and compare.
template <class T>
void roundTrip(String8 const& text) {
  std::optional<T> value;
  try {
    value = Kiv::strepToValue<T>(text);
  } catch (Kiv::RangeException const&) {
    return;
  }
  String8 const printed = print(*value);
  T again;
  try {
    again = Kiv::strepToValue<T>(printed);
  } catch (Kiv::RangeException const& e) {
    disagree("printed text refused", printed, e.message());
  }
  if (!same(again, *value)) disagree("value", text, printed);
  if (print(again) != printed) disagree("second print", printed, print(again));
}

// A consumed pattern, white space removed, is the pattern with its blanks removed, and the
// consumed text matches the pattern again on its own.
[[maybe_unused]] void needString(String8 const& input) {
  auto split = input.find('\0');
  if (split == String8::npos) return;
  String8 const pattern = input.substr(0, split), text = input.substr(split + 1);
  auto cursor = text.cbegin();
  try {
    Kiv::needString(cursor, text.cend(), pattern);
  } catch (Kiv::RangeException const&) {
    if (cursor != text.cbegin()) disagree("refusal moved the cursor", pattern, text);
    return;
  }
  String8 const consumed(std::string(text.cbegin(), cursor));
  auto strip = [](String8 s, bool blanksOnly) {
    String8 out;
    for (char c : s) {
      bool const blank =
          blanksOnly ? c == ' ' : std::string_view(" \t\n\r\v\f").find(c) != std::string_view::npos;
      if (!blank) out += c;
    }
    return out;
  };
  String8 const p = strip(pattern, true);
  String8 const c = strip(consumed, false);
  String8 const pNoWs = strip(p, false);
  if (pNoWs != c) disagree("consumed", pattern, consumed);
  auto again = consumed.cbegin();
  try {
    Kiv::needString(again, consumed.cend(), pattern);
  } catch (Kiv::RangeException const&) {
    disagree("consumed text refused", pattern, consumed);
  }
  if (again != consumed.cend()) disagree("consumed text partly", pattern, consumed);
}

// Entities whose references the entity target reads; "#0" to "#3" in the input stand for their
// addresses, so that the fuzzer reaches live ones.
struct Entities {
  Kiv::Ptr<ConfigColl> configColl = configCollFactory("config");
  Kiv::Ptr<ClearConfigColl> clearConfigColl = clearConfigCollFactory("clear");
  Kiv::Ptr<Config> config = configColl->vrfConfigIs("red");
  Kiv::Ptr<ClearConfig> clearConfig = clearConfigColl->vrfClearConfigIs("red");

  String8 substitute(String8 const& text) const {
    Kiv::Entity const* const all[] = {configColl.ptr(), clearConfigColl.ptr(), config.ptr(),
                                      clearConfig.ptr()};
    String8 out;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '#' && i + 1 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '3') {
        out += Kiv::format("%#zx", reinterpret_cast<std::uintptr_t>(all[text[++i] - '0']));
      } else {
        out += text[i];
      }
    }
    return out;
  }
};

void fuzzOne(String8 const& input) {
  unsigned const selector = input.empty() ? 0 : static_cast<unsigned char>(input[0]);
  String8 const rest(input.empty() ? std::string() : input.substr(1));
#if defined(FUZZ_MrouteClearFlags)
  (void)selector, (void)rest;
  roundTrip<MrouteClearFlags>(input);
#elif defined(FUZZ_GroupKey)
  (void)selector, (void)rest;
  roundTrip<ClearConfig::GroupKey>(input);
#elif defined(FUZZ_GroupIntfKey)
  (void)selector, (void)rest;
  roundTrip<GroupIntfKey>(input);
#elif defined(FUZZ_Records)
  if (selector % 2) {
    roundTrip<Records::Group>(rest);
  } else {
    roundTrip<Records::GroupIntf>(rest);
  }
#elif defined(FUZZ_JoinStates)
  if (selector % 2) {
    roundTrip<GroupStates::UpJoinState>(rest);
  } else {
    roundTrip<GroupIntfStates::JoinState>(rest);
  }
#elif defined(FUZZ_EntityRef)
  static Entities const entities;
  String8 const text = entities.substitute(rest);
  switch (selector % 4) {
    case 0:
      roundTrip<Kiv::Ptr<Config> >(text);
      break;
    case 1:
      roundTrip<Kiv::Ptr<ClearConfig const> >(text);
      break;
    case 2:
      roundTrip<Kiv::Ptr<ConfigColl> >(text);
      break;
    default:
      roundTrip<Kiv::Ptr<Kiv::Entity> >(text);
      break;
  }
#elif defined(FUZZ_KivReaders)
  switch (selector % 5) {
    case 0:
      needString(rest);
      break;
    case 1:
      roundTrip<String8>(rest);
      break;
    case 2:
      roundTrip<bool>(rest);
      break;
    case 3:
      roundTrip<std::int64_t>(rest);
      break;
    default:
      roundTrip<double>(rest);
      break;
  }
#elif defined(FUZZ_LanxReaders)
  if (selector % 2) {
    roundTrip<Lanx::IpGenAddr>(rest);
  } else {
    roundTrip<Lanx::IntfId>(rest);
  }
#else
#error "FUZZ_<target> names the reader to fuzz"
#endif
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  fuzzOne(String8(reinterpret_cast<char const*>(data), size));
  return 0;
}
