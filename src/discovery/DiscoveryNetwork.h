// What the announcer needs of the world: a socket, addresses, a clock. A test stands in for it.
#pragma once

#include "foundation/StdString.h"

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace kel::discovery {

// EndWaiting and UpTimeMs may be called from any thread, everything else from one at a time.
class DiscoveryNetwork {
public:
    virtual ~DiscoveryNetwork() = default;

    // As those of DiscoverySocket.
    virtual int Open() = 0;
    virtual in_addr Group() const = 0;

    // The addresses of this machine's interfaces without those of loopback interfaces, in the system's order.
    virtual std::vector<in_addr> LocalAddresses() = 0;
    // The dotted local address from which `destination` is reached; empty when no route leads there.
    virtual CStdStr AddressTowards(const CStdStr& destination) = 0;

    // As those of DiscoverySocket.
    virtual bool Join(const std::vector<in_addr>& interfaces) = 0;
    virtual bool SelectInterface(in_addr address) = 0;
    virtual int Send(const CStdStr& text, in_addr to) = 0;
    virtual int WaitReadable(int milliseconds) = 0;
    virtual ssize_t Receive(char* buffer, size_t size, in_addr* sender) = 0;

    // Has WaitReadable return at once from now on.
    virtual void EndWaiting() = 0;

    // Milliseconds of up-time, 32 bits, wrapping.
    virtual uint32_t UpTimeMs() = 0;
    virtual void Pause(unsigned milliseconds) = 0;
};

// The real one.
std::unique_ptr<DiscoveryNetwork> MakeUdpNetwork();

}  // namespace kel::discovery
