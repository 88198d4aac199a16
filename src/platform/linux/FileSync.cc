#include "platform/FileSync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

// Linux syncs one file or the whole file system. The latter is a single commit for any number of files, but takes along
// what every other program has written and not synced: beside somebody who copies a disk it would take minutes. So it
// is done only while little is waiting to be written. Else the writing of all files is begun before the first is waited
// for: then most of them have come along when the first is there.

namespace kel::platform {
namespace {

constexpr long littleKilobytes = 32 * 1024;

// Kilobytes after `label` in the text of /proc/meminfo; -1 when it is not there.
long Kilobytes(const char* text, const char* label) {
    const char* const found = std::strstr(text, label);
    return found ? std::strtol(found + std::strlen(label), nullptr, 10) : -1;
}

// Whether all file systems together have little to write.
bool IsLittleDirty() {
    const int file = open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    char text[4096];
    const ssize_t size = read(file, text, sizeof text - 1);
    close(file);
    if (size <= 0) return false;
    text[size] = '\0';
    const long dirty = Kilobytes(text, "\nDirty:");
    const long underWay = Kilobytes(text, "\nWriteback:");
    return dirty >= 0 && underWay >= 0 && dirty + underWay <= littleKilobytes;
}

int SyncEach(const std::vector<int>& files) {
    if (files.size() > 1) {
        for (const int file : files) sync_file_range(file, 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    for (const int file : files) {
        if (fdatasync(file) != 0) return errno;
    }
    return 0;
}

bool SyncAll(const std::vector<int>& descriptors) {
    return descriptors.size() > 1 && IsLittleDirty() && syncfs(descriptors.front()) == 0;
}

}  // namespace

int SyncFiles(const std::vector<int>& files) { return SyncAll(files) ? 0 : SyncEach(files); }

int SyncFolders(const std::vector<int>& folders) {
    if (SyncAll(folders)) return 0;
    for (const int folder : folders) {
        if (fsync(folder) != 0) return errno;
    }
    return 0;
}

}  // namespace kel::platform
