#pragma once
// Routing::Pim::Bidir::Df::Quarn::RpaRpfStatus: the DF election agent's entity that publishes the
// RPA-RPF table (which interface and neighbour lead toward each RP address). This library only
// holds references to it; the table it carries is attached by the agent that owns it.

#include "Kiv/Entity.h"

namespace Routing::Pim::Bidir::Df::Quarn {

class RpaRpfStatus : public Kiv::Entity {
 public:
  explicit RpaRpfStatus(Kiv::Name name) : Kiv::Entity(std::move(name)) {}
};

}  // namespace Routing::Pim::Bidir::Df::Quarn
