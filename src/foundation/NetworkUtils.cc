#include "foundation/NetworkUtils.h"

#include "platform/Interfaces.h"
#include "platform/SocketOptions.h"

#include <cstring>

namespace yar::networkutils {
namespace {

// Writes 0 to 255 in decimal and returns the position behind it.
char* WriteOctet(char* to, unsigned value) {
    if (value >= 100) *to++ = static_cast<char>('0' + value / 100);
    if (value >= 10) *to++ = static_cast<char>('0' + value / 10 % 10);
    *to++ = static_cast<char>('0' + value % 10);
    return to;
}

}  // namespace

void GetLocalIPAddressList(std::vector<in_addr>& out) { out = kel::platform::InterfaceAddresses(); }

void GiveUpOnDeadPeers(int socket, unsigned seconds) { kel::platform::GiveUpOnDeadPeers(socket, seconds); }

// Every request passes through here with its caller's address, so the text is put together without inet_ntop's printf.
CStdStr inet_ntos(in_addr address) {
    unsigned char octets[4];
    std::memcpy(octets, &address, sizeof octets);
    char text[INET_ADDRSTRLEN];
    char* end = WriteOctet(text, octets[0]);
    for (int i = 1; i < 4; ++i) {
        *end++ = '.';
        end = WriteOctet(end, octets[i]);
    }
    return CStdStr(text, static_cast<size_t>(end - text));
}

}  // namespace yar::networkutils
