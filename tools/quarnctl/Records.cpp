#include "Records.h"

#include <cstring>

#include "Bidir/Df/RpaRpf.h"
#include "Bidir/GroupIntfKey.h"
#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "KeyText.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "Lanx/IpGenAddr.h"
#include "Lanx/IpGenPrefix.h"
#include "Pim/RpHash.h"
#include "Quarn/QuarnReader.h"
#include "Quarn/QuarnWriter.h"
#include "RecordJson.h"
#include "WatchTable.h"

namespace Quarnctl {
namespace {

// One record type: the table record `Record` keyed by `Key`, stored as the engine stores it.
template <class Record, class Key>
class RecordKindOf final : public RecordKind {
 public:
  using Wrapper = KivQuarn::KivQuarnMapValueWrapper<Record, Key>;
  static_assert(sizeof(Wrapper) == sizeof(Record));

  std::string_view typeName() const override { return Record::typeName; }
  std::uint32_t size() const override { return sizeof(Wrapper); }

  std::string text(void const* bytes) const override { return valueToStrep(record(bytes)); }
  void json(Json::Writer& w, void const* bytes) const override { jsonValue(w, record(bytes)); }
  void keyJson(Json::Writer& w, void const* bytes) const override {
    jsonValue(w, record(bytes).key);
  }
  // Fields joined by commas, the form `keyMatcher` reads back.
  std::string keyText(void const* bytes) const override {
    Key const key = record(bytes).key;
    if constexpr (requires { Key::attributes(); }) {
      std::string out;
      std::apply(
          [&](auto const&... a) {
            auto one = [&](auto const& attr) {
              if constexpr (std::remove_cvref_t<decltype(attr)>::writable()) {
                out += (out.empty() ? "" : ",") + bareText(attr.get(key));
              }
            };
            (one(a), ...);
          },
          Key::attributes());
      return out;
    } else {
      return bareText(key);
    }
  }

  std::function<bool(void const*)> keyMatcher(std::string const& text,
                                              bool partial) const override {
    KeyPattern<Key> const p = parseKey<Key>(text, partial);
    return [p](void const* bytes) { return keyMatches(p, record(bytes).key); };
  }

  std::optional<std::string> lookup(std::string const& dir,
                                    std::string const& keyText) const override {
    KeyPattern<Key> const p = parseKey<Key>(keyText, false);
    Quarn::QuarnReader<Key, Wrapper> reader(Jorv::Platform::getDebugHandler("quarnctl"), dir);
    std::string error;
    if (!reader.initialize(0, error)) throw Failure(error);
    bool found = false;
    Wrapper w;
    try {
      w = reader.doLookup(p.key, found);
    } catch (Quarn::CorruptionDetectedException const& e) {
      throw Failure(std::string("corruption met in ") + dir + ": " + e.what());
    }
    if (!found) return std::nullopt;
    return std::string(reinterpret_cast<char const*>(&w), sizeof w);
  }

  CheckOutcome check(std::string const& root, std::string const& name,
                     std::uint32_t tableSize) const override {
    // A writer object over read-only mappings: the validator is the writer's own.
    Quarn::QuarnWriter<Key, Wrapper> table(Jorv::Platform::getDebugHandler("quarnctl"), name,
                                           tableSize == 0 ? 1 : tableSize, false,
                                           Jorv::typeName<Wrapper>(), nullptr, root);
    CheckOutcome out;
    if (!table.inspect(out.message)) throw Failure(out.message);
    out.valid = table.validate(out.message);
    return out;
  }

  int watch(Context& ctx, std::string const& name) const override {
    return TableWatch<Key, Wrapper>(ctx, *this, name).run();
  }

 private:
  static Wrapper record(void const* bytes) {
    Wrapper w;
    std::memcpy(static_cast<void*>(&w), bytes, sizeof w);
    return w;
  }
};

using Routing::Pim::Bidir::GroupIntfKey;
RecordKindOf<Routing::Pim::Bidir::Quarn::Group, Lanx::IpGenAddr> const groupKind;
RecordKindOf<Routing::Pim::Bidir::Quarn::GroupIntf, GroupIntfKey> const groupIntfKind;
RecordKindOf<Routing::Pim::RpHash, Lanx::IpGenPrefix> const rpHashKind;
RecordKindOf<Routing::Pim::Bidir::Df::Quarn::RpaRpf, Lanx::IpGenAddr> const rpaRpfKind;
RecordKind const* const kinds[] = {&groupKind, &groupIntfKind, &rpHashKind, &rpaRpfKind};

}  // namespace

RecordKind const* recordKind(std::string_view typeName, std::uint32_t size) {
  for (RecordKind const* k : kinds) {
    if (k->typeName() == typeName && k->size() == size) return k;
  }
  return nullptr;
}

std::string hexBytes(void const* bytes, std::size_t size) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * size);
  auto const* p = static_cast<unsigned char const*>(bytes);
  for (std::size_t i = 0; i < size; ++i) {
    out += digits[p[i] >> 4];
    out += digits[p[i] & 0xF];
  }
  return out;
}

}  // namespace Quarnctl
