#include "platform/RouteTable.h"

#include "platform/linux/Netlink.h"

#include <linux/rtnetlink.h>
#include <netlink/addr.h>
#include <netlink/msg.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>

#include <cstring>
#include <memory>
#include <new>

namespace kel::platform {
namespace {

constexpr unsigned addressBits = 32;
constexpr int readings = 5;  // of a table that changes while it is read

struct RouteFree {
    void operator()(rtnl_route* route) const { rtnl_route_put(route); }
};

bool CarriesUnicast(rtnl_route* route) {
    const uint32_t table = rtnl_route_get_table(route);
    const uint8_t type = rtnl_route_get_type(route);
    return (table == RT_TABLE_MAIN || table == RT_TABLE_LOCAL) && (type == RTN_UNICAST || type == RTN_LOCAL);
}

// Of several next hops, the first that is alive speaks for the route. Null for a route without any.
rtnl_nexthop* HopOf(rtnl_route* route) {
    for (int i = 0; i < rtnl_route_get_nnexthops(route); ++i) {
        rtnl_nexthop* const hop = rtnl_route_nexthop_n(route, i);
        if (!(rtnl_route_nh_get_flags(hop) & RTNH_F_DEAD)) return hop;
    }
    return rtnl_route_nexthop_n(route, 0);
}

RouteEntry Describe(rtnl_route* route, rtnl_nexthop* hop) {
    RouteEntry entry;
    // A route whose link is without a carrier stays in use; one that is dead does not.
    entry.isUp = !(rtnl_route_nh_get_flags(hop) & RTNH_F_DEAD);
    entry.interface = static_cast<unsigned>(rtnl_route_nh_get_ifindex(hop));
    entry.hasNetmask = true;  // every route of Linux has a prefix length
    if (const nl_addr* to = rtnl_route_get_dst(route)) {
        entry.isHost = nl_addr_get_prefixlen(to) == addressBits;
        if (nl_addr_get_len(to) == sizeof entry.destination) {
            std::memcpy(&entry.destination, nl_addr_get_binary_addr(to), sizeof entry.destination);
        }
    }
    uint32_t hoplimit = 0;
    if (rtnl_route_get_metric(route, RTAX_HOPLIMIT, &hoplimit) == 0) entry.hopcount = hoplimit;
    return entry;
}

// libnl calls it for each route of a reading. No exception may pass through libnl.
int AddRoute(nl_msg* message, void* entries) {
    rtnl_route* parsed = nullptr;
    const int error = rtnl_route_parse(nlmsg_hdr(message), &parsed);
    if (error < 0) return error == -NLE_NOMEM ? error : NL_SKIP;
    const std::unique_ptr<rtnl_route, RouteFree> route(parsed);
    rtnl_nexthop* const hop = CarriesUnicast(parsed) ? HopOf(parsed) : nullptr;
    if (!hop) return NL_OK;
    try {
        static_cast<std::vector<RouteEntry>*>(entries)->push_back(Describe(parsed, hop));
    } catch (const std::bad_alloc&) {
        return -NLE_NOMEM;
    }
    return NL_OK;
}

// Not through libnl's cache of routes, which keeps one of those that have destination, priority, TOS and table in
// common.
int ReadOnce(std::vector<RouteEntry>& out) {
    out.clear();
    const NetlinkSocket socket(nl_socket_alloc());
    if (!socket) return -NLE_NOMEM;
    rtmsg request{};
    request.rtm_family = AF_INET;
    int error = nl_socket_modify_cb(socket.get(), NL_CB_VALID, NL_CB_CUSTOM, AddRoute, &out);
    if (error >= 0) error = nl_connect(socket.get(), NETLINK_ROUTE);
    if (error >= 0) error = nl_send_simple(socket.get(), RTM_GETROUTE, NLM_F_DUMP, &request, sizeof request);
    return error < 0 ? error : nl_recvmsgs_default(socket.get());
}

}  // namespace

int ReadRouteTable(std::vector<RouteEntry>& out) {
    int error = -NLE_DUMP_INTR;
    for (int i = 0; i < readings && error == -NLE_DUMP_INTR; ++i) error = ReadOnce(out);
    // A table that never rests is taken as it was read last: a route in change may be missing or there twice.
    if (error >= 0 || error == -NLE_DUMP_INTR) return 0;
    out.clear();
    return error;
}

}  // namespace kel::platform
