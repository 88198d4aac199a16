#include "platform/FileTimes.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace kel::platform {

int64_t FileCreationTime(const std::string& path) {
    struct statx info {};
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &info) != 0 || !(info.stx_mask & STATX_BTIME)) return -1;
    return info.stx_btime.tv_sec;
}

}  // namespace kel::platform
