// IPv4 sockets, interfaces and routes. All functions may be called from any thread. Nothing is kept between two calls
// but the interfaces' addresses and the routes, and these only until the system says that they have changed. Failures
// are results: empty text, the address 255.255.255.255, the port 0, -1.
#pragma once

#include "foundation/Export.h"
#include "foundation/StdString.h"

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace yar::networkutils {

// --- Addresses -----------------------------------------------------------------------------------------------------

// Replaces `out` by the IPv4 addresses (network byte order) of all interfaces in the system's order, loopback included;
// empty when the system never told.
KEL_API void GetLocalIPAddressList(std::vector<in_addr>& out);

// The dotted text of an address in network byte order.
KEL_API CStdStr inet_ntos(in_addr address);

// The first IPv4 address of `host`, a name or a dotted address; 255.255.255.255 when it has none. May ask a name server
// and block meanwhile.
in_addr GetIP(const CStdStr& host);

// The dotted address of this machine's own host name, 255.255.255.255 when that has none; empty when the machine does
// not know its name.
CStdStr GetLocalIP();

// The first Ethernet interface's address, "%02x:%02x:%02x:%02x:%02x:%02x"; empty when there is none.
CStdStr getMacAddress();

// 1 when the system's neighbour table has the Ethernet address `mac` (twelve hex digits in any case, ":" and "-" among
// them do not count) for `ip`, 0 when it has not, -1 when the table cannot be read. Prints each address that it finds
// for `ip` on standard output.
int isIpForMacAddress(const CStdStr& ip, const CStdStr& mac);

// --- Routes --------------------------------------------------------------------------------------------------------

// One usable entry of the routing table. Addresses are in network byte order.
struct Route {
    in_addr destination{};  // the network; 0 for the default route
    in_addr netmask{};      // which bits of an address have to be those of `destination`
    uint32_t hopcount = 0;
    CStdStr ip;    // the dotted address of the outgoing interface
    CStdStr mask;  // the dotted netmask of that interface
};

// Replaces `out` by the usable routes of this machine as they are now, in the order in which they are tried
// (foundation/Routes.h). Returns 0, or a negative value when the table cannot be read.
int getRoutes(std::vector<Route>& out);

// The address and netmask of the local interface through which `destination` (dotted text) is reached; both empty when
// no route matches. A text that is not an address counts as 255.255.255.255. docs/discovery.md says how this choice
// differs from the kernel's.
void GetIPForDestination(const CStdStr& destination, CStdStr& ip, CStdStr& mask);
std::pair<CStdStr, CStdStr> GetIPForDestination(const CStdStr& destination);

// --- Sockets -------------------------------------------------------------------------------------------------------

// The peer of a connected socket, dotted, or as "address:port".
CStdStr GetPeerName(int socket);
CStdStr GetPeerNamePort(int socket);

// The socket's local port in host order.
unsigned short GetSocketPort(int socket);

// Has the system look after an idle connection. Returns 0 or -1.
int SetKeepAlive(int socket);

// How long a receive or a send may block; 0 is for ever. Return 0 or -1.
int SetRecvTimeoutMs(int socket, int ms);
int SetSendTimeoutMs(int socket, int ms);
int SetRecvTimeout(int socket, int seconds);
int SetSendTimeout(int socket, int seconds);

// The same in milliseconds, INT_MAX for more; -1 on failure.
int GetRecvTimeoutMs(int socket);
int GetSendTimeoutMs(int socket);

// Connects a TCP socket to host:port. Waits for up to timeoutMs / 1000 + 1 seconds, not at all when that is negative;
// the resolver's time is not counted. Returns the socket or -1. A connection that was established at once comes back
// non-blocking, every other blocking. A refused connection may come back as a socket whose first use fails.
int ConnectTimeout(const char* host, unsigned short port, int timeoutMs);

// Has the system end the TCP connection `socket` once its peer has not acknowledged anything for `seconds`, also while
// nothing is sent. A living host acknowledges by itself, however long its programs take.
void GiveUpOnDeadPeers(int socket, unsigned seconds);

// The index of the interface that has the IPv4 address; 0 when there is none, or when the system does not tell.
unsigned GetInterfaceWith(in_addr address);

// Has ReceiveDatagram learn where the datagrams of the IPv4 socket `socket` arrive. False when the system refuses.
bool ReportArrivals(int socket);

// Receives one datagram without waiting, cut to `size` bytes; returns its length, or -1 with the reason in errno.
// `sender` becomes its source address, `at` the address of the interface at which it arrived, 0.0.0.0 when that is not
// known.
ssize_t ReceiveDatagram(int socket, void* buffer, size_t size, in_addr* sender, in_addr* at);

// Wakes the machine whose Ethernet address is `mac` ("01:23:45:67:89:ab" or "0123456789ab"): sends 42 wake-on-LAN
// datagrams to `destination`, an address (also a broadcast one) or a name, which takes about a second. False when
// either text makes no sense or there is no socket to be had.
bool SendWakeUp(const CStdStr& mac, const CStdStr& destination);

}  // namespace yar::networkutils
