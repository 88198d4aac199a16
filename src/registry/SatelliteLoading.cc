// What the registry does at a start with the files that it finds: satellites are taken over, what is damaged is put
// aside, what a killed process left behind goes.
#include "registry/Registration.h"

#include "foundation/FileReplacement.h"
#include "foundation/Log.h"
#include "registry/SatelliteText.h"

#include <boost/make_shared.hpp>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string_view>
#include <utility>

using namespace kel::registry;

namespace {

constexpr std::string_view xmlEnding = ".xml";
constexpr const char* damagedFolder = "Damaged";
constexpr size_t keptDamaged = 20;  // files

bool IsSatelliteFile(const CStdStr& fileName) {
    const size_t dot = fileName.rfind('.');
    return dot != CStdStr::npos && fileName.compare(dot, CStdStr::npos, xmlEnding) == 0;
}

// The names of the satellite files. In the order of the registry's map, so that loading them adds each record beside
// the one before: with many, looking for its place would otherwise cost more than reading the file.
std::vector<CStdStr> SatelliteFileNames(const Folder& folder) {
    std::vector<CStdStr> names = folder.Names();
    std::erase_if(names, [](const CStdStr& name) { return !IsSatelliteFile(name); });
    std::sort(names.begin(), names.end(), CaseInsensitiveLess());
    return names;
}

// Notes that the satellite's record is in `fileName`, where that is not the file it would be written to.
void RememberFile(KelSatelliteInfo& satellite, const CStdStr& fileName) {
    PWriteHold hold(satellite.lock);
    satellite.formerFiles.clear();
    const size_t length = fileName.size() - xmlEnding.size();
    if (fileName.compare(0, length, satellite.satName) == 0) return;
    satellite.formerFiles.push_back({fileName.substr(0, length), false});
}

// The file that a satellite was loaded from.
CStdStr FileOf(const KelSatelliteInfo& satellite) {
    PReadHold hold(satellite.lock);
    return (satellite.formerFiles.empty() ? satellite.satName : satellite.formerFiles.front().name) + ".xml";
}

// When a file was put where it is, in nanoseconds.
int64_t ArrivalOf(const Folder& folder, const CStdStr& name) {
    struct stat info {};
    if (fstatat(folder.descriptor(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return 0;
    return int64_t{info.st_ctim.tv_sec} * 1'000'000'000 + info.st_ctim.tv_nsec;
}

void RemoveOldest(const Folder& folder) {
    std::vector<std::pair<int64_t, CStdStr>> files;
    for (CStdStr& name : folder.Names()) {
        if (IsSatelliteFile(name)) files.emplace_back(ArrivalOf(folder, name), std::move(name));
    }
    if (files.size() <= keptDamaged) return;
    std::sort(files.begin(), files.end());
    files.resize(files.size() - keptDamaged);
    for (const auto& [arrival, name] : files) folder.Remove(name);
}

// Puts a damaged satellite file where it can be looked at and is not read any more.
void PutAside(const Folder& satellites, const CStdStr& fileName, const Fault& fault) {
    const CStdStr path = satellites.PathOf(fileName);
    try {
        const Folder damaged(satellites, damagedFolder);
        if (renameat(satellites.descriptor(), fileName.c_str(), damaged.descriptor(), fileName.c_str()) != 0) {
            throw FolderError(std::strerror(errno));
        }
        CBBLog::error("%s is damaged: %s; it is kept in %s, and its satellite has to register again", path.c_str(),
                      fault.c_str(), damaged.path().c_str());
        RemoveOldest(damaged);
    } catch (const FolderError& failure) {
        CBBLog::error("%s is damaged: %s; it stays where it is, since it could not be put aside: %s", path.c_str(),
                      fault.c_str(), failure.what());
    }
}

}  // namespace

void CRegistration::RemoveLeftovers(const Folder& folder) {
    for (const CStdStr& name : folder.Names()) {
        if (IsLeftover(name)) folder.Remove(name);
    }
}

int CRegistration::LoadAllSatFiles() {
    try {
        const Folder folder = SatellitesFolder();
        const std::vector<CStdStr> fileNames = SatelliteFileNames(folder);
        if (!LoadRegistrationFile()) {
            BoundCounter(folder, fileNames);
            return noRegistrationFile;
        }
        CStdStr text;
        for (const CStdStr& fileName : fileNames) {
            if (const int error = folder.Read(fileName, text)) {
                CBBLog::error("Could not read %s: %s", folder.PathOf(fileName).c_str(), std::strerror(error));
            } else {
                LoadSatellite(folder, fileName, text);
            }
        }
        return 0;
    } catch (const std::exception& failure) {
        CBBLog::error("CRegistration::LoadAllSatFiles data directory not found");
        SayUnusable(failure);
        return -1;
    }
}

// False when it does not tell the last id. Then what there is of it is kept, for it is about to be written anew.
bool CRegistration::LoadRegistrationFile() {
    const Folder folder = RegistrationFolder();
    CStdStr text;
    const int error = folder.Read(registrationFile, text);
    const RegistrationRecord record = ReadRegistration(text);
    {
        PWriteHold hold(lock_);
        if (record.serverId) serverId_ = *record.serverId;
        if (record.lastSatId) lastSatId_ = *record.lastSatId;
    }
    if (record.lastSatId) return true;
    if (error == ENOENT) return false;
    const CStdStr kept = folder.KeepDamaged(registrationFile);
    CBBLog::error("%s is damaged: %s; no satellite is loaded%s%s", folder.PathOf(registrationFile).c_str(),
                  error != 0     ? std::strerror(error)
                  : text.empty() ? "it is empty"
                                 : "it does not name the last id",
                  kept.empty() ? "" : "; what there is of it is kept as ", kept.c_str());
    return false;
}

// Without the registration file only the satellites' files tell which ids were given out: none of them is given out
// again. Nothing is loaded from them.
void CRegistration::BoundCounter(const Folder& folder, const std::vector<CStdStr>& fileNames) {
    if (fileNames.empty()) return;
    int32_t highest = 0;
    CStdStr text;
    for (const CStdStr& fileName : fileNames) {
        if (folder.Read(fileName, text) == 0) highest = std::max(highest, IdIn(text));
    }
    {
        PWriteHold hold(lock_);
        lastSatId_ = std::max(lastSatId_, highest);
    }
    CBBLog::error(
        "%s has the files of %zu satellites and no readable %s: they are loaded at the next start; ids go on "
        "from %d, the highest in them",
        folder.path().c_str(), fileNames.size(), registrationFile, highest);
}

// Takes a satellite over from the text of its file. A damaged file is put aside; of two that hold the same satellite
// the one with the lower id is deleted.
void CRegistration::LoadSatellite(const Folder& folder, const CStdStr& fileName, const CStdStr& text) {
    const auto satellite = boost::make_shared<KelSatelliteInfo>();
    const Fault fault = ReadSatellite(text, *satellite);
    if (!fault.empty()) return PutAside(folder, fileName, fault);
    if (CBBLog::isInfoEnabled()) CBBLog::info("Parsing satellite %s", satellite->satName.c_str());
    const Fault serviceFault = ReadServices(text, *satellite);

    // Of two with the same id the one in the satellite's own file is the later one.
    const bool isOwnFile = fileName == satellite->satName + ".xml";
    SatellitePtr loser;
    {
        PWriteHold hold(lock_);
        loser = Insert(satellite, isOwnFile ? Insertion::ifNotOlder : Insertion::ifNewer);
    }
    if (!serviceFault.empty()) PutAside(folder, fileName, serviceFault);
    if (loser) DeleteLoser(folder, loser == satellite ? fileName : FileOf(*loser));
    if (loser == satellite) return;
    RememberFile(*satellite, fileName);
    if (serviceFault.empty() && CBBLog::isInfoEnabled()) {
        CBBLog::info("Satellite %s %s:%d has been added from file", satellite->satName.c_str(), satellite->ip.c_str(),
                     satellite->port);
    }
}

void CRegistration::DeleteLoser(const Folder& folder, const CStdStr& fileName) {
    if (deletionFails_.Take(folder.Remove(fileName), "delete", SatellitesFolder, fileName)) return;
    NoteUndeleted(fileName.substr(0, fileName.size() - xmlEnding.size()));
}
