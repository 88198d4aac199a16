// The datagrams of discovery: what a directory and what a searcher reads, on anything at all.
#include "discovery/DiscoveryMessage.h"
#include "rpc/finder/Announcement.h"

#include "Require.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace {

using kel::wire::Announcement;

void RequireWithinLimits(const KelFoundDirectory& heard, size_t size) {
    Require(!heard.serverId.empty() && heard.serverId.size() <= kel::wire::serverIdLength, "an id has a length");
    Require(heard.addresses.size() <= kel::wire::announcedAddresses, "addresses are limited");
    Require(heard.users.size() <= kel::wire::announcedUsers, "users are limited");
    size_t total = heard.serverId.size();
    for (const CStdStr& address : heard.addresses) {
        Require(inet_addr(address.c_str()) != INADDR_NONE, "an address is one");
        total += address.size();
    }
    for (const KelDirectoryUser& user : heard.users) total += user.name.size() + user.value.size();
    Require(total <= size, "nothing is made up");
}

// What was understood is announced again, and understood as the same.
void RequireSameAgain(const KelFoundDirectory& heard) {
    std::map<CStdStr, kel::discovery::UserDetails> users;
    for (const KelDirectoryUser& user : heard.users) users[user.name] = {user.value, user.flag};
    std::vector<in_addr> addresses;
    for (const CStdStr& address : heard.addresses) addresses.push_back(in_addr{inet_addr(address.c_str())});
    const CStdStr text =
        kel::discovery::BuildNotify(heard.serverId, kel::discovery::BuildAliases(addresses, addresses.front()),
                                    heard.port, kel::discovery::BuildUserList(users));
    Announcement again;
    Require(kel::wire::ReadAnnouncement(text, again), "what is announced can be read");
    Require(again.directory.addresses == heard.addresses && again.directory.port == heard.port, "it is the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::vector<char> input(bytes, bytes + size);  // of the exact size, so that reading behind it shows
    const std::string_view datagram(input.data(), input.size());

    const std::vector<char> start(input.begin(),
                                  input.begin() + static_cast<long>(std::min(size, kel::discovery::searchBytes)));
    const bool isSearch = kel::discovery::IsSearch({start.data(), start.size()});
    Require(!isSearch || datagram.find("SEARCH 1.0\r\n") != std::string_view::npos, "a search says so");

    Announcement heard;
    if (!kel::wire::ReadAnnouncement(datagram, heard)) return 0;
    Require(datagram.find(kel::wire::discoveryServer) != std::string_view::npos, "an announcement is a directory's");
    if (heard.isFarewell) return 0;
    RequireWithinLimits(heard.directory, size);
    RequireSameAgain(heard.directory);
    return 0;
}
