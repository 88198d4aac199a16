#include "platform/ProcessPaths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

namespace kel::platform {

std::string RootPrefix() {
    const char* root = std::getenv("YAR_ROOT");
    return root ? root : "";
}

std::string EnsureSystemFolders() {
    std::filesystem::path made;
    for (const std::filesystem::path& folder : std::filesystem::path(RootPrefix() + "/Library/Logs")) {
        made /= folder;
        std::error_code error;
        std::filesystem::create_directory(made, error);
        if (error) return made.string() + ": " + error.message();
    }
    return {};
}

std::string ExecutableFolder() {
    std::error_code error;
    const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::string() : executable.parent_path().string();
}

std::string UserHomeFolder() {
    const char* home = std::getenv("HOME");
    if (home && *home) return home;
    const long wanted = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(wanted > 0 ? static_cast<size_t>(wanted) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
    return found && found->pw_dir ? found->pw_dir : "";
}

}  // namespace kel::platform
