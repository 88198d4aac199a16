#include "foundation/FileTools.h"

#include "foundation/FileReplacement.h"
#include "platform/FileTimes.h"
#include "platform/Files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <optional>

using kel::platform::Descriptor;

namespace {

// Opens for reading without ever waiting, which the opening of a pipe does otherwise.
int OpenForReading(const CStdStr& path) { return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }

// The size of an open regular file; -1 for anything else.
off_t RegularFileSize(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? info.st_size : -1;
}

}  // namespace

CFileTools::CFileTools(const CStdStr& path) : path_(path) {}

CFileTools::CFileTools(const CStdStr& path, const CStdStr& title) : path_(path), title_(title) {}

bool CFileTools::exists() const {
    struct stat info {};
    return stat(path_.c_str(), &info) == 0;
}

bool CFileTools::isFolder() const {
    struct stat info {};
    return stat(path_.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

int64_t CFileTools::getFileSize() const {
    struct stat info {};
    return stat(path_.c_str(), &info) == 0 ? info.st_size : -1;
}

int64_t CFileTools::getLastModified() const {
    struct stat info {};
    return stat(path_.c_str(), &info) == 0 ? info.st_mtime : -1;
}

int64_t CFileTools::getLastAccessed() const {
    struct stat info {};
    return stat(path_.c_str(), &info) == 0 ? info.st_atime : -1;
}

int64_t CFileTools::getDateCreated() const {
    const int64_t created = kel::platform::FileCreationTime(path_);
    return created >= 0 ? created : getLastModified();
}

CStdStr CFileTools::toString() const {
    CStdStr text;
    const Descriptor file(OpenForReading(path_));
    const off_t size = file.IsOpen() ? RegularFileSize(file.get()) : -1;
    if (size <= 0) return text;
    if (kel::platform::ReadWhole(file.get(), text) != 0) text.clear();
    return text;
}

bool CFileTools::readToBytes(unsigned char** data, unsigned long* length) const {
    return getData(data, length, 0, std::numeric_limits<unsigned long>::max());
}

bool CFileTools::getData(unsigned char** data, unsigned long* length, unsigned long offset, unsigned long count) const {
    *data = nullptr;
    *length = 0;
    const Descriptor file(OpenForReading(path_));
    const off_t size = file.IsOpen() ? RegularFileSize(file.get()) : -1;
    if (size < 0) return false;
    const size_t from = std::min<size_t>(offset, static_cast<size_t>(size));
    const size_t wanted = std::min<size_t>(count, static_cast<size_t>(size) - from);
    void* buffer = std::malloc(std::max<size_t>(wanted, 1));
    const ssize_t read = buffer ? kel::platform::ReadAt(file.get(), buffer, wanted, from) : -1;
    if (read < 0) {
        std::free(buffer);
        return false;
    }
    *data = static_cast<unsigned char*>(buffer);
    *length = static_cast<unsigned long>(read);
    return true;
}

bool CFileTools::writeBytes(const char* data, unsigned int length) {
    return writeBytes(reinterpret_cast<const unsigned char*>(data), length);
}

bool CFileTools::writeBytes(const unsigned char* data, unsigned int length) {
    return ReplaceContents(data, length, nullptr);
}

bool CFileTools::writeBytes(const char* data, unsigned int length, mode_t newMode) {
    return ReplaceContents(data, length, &newMode);
}

bool CFileTools::ReplaceContents(const void* data, size_t length, const mode_t* newMode) const {
    FileReplacement file(AT_FDCWD, path_);
    int error = file.Write(data, length, newMode ? std::make_optional(*newMode) : std::nullopt);
    if (error == 0) error = file.PutInPlace();
    if (error != 0) errno = error;
    return error == 0;
}
