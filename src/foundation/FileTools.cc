#include "foundation/FileTools.h"

#include "platform/FileTimes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <utility>

// How a file is replaced
//
// Writing into the file itself would leave, after a kill or on a full disk, part of a text where a whole one was, and
// would show that part to every reader meanwhile. So the new text goes into a temporary file in the same folder, which
// then takes the target's place by rename(): one step that either happened or did not.
//
//   - The mode is put on the temporary file before the rename, so that the target never exists with another. The
//     temporary file is never more open than that, since it is already opened with the mode.
//   - Its name is ".kel.<process>.<number>.new": short, whatever the length of the target's name, so that a name of
//     NAME_MAX bytes still works; and with no ending that a loader of files would pick up. O_EXCL keeps apart the
//     writers of one process, processes of another namespace that share the folder, and leftovers.
//   - A failure removes it. A kill before the rename leaves it behind: it is in nobody's way, and may be deleted when
//     its process is gone.
//   - There is no fsync: a crash of the program loses nothing, and after a power failure the common file systems, which
//     write a file's data before the rename that puts it over another, have one of the two texts.
//
// Two writers of one file do not disturb each other: the later rename wins.

namespace {

constexpr mode_t kModeBits = 07777;
constexpr mode_t kDefaultMode = 0666;
constexpr int kNameAttempts = 1000;

// A descriptor that is closed with its scope, leaving errno alone.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        const int kept = errno;
        Close();
        errno = kept;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    bool IsOpen() const { return fd_ >= 0; }
    int Number() const { return fd_; }
    bool Close() {
        const int fd = std::exchange(fd_, -1);
        return fd < 0 || close(fd) == 0 || errno == EINTR;  // Linux has closed it when EINTR is reported
    }

private:
    int fd_;
};

bool WriteAll(int fd, const void* data, size_t length) {
    const char* from = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t count = write(fd, from, length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        from += count;
        length -= static_cast<size_t>(count);
    }
    return true;
}

// Reads `length` bytes from `offset`, or as many as there are; the number read, or -1.
ssize_t ReadAll(int fd, void* data, size_t length, size_t offset) {
    char* to = static_cast<char*>(data);
    size_t have = 0;
    while (have < length) {
        const ssize_t count = pread(fd, to + have, length - have, static_cast<off_t>(offset + have));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return -1;
        if (count == 0) break;
        have += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(have);
}

// Opens for reading without ever waiting, which the opening of a pipe does otherwise.
int OpenForReading(const CStdStr& path) { return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }

// The size of an open regular file; -1 for anything else.
off_t RegularFileSize(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? info.st_size : -1;
}

struct TemporaryFile {
    CStdStr path;
    int fd;  // -1 when there is none, with the reason in errno
};

TemporaryFile OpenTemporaryBeside(const CStdStr& target, mode_t mode) {
    static std::atomic<unsigned> lastNumber{0};
    const size_t folderLength = target.rfind('/') + 1;  // 0 when there is no "/"
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        char name[40];
        std::snprintf(name, sizeof name, ".kel.%d.%u.new", static_cast<int>(getpid()), ++lastNumber);
        CStdStr path = target.substr(0, folderLength) + name;
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd >= 0 || errno != EEXIST) return {std::move(path), fd};
    }
    return {CStdStr(), -1};
}

// Whether what is at `path` may be replaced; false with the reason in errno.
bool IsReplaceable(const CStdStr& path, const struct stat& info) {
    if (S_ISREG(info.st_mode)) return (info.st_mode & S_IWUSR) || access(path.c_str(), W_OK) == 0;
    if (S_ISLNK(info.st_mode)) return true;
    errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    return false;
}

bool Fail(int reason) {
    errno = reason;
    return false;
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
    const off_t size = file.IsOpen() ? RegularFileSize(file.Number()) : -1;
    if (size <= 0) return text;
    text.resize(static_cast<size_t>(size));
    const ssize_t count = ReadAll(file.Number(), text.data(), text.size(), 0);
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

bool CFileTools::readToBytes(unsigned char** data, unsigned long* length) const {
    return getData(data, length, 0, std::numeric_limits<unsigned long>::max());
}

bool CFileTools::getData(unsigned char** data, unsigned long* length, unsigned long offset, unsigned long count) const {
    *data = nullptr;
    *length = 0;
    const Descriptor file(OpenForReading(path_));
    const off_t size = file.IsOpen() ? RegularFileSize(file.Number()) : -1;
    if (size < 0) return false;
    const size_t from = std::min<size_t>(offset, static_cast<size_t>(size));
    const size_t wanted = std::min<size_t>(count, static_cast<size_t>(size) - from);
    void* buffer = std::malloc(std::max<size_t>(wanted, 1));
    const ssize_t read = buffer ? ReadAll(file.Number(), buffer, wanted, from) : -1;
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

// `newMode` null: a file that does not exist yet gets the default mode less the umask.
bool CFileTools::ReplaceContents(const void* data, size_t length, const mode_t* newMode) const {
    if (path_.empty()) return Fail(ENOENT);
    if (path_.find('\0') != CStdStr::npos) return Fail(EINVAL);
    mode_t mode = newMode ? *newMode : kDefaultMode;
    bool isModeExact = newMode != nullptr;
    struct stat info {};
    if (lstat(path_.c_str(), &info) == 0) {
        if (!IsReplaceable(path_, info)) return false;
        if (S_ISREG(info.st_mode)) {
            mode = info.st_mode & kModeBits;
            isModeExact = true;
        }
    } else if (errno != ENOENT) {
        return false;
    }

    const TemporaryFile temporary = OpenTemporaryBeside(path_, mode);
    if (temporary.fd < 0) return false;
    Descriptor file(temporary.fd);
    if ((!isModeExact || fchmod(file.Number(), mode) == 0) && WriteAll(file.Number(), data, length) && file.Close() &&
        rename(temporary.path.c_str(), path_.c_str()) == 0) {
        return true;
    }
    const int reason = errno;
    unlink(temporary.path.c_str());
    return Fail(reason);
}
