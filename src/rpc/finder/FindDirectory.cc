#include "rpc/finder/FindDirectory.h"

#include "foundation/StdString.h"
#include "rpc/finder/KelDirectoryFinder.h"
#include "rpc/transport/LibraryLog.h"

#include <chrono>
#include <set>

namespace kel {
namespace {

using transport::Address;
using Clock = std::chrono::steady_clock;

// An answer to this machine may reach another program that shares the port. The second search has the directory answer
// to everyone, two to three seconds after its first answer.
constexpr std::chrono::seconds searchPeriod{1};
constexpr int searches = 6;
constexpr std::chrono::seconds patience{15};

class Candidates {
public:
    explicit Candidates(const DirectorySearch& wanted) : wanted_(wanted), end_(Clock::now() + patience) {}

    // The first address that was not tried before and answers.
    std::optional<Address> Try(const std::vector<KelFoundDirectory>& directories) {
        for (const KelFoundDirectory& directory : directories) {
            for (const CStdStr& host : directory.addresses) {
                const Address address{host, directory.port};
                if (Clock::now() < end_ && wanted_.isWanted() && tried_.insert(address).second &&
                    wanted_.answers(address)) {
                    CBBLog::info(LibraryLogger(), "libkel: found the directory %s at %s", directory.serverId.c_str(),
                                 address.text().c_str());
                    return address;
                }
            }
        }
        return std::nullopt;
    }

private:
    const DirectorySearch& wanted_;
    const Clock::time_point end_;
    std::set<Address> tried_;
};

int MillisecondsUntil(Clock::time_point time) {
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now()).count());
}

}  // namespace

bool IsAuto(const char* host) { return host && ssicmp(host, "auto") == 0; }

std::optional<Address> FindDirectory(const DirectorySearch& wanted) {
    KelDirectoryFinder finder;
    bool isSearching = finder.Search();
    if (wanted.answers(wanted.own)) return wanted.own;

    Candidates candidates(wanted);
    for (int search = 1; isSearching && wanted.isWanted(); ++search) {
        const Clock::time_point next = Clock::now() + searchPeriod;
        for (int left = MillisecondsUntil(next); left > 0; left = MillisecondsUntil(next)) {
            if (!finder.Wait(left)) continue;
            if (std::optional<Address> found = candidates.Try(finder.GetDirectories())) return found;
        }
        isSearching = search < searches && finder.Search();
    }
    if (!wanted.isFirst) return std::nullopt;
    CBBLog::warn(LibraryLogger(), "libkel: found %zu directories on the network, none of which answers%s%s",
                 finder.GetDirectories().size(), finder.GetProblem().empty() ? "" : ": ", finder.GetProblem().c_str());
    return std::nullopt;
}

}  // namespace kel
