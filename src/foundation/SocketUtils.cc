// The part of yar::networkutils that works on TCP sockets.
#include "foundation/Log.h"
#include "foundation/NetworkUtils.h"

#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>

namespace yar::networkutils {
namespace {

std::optional<sockaddr_in> PeerOf(int socket) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return std::nullopt;
    if (peer.sin_family != AF_INET) return std::nullopt;
    return peer;
}

int SetTimeout(int socket, int option, int64_t ms) {
    timeval timeout{};
    timeout.tv_sec = ms / 1000;
    timeout.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
    return setsockopt(socket, SOL_SOCKET, option, &timeout, sizeof timeout);
}

int GetTimeout(int socket, int option) {
    timeval timeout{};
    socklen_t length = sizeof timeout;
    if (getsockopt(socket, SOL_SOCKET, option, &timeout, &length) != 0) return -1;
    return static_cast<int>(std::min<int64_t>(timeout.tv_sec * 1000 + timeout.tv_usec / 1000, INT_MAX));
}

bool SetNonBlocking(int socket, int on) { return ioctl(socket, FIONBIO, &on) == 0; }

bool WaitWritable(int socket, int seconds) {
    if (seconds < 0) return false;  // to poll() it would be for ever
    pollfd wanted{socket, POLLOUT, 0};
    return poll(&wanted, 1, std::min(seconds, INT_MAX / 1000) * 1000) > 0;
}

// Connects the non-blocking socket; blocking again afterwards unless that went at once.
bool ConnectWithin(int socket, const addrinfo& to, int timeoutMs) {
    if (connect(socket, to.ai_addr, to.ai_addrlen) == 0) return true;
    if (errno != EINPROGRESS && errno != EAGAIN) return false;
    if (!WaitWritable(socket, timeoutMs / 1000 + 1)) return false;
    SetNonBlocking(socket, 0);
    return true;
}

}  // namespace

CStdStr GetPeerName(int socket) {
    const auto peer = PeerOf(socket);
    return peer ? inet_ntos(peer->sin_addr) : CStdStr();
}

CStdStr GetPeerNamePort(int socket) {
    CStdStr text;
    if (const auto peer = PeerOf(socket)) {
        text.Format("%s:%hu", inet_ntos(peer->sin_addr).c_str(), ntohs(peer->sin_port));
    }
    return text;
}

unsigned short GetSocketPort(int socket) {
    sockaddr_in own{};
    socklen_t length = sizeof own;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&own), &length) != 0 || own.sin_family != AF_INET) return 0;
    return ntohs(own.sin_port);
}

int SetKeepAlive(int socket) {
    const int on = 1;
    return setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == 0 ? 0 : -1;
}

int SetRecvTimeoutMs(int socket, int ms) { return SetTimeout(socket, SO_RCVTIMEO, ms); }
int SetSendTimeoutMs(int socket, int ms) { return SetTimeout(socket, SO_SNDTIMEO, ms); }
int SetRecvTimeout(int socket, int seconds) { return SetTimeout(socket, SO_RCVTIMEO, seconds * int64_t{1000}); }
int SetSendTimeout(int socket, int seconds) { return SetTimeout(socket, SO_SNDTIMEO, seconds * int64_t{1000}); }
int GetRecvTimeoutMs(int socket) { return GetTimeout(socket, SO_RCVTIMEO); }
int GetSendTimeoutMs(int socket) { return GetTimeout(socket, SO_SNDTIMEO); }

int ConnectTimeout(const char* host, unsigned short port, int timeoutMs) {
    CStdStr service;
    service.Format("%hu", port);
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_protocol = IPPROTO_TCP;
    addrinfo* resolved = nullptr;
    if (getaddrinfo(host, service.c_str(), &wanted, &resolved) != 0 || !resolved) {
        CBBLog::warn("Failed to connect to %.256s:%d , could not resolve hostname", host ? host : "", port);
        return -1;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> to(resolved, &freeaddrinfo);

    const int connecting = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (connecting < 0) return -1;
    const int sendTimeout = GetSendTimeoutMs(connecting);
    const int recvTimeout = GetRecvTimeoutMs(connecting);
    SetSendTimeoutMs(connecting, timeoutMs);
    SetRecvTimeoutMs(connecting, timeoutMs);
    if (!SetNonBlocking(connecting, 1) || !ConnectWithin(connecting, *to, timeoutMs)) {
        close(connecting);
        return -1;
    }
    if (sendTimeout >= 0) SetSendTimeoutMs(connecting, sendTimeout);
    if (recvTimeout >= 0) SetRecvTimeoutMs(connecting, recvTimeout);
    return connecting;
}

}  // namespace yar::networkutils
