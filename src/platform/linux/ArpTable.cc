#include "platform/ArpTable.h"

#include "platform/Interfaces.h"
#include "platform/linux/Netlink.h"

#include <netlink/addr.h>
#include <netlink/route/neighbour.h>

#include <cstring>

namespace kel::platform {

int ReadArpTable(std::vector<ArpEntry>& out) {
    out.clear();
    int error = 0;
    const NetlinkTable table = ReadNetlinkTable(rtnl_neigh_alloc_cache, error);
    if (!table) return error;
    for (nl_object* object = nl_cache_get_first(table.get()); object; object = nl_cache_get_next(object)) {
        auto* const neighbour = reinterpret_cast<rtnl_neigh*>(object);
        const nl_addr* const ip = rtnl_neigh_get_dst(neighbour);
        const nl_addr* const link = rtnl_neigh_get_lladdr(neighbour);
        ArpEntry entry;
        if (!ip || nl_addr_get_family(ip) != AF_INET || nl_addr_get_len(ip) != sizeof entry.address) continue;
        if (!link || nl_addr_get_len(link) != entry.mac.size()) continue;
        if (!IsEthernet(static_cast<unsigned>(rtnl_neigh_get_ifindex(neighbour)))) continue;
        std::memcpy(&entry.address, nl_addr_get_binary_addr(ip), sizeof entry.address);
        std::memcpy(entry.mac.data(), nl_addr_get_binary_addr(link), entry.mac.size());
        out.push_back(entry);
    }
    return 0;
}

}  // namespace kel::platform
