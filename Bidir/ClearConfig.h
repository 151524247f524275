#pragma once
// ClearConfig: the clear requests of one VRF, a member of ClearConfigColl keyed by its `vrfName`.
//
// A request travels as state, not as a message. The requester first sets `groupKey` (what to
// clear: flags clearAll, or clearGroup with gAddr the group), then changes `groupsCount` to another
// value (the next one; the 8-bit counter wraps from 255 to 0, which is still a change); a clear of
// counters changes `countersCount` the same way (32-bit). The consumer's notifiee acts on
// onGroupsCount() by reading groupKey, and on onCountersCount(). It is the change of a counter
// that requests, never its value: setters notify only on a change, so setting a counter to the
// value it holds requests nothing, and a repeated key never loses a request.

#include <cstdint>
#include <iosfwd>
#include <tuple>

#include "Bidir/MrouteClearFlags.h"
#include "Kiv/Entity.h"
#include "Kiv/NboAttrLog.h"
#include "L3/VrfName.h"
#include "Lanx/IpGenAddr.h"

namespace Routing::Pim::Bidir {

class ClearConfig : public Kiv::Entity, public Kiv::NboAttrLog::AttrLogInterface<ClearConfig> {
 public:
  // What a group clear covers. Equal when flags and address are equal. The flags word arriving
  // with a key from the attribute log is checked (a lone MrouteClearFlags from the log is not).
  // Text: Value('Routing::Pim::Bidir::ClearConfig::GroupKey', ** {'flags': <flags text>,
  // 'gAddr': <address>}).
  class GroupKey {
   public:
    static constexpr char const* typeName = "Routing::Pim::Bidir::ClearConfig::GroupKey";

    GroupKey() = default;
    GroupKey(MrouteClearFlags flags, Lanx::IpGenAddr const& gAddr) : gAddr_(gAddr) {
      flagsIs(flags);
    }
    // From the attribute log: the raw flags word, checked, then the address.
    GroupKey(std::uint32_t flagsWord, Lanx::IpGenAddr const& gAddr)
        : GroupKey(MrouteClearFlags(flagsWord), gAddr) {}
    // Reads one key at the cursor and leaves the cursor behind it.
    GroupKey(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end);

    MrouteClearFlags flags() const noexcept { return flags_; }
    void flagsIs(MrouteClearFlags flags) {
      flagsDoEmbeddedWriteConstraints();
      flags_ = flags;
    }
    // The hook for constraints on writing the embedded flags; there are none today.
    void flagsDoEmbeddedWriteConstraints() const noexcept {}
    Lanx::IpGenAddr const& gAddr() const noexcept { return gAddr_; }
    void gAddrIs(Lanx::IpGenAddr const& gAddr) noexcept { gAddr_ = gAddr; }

    bool operator==(GroupKey const& o) const noexcept {
      return flags_ == o.flags_ && gAddr_ == o.gAddr_;
    }
    bool operator!=(GroupKey const& o) const noexcept { return !(*this == o); }
    static Kiv::TypeDescriptor const& _fwkType();

    static constexpr auto attributes() {
      return std::tuple{
          Kiv::property<&GroupKey::flags, &GroupKey::flagsIs>("flags", 2,
                                                              MrouteClearFlags::typeName),
          Kiv::property<&GroupKey::gAddr, &GroupKey::gAddrIs>("gAddr", 3, "Lanx::IpGenAddr"),
      };
    }

   private:
    MrouteClearFlags flags_;
    Lanx::IpGenAddr gAddr_;
  };

  struct Attr {
    enum : Kiv::AttributeId {
      vrfName = Kiv::kFirstTypeAttributeId,
      groupKey,
      groupsCount,
      countersCount,
    };
  };
  static constexpr char const* typeName = "Routing::Pim::Bidir::ClearConfig";

  class NotifieeConst : public Kiv::NotifieeConstOf<ClearConfig, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onGroupKey() {}
    virtual void onGroupsCount() {}
    virtual void onCountersCount() {}
  };
  using Notifiee = Kiv::NotifieeOf<ClearConfig, NotifieeConst>;

  explicit ClearConfig(L3::VrfName const& vrfName)
      : Kiv::Entity(vrfName.string()), vrfName_(vrfName) {}

  L3::VrfName const& vrfName() const noexcept { return vrfName_; }
  GroupKey const& groupKey() const noexcept { return groupKey_; }
  void groupKeyIs(GroupKey const& v) {
    attributeIs(groupKey_, v, Attr::groupKey, &NotifieeConst::onGroupKey);
  }
  std::uint8_t groupsCount() const noexcept { return groupsCount_; }
  void groupsCountIs(std::uint8_t v) {
    attributeIs(groupsCount_, v, Attr::groupsCount, &NotifieeConst::onGroupsCount);
  }
  std::uint32_t countersCount() const noexcept { return countersCount_; }
  void countersCountIs(std::uint32_t v) {
    attributeIs(countersCount_, v, Attr::countersCount, &NotifieeConst::onCountersCount);
  }

  static constexpr auto attributes() {
    using Kind = Kiv::AttributeKind;
    return std::tuple{
        Kiv::property<&ClearConfig::vrfName>("vrfName", Attr::vrfName, "L3::VrfName", Kind::key),
        Kiv::property<&ClearConfig::groupKey, &ClearConfig::groupKeyIs>("groupKey", Attr::groupKey,
                                                                        GroupKey::typeName),
        Kiv::property<&ClearConfig::groupsCount, &ClearConfig::groupsCountIs>(
            "groupsCount", Attr::groupsCount, "U8"),
        Kiv::property<&ClearConfig::countersCount, &ClearConfig::countersCountIs>(
            "countersCount", Attr::countersCount, "U32"),
    };
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  L3::VrfName const vrfName_;
  GroupKey groupKey_;
  std::uint8_t groupsCount_ = 0;
  std::uint32_t countersCount_ = 0;
};

Kiv::String8 valueToStrep(ClearConfig::GroupKey const& v);
std::ostream& operator<<(std::ostream& os, ClearConfig::GroupKey const& v);

// Attribute-log form: the flags word (u32), checked as it is read, then gAddr.
void nboWrite(Kiv::NboAttrLog::Out& out, ClearConfig::GroupKey const& v);
ClearConfig::GroupKey nboRead(Kiv::NboAttrLog::Cursor& in, ClearConfig::GroupKey const*);

Kiv::Ptr<ClearConfig> clearConfigFactory(L3::VrfName const& vrfName);

}  // namespace Routing::Pim::Bidir
