// The network interfaces of this machine. All functions may be called from any thread.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace kel::platform {

// An IPv4 address of an interface, in network byte order, and its netmask.
struct InterfaceAddress {
    in_addr address{};
    in_addr netmask{};
    unsigned interface = 0;  // its index
    bool hasLabel = false;   // of its own, beside the interface's name
};

// Replaces `out` by the IPv4 addresses of all interfaces in the system's order, loopback included. Returns 0, or a
// negative value when the system does not tell; `out` is then empty.
int ReadInterfaceAddresses(std::vector<InterfaceAddress>& out);

// Whether the interface is an Ethernet, by its link-layer type.
bool IsEthernet(unsigned index);

// The link-layer address of the first Ethernet interface; nothing when there is none.
std::optional<std::array<uint8_t, 6>> FirstEthernetAddress();

}  // namespace kel::platform
