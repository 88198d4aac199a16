// The network side of libkel and of the foundation as a program, for tests that run it on hosts of their own making.
//
//     network_probe find              searches for directories once a second and prints each change, until it is ended
//     network_probe flood TARGET RATE SECONDS FIRST COUNT
//                                     sends RATE searches a second to TARGET, in turn from COUNT addresses of this
//                                     host, the first of which is FIRST, and prints how many it sent
//     network_probe calls HOST:PORT SECONDS
//                                     calls the directory there, one call after the other, and prints how many it made
//     network_probe routes ADDRESS... prints for each address the local one from which it is reached, and its netmask
#include "foundation/NetworkUtils.h"
#include "rpc/finder/Announcement.h"
#include "rpc/finder/KelDirectoryFinder.h"
#include "rpc/satellite/KelSatellite.h"
#include "rpc/values/VUtil.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

void Print(const KelFoundDirectory& found) {
    std::printf("%s at", found.serverId.c_str());
    for (const CStdStr& address : found.addresses) std::printf(" %s", address.c_str());
    std::printf(" port %d from %s on %s users", found.port, found.heardFrom.c_str(), found.heardOn.c_str());
    for (const KelDirectoryUser& user : found.users) {
        std::printf(" %s=%s/%d", user.name.c_str(), user.value.c_str(), user.flag);
    }
    std::puts(".");
}

[[noreturn]] void Find() {
    KelDirectoryFinder finder;
    for (;;) {
        if (!finder.Search()) std::printf("%s\n", finder.GetProblem().c_str());
        if (!finder.Wait(1000)) continue;
        std::printf("found %zu\n", finder.GetDirectories().size());
        for (const KelFoundDirectory& found : finder.GetDirectories()) Print(found);
    }
}

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
    if (argc == 2 && std::strcmp(argv[1], "find") == 0) Find();
    if (argc == 7 && std::strcmp(argv[1], "flood") == 0) {
        return Flood(argv[2], std::atol(argv[3]), std::atol(argv[4]), argv[5],
                     static_cast<unsigned>(std::atol(argv[6])));
    }
    if (argc == 4 && std::strcmp(argv[1], "calls") == 0) return Call(argv[2], std::atol(argv[3]));
    if (argc < 2 || std::strcmp(argv[1], "routes") != 0) return 2;
    for (int i = 2; i < argc; ++i) {
        const auto [ip, mask] = yar::networkutils::GetIPForDestination(argv[i]);
        std::printf("%s %s %s\n", argv[i], ip.empty() ? "none" : ip.c_str(), mask.empty() ? "none" : mask.c_str());
    }
    return 0;
}
