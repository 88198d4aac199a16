// The part of yar::networkutils that wakes other machines.
#include "foundation/Log.h"
#include "foundation/NetworkUtils.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>

namespace yar::networkutils {
namespace {

using Mac = std::array<unsigned char, 6>;
using Packet = std::array<unsigned char, 6 + 16 * 6>;

// Network cards wake on the packet's contents, whatever its port; what stands between may let only some ports pass, or
// swap the bytes of 9.
constexpr unsigned short ports[] = {7, 9, 2304, 5555, 12287, 32767, 65535};
constexpr int series = 3;
constexpr int walks = 2;
constexpr useconds_t betweenSeries = 500000;
constexpr useconds_t afterWalk = 10000;

std::optional<Mac> ParseMac(const CStdStr& text) {
    Mac m{};
    const char* const mac = text.c_str();
    if (std::sscanf(mac, "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]) == 6 ||
        std::sscanf(mac, "%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]) == 6) {
        return m;
    }
    return std::nullopt;
}

std::optional<in_addr> ParseDestination(const CStdStr& text) {
    in_addr address{inet_addr(text.c_str())};
    if (address.s_addr != INADDR_NONE || text == "255.255.255.255") return address;
    address = GetIP(text);
    if (address.s_addr == INADDR_NONE) return std::nullopt;
    return address;
}

Packet PacketFor(const Mac& mac) {
    Packet packet;
    auto end = std::fill_n(packet.begin(), 6, static_cast<unsigned char>(0xff));
    while (end != packet.end()) end = std::copy(mac.begin(), mac.end(), end);
    return packet;
}

void SendToPorts(int sender, const Packet& packet, in_addr destination) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr = destination;
    for (const unsigned short port : ports) {
        CBBLog::debug("Sending packet to port %d", port);
        to.sin_port = htons(port);
        if (sendto(sender, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0) {
            continue;
        }
        const int reason = errno;
        CBBLog::debug("SendWakeUp: failed to write datagram to %s:%hu reason: %d", inet_ntos(destination).c_str(), port,
                      reason);
    }
}

}  // namespace

bool SendWakeUp(const CStdStr& mac, const CStdStr& destination) {
    const std::optional<Mac> wanted = ParseMac(mac);
    if (!wanted) {
        CBBLog::debug("ERROR: SendWakeUp: invalid MAC address: %s", mac.c_str());
        return false;
    }
    const std::optional<in_addr> address = ParseDestination(destination);
    if (!address) {
        CBBLog::debug("ERROR: SendWakeUp: invalid destination: %s", destination.c_str());
        return false;
    }
    const int sender = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (sender < 0) {
        CBBLog::debug("ERROR: SendWakeUp: failed to create the socket");
        return false;
    }
    const int on = 1;
    if (setsockopt(sender, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) {
        CBBLog::debug("ERROR: SendWakeUp: failed to set SO_BROADCAST");
    }
    CBBLog::debug("SendWakeUp: sending WOL packets to %s with %s", inet_ntos(*address).c_str(), mac.c_str());
    const Packet packet = PacketFor(*wanted);
    for (int i = 0; i < series; ++i) {
        if (i > 0) usleep(betweenSeries);
        for (int walk = 0; walk < walks; ++walk) {
            SendToPorts(sender, packet, *address);
            usleep(afterWalk);
        }
    }
    close(sender);
    return true;
}

}  // namespace yar::networkutils
