#include "platform/UpTime.h"

#include <time.h>

namespace kel::platform {

uint32_t UpTimeMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto seconds = static_cast<uint64_t>(now.tv_sec);
    return static_cast<uint32_t>(seconds * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000);
}

}  // namespace kel::platform
