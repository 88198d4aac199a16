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
//     writers of one process, processes of another namespace that share the folder, and leftovers, and follows no link.
//   - A failure removes it. A kill before the rename leaves it behind: it is in nobody's way, and may be deleted when
//     its process is gone.
//   - A power cut is another matter: a file system may bring the rename to the disk before the contents, and the file
//     is empty then. Who cares syncs the contents before the rename and the folder after it.
//
// Two writers of one file do not disturb each other: the later rename wins.
#include "foundation/FileReplacement.h"

#include "platform/FileSync.h"
#include "platform/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace {

constexpr mode_t modeBits = 07777;
constexpr mode_t defaultMode = 0666;
constexpr int maxNameAttempts = 1000;
constexpr char temporaryBegin[] = ".kel.";
constexpr char temporaryEnd[] = ".new";

// Whether what is there may be replaced: 0, or an error number.
int CheckTarget(int folder, const CStdStr& name, const struct stat& info) {
    if (S_ISREG(info.st_mode)) {
        const bool mayBeWritten = (info.st_mode & S_IWUSR) || faccessat(folder, name.c_str(), W_OK, 0) == 0;
        return mayBeWritten ? 0 : errno;
    }
    if (S_ISLNK(info.st_mode)) return 0;
    return S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
}

}  // namespace

FileReplacement::FileReplacement(int folder, const CStdStr& name) : folder_(folder), name_(name) {}

FileReplacement::~FileReplacement() {
    const int kept = errno;
    if (file_ >= 0) close(file_);
    if (!temporary_.empty()) unlinkat(folder_, temporary_.c_str(), 0);
    errno = kept;
}

int FileReplacement::Write(const void* data, size_t length, std::optional<mode_t> newMode) {
    if (name_.empty()) return ENOENT;
    if (name_.find('\0') != CStdStr::npos) return EINVAL;
    std::optional<mode_t> exactly = newMode;
    struct stat info {};
    if (fstatat(folder_, name_.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
        if (const int error = CheckTarget(folder_, name_, info)) return error;
        if (S_ISREG(info.st_mode)) exactly = info.st_mode & modeBits;
    } else if (errno != ENOENT) {
        return errno;
    }
    if (const int error = OpenTemporary(exactly.value_or(defaultMode))) return error;
    if (exactly && fchmod(file_, *exactly) != 0) return errno;
    return kel::platform::WriteWhole(file_, data, length);
}

int FileReplacement::OpenTemporary(mode_t mode) {
    static std::atomic<unsigned> lastNumber{0};
    const size_t folderLength = name_.rfind('/') + 1;  // 0 when there is no "/"
    for (int attempt = 0; attempt < maxNameAttempts; ++attempt) {
        char name[48];
        std::snprintf(name, sizeof name, "%s%d.%u%s", temporaryBegin, static_cast<int>(getpid()), ++lastNumber,
                      temporaryEnd);
        CStdStr path = name_.substr(0, folderLength) + name;
        file_ = openat(folder_, path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (file_ >= 0) temporary_ = std::move(path);
        if (file_ >= 0 || errno != EEXIST) return file_ >= 0 ? 0 : errno;
    }
    return EEXIST;
}

// Closing comes first: some file systems tell only then that the contents could not be written.
int FileReplacement::PutInPlace() {
    const int closed = close(std::exchange(file_, -1));
    if (closed != 0 && errno != EINTR) return errno;  // Linux has closed it when EINTR is reported
    if (renameat(folder_, temporary_.c_str(), folder_, name_.c_str()) != 0) return errno;
    temporary_.clear();
    return 0;
}

int SyncContents(const std::vector<const FileReplacement*>& files) {
    std::vector<int> descriptors;
    descriptors.reserve(files.size());
    for (const FileReplacement* const file : files) descriptors.push_back(file->file_);
    return descriptors.empty() ? 0 : kel::platform::SyncFiles(descriptors);
}

int SyncFolders(const std::vector<int>& folders) { return folders.empty() ? 0 : kel::platform::SyncFolders(folders); }

int ReadFile(int folder, const CStdStr& name, CStdStr& text) {
    text.clear();
    // Without waiting: a pipe must not hold up anybody.
    const kel::platform::Descriptor file(openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    return file.IsOpen() ? kel::platform::ReadWhole(file.get(), text) : errno;
}

bool IsLeftover(const CStdStr& name) {
    constexpr size_t beginSize = sizeof temporaryBegin - 1;
    constexpr size_t endSize = sizeof temporaryEnd - 1;
    return name.size() > beginSize + endSize && name.compare(0, beginSize, temporaryBegin) == 0 &&
           name.compare(name.size() - endSize, endSize, temporaryEnd) == 0;
}
