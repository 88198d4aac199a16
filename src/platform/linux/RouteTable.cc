#include "platform/RouteTable.h"

#include "platform/linux/Netlink.h"

#include <linux/rtnetlink.h>
#include <netlink/addr.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>

#include <cstring>
#include <memory>
#include <new>

namespace kel::platform {
namespace {

constexpr unsigned addressBits = 32;

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

}  // namespace

int ReadRouteTable(std::vector<RouteEntry>& out) {
    rtmsg request{};
    request.rtm_family = AF_INET;
    return ReadNetlinkList(RTM_GETROUTE, request, AddRoute, out);
}

}  // namespace kel::platform
