#include "Kiv/Reactor.h"

#include <algorithm>
#include <string>

#include "Kiv/Exception.h"

namespace Kiv {

void throwNullArgument(std::string_view parameter, std::string_view attribute) {
  std::string text = "null ";
  text.append(parameter).append(" parameter to mutator for ").append(attribute);
  text.append(" not allowed\"");
  throw NullArgumentException(text);
}

void ReactorHost::nestedDel(ReactorNode* node) noexcept {
  std::erase(nested_, node);
}

// Holders are members of the host, so the list does not change while it is walked.
void ReactorHost::nestedHasNotificationActiveIs(bool active) {
  for (ReactorNode* node : nested_) node->hasNotificationActiveIs(active);
}

void ReactorHost::nestedDoZombieReactors(bool zombie) {
  for (ReactorNode* node : nested_) node->kivDoZombieReactors(zombie);
}

}  // namespace Kiv
