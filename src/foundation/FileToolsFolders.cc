#include "foundation/FileTools.h"

#include "foundation/Log.h"
#include "foundation/Settings.h"
#include "foundation/StdPath.h"
#include "platform/ProcessPaths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace {

constexpr mode_t sharedFolderMode = 0777;
constexpr char executablesInBundle[] = "Contents/MacOS";

struct SpecialFolder {
    const char* name;
    const char* suffix;
};

constexpr SpecialFolder specialFolders[] = {
    {"DESKTOP", "/Desktop"},     {"MYDOCUMENTS", "/Documents"}, {"MYMUSIC", "/Music"},
    {"MYPICTURES", "/Pictures"}, {"MYVIDEO", "/Videos"},
};

// Makes a folder that every user may write to. False when its mode could not be set; a failure to make it passes on the
// file system's error. A folder that another process made meanwhile is that process's to open.
bool CreateSharedFolder(const CStdStr& path) {
    return !fs::create_directory(fs::path(path)) || chmod(path.c_str(), sharedFolderMode) == 0;
}

// Why a folder could not be made: where those above it are missing too, it is the lowest that exists which tells.
int ReasonFor(int error, fs::path folder) {
    boost::system::error_code ignored;
    if (error != ENOENT) return error;
    do folder = folder.parent_path();
    while (!folder.empty() && !fs::exists(folder, ignored));
    return access(folder.c_str(), W_OK | X_OK) == 0 ? error : errno;
}

bool IsInside(const fs::path& path, const fs::path& folder) {
    boost::system::error_code ignored;
    const fs::path outer = fs::canonical(folder, ignored);
    const fs::path inner = fs::weakly_canonical(fs::absolute(path), ignored);
    const fs::path relative = inner.lexically_relative(outer);
    return !relative.empty() && *relative.begin() != "..";
}

}  // namespace

CStdStr CFileTools::GetYarDataFolder() {
    const CStdStr path = kel::platform::RootPrefix() + "/Library/Tessaly";
    if (CFileTools(path).exists()) return path;
    bool isOpenToAll = false;
    try {
        isOpenToAll = CreateSharedFolder(path);
    } catch (const fs::filesystem_error& failure) {
        errno = ReasonFor(failure.code().value(), path.c_str());
        throw std::logic_error("Failed to create /Library/Tessaly folder");
    }
    if (!isOpenToAll) throw std::logic_error("Couldn't set access rights on /Library/Tessalyfolder");
    if (!CFileTools(path).exists()) throw std::logic_error("Failed to create Yar data folder");
    return path;
}

CStdStr CFileTools::GetYarDataSubFolder(const CStdStr& name) {
    CStdPath path = GetYarDataFolder();
    path.AppendPath(name);
    if (CFileTools(path).exists()) return path;
    bool isOpenToAll = false;
    try {
        isOpenToAll = CreateSharedFolder(path);
    } catch (const fs::filesystem_error& error) {
        CStdStr text;
        text.Format("Failed to create Yar data subfolder: %s\n\t%s", path.c_str(), error.what());
        throw std::logic_error(text);
    }
    if (!isOpenToAll) throw std::logic_error("Couldn't set access rights on Yar data folder");
    return path;
}

CStdStr CFileTools::GetLogsDirectory() { return kel::platform::RootPrefix() + "/Library/Logs/Tessaly"; }

CStdStr CFileTools::GetBinaryDirectory() {
    CStdStr folder = kel::platform::ExecutableFolder();
    if (folder.empty()) throw std::logic_error("Failed to GetBinaryDirectory");
    return folder;
}

CStdStr CFileTools::GetProcessBundleFolder() { return kel::platform::ExecutableFolder(); }

CStdStr CFileTools::getYarBinFolderPath() {
    CStdStr installed;
    if (!CRegistry::getInstance()->ReadSettingImpl("Software\\Tessaly\\Yar", "InstallDir", installed)) {
        return getYarBinFolderPathMac();
    }
    return CStdPath(installed).AppendPath(executablesInBundle);
}

CStdStr CFileTools::getYarBinFolderPathMac() {
    const CStdStr folder = GetProcessBundleFolder() + "/" + executablesInBundle;
    return testYarBinPath(folder) ? folder : CStdStr("/Applications/Yar.app/Contents/MacOS");
}

bool CFileTools::testYarBinPath(CStdStr folder) { return CFileTools(folder + "/YarLauncher").exists(); }

CStdStr CFileTools::GetCurrentWorkingDirectory() {
    boost::system::error_code ignored;
    return fs::current_path(ignored).string();
}

CStdStr CFileTools::GetUserHomeFolder() { return kel::platform::UserHomeFolder(); }

CStdStr CFileTools::getTmpFolder() {
    const char* chosen = std::getenv("TMPDIR");
    if (chosen && *chosen) return chosen;
    return CFileTools("/var/tmp/").isFolder() ? "/var/tmp/" : "/tmp";
}

CStdStr CFileTools::GenerateTempFilePath() {
    char path[] = "/tmp/fileXXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) return CStdStr();
    close(fd);
    return path;
}

CStdStr CFileTools::resolveSpecialPath(const CStdStr& name) {
    for (const SpecialFolder& folder : specialFolders) {
        if (name == folder.name) return GetUserHomeFolder() + folder.suffix;
    }
    return name == "MYCOMPUTER" ? CStdStr("/") : name;
}

bool CFileTools::CreateDirectory(const CStdStr& path) {
    boost::system::error_code ignored;
    return fs::create_directory(fs::path(path), ignored);
}

bool CFileTools::DeleteFile(const CStdStr& path) {
    if (path.find('\0') != CStdStr::npos) return true;  // the system would end the path there and remove another file
    boost::system::error_code ignored;
    fs::remove(fs::path(path), ignored);
    return true;
}

bool CFileTools::CopyFile(const CStdStr& from, const CStdStr& to) {
    boost::system::error_code error;
    if (fs::equivalent(fs::path(from), fs::path(to), error)) return false;  // it would be emptied before it is read
    fs::copy_file(fs::path(from), fs::path(to), fs::copy_options::overwrite_existing, error);
    return !error;
}

bool CFileTools::Rename(const CStdStr& from, const CStdStr& to) {
    boost::system::error_code error;
    fs::rename(fs::path(from), fs::path(to), error);
    return !error;
}

bool CFileTools::CopyDirectory(const CStdStr& from, const CStdStr& to) {
    if (!CFileTools(from).isFolder() || IsInside(to, from)) return false;
    const auto how =
        fs::copy_options::recursive | fs::copy_options::copy_symlinks | fs::copy_options::overwrite_existing;
    boost::system::error_code error;
    fs::copy(fs::path(from), fs::path(to), how, error);
    return !error;
}

bool GetAppDataPath(char* buffer, size_t size) {
    if (size == 0) return false;
    buffer[0] = '\0';
    try {
        const CStdStr folder = CFileTools::GetYarDataFolder();
        if (folder.size() < size) {
            std::memcpy(buffer, folder.c_str(), folder.size() + 1);
            return true;
        }
        CBBLog::error("GetAppDataPath: %s does not fit into %zu bytes", folder.c_str(), size);
    } catch (const std::exception& failure) {
        CBBLog::error("GetAppDataPath: %s", failure.what());
    }
    return false;
}
