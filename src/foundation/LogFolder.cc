#include "foundation/LogFolder.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr int maxAttempts = 10;  // while others make and remove the file

// Closes the descriptor and fails for that reason.
int Refuse(int fd, int reason) {
    close(fd);
    errno = reason;
    return -1;
}

int OpenFolder(const char* path) {
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat info {};
    if (fd < 0) return -1;
    if (fstat(fd, &info) != 0) return Refuse(fd, errno);
    return info.st_uid == 0 || info.st_uid == geteuid() ? fd : Refuse(fd, EPERM);
}

}  // namespace

LogFolder::LogFolder(const char* path) : fd_(OpenFolder(path)) {
    if (fd_ < 0) problem_ = errno;
}

LogFolder::~LogFolder() {
    if (fd_ >= 0) close(fd_);
}

int LogFolder::OpenFile(const char* name, bool& isNew) const {
    // Neither waits for the other end of a pipe, nor becomes the process's terminal.
    constexpr int flags = O_RDWR | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = -1;
    isNew = false;
    errno = problem_;
    for (int attempt = 0; fd_ >= 0 && fd < 0 && attempt < maxAttempts; ++attempt) {
        fd = openat(fd_, name, flags);
        if (fd >= 0 || errno != ENOENT) break;
        fd = openat(fd_, name, flags | O_CREAT | O_EXCL, 0666);
        isNew = fd >= 0;
        if (!isNew && errno != EEXIST) break;
    }
    struct stat info {};
    if (fd < 0) return -1;
    if (fstat(fd, &info) != 0) return Refuse(fd, errno);
    return S_ISREG(info.st_mode) ? fd : Refuse(fd, EINVAL);
}

bool LogFolder::Rename(const char* from, const char* to) const { return fd_ >= 0 && renameat(fd_, from, fd_, to) == 0; }
