// What the host "auto" does after connecting: a satellite that was to find its directory goes on looking.
#pragma once

#include "foundation/SaidOnce.h"
#include "rpc/satellite/Link.h"
#include "rpc/satellite/Standing.h"

#include <chrono>
#include <optional>

namespace kel {

// Of one link. Mover.cc opens with when it moves.
class Mover {
public:
    // `own` is where this machine's directory listens. Link and standing outlive the object.
    Mover(Link& link, Standing& standing, transport::Address own);

    // To be called regularly, by one thread at a time.
    void LookAround();

private:
    using Clock = std::chrono::steady_clock;

    bool IsAnsweredFor();
    void Search();
    void MoveTo(const transport::Address& directory);
    bool IsKnownAt(const transport::Address& directory);
    bool MoveRecord(const transport::Address& directory);

    Link& link_;
    Standing& standing_;
    const transport::Address own_;

    Clock::time_point nextLookForOwn_{};
    std::optional<Clock::time_point> missingSince_;
    bool searchedInVain_ = false;
    SaidOnce refused_;
};

}  // namespace kel
