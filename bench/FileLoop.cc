#include "FileLoop.h"

#include "Support.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

namespace kel::bench {
namespace {

constexpr mode_t fileMode = 0775;

struct Replacement {
    std::string file;
    std::string beside;
    std::string folder;
    std::string text;
};

std::string Numbered(const char* what, int digits, unsigned number) {
    char text[64];
    std::snprintf(text, sizeof text, "%s%0*u", what, digits, number);
    return text;
}

Replacement ReplacementOf(const std::string& file, std::string text) {
    return {file, file + ".new", file.substr(0, file.rfind('/')), std::move(text)};
}

void Replace(const Replacement& replacement, Syncing syncing) {
    const int file = ::open(replacement.beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0 || ::fchmod(file, fileMode) != 0 ||
        ::write(file, replacement.text.data(), replacement.text.size()) !=
            static_cast<ssize_t>(replacement.text.size()) ||
        (syncing == Syncing::on && ::fdatasync(file) != 0) || ::close(file) != 0 ||
        ::rename(replacement.beside.c_str(), replacement.file.c_str()) != 0)
        FailWithErrno(replacement.file);
    if (syncing == Syncing::off) return;
    const Descriptor folder(::open(replacement.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (::fsync(folder.get()) != 0) FailWithErrno(replacement.folder);
}

std::vector<Replacement> ReplacementsFor(const std::string& root, unsigned short port, unsigned first, unsigned count) {
    std::vector<Replacement> replacements;
    replacements.reserve(2 * count);
    for (unsigned number = first; number < first + count; ++number) {
        const int id = firstId + static_cast<int>(number);
        const Satellite satellite = SatelliteNumber(number, port);
        replacements.push_back(ReplacementOf(RegistrationFile(root), RegistrationText(id)));
        replacements.push_back(ReplacementOf(SatelliteFile(root, satellite), SatelliteText(satellite, id)));
    }
    return replacements;
}

void ReadFile(int folder, const char* name, std::vector<char>& buffer) {
    const Descriptor file(::openat(folder, name, O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) FailWithErrno(name);
    const auto size = static_cast<size_t>(status.st_size);
    if (buffer.size() < size) buffer.resize(size);
    if (::read(file.get(), buffer.data(), size) != status.st_size) FailWithErrno(name);
}

}  // namespace

Satellite SatelliteNumber(unsigned number, unsigned short port) {
    return {Numbered("Satellite-", 7, number), Numbered("Service-", 7, number), Numbered("Description ", 8, number),
            port};
}

std::string RegistrationText(int lastId) {
    return "<?xml version='1.0'?>\n<registration>\n\t<serverId>benchbenchbench1</serverId>\n\t<lastSatId>" +
           std::to_string(lastId) + "</lastSatId>\n</registration>\n";
}

std::string SatelliteText(const Satellite& satellite, int id) {
    return "<?xml version='1.0'?>\n<satellite>\n\t<id>" + std::to_string(id) + "</id>\n\t<satName>" + satellite.name +
           "</satName>\n\t<ip>127.0.0.1</ip>\n\t<port>" + std::to_string(satellite.port) +
           "</port>\n\t<hostname>studio</hostname>\n\t<kelProtocolVersion>2</"
           "kelProtocolVersion>\n\t<service>\n\t\t<name>" +
           satellite.service + "</name>\n\t\t<description>" + satellite.description +
           "</description>\n\t</service>\n</satellite>\n";
}

std::string SatelliteFolder(const std::string& root) { return root + "/Library/Tessaly/Satellites"; }

std::string RegistrationFile(const std::string& root) {
    return SatelliteFolder(root) + "/Registration/Registration.xml";
}

std::string SatelliteFile(const std::string& root, const Satellite& satellite) {
    return SatelliteFolder(root) + "/" + satellite.name + ".xml";
}

void MakeFolders(const std::string& root) {
    std::filesystem::create_directories(SatelliteFolder(root) + "/Registration");
    Replace(ReplacementOf(RegistrationFile(root), RegistrationText(lastIdAtStart)), Syncing::off);
}

double ReplaceFiles(const std::string& root, unsigned short port, unsigned first, unsigned count, Syncing syncing) {
    const std::vector<Replacement> replacements = ReplacementsFor(root, port, first, count);
    const auto start = Clock::now();
    for (const Replacement& replacement : replacements) Replace(replacement, syncing);
    return count / SecondsSince(start);
}

size_t ReadFiles(const std::string& root) {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(SatelliteFolder(root).c_str()), ::closedir);
    if (!folder) FailWithErrno(SatelliteFolder(root));
    std::vector<char> buffer;
    size_t count = 0;
    while (const dirent* entry = ::readdir(folder.get())) {
        if (!std::string_view(entry->d_name).ends_with(".xml")) continue;
        ReadFile(::dirfd(folder.get()), entry->d_name, buffer);
        ++count;
    }
    return count;
}

}  // namespace kel::bench
