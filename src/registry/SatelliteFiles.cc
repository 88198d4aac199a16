// The files of the registry: their text, and how they are written, read and deleted. Registration.h says who may when.
#include "registry/Registration.h"

#include "foundation/FileTools.h"
#include "foundation/Log.h"
#include "registry/DataFiles.h"
#include "registry/XmlTags.h"

#include <boost/make_shared.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

using namespace kel::registry;

namespace {

constexpr std::string_view xmlEnding = ".xml";

// The longest values that files keep; what is beyond is cut off.
constexpr size_t nameLimit = 1024;
constexpr size_t ipLimit = 16;
constexpr size_t hostnameLimit = 16;
constexpr size_t descriptionLimit = 4096;

CStdStr RegistrationPath(const CStdStr& satellites) { return satellites + "/Registration/Registration.xml"; }

// --- Names ---

// Why no file can have this name, or null.
const char* NameFault(const CStdStr& name) {
    if (name.find('/') != CStdStr::npos) return "it contains a \"/\"";
    if (name.find('\0') != CStdStr::npos) return "it contains a NUL";
    if (name.size() + xmlEnding.size() > NAME_MAX) return std::strerror(ENAMETOOLONG);
    return nullptr;
}

CStdStr SatellitePath(const CStdStr& folder, const CStdStr& name) { return folder + "/" + name + ".xml"; }

// --- Text ---

// At most `limit` characters, and none behind a NUL.
std::string_view Cut(const CStdStr& value, size_t limit) { return {value.c_str(), strnlen(value.c_str(), limit)}; }

CStdStr SatelliteText(const KelSatelliteInfo& satellite) {
    CStdStr text("<?xml version='1.0'?>\n<satellite>\n");
    AppendTag(text, "\t", "id", std::to_string(satellite.satId));
    AppendTag(text, "\t", "satName", Cut(satellite.satName, nameLimit));
    AppendTag(text, "\t", "ip", Cut(satellite.ip, ipLimit));
    AppendTag(text, "\t", "port", std::to_string(satellite.port));
    AppendTag(text, "\t", "hostname", Cut(satellite.hostname, hostnameLimit));
    AppendTag(text, "\t", "kelProtocolVersion", std::to_string(satellite.kelProtocolVersion));

    PReadHold hold(satellite.lock);
    for (const auto& [key, service] : satellite.services) {
        text.append("\t<service>\n");
        AppendTag(text, "\t\t", "name", Cut(service.name, nameLimit));
        AppendTag(text, "\t\t", "description", Cut(service.description, descriptionLimit));
        text.append("\t</service>\n");
    }
    text.append("</satellite>\n");
    return text;
}

// --- Files ---

// A file that is gone already is no error.
void RemoveFile(int folder, const CStdStr& path) {
    if (unlinkat(folder, path.c_str(), 0) == 0 || errno == ENOENT) return;
    CBBLog::error("Could not delete %s: %s", path.c_str(), std::strerror(errno));
}

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

// Replaces `text` by the contents of a file of `folder`; false, with errno set, when it cannot be read.
bool ReadFile(int folder, const char* name, CStdStr& text) {
    text.clear();
    const int file = openat(folder, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe must not hold up the start
    if (file < 0) return false;
    char part[16 * 1024];
    ssize_t got = 0;
    do {
        got = read(file, part, sizeof part);
        if (got > 0) text.append(part, static_cast<size_t>(got));
    } while (got > 0 || (got < 0 && errno == EINTR));
    const int reason = errno;
    close(file);
    errno = reason;
    return got == 0;
}

bool IsSatelliteFile(const CStdStr& fileName) {
    const size_t dot = fileName.rfind('.');
    return dot != CStdStr::npos && fileName.compare(dot, CStdStr::npos, xmlEnding) == 0;
}

// The names of the satellite files in an open folder. In the order of the registry's map, so that loading them adds
// each record beside the one before: with many, looking for its place would otherwise cost more than reading the file.
std::vector<CStdStr> SatelliteFileNames(DIR* folder) {
    std::vector<CStdStr> names;
    while (const dirent* entry = readdir(folder)) {
        CStdStr name(entry->d_name);
        if (IsSatelliteFile(name)) names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end(), CaseInsensitiveLess());
    return names;
}

// The one value of `tag`; false when there is none, more than one, an unclosed one or, unless allowed, an empty one.
bool OneValue(const CStdStr& text, const char* tag, CStdStr& value, bool mayBeEmpty = false) {
    std::vector<CStdStr> values;
    if (getXMLTagValue(text, tag, values) != 0 || values.size() != 1) return false;
    value = std::move(values.front());
    return mayBeEmpty || !value.empty();
}

bool OneNumber(const CStdStr& text, const char* tag, int& number) {
    CStdStr value;
    if (!OneValue(text, tag, value)) return false;
    number = std::atoi(value.c_str());
    return true;
}

// Reads everything but the services; false when the text is damaged.
bool ReadSatellite(const CStdStr& text, KelSatelliteInfo& satellite) {
    int port = 0;
    if (!OneNumber(text, "id", satellite.satId) || !OneValue(text, "satName", satellite.satName) ||
        !OneValue(text, "ip", satellite.ip) || !OneNumber(text, "port", port) ||
        !OneValue(text, "hostname", satellite.hostname) ||
        !OneNumber(text, "kelProtocolVersion", satellite.kelProtocolVersion)) {
        return false;
    }
    satellite.port = static_cast<uint16_t>(port);
    return true;
}

// False when a service is damaged: those before it are read.
bool ReadServices(const CStdStr& text, KelSatelliteInfo& satellite) {
    std::vector<CStdStr> blocks;
    const bool isWhole = getXMLTagValue(text, "service", blocks) == 0;
    PWriteHold hold(satellite.lock);
    for (const CStdStr& block : blocks) {
        KelService service;
        if (!OneValue(block, "name", service.name) || !OneValue(block, "description", service.description, true)) {
            return false;
        }
        const CStdStr name = service.name;
        satellite.services[name] = std::move(service);
    }
    return isWhole;
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

}  // namespace

void CRegistration::CreateFolders() {
    try {
        const CStdStr satellites = SatellitesFolder();
        for (const CStdStr& folder : {satellites, RegistrationFolder()}) {
            if (!CFileTools::CreateDirectory(folder) && !CFileTools(folder).isFolder())
                throw std::runtime_error(folder);
            if (chmod(folder.c_str(), fileMode) != 0) {
                CBBLog::error("CRegistration::CRegistration chmod failed %s", std::strerror(errno));
            }
        }
    } catch (const std::exception&) {
        CBBLog::error("CRegistration::CRegistration data directory not found");
    }
}

// --- Writing ---

int CRegistration::SerializeSatellite(const CStdStr& name) {
    bool isTried = false;
    try {
        const CStdStr folder = SatellitesFolder();
        // Without the counter no satellite: an id in a file that the counter does not cover would be given out again.
        if (WriteRegistrationFile(folder)) {
            Store(folder, name);
            isTried = true;
        } else {
            DeleteFormerFiles(name, std::nullopt, false);
        }
    } catch (const std::exception&) {
        CBBLog::error("CRegistration::SerializeSatellite data directory not found");
    }
    if (!isTried) NoteUnstored(name);
    return 0;
}

void CRegistration::SaveIfFailed() {
    std::set<CStdStr, CaseInsensitiveLess> names;
    {
        PMutexHold hold(unstoredLock_);
        names.swap(unstored_);
    }
    if (names.empty() && !registrationFails_) return;
    std::erase_if(names, [this](const CStdStr& name) { return !GetSatelliteStruct(name); });
    try {
        const CStdStr folder = SatellitesFolder();
        if (WriteRegistrationFile(folder)) {
            for (const CStdStr& name : names) Store(folder, name);
            return;
        }
    } catch (const std::exception&) {  // no data folder, which was said when it was first missed
    }
    PMutexHold hold(unstoredLock_);
    unstored_.merge(names);
}

void CRegistration::NoteUnstored(const CStdStr& name) {
    PMutexHold hold(unstoredLock_);
    unstored_.insert(name);
}

bool CRegistration::WriteRegistrationFile(const CStdStr& folder) {
    return registrationFile_.Run(
        [&] { return WriteFile(RegistrationPath(folder), RegistrationText(), registrationFails_); });
}

// Brings the satellite's record to disk.
void CRegistration::Store(const CStdStr& folder, const CStdStr& name) {
    DeleteFormerFiles(name, std::nullopt, WriteSatelliteFile(folder, name));
}

CStdStr CRegistration::RegistrationText() const {
    CStdStr text("<?xml version='1.0'?>\n<registration>\n");
    PReadHold hold(lock_);
    AppendTag(text, "\t", "serverId", serverId_);
    AppendTag(text, "\t", "lastSatId", std::to_string(lastSatId_));
    text.append("</registration>\n");
    return text;
}

// False when the satellite's record is not on disk afterwards.
bool CRegistration::WriteSatelliteFile(const CStdStr& folder, const CStdStr& name) {
    NameTurns::Hold turn(turns_, name);
    const SatellitePtr satellite = GetSatelliteStruct(name);
    if (!satellite) return false;
    if (const char* fault = NameFault(satellite->satName)) {
        CBBLog::error("Satellite %.1024s cannot have a file: %s", satellite->satName.c_str(), fault);
        return false;
    }
    if (WriteFile(SatellitePath(folder, satellite->satName), SatelliteText(*satellite), satelliteFails_)) return true;
    NoteUnstored(name);
    return false;
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
    try {
        const CStdStr folder = SatellitesFolder();
        if (!NameFault(satellite->satName)) RemoveFile(AT_FDCWD, SatellitePath(folder, satellite->satName));
    } catch (const std::exception&) {
        CBBLog::error("CRegistration::DeleteSatelliteFile data directory not found");
    }
    return 0;
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
        const CStdStr folder = SatellitesFolder();
        for (const auto& file : obsolete) {
            if (NameFault(file.name)) continue;
            NameTurns::Hold turn(turns_, file.name);
            const SatellitePtr owner = GetSatelliteStruct(file.name);
            if (!owner || owner->satName != file.name) RemoveFile(AT_FDCWD, SatellitePath(folder, file.name));
        }
    } catch (const std::exception&) {
        CBBLog::error("CRegistration::DeleteSatelliteFile data directory not found");
        return;
    }
    // Only now: whoever finds nothing to delete may rely on it that nothing is there.
    PWriteHold hold(satellite->lock);
    std::erase_if(satellite->formerFiles, isObsolete);
}

// --- Loading ---

int CRegistration::LoadAllSatFiles() {
    try {
        const CStdStr path = SatellitesFolder();
        if (!LoadRegistrationFile(RegistrationPath(path))) return noRegistrationFile;
        const Folder folder(opendir(path.c_str()));
        if (!folder) throw std::system_error(errno, std::generic_category(), path);
        const int descriptor = dirfd(folder.get());
        CStdStr text;
        std::vector<CStdStr> surplus;
        for (const CStdStr& fileName : SatelliteFileNames(folder.get())) {
            if (!ReadFile(descriptor, fileName.c_str(), text)) {
                CBBLog::error("Could not read %s/%s: %s", path.c_str(), fileName.c_str(), std::strerror(errno));
                continue;
            }
            surplus.clear();
            LoadSatellite(fileName, text, surplus);
            for (const CStdStr& file : surplus) RemoveFile(descriptor, file);
        }
        return 0;
    } catch (const std::exception&) {
        CBBLog::error("CRegistration::LoadAllSatFiles data directory not found");
        return -1;
    }
}

bool CRegistration::LoadRegistrationFile(const CStdStr& path) {
    const CStdStr text = CFileTools(path).toString();
    if (text.empty()) return false;
    std::vector<CStdStr> serverIds;
    std::vector<CStdStr> lastIds;
    const bool hasServerId = getXMLTagValue(text, "serverId", serverIds) == 0 && !serverIds.empty();
    const bool hasLastId = getXMLTagValue(text, "lastSatId", lastIds) == 0 && !lastIds.empty();
    PWriteHold hold(lock_);
    if (hasServerId) serverId_ = serverIds.front();
    if (hasLastId) lastSatId_ = std::atoi(lastIds.front().c_str());
    return hasLastId;
}

// Takes a satellite over from the text of its file. Adds to `surplus` the files of the folder that are to be deleted:
// this one when it is damaged, and of two that hold the same satellite the one with the lower id.
void CRegistration::LoadSatellite(const CStdStr& fileName, const CStdStr& text, std::vector<CStdStr>& surplus) {
    const auto satellite = boost::make_shared<KelSatelliteInfo>();
    if (!ReadSatellite(text, *satellite)) {
        surplus.push_back(fileName);
        return;
    }
    if (CBBLog::isInfoEnabled()) CBBLog::info("Parsing satellite %s", satellite->satName.c_str());
    const bool isWhole = ReadServices(text, *satellite);
    if (!isWhole) surplus.push_back(fileName);

    // Of two with the same id the one in the satellite's own file is the later one.
    const bool isOwnFile = fileName == satellite->satName + ".xml";
    SatellitePtr loser;
    {
        PWriteHold hold(lock_);
        loser = Insert(satellite, isOwnFile ? Insertion::ifNotOlder : Insertion::ifNewer);
    }
    if (loser) surplus.push_back(loser == satellite ? fileName : FileOf(*loser));
    if (loser == satellite) return;
    RememberFile(*satellite, fileName);
    if (isWhole && CBBLog::isInfoEnabled()) {
        CBBLog::info("Satellite %s %s:%d has been added from file", satellite->satName.c_str(), satellite->ip.c_str(),
                     satellite->port);
    }
}
