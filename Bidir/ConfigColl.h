#pragma once
// ConfigColl: the Bidir PIM configuration of every VRF, one Config per VRF in `vrfConfig`, keyed
// by VRF name (each member's vrfName equals its key). vrfConfigIs creates or returns; creation and
// removal are notified through onVrfConfig(name), an existing member or an absent name is not. A
// removed member lives on while others hold it, with its parent link cleared.

#include <tuple>

#include "Bidir/Config.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "L3/VrfName.h"

namespace Routing::Pim::Bidir {

class ConfigColl : public Kiv::Entity, public Kiv::NboAttrLog::AttrLogInterface<ConfigColl> {
 public:
  struct Attr {
    enum : Kiv::AttributeId { vrfConfig = Kiv::kFirstTypeAttributeId };
  };
  static constexpr char const* typeName = "Routing::Pim::Bidir::ConfigColl";

  class NotifieeConst : public Kiv::NotifieeConstOf<ConfigColl, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onVrfConfig(L3::VrfName) {}
    virtual void onVrfConfig() {}
    virtual void onVrfConfigkivImmediate() {}
  };
  using Notifiee = Kiv::NotifieeOf<ConfigColl, NotifieeConst>;
  // The attribute-log adapter under this collection's names (defined in Bidir/AttrLog.h).
  class KivNboAttrLogSa;

 private:
  using Members = Kiv::Collection<L3::VrfName, Config, Kiv::BitReversedHash<L3::VrfName>,
                                  void (NotifieeConst::*)(L3::VrfName)>;

 public:
  using VrfConfigIterator = Members::Iterator;
  using VrfConfigIteratorConst = Members::IteratorConst;

  explicit ConfigColl(Kiv::Name name) : Kiv::Entity(std::move(name)) {}
  ~ConfigColl() override { vrfConfigDelAll(); }

  Kiv::Ptr<Config> vrfConfig(L3::VrfName const& n) { return configs_.member(n); }
  Kiv::Ptr<Config const> vrfConfig(L3::VrfName const& n) const { return configs_.member(n); }
  Kiv::Ptr<Config> vrfConfigIs(L3::VrfName const& n) { return configs_.memberIs(n); }
  Kiv::Ptr<Config> newVrfConfig(L3::VrfName const& n) { return configs_.newMember(n); }
  // The removed member, or null when `n` was absent (nothing is notified then).
  Kiv::Ptr<Config> vrfConfigDel(L3::VrfName const& n) { return configs_.memberRemove(n); }
  // Removes the member under `it` and moves `it` on to the next one.
  Kiv::Ptr<Config> vrfConfigDel(VrfConfigIterator& it) { return configs_.memberRemove(it); }
  void vrfConfigDelAll() { configs_.memberDelAll(); }
  void vrfConfigNotify(L3::VrfName const& n) const { configs_.memberNotify(n); }
  std::size_t vrfConfigCount() const noexcept { return configs_.size(); }
  Kiv::IteratorRange<VrfConfigIterator> vrfConfigIter() { return configs_.range(); }
  Kiv::IteratorRange<VrfConfigIteratorConst> vrfConfigIter() const { return configs_.range(); }

  static constexpr auto attributes() {
    return std::tuple{Kiv::collection<&ConfigColl::configs_>("vrfConfig", Attr::vrfConfig, Config::typeName,
                                                      "vrfName", "L3::VrfName")};
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  Members configs_{*this, Attr::vrfConfig, &NotifieeConst::onVrfConfig};
};

Kiv::Ptr<ConfigColl> configCollFactory(Kiv::Name name);

}  // namespace Routing::Pim::Bidir
