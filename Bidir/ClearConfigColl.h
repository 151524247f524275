#pragma once
// ClearConfigColl: the clear requests of every VRF, one ClearConfig per VRF in `vrfClearConfig`,
// keyed by VRF name (each member's vrfName equals its key). vrfClearConfigIs creates or returns;
// creation and removal are notified through onVrfClearConfig(name), an existing member or an absent
// name is not. A removed member lives on while others hold it, with its parent link cleared.

#include <tuple>

#include "Bidir/ClearConfig.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "L3/VrfName.h"

namespace Routing::Pim::Bidir {

class ClearConfigColl : public Kiv::Entity,
                        public Kiv::NboAttrLog::AttrLogInterface<ClearConfigColl> {
 public:
  struct Attr {
    enum : Kiv::AttributeId { vrfClearConfig = Kiv::kFirstTypeAttributeId };
  };
  static constexpr char const* typeName = "Routing::Pim::Bidir::ClearConfigColl";

  class NotifieeConst : public Kiv::NotifieeConstOf<ClearConfigColl, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onVrfClearConfig(L3::VrfName) {}
    virtual void onVrfClearConfig() {}
    virtual void onVrfClearConfigkivImmediate() {}
  };
  using Notifiee = Kiv::NotifieeOf<ClearConfigColl, NotifieeConst>;
  // The attribute-log adapter under this collection's names (defined in Bidir/AttrLog.h).
  class KivNboAttrLogSa;

 private:
  using Members = Kiv::Collection<L3::VrfName, ClearConfig, Kiv::BitReversedHash<L3::VrfName>,
                                  void (NotifieeConst::*)(L3::VrfName)>;

 public:
  using VrfClearConfigIterator = Members::Iterator;
  using VrfClearConfigIteratorConst = Members::IteratorConst;

  explicit ClearConfigColl(Kiv::Name name) : Kiv::Entity(std::move(name)) {}
  ~ClearConfigColl() override { vrfClearConfigDelAll(); }

  Kiv::Ptr<ClearConfig> vrfClearConfig(L3::VrfName const& n) { return clearConfigs_.member(n); }
  Kiv::Ptr<ClearConfig const> vrfClearConfig(L3::VrfName const& n) const {
    return clearConfigs_.member(n);
  }
  Kiv::Ptr<ClearConfig> vrfClearConfigIs(L3::VrfName const& n) { return clearConfigs_.memberIs(n); }
  Kiv::Ptr<ClearConfig> newVrfClearConfig(L3::VrfName const& n) {
    return clearConfigs_.newMember(n);
  }
  // The removed member, or null when `n` was absent (nothing is notified then).
  Kiv::Ptr<ClearConfig> vrfClearConfigDel(L3::VrfName const& n) {
    return clearConfigs_.memberRemove(n);
  }
  // Removes the member under `it` and moves `it` on to the next one.
  Kiv::Ptr<ClearConfig> vrfClearConfigDel(VrfClearConfigIterator& it) {
    return clearConfigs_.memberRemove(it);
  }
  void vrfClearConfigDelAll() { clearConfigs_.memberDelAll(); }
  void vrfClearConfigNotify(L3::VrfName const& n) const { clearConfigs_.memberNotify(n); }
  std::size_t vrfClearConfigCount() const noexcept { return clearConfigs_.size(); }
  Kiv::IteratorRange<VrfClearConfigIterator> vrfClearConfigIter() { return clearConfigs_.range(); }
  Kiv::IteratorRange<VrfClearConfigIteratorConst> vrfClearConfigIter() const {
    return clearConfigs_.range();
  }

  static constexpr auto attributes() {
    return std::tuple{Kiv::collection<&ClearConfigColl::clearConfigs_>("vrfClearConfig", Attr::vrfClearConfig, ClearConfig::typeName,
                                                      "vrfName", "L3::VrfName")};
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  Members clearConfigs_{*this, Attr::vrfClearConfig, &NotifieeConst::onVrfClearConfig};
};

Kiv::Ptr<ClearConfigColl> clearConfigCollFactory(Kiv::Name name);

}  // namespace Routing::Pim::Bidir
