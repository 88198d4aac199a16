// What this machine knows of its neighbours' link-layer addresses.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <vector>

namespace kel::platform {

// An IPv4 neighbour on an Ethernet whose link-layer address is known.
struct ArpEntry {
    in_addr address{};  // network byte order
    std::array<uint8_t, 6> mac{};
};

// Replaces `out` by the neighbours in the system's order. Returns 0, or a negative value when the table cannot be read;
// `out` is then empty. From any thread.
int ReadArpTable(std::vector<ArpEntry>& out);

}  // namespace kel::platform
