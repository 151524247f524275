#pragma once
// Routing::Pim::RpHashStatus: the PIM agent's entity that publishes the RP hash table (which RP
// serves which group range): `rpHash` (258), RpHash records keyed by group prefix, bound as the
// table "rpHash". The agent mounts it as the writer; other processes mount it as a reader and
// read it with `rpHash(prefix)` (a default record when the prefix is absent). Notifiees hear
// `onRpHash(prefix)` for every record written or removed here and, on a reading mount, for
// every key the table reports as changed.

#include <cstdint>

#include "Kiv/Entity.h"
#include "KivQuarn/KivQuarnMap.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "Lanx/IpGenPrefix.h"
#include "Pim/RpHash.h"

namespace Routing::Pim {

class RpHashStatus : public Kiv::Entity {
 public:
  static constexpr char const* typeName = "Routing::Pim::RpHashStatus";

  struct Attr {
    enum : Kiv::AttributeId { rpHash = Kiv::kFirstTypeAttributeId };
  };

  class NotifieeConst : public Kiv::NotifieeConstOf<RpHashStatus, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onRpHash(Lanx::IpGenPrefix const&) {}
  };
  using Notifiee = Kiv::NotifieeOf<RpHashStatus, NotifieeConst>;

  using Wrapper = KivQuarn::KivQuarnMapValueWrapper<RpHash, Lanx::IpGenPrefix>;
  using RpHashMap = KivQuarn::KivQuarnMap<RpHashStatus, Wrapper, Lanx::IpGenPrefix>;

  explicit RpHashStatus(Kiv::Name name) : Kiv::Entity(std::move(name)) {
    rpHash_.entity("rpHash", *this, &RpHashStatus::rpHashNotify);
  }

  RpHash rpHash(Lanx::IpGenPrefix const& key) const { return rpHash_.record(key); }
  void rpHashIs(RpHash const& record) { rpHash_.recordIs(record); }
  RpHash rpHashDel(Lanx::IpGenPrefix const& key) { return rpHash_.recordDel(key); }
  void rpHashNotify(Lanx::IpGenPrefix const& key) const {
    notify(Attr::rpHash, &NotifieeConst::onRpHash, key);
  }
  RpHashMap& rpHashControl() noexcept { return rpHash_; }
  RpHashMap const& rpHashControl() const noexcept { return rpHash_; }

  Kiv::AttributeTable const& attributeTable() const override;

 private:
  RpHashMap rpHash_;
};

}  // namespace Routing::Pim
