// Helpers for IPv4 addresses and interfaces. All functions may be called from any thread.
#pragma once

#include "foundation/Export.h"
#include "foundation/StdString.h"

#include <netinet/in.h>

#include <vector>

namespace yar::networkutils {

// Replaces `out` by the IPv4 addresses (network byte order) of all interfaces in the system's order, loopback included;
// empty when the system does not tell.
KEL_API void GetLocalIPAddressList(std::vector<in_addr>& out);

// The dotted text of an address in network byte order.
KEL_API CStdStr inet_ntos(in_addr address);

// Has the system end the TCP connection `socket` once its peer has not acknowledged anything for `seconds`, also while
// nothing is sent. A living host acknowledges by itself, however long its programs take.
void GiveUpOnDeadPeers(int socket, unsigned seconds);

}  // namespace yar::networkutils
