// What discovery_flood.py does to a directory, on hosts of its own making.
//
//     discovery_load flood TARGET RATE SECONDS FIRST COUNT
//                                     sends RATE searches a second to TARGET, in turn from COUNT addresses of this
//                                     host, the first of which is FIRST, and prints how many it sent
//     discovery_load calls HOST:PORT SECONDS
//                                     calls the directory there, one call after the other, and prints how many it made
#include "rpc/finder/Announcement.h"
#include "rpc/satellite/KelSatellite.h"
#include "rpc/values/VUtil.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// One search from an address of this host's choice.
class Search {
public:
    Search(sockaddr_in& to, in_addr from) : text_(kel::wire::BuildSearch()), data_{text_.data(), text_.size()} {
        message_ = {&to, sizeof to, &data_, 1, control_, sizeof control_, 0};
        cmsghdr* const part = CMSG_FIRSTHDR(&message_);
        part->cmsg_level = IPPROTO_IP;
        part->cmsg_type = IP_PKTINFO;
        part->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
        in_pktinfo way{};
        way.ipi_spec_dst = from;
        std::memcpy(CMSG_DATA(part), &way, sizeof way);
    }
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

    bool Send(int socket) const { return sendmsg(socket, &message_, 0) >= 0; }

private:
    CStdStr text_;
    iovec data_;
    alignas(cmsghdr) char control_[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr message_{};
};

int Flood(const char* target, long rate, long seconds, const char* first, unsigned count) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = inet_addr(target);
    to.sin_port = htons(kel::wire::discoveryPort);
    std::vector<std::unique_ptr<Search>> searches;
    for (unsigned i = 0; i < count; ++i) {
        searches.push_back(std::make_unique<Search>(to, in_addr{htonl(ntohl(inet_addr(first)) + i)}));
    }
    const int sender = socket(AF_INET, SOCK_DGRAM, 0);
    const auto start = Clock::now();
    long tried = 0;
    long sent = 0;
    for (std::chrono::duration<double> passed{}; passed.count() < static_cast<double>(seconds);
         passed = Clock::now() - start) {
        for (const long due = static_cast<long>(passed.count() * static_cast<double>(rate)); tried < due; ++tried) {
            sent += searches[static_cast<size_t>(tried) % count]->Send(sender);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::printf("sent %ld\n", sent);
    return 0;
}

int Call(const char* directory, long seconds) {
    KelSatellite caller;
    if (const int code = caller.ConnectUser(directory, "Probe")) {
        std::printf("%s\n", KelResultText(code).c_str());
        return 1;
    }
    const ScopedVariant name = MakeString("MainRegister");
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    long calls = 0;
    for (; Clock::now() < end; ++calls) {
        ScopedVariant id;
        if (caller.Request("MainRegister", "GetSatelliteId", name, &id, KELFLAG_WAIT, nullptr) != KEL_OK) return 1;
    }
    std::printf("calls %ld\n", calls);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc == 7 && std::strcmp(argv[1], "flood") == 0) {
        return Flood(argv[2], std::atol(argv[3]), std::atol(argv[4]), argv[5],
                     static_cast<unsigned>(std::atol(argv[6])));
    }
    if (argc == 4 && std::strcmp(argv[1], "calls") == 0) return Call(argv[2], std::atol(argv[3]));
    return 2;
}
