// Where the registry's files lie, and how one is replaced.
#pragma once

#include "foundation/StdString.h"

#include <sys/types.h>

#include <atomic>

namespace kel::registry {

constexpr mode_t fileMode = 0775;  // of files and folders, whatever the umask

// The folder of the satellite files, and below it the one of the other two. Throw when there is no data folder.
CStdStr SatellitesFolder();
CStdStr RegistrationFolder();

// Replaces a file as a whole. `fails` says of its kind whether the latest write failed: a failure is logged once, and
// again only when a write has worked in between. Any thread.
bool WriteFile(const CStdStr& path, const CStdStr& text, std::atomic<bool>& fails);

}  // namespace kel::registry
