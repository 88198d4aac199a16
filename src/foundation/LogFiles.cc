// The files of a log: how they are opened, and what becomes of one that is full.
#include "foundation/LogFolder.h"
#include "foundation/LogImpl.h"
#include "foundation/StandardStreams.h"
#include "platform/ProcessPaths.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace {

// The module's name, as fatal lines show it, from its file's.
CStdStr shortNameOf(const CStdStr& name) {
    CStdStr shortName = name.substr(0, name.find('.'));
    const size_t separator = shortName.find_last_of("/\\");
    if (separator != CStdStr::npos) shortName.erase(0, separator + 1);
    return shortName;
}

// What is wrong with a folder or file that LogFolder has refused; empty when it is neither a link nor anybody else's.
CStdStr WhyRefused(const CStdStr& path, bool isFolder) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) return CStdStr();
    const bool isForeign = isFolder && info.st_uid != 0 && info.st_uid != geteuid();
    const bool isKind = isFolder ? S_ISDIR(info.st_mode) : S_ISREG(info.st_mode);
    if (isKind && !isForeign) return CStdStr();
    CStdStr text;
    text.Format("%s is not used: it is %s, of the user with the id %u; remove it", path.c_str(),
                S_ISLNK(info.st_mode) ? "a link"
                : !isKind             ? (isFolder ? "no folder" : "no file")
                                      : "a folder of another user",
                static_cast<unsigned>(info.st_uid));
    return text;
}

// Why a file in the folder could not be opened, in words.
CStdStr WhyUnused(const CStdStr& folder, const CStdStr& file, int reason) {
    for (const bool isFolder : {true, false}) {
        CStdStr text = WhyRefused(isFolder ? folder : file, isFolder);
        if (!text.empty()) return text;
    }
    CStdStr text;
    std::error_code ignored;
    std::filesystem::path parent(folder.c_str());
    while (!std::filesystem::exists(parent, ignored) && parent.has_relative_path()) parent = parent.parent_path();
    if (parent != folder.c_str() && access(parent.c_str(), W_OK) != 0)
        text.Format("%s cannot be made in %s: %s", folder.c_str(), parent.c_str(), std::strerror(errno));
    else text.Format("%s cannot be opened: %s", file.c_str(), std::strerror(reason));
    return text;
}

bool isSameFile(const struct stat& a, const struct stat& b) { return a.st_ino == b.st_ino && a.st_dev == b.st_dev; }

}  // namespace

CStdStr CBBLog::Impl::getLogsDirectory() { return kel::platform::RootPrefix() + "/Library/Logs/Tessaly"; }

// Opens a file of the folder; -1 with the reason in errno.
int CBBLog::Impl::openFile(const CStdStr& path, bool& isNew) const {
    return LogFolder(folder_.c_str()).OpenFile(path.c_str() + folder_.size() + 1, isNew);
}

void CBBLog::Impl::initialize() {
    PMutexHold hold(initLock_);
    if (initialized_) return;

    folder_ = getLogsDirectory();
    logPath_ = folder_ + "/" + name_;
    errorsPath_ = folder_ + "/errors.log";
    shortName_ = shortNameOf(name_);
    mkdir(folder_.c_str(), 0777);
    const CStdStr problems = openFiles();

    std::unique_ptr<PThread> thread(new PThread(new PThreadDelegateMember<Impl>(this, &Impl::loggerThread)));
    try {
        thread->Start();
    } catch (...) {  // the next line tries again
        closeFiles();
        throw;
    }
    thread_.swap(thread);
    if (!problems.empty()) kel::PrintError(problems);
    if (!problems.empty() && fileEnabled_) addQueue(problems);
    initialized_ = true;
}

void CBBLog::Impl::closeFiles() {
    PMutexHold hold(fileLock_);
    for (int* fd : {&logFd_, &errorsFd_}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
    fileEnabled_ = errorsEnabled_ = false;
}

// Returns the lines that say what is wrong with the files, if anything is.
CStdStr CBBLog::Impl::openFiles() {
    PMutexHold hold(fileLock_);
    CStdStr problems;
    const auto open = [&](int& fd, const CStdStr& path, const char* what) {
        bool isNew = false;
        fd = openFile(path, isNew);
        // Processes of other users append as well, whatever this one's umask. What is somebody else's keeps its mode.
        struct stat info {};
        const bool isOwn = fd >= 0 && fstat(fd, &info) == 0 && info.st_uid == geteuid() && info.st_nlink == 1;
        if (isNew || isOwn) fchmod(fd, 0666);
        if (fd >= 0) return true;
        const int reason = errno;
        CStdStr line;
        line.Format("Error: could not open %s '%s': %d\n", what, logPath_.c_str(), reason);
        kel::PrintOut(line);
        const CStdStr problem = "Log: " + WhyUnused(folder_, path, reason) + "\n";
        if (problems.find(problem) == CStdStr::npos) problems += buildLineHeader(LOGLEVEL_ERROR) + problem;
        return false;
    };
    fileEnabled_ = open(logFd_, logPath_, "log file");
    // The message names the module's log, as it always has.
    errorsEnabled_ = open(errorsFd_, errorsPath_, "error log file");
    return problems;
}

// Several processes append to the same file, and each finds out by itself that it is full. The first to lock it renames
// it; the others hold a descriptor whose inode the name no longer has, and only open the name again. So the line that
// finds the file full goes to a new one, and the backup is not overwritten by a file with a line or two.
void CBBLog::Impl::rotateIfNeeded(int& fd, const CStdStr& path) const {
    struct stat opened {};
    struct stat named {};
    if (fstat(fd, &opened) != 0) return;
    const bool exists = lstat(path.c_str(), &named) == 0;
    if (!exists && errno != ENOENT) return;
    if (exists && isSameFile(opened, named)) {
        if (opened.st_size < maxFileSize_) return;
        if (flock(fd, LOCK_EX) != 0) return;
        const bool stillNamed = lstat(path.c_str(), &named) == 0 && isSameFile(opened, named);
        const CStdStr name = path.substr(folder_.size() + 1);
        if (stillNamed) LogFolder(folder_.c_str()).Rename(name.c_str(), (name + ".back").c_str());
    }
    bool isNew = false;
    const int fresh = openFile(path, isNew);
    if (fresh < 0) return;  // the line goes where the last one went, and the next one tries again
    close(fd);              // gives the lock back
    fd = fresh;
}

long long CBBLog::Impl::getFileSize() {
    PMutexHold hold(fileLock_);
    struct stat opened {};
    return fstat(logFd_, &opened) == 0 ? static_cast<long long>(opened.st_size) : -1;
}
