#include "foundation/LocalNetwork.h"

#include "foundation/Locks.h"
#include "platform/NetworkChanges.h"
#include "platform/RouteTable.h"

#include <chrono>
#include <utility>

namespace yar::networkutils {
namespace {

using Clock = std::chrono::steady_clock;
using NetworkPtr = std::shared_ptr<const LocalNetwork>;

// Linux says that a link goes down, or that an address goes, a moment before it takes their routes away, and does not
// say that it did. What is read within this time after a change is not kept.
constexpr std::chrono::milliseconds unrest{100};

// The system is asked for changes once in this time: a look-up in a crowd costs no system call.
constexpr std::chrono::milliseconds betweenQuestions{1};

// Null when the system does not tell.
NetworkPtr Read() {
    std::vector<kel::platform::InterfaceAddress> addresses;
    std::vector<kel::platform::RouteEntry> table;
    if (kel::platform::ReadInterfaceAddresses(addresses) != 0 || kel::platform::ReadRouteTable(table) != 0) return {};
    const std::vector<Route> routes = UsableRoutes(table, NetsOf(addresses));
    return NetworkPtr(new LocalNetwork{std::move(addresses), RouteChoice(routes)});
}

class Keeper {
public:
    NetworkPtr Current() KEL_EXCLUDES(lock_) {
        const Clock::time_point now = Clock::now();
        {
            PMutexHold hold(lock_);
            if (now - askedAt_ >= betweenQuestions) {
                if (changes_.HaveHappened()) settled_ = now + unrest;
                askedAt_ = now;
            }
            if (readAt_ >= settled_) return network_;
        }
        const NetworkPtr read = Read();  // by each thread that finds it changed: none waits for another
        PMutexHold hold(lock_);
        if (read && now >= readAt_) {
            network_ = read;
            readAt_ = now;
        }
        return network_;
    }

private:
    PMutex lock_;
    kel::platform::NetworkChanges changes_ KEL_GUARDED_BY(lock_);
    Clock::time_point askedAt_ KEL_GUARDED_BY(lock_){};  // when the system was last asked for changes
    Clock::time_point settled_ KEL_GUARDED_BY(lock_){};  // what is read from then on holds
    Clock::time_point readAt_ KEL_GUARDED_BY(lock_){};   // when that reading began
    NetworkPtr network_ KEL_GUARDED_BY(lock_){new LocalNetwork{{}, RouteChoice({})}};
};

}  // namespace

NetworkPtr CurrentNetwork() {
    static Keeper& keeper = *new Keeper;  // asked until the process ends
    return keeper.Current();
}

}  // namespace yar::networkutils
