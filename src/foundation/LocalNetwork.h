// What is known of this machine's addresses and routes. It is read when it is asked for the first time, and anew when
// the system says that something has changed: who asks after a change is given what there is since. When it cannot be
// read, as without a descriptor, what was read last holds.
#pragma once

#include "foundation/Routes.h"
#include "platform/Interfaces.h"

#include <memory>
#include <vector>

namespace yar::networkutils {

// How things stand at one moment.
struct LocalNetwork {
    std::vector<kel::platform::InterfaceAddress> addresses;  // in the system's order, loopback included
    RouteChoice routes;
};

// How they stand now; nothing at all when that could never be read. Takes a system call, unless something has changed.
// Any thread.
std::shared_ptr<const LocalNetwork> CurrentNetwork();

}  // namespace yar::networkutils
