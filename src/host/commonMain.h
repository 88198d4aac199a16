// The life of a module's process, from its first line to its exit status.
#pragma once

#include "foundation/StdString.h"

#include <vector>

class YarModuleBase;

// Supplied by each program: its module, made with new and owned by the caller.
YarModuleBase* createYarModuleInstance();

// Creates the module, initialises it with the command line, and, when that worked, runs it until a signal ends it and
// closes it. Returns 0 in any case. Exceptions of the module's construction and of init pass through.
int commonMain(const std::vector<CStdStr>& args);
