#pragma once
// Config: the operator's Bidir PIM configuration of one VRF, a member of ConfigColl keyed by its
// `vrfName`. Written by the configuration process, read by the agent through notifiees and
// replicated between them by the attribute log. Its one setting, `groupExpiryInterval`, starts at
// the constant `groupExpiryIntervalDefault` (210); the setter notifies only on a change. The unit
// of the interval is its consumer's: the configuration stores a bare 16-bit number.

#include <cstdint>
#include <tuple>

#include "Kiv/Entity.h"
#include "Kiv/NboAttrLog.h"
#include "L3/VrfName.h"

namespace Routing::Pim::Bidir {

class Config : public Kiv::Entity, public Kiv::NboAttrLog::AttrLogInterface<Config> {
 public:
  struct Attr {
    enum : Kiv::AttributeId {
      vrfName = Kiv::kFirstTypeAttributeId,
      groupExpiryInterval,
      groupExpiryIntervalDefault,
    };
  };
  static constexpr char const* typeName = "Routing::Pim::Bidir::Config";
  static constexpr std::uint16_t groupExpiryIntervalDefaultValue = 210;

  class NotifieeConst : public Kiv::NotifieeConstOf<Config, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onGroupExpiryInterval() {}
  };
  using Notifiee = Kiv::NotifieeOf<Config, NotifieeConst>;

  explicit Config(L3::VrfName const& vrfName) : Kiv::Entity(vrfName.string()), vrfName_(vrfName) {}

  L3::VrfName const& vrfName() const noexcept { return vrfName_; }
  std::uint16_t groupExpiryInterval() const noexcept { return groupExpiryInterval_; }
  void groupExpiryIntervalIs(std::uint16_t v) {
    attributeIs(groupExpiryInterval_, v, Attr::groupExpiryInterval,
                &NotifieeConst::onGroupExpiryInterval);
  }
  std::uint16_t groupExpiryIntervalDefault() const noexcept {
    return groupExpiryIntervalDefaultValue;
  }

  static constexpr auto attributes() {
    using Kind = Kiv::AttributeKind;
    return std::tuple{
        Kiv::property<&Config::vrfName>("vrfName", Attr::vrfName, "L3::VrfName", Kind::key),
        Kiv::property<&Config::groupExpiryInterval, &Config::groupExpiryIntervalIs>(
            "groupExpiryInterval", Attr::groupExpiryInterval, "U16"),
        Kiv::property<&Config::groupExpiryIntervalDefault>(
            "groupExpiryIntervalDefault", Attr::groupExpiryIntervalDefault, "U16", Kind::constant),
    };
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  L3::VrfName const vrfName_;
  std::uint16_t groupExpiryInterval_ = groupExpiryIntervalDefaultValue;
};

Kiv::Ptr<Config> configFactory(L3::VrfName const& vrfName);

}  // namespace Routing::Pim::Bidir
