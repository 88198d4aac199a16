#include "platform/Interfaces.h"

#include <ifaddrs.h>

#include <cstring>
#include <memory>

namespace kel::platform {

std::vector<in_addr> InterfaceAddresses() {
    std::vector<in_addr> addresses;
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) return addresses;
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, &freeifaddrs);
    for (const ifaddrs* entry = first; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
        sockaddr_in address{};
        std::memcpy(&address, entry->ifa_addr, sizeof address);
        addresses.push_back(address.sin_addr);
    }
    return addresses;
}

}  // namespace kel::platform
