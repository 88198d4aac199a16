#include "platform/Interfaces.h"

#include "platform/linux/Netlink.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netlink/attr.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace kel::platform {
namespace {

constexpr unsigned addressBits = 32;

using AddressList = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

AddressList AllAddresses() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) first = nullptr;
    return AddressList(first, &freeifaddrs);
}

in_addr MaskOf(unsigned prefixLength) {
    return in_addr{prefixLength == 0 ? 0 : htonl(~uint32_t{0} << (addressBits - std::min(prefixLength, addressBits)))};
}

// An address with a label is listed under that, which is the interface's name, a colon and more.
bool HasLabelOfItsOwn(nlattr* label) { return label && std::strchr(nla_get_string(label), ':'); }

// libnl calls it for each address of a reading. No exception may pass through libnl.
int AddAddress(nl_msg* message, void* entries) {
    nlattr* attributes[IFA_MAX + 1] = {};
    if (nlmsg_parse(nlmsg_hdr(message), sizeof(ifaddrmsg), attributes, IFA_MAX, nullptr) < 0) return NL_SKIP;
    const auto* const head = static_cast<const ifaddrmsg*>(nlmsg_data(nlmsg_hdr(message)));
    nlattr* const own = attributes[IFA_LOCAL];
    if (head->ifa_family != AF_INET || !own || nla_len(own) != sizeof(in_addr)) return NL_SKIP;
    InterfaceAddress entry;
    std::memcpy(&entry.address, nla_data(own), sizeof entry.address);
    entry.netmask = MaskOf(head->ifa_prefixlen);
    entry.interface = head->ifa_index;
    entry.hasLabel = HasLabelOfItsOwn(attributes[IFA_LABEL]);
    try {
        static_cast<std::vector<InterfaceAddress>*>(entries)->push_back(entry);
    } catch (const std::bad_alloc&) {
        return -NLE_NOMEM;
    }
    return NL_OK;
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

    unsigned short linkType() const { return request_.ifr_hwaddr.sa_family; }

private:
    const int socket_;
    ifreq request_{};
    bool exists_ = false;
};

}  // namespace

int ReadInterfaceAddresses(std::vector<InterfaceAddress>& out) {
    ifaddrmsg request{};
    request.ifa_family = AF_INET;
    return ReadNetlinkList(RTM_GETADDR, request, AddAddress, out);
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
