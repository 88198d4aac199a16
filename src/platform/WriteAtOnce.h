// Writing that never waits for who reads: for standard output and standard error, whose other end belongs to somebody
// else.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace kel::platform {

// Writes as much to the descriptor as is taken at once: the number of bytes, or -1 with the reason in errno, EAGAIN
// when nothing is taken now. A pipe takes a line of up to PIPE_BUF bytes whole or not at all. Any thread; safe in a
// signal handler.
ssize_t WriteAtOnce(int fd, const void* data, size_t length);

}  // namespace kel::platform
