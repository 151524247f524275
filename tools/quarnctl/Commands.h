#pragma once
// The commands of quarnctl, one declaration each (Cli.h lists them for the help).

#include "Cli.h"

namespace Quarnctl {

CommandSpec const& lsCommand();
CommandSpec const& statCommand();
CommandSpec const& dumpCommand();
CommandSpec const& getCommand();
CommandSpec const& checkCommand();
CommandSpec const& watchCommand();
CommandSpec const& groupsCommand();
CommandSpec const& groupCommand();

}  // namespace Quarnctl
