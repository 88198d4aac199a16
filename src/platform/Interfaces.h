// The network interfaces of this machine.
#pragma once

#include <netinet/in.h>

#include <vector>

namespace kel::platform {

// The IPv4 addresses (network byte order) of all interfaces in the system's order, loopback included; empty when the
// system does not tell. From any thread.
std::vector<in_addr> InterfaceAddresses();

}  // namespace kel::platform
