#include "platform/RouteTable.h"

#include "platform/linux/Netlink.h"

#include <linux/rtnetlink.h>
#include <netlink/addr.h>
#include <netlink/route/nexthop.h>
#include <netlink/route/route.h>

#include <cstring>

namespace kel::platform {
namespace {

constexpr unsigned addressBits = 32;

bool CarriesUnicast(rtnl_route* route) {
    const uint32_t table = rtnl_route_get_table(route);
    const uint8_t type = rtnl_route_get_type(route);
    return (table == RT_TABLE_MAIN || table == RT_TABLE_LOCAL) && (type == RTN_UNICAST || type == RTN_LOCAL);
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

}  // namespace

int ReadRouteTable(std::vector<RouteEntry>& out) {
    out.clear();
    int error = 0;
    const NetlinkTable table = ReadNetlinkTable(
        [](nl_sock* socket, nl_cache** read) { return rtnl_route_alloc_cache(socket, AF_INET, 0, read); }, error);
    if (!table) return error;
    for (nl_object* object = nl_cache_get_first(table.get()); object; object = nl_cache_get_next(object)) {
        auto* const route = reinterpret_cast<rtnl_route*>(object);
        // Of several next hops, the first speaks for the route.
        rtnl_nexthop* const hop = CarriesUnicast(route) ? rtnl_route_nexthop_n(route, 0) : nullptr;
        if (hop) out.push_back(Describe(route, hop));
    }
    return 0;
}

}  // namespace kel::platform
