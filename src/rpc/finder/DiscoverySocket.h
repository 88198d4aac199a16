// The UDP socket of discovery. Directories and searchers of a machine share its port: a datagram to the group reaches
// all of them, one to the machine's own address reaches one.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <string_view>
#include <vector>

namespace kel {

// The multicast group: the setting "kel.multicastGroup", or the default when that is empty or no address.
in_addr DiscoveryGroup();

// The IPv4 addresses of this machine's interfaces in the system's order, without those of loopback interfaces.
std::vector<in_addr> NetworkAddresses();

// One socket, closed with the object. Interrupt may be called from any thread, everything else from one at a time.
class DiscoverySocket {
public:
    DiscoverySocket() = default;
    ~DiscoverySocket();
    DiscoverySocket(const DiscoverySocket&) = delete;
    DiscoverySocket& operator=(const DiscoverySocket&) = delete;

    // Opens the socket and binds it to the discovery port; does nothing when that was done before. Returns 0 or an
    // error number; a socket that could not be bound is open all the same, and sends. Another one takes its place when
    // a later call has more luck.
    int Open();

    // Joins the group on each interface with one of these addresses; harmless where it was joined already, or cannot
    // be. What was joined stays so, until the system allows no more (igmp_max_memberships): then those of interfaces
    // that have gone, or have lost the address, make room, and after that further sockets do. These hold memberships
    // and nothing else, for the system gives a socket the datagrams of groups that others of its machine have joined.
    // False when there is no room all the same.
    bool Join(in_addr group, const std::vector<in_addr>& interfaces);
    // Has datagrams to the group leave by the interface with that address. False when there is none.
    bool SelectInterface(in_addr address);
    // Sends one datagram to the discovery port at `to`. Returns 0 or an error number.
    int Send(std::string_view text, in_addr to);

    // Waits until there is something to receive: positive then, 0 after `milliseconds`, negative on failure. Returns at
    // once after Interrupt.
    int WaitReadable(int milliseconds);
    // Receives one datagram, cut to `size` bytes, if there is one. Returns its length or -1; `at` becomes this
    // machine's address on the network it came by, 0.0.0.0 when that is not known.
    ssize_t Receive(char* buffer, size_t size, in_addr* sender, in_addr* at);
    // Ends waiting and receiving for good; sending goes on.
    void Interrupt();

private:
    struct Membership {
        in_addr group;
        in_addr address;
        unsigned interface;
        int socket;
    };

    bool JoinEach(in_addr group, const std::vector<in_addr>& interfaces, bool mayOpen);
    int JoinOn(int socket, in_addr group, in_addr address, unsigned interface);
    bool LeaveVanished();
    void LeaveAll();

    std::atomic<int> socket_{-1};  // once it is open, its number stays the same
    bool isBound_ = false;
    std::vector<int> further_;
    std::vector<Membership> memberships_;
};

}  // namespace kel
