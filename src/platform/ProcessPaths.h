// Where this process's program, its user and the system's shared folders are.
// All functions may be called from any thread, as long as none changes the environment meanwhile.
#pragma once

#include <string>

namespace kel::platform {

// What stands in front of the fixed system folders ("/Library" and "/Library/Logs"): the environment variable YAR_ROOT,
// empty by default, looked up at every call. With it a test, a package or an ordinary user runs a directory apart.
std::string RootPrefix();

// Makes sure that RootPrefix() + "/Library" and "/Library/Logs" exist, with all folders above them. Returns the first
// folder that does not and cannot be made, with the reason; empty when all is well. Again does no harm.
std::string EnsureSystemFolders();

// The folder of the running executable, without a "/" at the end; empty when it cannot be told.
std::string ExecutableFolder();

// The home folder of the user: the environment variable HOME, else what the user database says; empty without either.
std::string UserHomeFolder();

}  // namespace kel::platform
