#include "platform/Files.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kel::platform {

Descriptor::~Descriptor() {
    const int kept = errno;
    Close();
    errno = kept;
}

int Descriptor::Close() {
    const int fd = std::exchange(fd_, -1);
    return fd < 0 || close(fd) == 0 || errno == EINTR ? 0 : errno;  // Linux has closed it when EINTR is reported
}

int ReadWhole(int fd, std::string& text) {
    text.clear();
    char part[16 * 1024];
    for (;;) {
        const ssize_t count = read(fd, part, sizeof part);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return count == 0 ? 0 : errno;
        text.append(part, static_cast<size_t>(count));
    }
}

ssize_t ReadAt(int fd, void* data, size_t length, size_t offset) {
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

int WriteWhole(int fd, const void* data, size_t length) {
    const char* from = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t count = write(fd, from, length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        from += count;
        length -= static_cast<size_t>(count);
    }
    return 0;
}

}  // namespace kel::platform
