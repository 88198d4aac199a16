// How a write is kept from waiting
//
// O_NONBLOCK belongs to the open file, which a standard descriptor shares with the shell, the supervisor and whoever
// else was given it: setting it there would break their writes. A pipe takes a write that alone does not wait
// (RWF_NOWAIT). A terminal, and a pipe on systems before Linux 6.4, is opened anew through /proc for the length of the
// write. To keep that open would hide the end of a pipe from its reader after the program has let go of it.
//
// Where it cannot be opened (the terminal of another user, no /proc, no descriptor left) the write goes to the
// descriptor itself, in pieces that poll has promised room for.
#include "platform/WriteAtOnce.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace kel::platform {

namespace {

int OpenAnew(int fd) {
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

bool HasRoom(int fd) {
    pollfd output{fd, POLLOUT, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & POLLOUT);
}

// A pipe that is ready has room for PIPE_BUF bytes, a terminal for one.
ssize_t WriteWhileReady(int fd, const char* data, size_t length, size_t piece) {
    size_t taken = 0;
    while (taken < length && HasRoom(fd)) {
        const ssize_t count = write(fd, data + taken, std::min(piece, length - taken));
        if (count < 0) break;
        taken += static_cast<size_t>(count);
    }
    if (taken > 0) return static_cast<ssize_t>(taken);
    errno = EAGAIN;
    return -1;
}

}  // namespace

ssize_t WriteAtOnce(int fd, const void* data, size_t length) {
    struct stat info {};
    if (fstat(fd, &info) != 0) return -1;
    if (S_ISSOCK(info.st_mode)) return send(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (!S_ISFIFO(info.st_mode) && !S_ISCHR(info.st_mode)) return write(fd, data, length);
    const iovec whole{const_cast<void*>(data), length};
    const ssize_t taken = pwritev2(fd, &whole, 1, -1, RWF_NOWAIT);
    if (taken >= 0 || errno != EOPNOTSUPP) return taken;
    const int own = OpenAnew(fd);
    if (own < 0 && errno == ENXIO) return -1;  // the pipe has no reader
    if (own < 0)
        return WriteWhileReady(fd, static_cast<const char*>(data), length, S_ISFIFO(info.st_mode) ? PIPE_BUF : 1);
    const ssize_t count = write(own, data, length);
    const int reason = errno;
    close(own);
    errno = reason;
    return count;
}

}  // namespace kel::platform
