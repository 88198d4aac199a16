#include "platform/SocketOptions.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace kel::platform {

namespace {

constexpr int probes = 3;

void Set(int socket, int level, int option, int value) { setsockopt(socket, level, option, &value, sizeof value); }

}  // namespace

void GiveUpOnDeadPeers(int socket, unsigned seconds) {
    const int interval = seconds > 2 * probes ? static_cast<int>(seconds) / (2 * probes) : 1;
    Set(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    Set(socket, IPPROTO_TCP, TCP_KEEPIDLE, static_cast<int>(seconds) - probes * interval);
    Set(socket, IPPROTO_TCP, TCP_KEEPINTVL, interval);
    Set(socket, IPPROTO_TCP, TCP_KEEPCNT, probes);
    Set(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(seconds) * 1000);
}

}  // namespace kel::platform
