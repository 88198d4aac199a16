// What a file system knows of a file beyond POSIX.
#pragma once

#include <cstdint>
#include <string>

namespace kel::platform {

// When the file at `path` (symbolic links followed) was created, in seconds since 1970; -1 when there is no such file
// or its file system does not record it. From any thread.
int64_t FileCreationTime(const std::string& path);

}  // namespace kel::platform
