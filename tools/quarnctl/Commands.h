#pragma once
// The commands of quarnctl, one declaration each (Cli.h lists them for the help).

#include "Cli.h"

namespace Quarnctl {

CommandDecl const& lsCommand();
CommandDecl const& statCommand();
CommandDecl const& dumpCommand();
CommandDecl const& getCommand();
CommandDecl const& checkCommand();
CommandDecl const& watchCommand();
CommandDecl const& groupsCommand();
CommandDecl const& groupCommand();

}  // namespace Quarnctl
