#include "TwoHosts.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace kel::bench {
namespace {

// Runs commands of ip, a line each.
void Configure(const std::string& commands, const std::string& host = "") {
    const std::string command = "ip " + (host.empty() ? "" : "-n " + host + " ") + "-batch -";
    FILE* const ip = ::popen(command.c_str(), "w");
    if (!ip) FailWithErrno("ip");
    std::fputs(commands.c_str(), ip);
    if (::pclose(ip) != 0) throw std::runtime_error("network namespaces cannot be made or set up");
}

void Enter(const Descriptor& network) {
    if (network.get() < 0 || ::setns(network.get(), CLONE_NEWNET) != 0) FailWithErrno("a network namespace");
}

}  // namespace

TwoHosts::TwoHosts()
    : home_("kel-bench-" + std::to_string(::getpid()) + "-home"),
      away_("kel-bench-" + std::to_string(::getpid()) + "-away") {
    try {
        Configure("netns add " + home_ + "\nnetns add " + away_ + "\n");
        Configure("link add eth0 type veth peer name eth0 netns " + away_ +
                      "\nlink set lo up\nlink set eth0 up\naddress add " + homeAddress() + "/24 dev eth0\n",
                  home_);
        Configure("link set eth0 up\naddress add 10.0.0.2/24 dev eth0\n", away_);
    } catch (...) {
        Remove();
        throw;
    }
}

TwoHosts::~TwoHosts() { Remove(); }

void TwoHosts::Remove() const {
    const std::string command = "ip netns delete " + home_ + " 2>&-; ip netns delete " + away_ + " 2>&-";
    if (std::system(command.c_str()) == -1) std::perror("ip");
}

void TwoHosts::GiveRoutes(unsigned count) {
    std::string commands;
    for (; routes_ < count; ++routes_) {
        const std::string network = "20." + std::to_string(routes_ / 256) + "." + std::to_string(routes_ % 256) + ".0";
        commands += "route add " + network + "/24 via 10.0.0.2\n";
    }
    Configure(commands, home_);
}

TwoHosts::Stay::Stay(const std::string& host) : before_(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    Enter(Descriptor(::open(("/run/netns/" + host).c_str(), O_RDONLY | O_CLOEXEC)));
}

TwoHosts::Stay::~Stay() {
    if (::setns(before_.get(), CLONE_NEWNET) != 0) std::perror("a network namespace");
}

}  // namespace kel::bench
