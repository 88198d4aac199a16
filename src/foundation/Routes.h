// How a route is chosen, apart from where the routes come from.
//
// A route matches a destination that has every one-bit of the route's own destination set: its netmask is that
// destination once more. So the default route, 0.0.0.0, matches everything. Of the matching routes the one with the
// lowest hop count is taken, and of several such the first in the order of SortRoutes.
#pragma once

#include "foundation/NetworkUtils.h"
#include "platform/Interfaces.h"
#include "platform/RouteTable.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace yar::networkutils {

// The address of an interface by which it is known to others, and its netmask.
struct InterfaceNet {
    in_addr address{};
    in_addr netmask{};
};

// The first address of each interface: those without a label of their own come before those with one.
std::unordered_map<unsigned, InterfaceNet> NetsOf(const std::vector<kel::platform::InterfaceAddress>& addresses);

// The routes of `table` that are up, lead to more than one host and leave through an interface with an IPv4 address, in
// the order in which they are tried.
std::vector<Route> UsableRoutes(const std::vector<kel::platform::RouteEntry>& table,
                                const std::unordered_map<unsigned, InterfaceNet>& nets);

// Sorts by descending hop count, then netmask, then destination, these two as numbers whose lowest byte is the first
// octet. Equal routes keep their order.
void SortRoutes(std::vector<Route>& routes);

// Chooses among routes that do not change. Any thread.
//
// No order of the routes finds a match without looking at most of them, since it is one-bits that decide. So they are
// packed into eight bytes each, in the order in which the first match wins, and what was found for a destination is
// remembered: in a table of so many destinations, each of which has one place there and shares it with others.
class RouteChoice {
public:
    // The interface by which a destination is reached.
    struct Interface {
        CStdStr ip;
        CStdStr mask;
    };

    explicit RouteChoice(const std::vector<Route>& sorted);

    // Null when no route matches.
    const Interface* To(in_addr destination) const;

private:
    static constexpr size_t remembered = 1024;

    struct Match {
        uint32_t destination;
        uint32_t netmask;
    };
    uint32_t Find(uint32_t destination) const;

    std::vector<Match> matches_;
    std::vector<uint32_t> chosen_;  // for each match, the index of its interface
    std::vector<Interface> interfaces_;
    // A destination in the upper half; below it what Find gave, and one more, so that 0 is an empty place.
    mutable std::array<std::atomic<uint64_t>, remembered> known_{};
};

}  // namespace yar::networkutils
