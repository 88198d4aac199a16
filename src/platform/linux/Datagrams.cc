#include "platform/Datagrams.h"

#include <sys/socket.h>

#include <cstring>

namespace kel::platform {

bool ReportArrivals(int socket) {
    const int on = 1;
    return setsockopt(socket, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) == 0;
}

ssize_t ReceiveDatagram(int socket, void* buffer, size_t size, in_addr* sender, in_addr* at) {
    sockaddr_in from{};
    iovec data{buffer, size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(socket, &message, MSG_DONTWAIT);
    if (length < 0) return length;
    *sender = from.sin_addr;
    at->s_addr = INADDR_ANY;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_PKTINFO) continue;
        in_pktinfo way{};
        std::memcpy(&way, CMSG_DATA(part), sizeof way);
        *at = way.ipi_spec_dst;
    }
    return length;
}

}  // namespace kel::platform
