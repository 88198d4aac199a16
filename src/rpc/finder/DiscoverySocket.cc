#include "rpc/finder/DiscoverySocket.h"

#include "foundation/NetworkUtils.h"
#include "foundation/Settings.h"
#include "rpc/finder/Announcement.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kel {
namespace {

constexpr size_t maxFurther = 16;  // sockets for memberships

int MakeSocket() {
    const int made = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (made >= 0) fcntl(made, F_SETFD, FD_CLOEXEC);
    return made;
}

void SwitchOn(int socket, int option) {
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, option, &on, sizeof on);
}

sockaddr_in DiscoveryPortAt(in_addr address) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr = address;
    at.sin_port = htons(wire::discoveryPort);
    return at;
}

bool IsLoopback(in_addr address) { return ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET; }

}  // namespace

in_addr DiscoveryGroup() {
    CStdStr text;
    CRegistry::getInstance()->ReadSettingImpl("Software\\Tessaly\\Yar\\Config", "kel.multicastGroup", text);
    in_addr group{text.empty() ? INADDR_NONE : inet_addr(text.c_str())};
    if (group.s_addr == INADDR_NONE) group.s_addr = inet_addr(wire::defaultDiscoveryGroup);
    return group;
}

std::vector<in_addr> NetworkAddresses() {
    std::vector<in_addr> addresses;
    yar::networkutils::GetLocalIPAddressList(addresses);
    addresses.erase(std::remove_if(addresses.begin(), addresses.end(), IsLoopback), addresses.end());
    return addresses;
}

DiscoverySocket::~DiscoverySocket() {
    LeaveAll();
    if (socket_ >= 0) close(socket_);
}

int DiscoverySocket::Open() {
    if (isBound_) return 0;
    const int made = MakeSocket();
    if (made < 0) return errno;
    SwitchOn(made, SO_REUSEADDR);
    SwitchOn(made, SO_REUSEPORT);
    yar::networkutils::ReportArrivals(made);
    const sockaddr_in everywhere = DiscoveryPortAt(in_addr{INADDR_ANY});
    isBound_ = bind(made, reinterpret_cast<const sockaddr*>(&everywhere), sizeof everywhere) == 0;
    const int error = isBound_ ? 0 : errno;
    if (socket_ < 0) {
        socket_ = made;
        return error;
    }
    if (isBound_) {
        LeaveAll();
        dup2(made, socket_);
        fcntl(socket_, F_SETFD, FD_CLOEXEC);
    }
    close(made);
    return error;
}

bool DiscoverySocket::Join(in_addr group, const std::vector<in_addr>& interfaces) {
    return JoinEach(group, interfaces, false) || (LeaveVanished() && JoinEach(group, interfaces, false)) ||
           JoinEach(group, interfaces, true);
}

// False when the system allows no more memberships. Where the system does not tell the interface's index the next call
// may: a membership without it could not be told from one whose interface has gone.
bool DiscoverySocket::JoinEach(in_addr group, const std::vector<in_addr>& interfaces, bool mayOpen) {
    bool isRoom = true;
    for (const in_addr address : interfaces) {
        const unsigned interface = yar::networkutils::GetInterfaceWith(address);
        if (interface == 0) continue;
        int error = JoinOn(socket_, group, address, interface);
        for (size_t i = 0; error == ENOBUFS && i < further_.size(); ++i) {
            error = JoinOn(further_[i], group, address, interface);
        }
        if (error == ENOBUFS && mayOpen && further_.size() < maxFurther) {
            if (const int made = MakeSocket(); made >= 0) {
                further_.push_back(made);
                error = JoinOn(made, group, address, interface);
            }
        }
        isRoom = isRoom && error != ENOBUFS;
    }
    return isRoom;
}

// Returns 0 or an error number: EADDRINUSE where it was joined before, ENOBUFS when the socket may join no more.
int DiscoverySocket::JoinOn(int socket, in_addr group, in_addr address, unsigned interface) {
    const ip_mreqn membership{group, address, static_cast<int>(interface)};
    if (setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) return errno;
    memberships_.push_back({group, address, interface, socket});
    return 0;
}

// By the interface's index: one that went and came back, with the address it had, is another to the system.
bool DiscoverySocket::LeaveVanished() {
    const auto leave = [](const Membership& one) {
        if (yar::networkutils::GetInterfaceWith(one.address) == one.interface) return false;
        group_req request{};
        request.gr_interface = one.interface;
        const sockaddr_in group = DiscoveryPortAt(one.group);
        std::memcpy(&request.gr_group, &group, sizeof group);
        setsockopt(one.socket, IPPROTO_IP, MCAST_LEAVE_GROUP, &request, sizeof request);
        return true;
    };
    const auto left = std::remove_if(memberships_.begin(), memberships_.end(), leave);
    const bool isAny = left != memberships_.end();
    memberships_.erase(left, memberships_.end());
    return isAny;
}

// The memberships of a socket go with it.
void DiscoverySocket::LeaveAll() {
    for (const int socket : further_) close(socket);
    further_.clear();
    memberships_.clear();
}

bool DiscoverySocket::SelectInterface(in_addr address) {
    return setsockopt(socket_, IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof address) == 0;
}

int DiscoverySocket::Send(std::string_view text, in_addr to) {
    const sockaddr_in at = DiscoveryPortAt(to);
    const ssize_t sent =
        sendto(socket_, text.data(), text.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&at), sizeof at);
    return sent < 0 ? errno : 0;
}

// A signal, or a debugger that stops and continues the process, cuts a wait short and is no failure.
int DiscoverySocket::WaitReadable(int milliseconds) {
    pollfd wanted{socket_, POLLIN, 0};
    const int ready = poll(&wanted, 1, milliseconds);
    return ready < 0 && errno == EINTR ? 0 : ready;
}

ssize_t DiscoverySocket::Receive(char* buffer, size_t size, in_addr* sender, in_addr* at) {
    return yar::networkutils::ReceiveDatagram(socket_, buffer, size, sender, at);
}

void DiscoverySocket::Interrupt() { shutdown(socket_, SHUT_RD); }

}  // namespace kel
