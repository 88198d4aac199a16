// A route netlink socket and the kernel tables that libnl reads through it. Each reading is one of its own.
#pragma once

#include <netlink/cache.h>
#include <netlink/netlink.h>

#include <memory>

namespace kel::platform {

struct NetlinkFree {
    void operator()(nl_sock* socket) const { nl_socket_free(socket); }
    void operator()(nl_cache* table) const { nl_cache_free(table); }
};
using NetlinkSocket = std::unique_ptr<nl_sock, NetlinkFree>;
using NetlinkTable = std::unique_ptr<nl_cache, NetlinkFree>;

// Reads a table with `read`, which has the form of libnl's allocators: 0, or a negative error. Null, and the error in
// `error`, when that fails.
template <typename Read>
NetlinkTable ReadNetlinkTable(Read read, int& error) {
    const NetlinkSocket socket(nl_socket_alloc());
    error = socket ? nl_connect(socket.get(), NETLINK_ROUTE) : -NLE_NOMEM;
    nl_cache* table = nullptr;
    if (error >= 0) error = read(socket.get(), &table);
    return NetlinkTable(error < 0 ? nullptr : table);
}

}  // namespace kel::platform
