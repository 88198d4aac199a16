// How a route is chosen, apart from where the routes come from.
//
// A route matches a destination that has every one-bit of the route's own destination set: its netmask is that
// destination once more. So the default route, 0.0.0.0, matches everything. Of the matching routes the one with the
// lowest hop count is taken, and of several such the first in the order of SortRoutes.
#pragma once

#include "foundation/NetworkUtils.h"
#include "platform/Interfaces.h"
#include "platform/RouteTable.h"

#include <functional>
#include <optional>
#include <vector>

namespace yar::networkutils {

using NetOfInterface = std::function<std::optional<kel::platform::InterfaceNet>(unsigned index)>;

// The routes of `table` that are up, lead to more than one host and leave through an interface with an IPv4 address, in
// the order in which they are tried.
std::vector<Route> UsableRoutes(const std::vector<kel::platform::RouteEntry>& table, const NetOfInterface& netOf);

// Sorts by descending hop count, then netmask, then destination, these two as numbers whose lowest byte is the first
// octet. Equal routes keep their order.
void SortRoutes(std::vector<Route>& routes);

// The route to take to `destination`; null when none matches.
const Route* RouteTo(const std::vector<Route>& sorted, in_addr destination);

}  // namespace yar::networkutils
