// The network interfaces of this machine. All functions may be called from any thread.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace kel::platform {

// The IPv4 addresses (network byte order) of all interfaces in the system's order, loopback included; empty when the
// system does not tell.
std::vector<in_addr> InterfaceAddresses();

// The index of the interface that has the address; 0 when there is none, or when the system does not tell.
unsigned InterfaceWith(in_addr address);

// An interface's first IPv4 address and its netmask, in network byte order. Those without a label come before those
// with one.
struct InterfaceNet {
    in_addr address{};
    in_addr netmask{};
};

// That of the interface with this index; nothing when there is no such interface or it has no IPv4 address.
std::optional<InterfaceNet> NetOfInterface(unsigned index);

// Whether the interface is an Ethernet, by its link-layer type.
bool IsEthernet(unsigned index);

// The link-layer address of the first Ethernet interface; nothing when there is none.
std::optional<std::array<uint8_t, 6>> FirstEthernetAddress();

}  // namespace kel::platform
