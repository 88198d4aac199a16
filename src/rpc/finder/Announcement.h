// The datagrams of discovery as a searcher sends and reads them; docs/discovery.md has their text. Pure text, no
// sockets.
#pragma once

#include "rpc/finder/KelFoundDirectory.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kel::wire {

constexpr uint16_t discoveryPort = 1901;
constexpr const char* discoveryServer = "Yar Kel Directory";
constexpr const char* defaultDiscoveryGroup = "239.255.255.251";

// Limits of what is believed of an announcement.
constexpr size_t announcedAddresses = 32;  // further ones are left out
constexpr size_t announcedUsers = 4096;    // likewise
constexpr size_t serverIdLength = 256;     // one that is longer makes the datagram a foreign one

// The question for all directories. Directories read 64 bytes of it.
CStdStr BuildSearch();

struct Announcement {
    bool isFarewell = false;
    KelFoundDirectory directory;  // where it was heard is left empty; a farewell has the server id only
};

// Reads a NOTIFY or a BYEBYE of a directory. False for everything else: another protocol or version, another kind of
// server, a datagram that was cut, has a NUL in it or lacks the id, the port or an address under which a host can be
// reached.
bool ReadAnnouncement(std::string_view datagram, Announcement& out);

}  // namespace kel::wire
