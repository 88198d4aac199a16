// What KelSatellite::LastProblem says.
#pragma once

#include "foundation/Locks.h"
#include "foundation/StdString.h"
#include "rpc/transport/Quietly.h"

#include <string>

namespace kel {

// Why the author's call that failed last did so. Any thread.
class LastProblem {
public:
    CStdStr Get() {
        PMutexHold hold(text_);
        return text_.value();
    }

    // Says nothing without memory for it.
    void Keep(const std::string& problem) {
        CStdStr kept;
        if (!transport::Quietly([&] { kept = problem; })) return;
        PMutexHold hold(text_);
        text_.value().swap(kept);
    }

private:
    PLocker<CStdStr> text_;
};

}  // namespace kel
