// Open files, read and written whole: however many calls it takes, and whatever signal comes between.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <utility>

namespace kel::platform {

// A descriptor that is closed with its scope, leaving errno alone.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor();

    bool IsOpen() const { return fd_ >= 0; }
    int get() const { return fd_; }
    // Closes it now. Returns 0 or an error number: some file systems tell only then that something is not written.
    int Close();

private:
    int fd_;
};

// Replaces `text` by what there is to read. Returns 0, or an error number, as errno is then: it was read up to there.
int ReadWhole(int fd, std::string& text);
// Reads `length` bytes from `offset`, or as many as there are; the number read, or -1 with the reason in errno.
ssize_t ReadAt(int fd, void* data, size_t length, size_t offset);
// Returns 0 or an error number.
int WriteWhole(int fd, const void* data, size_t length);

}  // namespace kel::platform
