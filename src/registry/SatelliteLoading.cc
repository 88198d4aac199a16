// What the registry does at a start with the files that it finds: satellites are taken over, what is damaged is put
// aside, what a killed process left behind goes.
#include "registry/Registration.h"

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
    for (CStdStr& name : SatelliteFileNames(folder)) files.emplace_back(ArrivalOf(folder, name), std::move(name));
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

int CRegistration::LoadAllSatFiles() {
    try {
        const Folder folder = SatellitesFolder();
        const std::vector<CStdStr> fileNames = SatelliteFileNames(folder);
        bool isDamaged = false;
        if (!LoadRegistrationFile(isDamaged)) {
            const int32_t highest = BoundCounter(folder, fileNames);
            if (fileNames.empty()) return noRegistrationFile;
            CBBLog::error(
                "%s has the files of %zu satellites and no readable %s: they are loaded at the next start; ids "
                "go on from %d, the highest in them",
                folder.path().c_str(), fileNames.size(), registrationFile, highest);
            return noRegistrationFile;
        }
        if (isDamaged) BoundCounter(folder, fileNames);
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
        isUnread_ = true;
        CBBLog::error("CRegistration::LoadAllSatFiles data directory not found");
        SayUnusable(failure);
        return -1;
    }
}

// False when it does not tell the last id. Then what there is of it is kept, for it is about to be written anew.
bool CRegistration::LoadRegistrationFile(bool& isDamaged) {
    const Folder folder = RegistrationFolder();
    CStdStr text;
    const int error = folder.Read(registrationFile, text);
    const RegistrationRecord record = ReadRegistration(text);
    {
        PWriteHold hold(lock_);
        if (record.serverId) serverId_ = *record.serverId;
        if (record.lastSatId) lastSatId_ = *record.lastSatId;
    }
    const Fault fault = error != 0 ? Fault(std::strerror(error)) : RegistrationFault(text);
    if (fault.empty() || error == ENOENT) return record.lastSatId.has_value();
    isDamaged = true;
    const CStdStr kept = folder.KeepDamaged(registrationFile);
    CBBLog::error("%s is damaged: %s%s%s%s", folder.PathOf(registrationFile).c_str(), fault.c_str(),
                  record.lastSatId ? "" : "; no satellite is loaded",
                  kept.empty() ? "" : "; what there is of it is kept as ", kept.c_str());
    return record.lastSatId.has_value();
}

// Without the registration file only the satellites' files tell which ids were given out: none of them is given out
// again. Nothing is loaded from them.
int32_t CRegistration::BoundCounter(const Folder& folder, const std::vector<CStdStr>& fileNames) {
    int32_t highest = 0;
    CStdStr text;
    for (const CStdStr& fileName : fileNames) {
        if (folder.Read(fileName, text) == 0) highest = std::max(highest, IdIn(text));
    }
    PWriteHold hold(lock_);
    return lastSatId_ = std::max(lastSatId_, highest);
}

// The folders could not be used at the start and are about to be written to: what the registration file says of ids
// holds, and the rest of it is kept.
void CRegistration::TakeOverUnread() {
    const Folder satellites = SatellitesFolder();
    const Folder folder = RegistrationFolder();
    CStdStr text;
    const int error = folder.Read(registrationFile, text);
    const int32_t known = ReadRegistration(text).lastSatId.value_or(0);
    {
        PWriteHold hold(lock_);
        lastSatId_ = std::max(lastSatId_, known);
    }
    const int32_t highest = BoundCounter(satellites, SatelliteFileNames(satellites));
    const CStdStr kept = error == ENOENT ? CStdStr() : folder.KeepDamaged(registrationFile);
    isUnread_ = false;
    if (error == ENOENT) return;
    CBBLog::error("%s was there before this start, which could not read it, and is written anew; ids go on from %d%s%s",
                  folder.PathOf(registrationFile).c_str(), highest, kept.empty() ? "" : "; it is kept as ",
                  kept.c_str());
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
