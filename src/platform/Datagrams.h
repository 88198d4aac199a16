// What a datagram's way into this machine was.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>

namespace kel::platform {

// Has ReceiveDatagram learn where the datagrams of the IPv4 socket `socket` arrive. False when the system refuses.
bool ReportArrivals(int socket);

// Receives one datagram without waiting, cut to `size` bytes. Returns its length as received; -1 with the reason in
// errno. `sender` becomes its source address, `at` the address of the interface at which it arrived, 0.0.0.0 when that
// is not known. From any thread.
ssize_t ReceiveDatagram(int socket, void* buffer, size_t size, in_addr* sender, in_addr* at);

}  // namespace kel::platform
