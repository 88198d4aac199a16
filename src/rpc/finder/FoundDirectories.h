// The directories that a finder has heard of. Times are milliseconds of up-time, 32 bits, wrapping. For one thread.
#pragma once

#include "rpc/finder/KelFoundDirectory.h"

#include <cstdint>
#include <vector>

namespace kel {

class FoundDirectories {
public:
    // A directory announces itself every 20 seconds; one that was not heard for so long has missed two.
    static constexpr uint32_t doubtMs = 45000;

    // An announcement; empties `heard`. True when it says something new.
    bool Take(KelFoundDirectory& heard, uint32_t now);

    // A farewell: those of that id at the address from which it came leave. True when one has left.
    bool TakeFarewell(const KelFoundDirectory& heard, uint32_t now);

    // Others of an id of which one has come or gone may be the same directory under the addresses that it had before,
    // or directories of their own, which announce themselves: has those leave that do not. True when one has left.
    bool Forget(uint32_t now);

    // In the order in which they were first heard.
    std::vector<KelFoundDirectory> All() const;

private:
    struct Found {
        KelFoundDirectory directory;
        uint32_t heardMs;
        bool isInDoubt;
    };

    void Doubt(const CStdStr& serverId);

    std::vector<Found> found_;
};

}  // namespace kel
