// A route netlink socket and the kernel tables that libnl reads through it. Each reading is one of its own.
#pragma once

#include <netlink/cache.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>

#include <memory>
#include <vector>

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

// Replaces `out` by what `add`, a callback of libnl's, makes of each message of a table: the answers to `request`,
// which is of `type`. Unlike libnl's caches it keeps entries that have much in common. Returns 0, or a negative error;
// `out` is then empty.
template <typename Request, typename Entry>
int ReadNetlinkList(int type, Request request, nl_recvmsg_msg_cb_t add, std::vector<Entry>& out) {
    constexpr int readings = 5;  // of a table that changes while it is read
    const auto readOnce = [&] {
        out.clear();
        const NetlinkSocket socket(nl_socket_alloc());
        if (!socket) return -NLE_NOMEM;
        int error = nl_socket_modify_cb(socket.get(), NL_CB_VALID, NL_CB_CUSTOM, add, &out);
        if (error >= 0) error = nl_connect(socket.get(), NETLINK_ROUTE);
        if (error >= 0) error = nl_send_simple(socket.get(), type, NLM_F_DUMP, &request, sizeof request);
        return error < 0 ? error : nl_recvmsgs_default(socket.get());
    };
    int error = -NLE_DUMP_INTR;
    for (int i = 0; i < readings && error == -NLE_DUMP_INTR; ++i) error = readOnce();
    // A table that never rests is taken as it was read last: an entry in change may be missing or there twice.
    if (error >= 0 || error == -NLE_DUMP_INTR) return 0;
    out.clear();
    return error;
}

}  // namespace kel::platform
