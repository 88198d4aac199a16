#include "rpc/transport/DescriptorReserve.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kel::transport {

namespace {
constexpr rlim_t reserve = 32;
constexpr rlim_t fewDescriptors = 256;  // of fewer an eighth is kept
}  // namespace

// The system gives out the lowest free number.
bool IsOfReserve(int descriptor) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    const rlim_t kept = limit.rlim_cur < fewDescriptors ? limit.rlim_cur / 8 : reserve;
    return static_cast<rlim_t>(descriptor) + kept >= limit.rlim_cur;
}

bool ReserveIsNext() {
    const int next = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (next < 0) return true;
    ::close(next);
    return IsOfReserve(next);
}

}  // namespace kel::transport
