// The files of the registry: how they are written and deleted. Registration.h says who may when; SatelliteLoading.cc
// reads them back.
#include "registry/Registration.h"

#include "foundation/Log.h"
#include "registry/SatelliteText.h"
#include "registry/ServiceAvailability.h"

#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <utility>

using namespace kel::registry;

namespace {

constexpr size_t endingSize = 4;  // of ".xml"

// Why no file can have this name, or null.
const char* NameFault(const CStdStr& name) {
    if (name.find('/') != CStdStr::npos) return "it contains a \"/\"";
    if (name.find('\0') != CStdStr::npos) return "it contains a NUL";
    if (name.size() + endingSize > NAME_MAX) return std::strerror(ENAMETOOLONG);
    return nullptr;
}

}  // namespace

void CRegistration::CreateFolders() {
    try {
        OpenFolders();
    } catch (const std::exception& failure) {
        CBBLog::error("CRegistration::CRegistration data directory not found");
        SayUnusable(failure);
    }
}

// Takes the folders for this registry's own, unless another directory is at work there. Throws FolderError.
void CRegistration::OpenFolders() {
    folders_.clear();
    for (Folder (*const folder)() : {SatellitesFolder, RegistrationFolder}) {
        const Folder& opened = folders_.emplace_back(folder());
        if (fchmod(opened.descriptor(), fileMode) == 0) continue;
        CBBLog::error("CRegistration::CRegistration chmod failed %s", std::strerror(errno));
    }
    if (flock(folders_.front().descriptor(), LOCK_EX | LOCK_NB) != 0) return;
    for (const Folder& folder : folders_) RemoveLeftovers(folder);
}

// Whether the folders are no longer those that were opened. With them the files have gone. Throws FolderError.
bool CRegistration::HaveFoldersGone() const {
    return folders_.size() == 2 &&
           !(folders_[0].IsSame(SatellitesFolder()) && folders_[1].IsSame(RegistrationFolder()));
}

// Folders that could not be used at the start may be usable by now, and those that could may have been deleted: then
// everything in them is due again.
void CRegistration::LookAfterFolders() {
    const bool haveGone = HaveFoldersGone();
    if (haveGone) {
        CBBLog::error("%s was deleted or moved away; it is made again, with the files of all satellites",
                      folders_.front().path().c_str());
    }
    if (haveGone || folders_.size() < 2) OpenFolders();
    if (!haveGone) return;
    {
        PReadHold hold(lock_);
        PMutexHold holdUnstored(unstoredLock_);
        for (const auto& [name, satellite] : satellites_) unstored_.insert(name);
    }
    if (availability_) availability_->SaveList();
}

// Nothing is written, for the reason given.
void CRegistration::SayUnusable(const std::exception& failure) {
    if (!isFolderMissed_.Begins()) return;
    CBBLog::error("The registry is kept in memory only, and tried again every 5 seconds: %s", failure.what());
}

// --- Writing ---

int CRegistration::SerializeSatellite(const CStdStr& name) {
    try {
        DeleteFormerFiles(name, std::nullopt, Store(name));
    } catch (const std::exception& failure) {
        CBBLog::error("CRegistration::SerializeSatellite data directory not found");
        SayUnusable(failure);
        NoteUnstored(name);
    }
    return 0;
}

// Brings the counter and then the satellite's record to the disk; false when the record is not there, which is noted if
// it can be tried again.
bool CRegistration::Store(const CStdStr& name) {
    const NameTurns::Hold turn(turns_, name);
    const SatellitePtr satellite = GetSatelliteStruct(name);
    const char* const fault = satellite ? NameFault(satellite->satName) : nullptr;
    if (fault) CBBLog::error("Satellite %.1024s cannot have a file: %s", satellite->satName.c_str(), fault);
    if (!satellite || fault) {
        WriteFiles(nullptr);
        return false;
    }
    const FileChange change{&SatellitesFolder, satellite->satName + ".xml", SatelliteText(*satellite)};
    if (WriteFiles(&change)) return true;
    NoteUnstored(name);
    return false;
}

// The registration file and then `change`, if any; false when one of them is not on the disk.
bool CRegistration::WriteFiles(const FileChange* change) {
    const GroupCommit::Outcome outcome = commit_.WriteAfterFirst(change);
    if (!outcome.problem.empty()) throw FolderError(outcome.problem);
    if (isFolderMissed_.Ends()) CBBLog::note("The registry's files can be written again");
    if (!registrationFails_.Take(outcome.first, "write", RegistrationFolder, registrationFile) || !change) return false;
    return satelliteFails_.Take(outcome.change, "write", change->folder, change->name);
}

FileChange CRegistration::RegistrationChange() {
    if (isUnread_) TakeOverUnread();
    PReadHold hold(lock_);
    return {&RegistrationFolder, registrationFile, RegistrationText(serverId_, lastSatId_)};
}

void CRegistration::NoteUnstored(const CStdStr& name) {
    PMutexHold hold(unstoredLock_);
    unstored_.insert(name);
}

void CRegistration::SaveIfFailed() {
    try {
        LookAfterFolders();
    } catch (const std::exception&) {  // which was said when they were first missed
    }
    std::set<CStdStr, CaseInsensitiveLess> names;
    std::set<CStdStr> undeleted;
    {
        PMutexHold hold(unstoredLock_);
        names.swap(unstored_);
        undeleted.swap(undeleted_);
    }
    std::erase_if(names, [this](const CStdStr& name) { return !GetSatelliteStruct(name); });
    try {
        if (names.empty() && registrationFails_.IsOpen()) WriteFiles(nullptr);
        while (!names.empty()) {
            const CStdStr name = *names.begin();
            DeleteFormerFiles(name, std::nullopt, Store(name));
            names.erase(name);
        }
        while (!undeleted.empty()) {
            DeleteUnlessOwned(*undeleted.begin());
            undeleted.erase(undeleted.begin());
        }
    } catch (const std::exception&) {  // no folder, which was said when it was first missed
    }
    PMutexHold hold(unstoredLock_);
    unstored_.merge(names);
    undeleted_.merge(undeleted);
}

// --- Deleting ---

int CRegistration::DeleteSatelliteFile(const CStdStr& name, int satId) {
    DeleteFormerFiles(name, satId, true);
    NameTurns::Hold turn(turns_, name);
    return DeleteFileInTurn(name, satId);
}

int CRegistration::DeleteFileInTurn(const CStdStr& name, int satId) {
    const SatellitePtr satellite = GetSatelliteStruct(name);
    if (!satellite) return noSuchSatellite;
    if (satellite->satId != satId) {
        if (CBBLog::isDebugEnabled()) {
            CBBLog::debug("DeleteSatelliteFile %s: satId mismatch %d/%d", name.c_str(), satId, satellite->satId);
        }
        return satIdMismatch;
    }
    if (NameFault(satellite->satName)) return 0;
    try {
        RemoveFile(satellite->satName);
    } catch (const std::exception& failure) {
        CBBLog::error("CRegistration::DeleteSatelliteFile data directory not found");
        SayUnusable(failure);
        NoteUndeleted(satellite->satName);
    }
    return 0;
}

// Deletes the file NAME.xml, now or, when that cannot be done, later. In the name's turn.
void CRegistration::RemoveFile(const CStdStr& name) {
    const CStdStr fileName = name + ".xml";
    const int error = commit_.Write({&SatellitesFolder, fileName, std::nullopt});
    if (!deletionFails_.Take(error, "delete", SatellitesFolder, fileName)) NoteUndeleted(name);
}

void CRegistration::NoteUndeleted(const CStdStr& name) {
    PMutexHold hold(unstoredLock_);
    undeleted_.insert(name);
}

// Deletes the file NAME.xml unless it is a satellite's own by now.
void CRegistration::DeleteUnlessOwned(const CStdStr& name) {
    NameTurns::Hold turn(turns_, name);
    const SatellitePtr owner = GetSatelliteStruct(name);
    if (!owner || owner->satName != name) RemoveFile(name);
}

// Deletes the files that hold a record of this satellite under another name than its own, if it has the id `satId` or
// that does not matter. Those that hold its present record stay unless that is stored under its own name, or is to go.
// A name may have become the own one of another satellite in the meantime, or of a newer record of this one; its file
// then stays.
void CRegistration::DeleteFormerFiles(const CStdStr& name, std::optional<int> satId, bool isStoredOrGone) {
    const SatellitePtr satellite = GetSatelliteStruct(name);
    if (!satellite || (satId && *satId != satellite->satId)) return;
    const auto isObsolete = [&](const auto& file) { return isStoredOrGone || file.isReplaced; };
    std::vector<KelSatelliteInfo::FormerFile> obsolete;
    {
        PReadHold hold(satellite->lock);
        std::copy_if(satellite->formerFiles.begin(), satellite->formerFiles.end(), std::back_inserter(obsolete),
                     isObsolete);
    }
    if (obsolete.empty()) return;
    try {
        for (const auto& file : obsolete) {
            if (!NameFault(file.name)) DeleteUnlessOwned(file.name);
        }
    } catch (const std::exception& failure) {
        CBBLog::error("CRegistration::DeleteSatelliteFile data directory not found");
        return SayUnusable(failure);
    }
    // Only now: whoever finds nothing to delete may rely on it that nothing is there.
    PWriteHold hold(satellite->lock);
    std::erase_if(satellite->formerFiles, isObsolete);
}
