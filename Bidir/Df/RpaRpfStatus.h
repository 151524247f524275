#pragma once
// Routing::Pim::Bidir::Df::Quarn::RpaRpfStatus: the DF election agent's entity that publishes the
// RPA-RPF table (which interface and neighbour lead toward each RP address): `rpaRpf` (258),
// RpaRpf records keyed by RP address, bound as the table "rpaRpf". The election agent mounts it
// as the writer; other processes mount it as a reader and read it with `rpaRpf(rpa)` (a default
// record when the address is absent). Notifiees hear `onRpaRpf(rpa)` for every record written
// or removed here and, on a reading mount, for every key the table reports as changed.

#include "Bidir/Df/RpaRpf.h"
#include "Kiv/Entity.h"
#include "KivQuarn/KivQuarnMap.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "Lanx/IpGenAddr.h"

namespace Routing::Pim::Bidir::Df::Quarn {

class RpaRpfStatus : public Kiv::Entity {
 public:
  static constexpr char const* typeName = "Routing::Pim::Bidir::Df::Quarn::RpaRpfStatus";

  struct Attr {
    enum : Kiv::AttributeId { rpaRpf = Kiv::kFirstTypeAttributeId };
  };

  class NotifieeConst : public Kiv::NotifieeConstOf<RpaRpfStatus, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onRpaRpf(Lanx::IpGenAddr const&) {}
  };
  using Notifiee = Kiv::NotifieeOf<RpaRpfStatus, NotifieeConst>;

  using Wrapper = KivQuarn::KivQuarnMapValueWrapper<RpaRpf, Lanx::IpGenAddr>;
  using RpaRpfMap = KivQuarn::KivQuarnMap<RpaRpfStatus, Wrapper, Lanx::IpGenAddr>;

  explicit RpaRpfStatus(Kiv::Name name) : Kiv::Entity(std::move(name)) {
    rpaRpf_.entity("rpaRpf", *this, &RpaRpfStatus::rpaRpfNotify);
  }

  RpaRpf rpaRpf(Lanx::IpGenAddr const& key) const { return rpaRpf_.record(key); }
  void rpaRpfIs(RpaRpf const& record) { rpaRpf_.recordIs(record); }
  RpaRpf rpaRpfDel(Lanx::IpGenAddr const& key) { return rpaRpf_.recordDel(key); }
  void rpaRpfNotify(Lanx::IpGenAddr const& key) const {
    notify(Attr::rpaRpf, &NotifieeConst::onRpaRpf, key);
  }
  RpaRpfMap& rpaRpfControl() noexcept { return rpaRpf_; }
  RpaRpfMap const& rpaRpfControl() const noexcept { return rpaRpf_; }

  Kiv::AttributeTable const& attributeTable() const override;

 private:
  RpaRpfMap rpaRpf_;
};

}  // namespace Routing::Pim::Bidir::Df::Quarn
