#include "registry/DataFiles.h"

#include "foundation/FileTools.h"
#include "foundation/Log.h"
#include "foundation/Registry.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
    if (isMadeHere) fchmod(descriptor_, fileMode);
}

Folder::~Folder() {
    const int kept = errno;
    if (descriptor_ >= 0) close(descriptor_);
    errno = kept;
}

Folder::Folder(Folder&& other) noexcept
    : path_(std::move(other.path_)), descriptor_(std::exchange(other.descriptor_, -1)) {}

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
    // Without waiting: a pipe must not hold up the start.
    const int file = openat(descriptor_, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (file < 0) return errno;
    char part[16 * 1024];
    ssize_t got = 0;
    do {
        got = read(file, part, sizeof part);
        if (got > 0) text.append(part, static_cast<size_t>(got));
    } while (got > 0 || (got < 0 && errno == EINTR));
    const int error = got == 0 ? 0 : errno;
    close(file);
    return error;
}

int Folder::Remove(const CStdStr& name) const {
    return unlinkat(descriptor_, name.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
}

CStdStr Folder::KeepDamaged(const CStdStr& name) const {
    const CStdStr kept = name + ".damaged";
    unlinkat(descriptor_, kept.c_str(), 0);
    return linkat(descriptor_, name.c_str(), descriptor_, kept.c_str(), 0) == 0 ? kept : CStdStr();
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
    if (isOpen_.load(std::memory_order_relaxed) == failed || isOpen_.exchange(failed) == failed) return !failed;
    const CStdStr path = folder().PathOf(name);
    if (failed)
        CBBLog::error("Could not %s %s: %s; trying again every 5 seconds", what, path.c_str(), std::strerror(error));
    else CBBLog::note("Could %s %s again", what, path.c_str());
    return !failed;
}

}  // namespace kel::registry
