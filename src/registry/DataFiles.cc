#include "registry/DataFiles.h"

#include "foundation/FileTools.h"
#include "foundation/Log.h"

#include <cerrno>
#include <cstring>

namespace kel::registry {

CStdStr SatellitesFolder() { return CFileTools::GetYarDataFolder() + "/Satellites"; }

CStdStr RegistrationFolder() { return SatellitesFolder() + "/Registration"; }

bool WriteFile(const CStdStr& path, const CStdStr& text, std::atomic<bool>& fails) {
    if (CFileTools(path).writeBytes(text.data(), static_cast<unsigned>(text.size()), fileMode)) {
        if (fails.load(std::memory_order_relaxed)) fails = false;
        return true;
    }
    const int reason = errno;
    if (!fails.exchange(true)) CBBLog::error("Could not write %s: %s", path.c_str(), std::strerror(reason));
    return false;
}

}  // namespace kel::registry
