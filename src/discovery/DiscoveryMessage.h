// The datagrams of discovery as a directory sends and reads them; docs/discovery.md has their text. Pure text, no
// sockets; from any thread.
#pragma once

#include "foundation/StdString.h"
#include "rpc/finder/Announcement.h"

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

namespace kel::discovery {

// So much of a datagram is read for a search, and so much for the announcement of another directory: enough for all but
// its users.
constexpr size_t searchBytes = 64;
constexpr size_t notifyBytes = 2048;

// What is announced of a user beside the name.
struct UserDetails {
    CStdStr value;
    bool flag = false;
};

// What a user takes of the list below.
size_t UserBytes(const CStdStr& name, const UserDetails& details);

// The value of "Users:".
CStdStr BuildUserList(const std::map<CStdStr, UserDetails>& users);

// The value of "Aliases:": the addresses in their order, but `first`, when it is among them, in front.
CStdStr BuildAliases(const std::vector<in_addr>& addresses, in_addr first);

CStdStr BuildNotify(const CStdStr& serverId, const CStdStr& aliases, uint16_t port, const CStdStr& userList);
CStdStr BuildByeBye(const CStdStr& serverId);

// Whether a datagram is a search for directories. It counts up to its first NUL, and what lies behind `searchBytes`
// should not be passed in.
bool IsSearch(std::string_view datagram);

// Reads what there is of a NOTIFY, which may be cut off within its users. False when it is none, or lacks something
// else.
bool ReadNotifyHead(std::string_view datagram, wire::Announcement& out);

}  // namespace kel::discovery
