#include "foundation/Routes.h"

#include "foundation/LocalNetwork.h"

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

std::unordered_map<unsigned, InterfaceNet> NetsOf(const std::vector<kel::platform::InterfaceAddress>& addresses) {
    std::unordered_map<unsigned, InterfaceNet> nets;
    for (const bool labelled : {false, true}) {
        for (const auto& one : addresses) {
            if (one.hasLabel == labelled) nets.try_emplace(one.interface, InterfaceNet{one.address, one.netmask});
        }
    }
    return nets;
}

std::vector<Route> UsableRoutes(const std::vector<kel::platform::RouteEntry>& table,
                                const std::unordered_map<unsigned, InterfaceNet>& nets) {
    std::vector<Route> routes;
    for (const kel::platform::RouteEntry& entry : table) {
        if (!entry.isUp || entry.isHost) continue;
        const auto net = nets.find(entry.interface);
        if (net == nets.end()) continue;
        Route route;
        route.destination = entry.destination;
        route.netmask = entry.hasNetmask ? entry.destination : netmaskOfNone;
        route.hopcount = entry.hopcount;
        route.ip = inet_ntos(net->second.address);
        route.mask = inet_ntos(net->second.netmask);
        routes.push_back(std::move(route));
    }
    SortRoutes(routes);
    return routes;
}

void SortRoutes(std::vector<Route>& routes) { std::stable_sort(routes.begin(), routes.end(), IsBefore); }

RouteChoice::RouteChoice(const std::vector<Route>& sorted) {
    constexpr uint32_t neverTaken = std::numeric_limits<uint32_t>::max();
    std::vector<const Route*> byHopcount;
    for (const Route& route : sorted) {
        if (route.hopcount != neverTaken) byHopcount.push_back(&route);
    }
    std::stable_sort(byHopcount.begin(), byHopcount.end(),
                     [](const Route* a, const Route* b) { return a->hopcount < b->hopcount; });
    std::map<std::pair<CStdStr, CStdStr>, uint32_t> indexes;
    for (const Route* route : byHopcount) {
        const auto [known, isNew] =
            indexes.try_emplace({route->ip, route->mask}, static_cast<uint32_t>(interfaces_.size()));
        if (isNew) interfaces_.push_back({route->ip, route->mask});
        matches_.push_back({route->destination.s_addr, route->netmask.s_addr});
        chosen_.push_back(known->second);
    }
}

const RouteChoice::Interface* RouteChoice::To(in_addr destination) const {
    constexpr uint32_t goldenRatio = 2654435769U;
    constexpr unsigned hashShift = 22;  // leaves as many bits as number the places
    static_assert(remembered == size_t{1} << (32 - hashShift));
    std::atomic<uint64_t>& place = known_[destination.s_addr * goldenRatio >> hashShift];
    uint64_t known = place.load(std::memory_order_relaxed);
    if (known == 0 || known >> 32 != destination.s_addr) {
        known = uint64_t{destination.s_addr} << 32 | (Find(destination.s_addr) + 1);
        place.store(known, std::memory_order_relaxed);
    }
    const auto index = static_cast<uint32_t>(known) - 1;
    return index < interfaces_.size() ? &interfaces_[index] : nullptr;
}

// The interface's index; their number when no route matches.
uint32_t RouteChoice::Find(uint32_t destination) const {
    for (size_t i = 0; i < matches_.size(); ++i) {
        if (matches_[i].destination == (destination & matches_[i].netmask)) return chosen_[i];
    }
    return static_cast<uint32_t>(interfaces_.size());
}

int getRoutes(std::vector<Route>& out) {
    out.clear();
    std::vector<kel::platform::RouteEntry> table;
    std::vector<kel::platform::InterfaceAddress> addresses;
    if (const int error = kel::platform::ReadRouteTable(table)) return error;
    if (const int error = kel::platform::ReadInterfaceAddresses(addresses)) return error;
    out = UsableRoutes(table, NetsOf(addresses));
    return 0;
}

void GetIPForDestination(const CStdStr& destination, CStdStr& ip, CStdStr& mask) {
    std::tie(ip, mask) = GetIPForDestination(destination);
}

std::pair<CStdStr, CStdStr> GetIPForDestination(const CStdStr& destination) {
    const auto network = CurrentNetwork();
    const RouteChoice::Interface* const interface = network->routes.To(in_addr{inet_addr(destination.c_str())});
    return interface ? std::make_pair(interface->ip, interface->mask) : std::make_pair(CStdStr(), CStdStr());
}

}  // namespace yar::networkutils
