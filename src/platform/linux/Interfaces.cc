#include "platform/Interfaces.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

namespace kel::platform {
namespace {

using AddressList = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

AddressList AllAddresses() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) first = nullptr;
    return AddressList(first, &freeifaddrs);
}

bool IsIpv4(const ifaddrs& entry) { return entry.ifa_addr && entry.ifa_addr->sa_family == AF_INET; }

in_addr In(const sockaddr* from) {
    sockaddr_in address{};
    std::memcpy(&address, from, sizeof address);
    return address.sin_addr;
}

in_addr AddressOf(const ifaddrs& entry) { return In(entry.ifa_addr); }

// An address with a label is listed under that, which is the interface's name, a colon and more.
std::string InterfaceName(const ifaddrs& entry) {
    const std::string name = entry.ifa_name;
    return name.substr(0, name.find(':'));
}

// The list has the indexes of interfaces with link-layer addresses. Of others, tunnels for instance, it has the names
// only, and to ask takes a descriptor. 0 when there is none to be had.
unsigned IndexOf(const AddressList& all, const std::string& interface) {
    for (const ifaddrs* entry = all.get(); entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_PACKET || entry->ifa_name != interface) continue;
        sockaddr_ll link{};
        std::memcpy(&link, entry->ifa_addr, sizeof link);
        return static_cast<unsigned>(link.sll_ifindex);
    }
    return if_nametoindex(interface.c_str());
}

// The first address of the interface in the list, with a label or without.
std::optional<InterfaceNet> FirstNet(const std::string& interface) {
    const AddressList all = AllAddresses();
    for (const ifaddrs* entry = all.get(); entry; entry = entry->ifa_next) {
        if (!IsIpv4(*entry) || !entry->ifa_netmask || InterfaceName(*entry) != interface) continue;
        return InterfaceNet{AddressOf(*entry), In(entry->ifa_netmask)};
    }
    return std::nullopt;
}

// Questions about one interface, by its index.
class InterfaceQuestion {
public:
    explicit InterfaceQuestion(unsigned index) : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        request_.ifr_ifindex = static_cast<int>(index);
        exists_ = ioctl(socket_, SIOCGIFNAME, &request_) == 0;  // from here on the request has the name
    }
    ~InterfaceQuestion() {
        if (socket_ >= 0) close(socket_);
    }
    InterfaceQuestion(const InterfaceQuestion&) = delete;
    InterfaceQuestion& operator=(const InterfaceQuestion&) = delete;

    bool Ask(unsigned long what) { return exists_ && ioctl(socket_, what, &request_) == 0; }

    in_addr address() const {
        sockaddr_in answer{};
        std::memcpy(&answer, &request_.ifr_addr, sizeof answer);
        return answer.sin_addr;
    }
    std::string name() const { return exists_ ? request_.ifr_name : ""; }
    unsigned short linkType() const { return request_.ifr_hwaddr.sa_family; }

private:
    const int socket_;
    ifreq request_{};
    bool exists_ = false;
};

}  // namespace

std::vector<in_addr> InterfaceAddresses() {
    std::vector<in_addr> addresses;
    const AddressList all = AllAddresses();
    for (const ifaddrs* entry = all.get(); entry; entry = entry->ifa_next) {
        if (IsIpv4(*entry)) addresses.push_back(AddressOf(*entry));
    }
    return addresses;
}

unsigned InterfaceWith(in_addr address) {
    const AddressList all = AllAddresses();
    for (const ifaddrs* entry = all.get(); entry; entry = entry->ifa_next) {
        if (IsIpv4(*entry) && AddressOf(*entry).s_addr == address.s_addr) return IndexOf(all, InterfaceName(*entry));
    }
    return 0;
}

std::optional<InterfaceNet> NetOfInterface(unsigned index) {
    InterfaceQuestion question(index);
    InterfaceNet net;
    // The question is for addresses without a label, and fails where each has one.
    if (!question.Ask(SIOCGIFADDR)) return FirstNet(question.name());
    net.address = question.address();
    if (!question.Ask(SIOCGIFNETMASK)) return std::nullopt;
    net.netmask = question.address();
    return net;
}

bool IsEthernet(unsigned index) {
    InterfaceQuestion question(index);
    return question.Ask(SIOCGIFHWADDR) && question.linkType() == ARPHRD_ETHER;
}

std::optional<std::array<uint8_t, 6>> FirstEthernetAddress() {
    const AddressList all = AllAddresses();
    for (const ifaddrs* entry = all.get(); entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_PACKET) continue;
        sockaddr_ll link{};
        std::memcpy(&link, entry->ifa_addr, sizeof link);
        std::array<uint8_t, 6> mac{};
        if (link.sll_hatype != ARPHRD_ETHER || link.sll_halen != mac.size()) continue;
        std::memcpy(mac.data(), link.sll_addr, mac.size());
        return mac;
    }
    return std::nullopt;
}

}  // namespace kel::platform
