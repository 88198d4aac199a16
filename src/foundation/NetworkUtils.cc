#include "foundation/NetworkUtils.h"

#include "foundation/LocalNetwork.h"
#include "foundation/Log.h"
#include "foundation/StandardStreams.h"
#include "platform/ArpTable.h"
#include "platform/Datagrams.h"
#include "platform/Interfaces.h"
#include "platform/SocketOptions.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace yar::networkutils {
namespace {

CStdStr MacText(const std::array<uint8_t, 6>& mac, const char* between) {
    CStdStr text;
    for (const uint8_t byte : mac) text.AppendFormat("%s%02x", text.empty() ? "" : between, byte);
    return text;
}

}  // namespace

void GetLocalIPAddressList(std::vector<in_addr>& out) {
    out.clear();
    const auto network = CurrentNetwork();
    for (const kel::platform::InterfaceAddress& one : network->addresses) out.push_back(one.address);
}

unsigned GetInterfaceWith(in_addr address) {
    const auto network = CurrentNetwork();
    for (const kel::platform::InterfaceAddress& one : network->addresses) {
        if (one.address.s_addr == address.s_addr) return one.interface;
    }
    return 0;
}

CStdStr inet_ntos(in_addr address) {
    char text[INET_ADDRSTRLEN];
    return CStdStr(inet_ntop(AF_INET, &address, text, sizeof text));
}

in_addr GetIP(const CStdStr& host) {
    in_addr address{INADDR_NONE};
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &wanted, &found) != 0) return address;
    if (found) {
        sockaddr_in first{};
        std::memcpy(&first, found->ai_addr, std::min<size_t>(sizeof first, found->ai_addrlen));
        address = first.sin_addr;
    }
    freeaddrinfo(found);
    return address;
}

CStdStr GetLocalIP() {
    char name[80] = "";
    if (gethostname(name, sizeof name) != 0) {
        CBBLog::debug("Error when getting local host name.");
        return CStdStr();
    }
    name[sizeof name - 1] = '\0';
    return inet_ntos(GetIP(name));
}

CStdStr getMacAddress() {
    const auto mac = kel::platform::FirstEthernetAddress();
    return mac ? MacText(*mac, ":") : CStdStr();
}

int isIpForMacAddress(const CStdStr& ip, const CStdStr& mac) {
    CStdStr wanted(mac);
    wanted.Replace(":", "");
    wanted.Replace("-", "");
    const in_addr_t address = inet_addr(ip.c_str());
    std::vector<kel::platform::ArpEntry> table;
    if (kel::platform::ReadArpTable(table) < 0) return -1;
    for (const kel::platform::ArpEntry& entry : table) {
        if (entry.address.s_addr == 0 || entry.address.s_addr != address) continue;
        const CStdStr found = MacText(entry.mac, "");
        kel::PrintOut("found mac " + found + "\n");
        if (ssicmp(found.c_str(), wanted.c_str()) == 0) return 1;
    }
    return 0;
}

void GiveUpOnDeadPeers(int socket, unsigned seconds) { kel::platform::GiveUpOnDeadPeers(socket, seconds); }

bool ReportArrivals(int socket) { return kel::platform::ReportArrivals(socket); }

ssize_t ReceiveDatagram(int socket, void* buffer, size_t size, in_addr* sender, in_addr* at) {
    return kel::platform::ReceiveDatagram(socket, buffer, size, sender, at);
}

}  // namespace yar::networkutils
