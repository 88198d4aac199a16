#include "registry/DataFiles.h"

#include "foundation/FileReplacement.h"
#include "foundation/FileTools.h"
#include "foundation/Log.h"
#include "foundation/Settings.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

namespace kel::registry {
namespace {

constexpr const char* configKey = "Software\\Tessaly\\Yar\\Config";

[[noreturn]] void Refuse(const CStdStr& path, const CStdStr& why) { throw FolderError(path + ": " + why); }

[[noreturn]] void RefuseWithErrno(const CStdStr& path) { Refuse(path, std::strerror(errno)); }

CStdStr OwnedBy(const struct stat& info) {
    CStdStr text;
    text.Format("of the user with the id %u", static_cast<unsigned>(info.st_uid));
    return text;
}

// Why it could not be opened as a folder.
[[noreturn]] void RefuseUnopened(const Folder& parent, const char* name, const CStdStr& path) {
    const int reason = errno;
    struct stat info {};
    if (fstatat(parent.descriptor(), name, &info, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(info.st_mode)) {
        const CStdStr what(S_ISLNK(info.st_mode) ? "it is a link " : "it is no folder but a file ");
        Refuse(path, what + OwnedBy(info) + "; move it away");
    }
    errno = reason;
    RefuseWithErrno(path);
}

CStdStr DataFolder() {
    try {
        return CFileTools::GetYarDataFolder();
    } catch (const std::logic_error& failure) {
        throw FolderError(CStdStr(failure.what()) + ": " + std::strerror(errno));
    }
}

}  // namespace

Folder::Folder(const CStdStr& path) : path_(path), descriptor_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (descriptor_ < 0) RefuseWithErrno(path_);
}

Folder::Folder(const Folder& parent, const char* name) : path_(parent.PathOf(name)) {
    const bool isMadeHere = mkdirat(parent.descriptor_, name, fileMode) == 0;
    if (!isMadeHere && errno != EEXIST) RefuseUnopened(parent, name, path_);
    const int opened = openat(parent.descriptor_, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (opened < 0) RefuseUnopened(parent, name, path_);
    struct stat info {};
    const bool isKnown = fstat(opened, &info) == 0;
    if (!isKnown || (info.st_uid != 0 && info.st_uid != geteuid())) {
        close(opened);
        Refuse(path_, "it is " + OwnedBy(info) + " and not used; give it to root or to the directory's own user");
    }
    descriptor_ = opened;
    if (!isMadeHere) return;
    fchmod(descriptor_, fileMode);
    fsync(parent.descriptor_);
}

Folder::~Folder() {
    const int kept = errno;
    if (descriptor_ >= 0) close(descriptor_);
    errno = kept;
}

Folder::Folder(Folder&& other) noexcept
    : path_(std::move(other.path_)), descriptor_(std::exchange(other.descriptor_, -1)) {}

Folder& Folder::operator=(Folder&& other) noexcept {
    std::swap(path_, other.path_);
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

bool Folder::IsSame(const Folder& other) const {
    struct stat mine {};
    struct stat its {};
    return fstat(descriptor_, &mine) == 0 && fstat(other.descriptor_, &its) == 0 && mine.st_ino == its.st_ino &&
           mine.st_dev == its.st_dev;
}

bool Folder::IsDeleted() const {
    struct stat info {};
    return fstat(descriptor_, &info) != 0 || info.st_nlink == 0;
}

std::vector<CStdStr> Folder::Names() const {
    std::vector<CStdStr> names;
    const int again = openat(descriptor_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);  // closedir closes it
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(again), closedir);
    if (!entries) {
        if (again >= 0) close(again);
        RefuseWithErrno(path_);
    }
    while (const dirent* entry = readdir(entries.get())) names.emplace_back(entry->d_name);
    return names;
}

int Folder::Read(const CStdStr& name, CStdStr& text) const {
    text.clear();
    return ReadFile(descriptor_, name, text);
}

int Folder::Remove(const CStdStr& name) const {
    return unlinkat(descriptor_, name.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
}

CStdStr Folder::KeepDamaged(const CStdStr& name) const {
    CStdStr kept = name + ".damaged";
    CStdStr text;
    FileReplacement copy(descriptor_, kept);
    if (Read(name, text) == 0) {
        const int error = copy.Write(text.data(), text.size(), fileMode);
        return error == 0 && copy.PutInPlace() == 0 ? kept : CStdStr();
    }
    unlinkat(descriptor_, kept.c_str(), 0);  // what cannot be read gets a second name
    return linkat(descriptor_, name.c_str(), descriptor_, kept.c_str(), 0) == 0 ? kept : CStdStr();
}

std::vector<CStdStr> SatelliteFileNames(const Folder& folder) {
    std::vector<CStdStr> names = folder.Names();
    std::erase_if(names, [](const CStdStr& name) {
        const size_t dot = name.rfind('.');
        return dot == CStdStr::npos || name.compare(dot, CStdStr::npos, ".xml") != 0;
    });
    std::sort(names.begin(), names.end(), CaseInsensitiveLess());
    return names;
}

void RemoveLeftovers(const Folder& folder) {
    for (const CStdStr& name : folder.Names()) {
        if (IsLeftover(name)) folder.Remove(name);
    }
}

Folder SatellitesFolder() { return Folder(Folder(DataFolder()), "Satellites"); }

Folder RegistrationFolder() { return Folder(SatellitesFolder(), "Registration"); }

bool SyncsFiles() {
    int syncs = 1;
    CRegistry::getInstance()->ReadSettingImpl(configKey, "kel.syncFiles", syncs);
    return syncs != 0;
}

bool Complaint::Take(int error, const char* what, Folder (*folder)(), const CStdStr& name) {
    const bool failed = error != 0;
    if (!fails_.Changes(failed)) return !failed;
    const CStdStr path = folder().PathOf(name);
    if (failed)
        CBBLog::error("Could not %s %s: %s; trying again every 5 seconds", what, path.c_str(), std::strerror(error));
    else CBBLog::note("Could %s %s again", what, path.c_str());
    return !failed;
}

}  // namespace kel::registry
