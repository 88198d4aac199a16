#include "foundation/Routes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <tuple>

namespace yar::networkutils {
namespace {

const in_addr netmaskOfNone{htonl(0xffffff00)};  // of a route that says nothing about one

// The address as a number whose lowest byte is the first octet, whatever the processor's byte order.
uint32_t Rank(in_addr address) {
    unsigned char octets[4];
    std::memcpy(octets, &address, sizeof octets);
    return static_cast<uint32_t>(octets[0]) | static_cast<uint32_t>(octets[1]) << 8 |
           static_cast<uint32_t>(octets[2]) << 16 | static_cast<uint32_t>(octets[3]) << 24;
}

bool IsBefore(const Route& a, const Route& b) {
    return std::make_tuple(a.hopcount, Rank(a.netmask), Rank(a.destination)) >
           std::make_tuple(b.hopcount, Rank(b.netmask), Rank(b.destination));
}

}  // namespace

std::vector<Route> UsableRoutes(const std::vector<kel::platform::RouteEntry>& table, const NetOfInterface& netOf) {
    std::map<unsigned, std::optional<kel::platform::InterfaceNet>> nets;  // a table has many routes to few interfaces
    std::vector<Route> routes;
    for (const kel::platform::RouteEntry& entry : table) {
        if (!entry.isUp || entry.isHost) continue;
        const auto [known, isNew] = nets.try_emplace(entry.interface);
        std::optional<kel::platform::InterfaceNet>& net = known->second;
        if (isNew) net = netOf(entry.interface);
        if (!net) continue;
        Route route;
        route.destination = entry.destination;
        route.netmask = entry.hasNetmask ? entry.destination : netmaskOfNone;
        route.hopcount = entry.hopcount;
        route.ip = inet_ntos(net->address);
        route.mask = inet_ntos(net->netmask);
        routes.push_back(std::move(route));
    }
    SortRoutes(routes);
    return routes;
}

void SortRoutes(std::vector<Route>& routes) { std::stable_sort(routes.begin(), routes.end(), IsBefore); }

const Route* RouteTo(const std::vector<Route>& sorted, in_addr destination) {
    const Route* best = nullptr;
    uint32_t bestHopcount = std::numeric_limits<uint32_t>::max();
    for (const Route& route : sorted) {
        if (route.destination.s_addr != (destination.s_addr & route.netmask.s_addr)) continue;
        if (route.hopcount >= bestHopcount) continue;
        best = &route;
        bestHopcount = route.hopcount;
    }
    return best;
}

int getRoutes(std::vector<Route>& out) {
    out.clear();
    std::vector<kel::platform::RouteEntry> table;
    if (const int error = kel::platform::ReadRouteTable(table)) return error;
    out = UsableRoutes(table, kel::platform::NetOfInterface);
    return 0;
}

void GetIPForDestination(const CStdStr& destination, CStdStr& ip, CStdStr& mask) {
    std::tie(ip, mask) = GetIPForDestination(destination);
}

std::pair<CStdStr, CStdStr> GetIPForDestination(const CStdStr& destination) {
    std::vector<Route> routes;
    getRoutes(routes);
    const Route* const route = RouteTo(routes, in_addr{inet_addr(destination.c_str())});
    return route ? std::make_pair(route->ip, route->mask) : std::make_pair(CStdStr(), CStdStr());
}

}  // namespace yar::networkutils
