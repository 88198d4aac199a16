// The network side of libkel and of the foundation as a program, for tests that run it on hosts of their own making.
//
//     network_probe find              searches for directories once a second and prints each change, until it is ended
//     network_probe routes ADDRESS... prints for each address the local one from which it is reached, and its netmask
#include "foundation/NetworkUtils.h"
#include "rpc/finder/KelDirectoryFinder.h"

#include <cstdio>
#include <cstring>

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

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc == 2 && std::strcmp(argv[1], "find") == 0) Find();
    if (argc < 2 || std::strcmp(argv[1], "routes") != 0) return 2;
    for (int i = 2; i < argc; ++i) {
        const auto [ip, mask] = yar::networkutils::GetIPForDestination(argv[i]);
        std::printf("%s %s %s\n", argv[i], ip.empty() ? "none" : ip.c_str(), mask.empty() ? "none" : mask.c_str());
    }
    return 0;
}
