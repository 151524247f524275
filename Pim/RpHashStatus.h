#pragma once
// Routing::Pim::RpHashStatus: the PIM agent's entity that publishes the RP hash table (which RP
// serves which group range). This library only holds references to it; the table it carries is
// attached by the agent that owns it.

#include "Kiv/Entity.h"

namespace Routing::Pim {

class RpHashStatus : public Kiv::Entity {
 public:
  explicit RpHashStatus(Kiv::Name name) : Kiv::Entity(std::move(name)) {}
};

}  // namespace Routing::Pim
