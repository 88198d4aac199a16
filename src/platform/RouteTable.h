// The IPv4 routing table of this machine.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

namespace kel::platform {

// One entry as the system lists it.
struct RouteEntry {
    bool isUp = false;
    bool isHost = false;      // to one address alone
    bool hasNetmask = false;  // whether the entry says how much of the destination counts
    in_addr destination{};    // network byte order; 0 for the default route
    uint32_t hopcount = 0;    // the hop-count metric; 0 when the entry has none
    unsigned interface = 0;   // the index of the outgoing interface
};

// Replaces `out` by the entries through which unicast datagrams go, in the system's order. Returns 0, or a negative
// value when the table cannot be read; `out` is then empty. From any thread.
int ReadRouteTable(std::vector<RouteEntry>& out);

}  // namespace kel::platform
