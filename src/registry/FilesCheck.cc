#include "registry/FilesCheck.h"

#include "registry/DataFiles.h"
#include "registry/SatelliteText.h"
#include "registry/XmlTags.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

namespace kel::registry {
namespace {

CStdStr ParentOf(const CStdStr& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == CStdStr::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Why this process's user has no access of that kind to what exists; empty when he has.
CStdStr AccessFault(const CStdStr& path, int mode) {
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? CStdStr() : CStdStr(std::strerror(errno));
}

// What keeps a missing folder from being made; empty when nothing does.
CStdStr MakingFault(const CStdStr& path) {
    const CStdStr parent = ParentOf(path);
    struct stat info {};
    if (stat(parent.c_str(), &info) != 0) {
        return errno == ENOENT && parent != path ? MakingFault(parent) : parent + ": " + std::strerror(errno);
    }
    const CStdStr fault = S_ISDIR(info.st_mode) ? AccessFault(parent, W_OK | X_OK) : std::strerror(ENOTDIR);
    return fault.empty() ? std::string() : "it is missing and cannot be made: " + parent + ": " + fault;
}

CStdStr KindFault(const struct stat& info) {
    if (S_ISLNK(info.st_mode)) return "it is a link";
    return S_ISDIR(info.st_mode) ? CStdStr() : CStdStr("it is no folder");
}

CStdStr OwnerFault(const struct stat& info) {
    if (info.st_uid == 0 || info.st_uid == geteuid()) return {};
    CStdStr text;
    text.Format("it belongs to the user with the id %u; give it to root or to the directory's own user",
                static_cast<unsigned>(info.st_uid));
    return text;
}

CStdStr FolderFault(const CStdStr& path, bool isShared, int mode = R_OK | W_OK | X_OK) {
    struct stat info {};
    if (fstatat(AT_FDCWD, path.c_str(), &info, isShared ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? MakingFault(path) : CStdStr(std::strerror(errno));
    }
    CStdStr fault = KindFault(info);
    if (fault.empty() && !isShared) fault = OwnerFault(info);
    return fault.empty() ? AccessFault(path, mode) : fault;
}

Fault SatelliteFault(const CStdStr& text) {
    KelSatelliteInfo satellite;
    const Fault fault = ReadSatellite(text, satellite);
    return fault.empty() ? ReadServices(text, satellite) : fault;
}

bool HasOne(const CStdStr& text, const char* tag) {
    std::vector<CStdStr> values;
    return getXMLTagValue(text, tag, values) == 0 && values.size() == 1 && !values.front().empty();
}

Fault ListenersFault(const CStdStr& text) {
    std::vector<CStdStr> entries;
    if (getXMLTagValue(text, "serviceListener", entries) != 0) return "<serviceListener> is not closed";
    const bool areWhole = std::all_of(entries.begin(), entries.end(), [](const CStdStr& entry) {
        return HasOne(entry, "service") && HasOne(entry, "satellite");
    });
    return areWhole ? "" : "a listener in it has not one service and one satellite";
}

// Whether the file exists; what is wrong with it is added to `faults`.
bool CheckFile(const Folder& folder, const CStdStr& name, Fault (*faultOf)(const CStdStr& text),
               std::vector<CStdStr>& faults) {
    CStdStr text;
    const int error = folder.Read(name, text);
    if (error == ENOENT) return false;
    const Fault fault = error != 0 ? Fault(std::strerror(error)) : faultOf(text);
    if (!fault.empty()) faults.push_back(folder.PathOf(name) + ": " + fault);
    return true;
}

void CheckFilesIn(const CStdStr& satellitesPath, const CStdStr& registrationPath, std::vector<CStdStr>& faults) {
    struct stat info {};
    if (lstat(registrationPath.c_str(), &info) != 0) return;  // to be made, with nothing in it
    const Folder satellites(satellitesPath);
    const std::vector<CStdStr> names = SatelliteFileNames(satellites);
    for (const CStdStr& name : names) CheckFile(satellites, name, SatelliteFault, faults);
    const Folder registration(registrationPath);
    if (!CheckFile(registration, "Registration.xml", RegistrationFault, faults) && !names.empty()) {
        faults.push_back(registration.PathOf("Registration.xml") + ": it is missing, though there are the files of " +
                         std::to_string(names.size()) + " satellites");
    }
    CheckFile(registration, "ServiceListeners.xml", ListenersFault, faults);
}

}  // namespace

CStdStr SharedFolderFault(const CStdStr& path) { return FolderFault(path, true); }

CStdStr OwnFolderFault(const CStdStr& path) { return FolderFault(path, false); }

CStdStr LogFault(const CStdStr& folder) {
    struct stat info {};
    for (const CStdStr& path : {CStdStr(folder + "/KelDirectory.log"), CStdStr(folder + "/errors.log")}) {
        const bool exists = lstat(path.c_str(), &info) == 0;
        CStdStr fault = FolderFault(folder, false, exists ? R_OK | X_OK : R_OK | W_OK | X_OK);
        if (!fault.empty()) return folder + ": " + fault;
        if (exists && S_ISLNK(info.st_mode)) fault = "it is a link";
        else if (exists) fault = S_ISREG(info.st_mode) ? AccessFault(path, W_OK) : CStdStr("it is no regular file");
        if (!fault.empty()) return path + ": " + fault;
    }
    return {};
}

std::vector<CStdStr> CheckFiles(const CStdStr& dataFolder) {
    std::vector<CStdStr> faults;
    const CStdStr satellites = dataFolder + "/Satellites";
    const CStdStr registration = satellites + "/Registration";
    for (const CStdStr& folder : {satellites, registration, CStdStr(satellites + "/Damaged")}) {
        const CStdStr fault = OwnFolderFault(folder);
        if (!fault.empty()) faults.push_back(folder + ": " + fault);
    }
    if (!faults.empty()) return faults;
    try {
        CheckFilesIn(satellites, registration, faults);
    } catch (const FolderError& failure) {
        faults.push_back(CStdStr(failure.what()));
    }
    return faults;
}

}  // namespace kel::registry
