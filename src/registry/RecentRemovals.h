// Which names were removed lately, so that one that comes back and is removed again and again is noticed.
#pragma once

#include "foundation/Locks.h"
#include "foundation/StdString.h"

#include <cstddef>
#include <cstdint>
#include <map>

// Any thread. Times are milliseconds of up-time, wrapping.
class RecentRemovals {
public:
    static constexpr int often = 3;  // within a minute

    // The name was removed at `now`. True when that was often, and then counting begins anew. Strangers choose names,
    // so only the first of very many within a minute are counted.
    bool IsOften(const CStdStr& name, uint32_t now) KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        if (names_.size() >= maxNames) {
            std::erase_if(names_, [&](const auto& entry) { return now - entry.second.latest > minuteMs; });
        }
        if (names_.size() >= maxNames && names_.count(name) == 0) return false;
        Removals& removals = names_[name];
        const bool isOften = removals.count >= often - 1 && now - removals.secondLatest <= minuteMs;
        removals.secondLatest = removals.latest;
        removals.latest = now;
        removals.count = isOften ? 0 : removals.count + 1;
        return isOften;
    }

private:
    static constexpr size_t maxNames = 1024;
    static constexpr uint32_t minuteMs = 60'000;

    struct Removals {
        int count = 0;
        uint32_t latest = 0;
        uint32_t secondLatest = 0;
    };

    PMutex lock_;
    std::map<CStdStr, Removals, CaseInsensitiveLess> names_ KEL_GUARDED_BY(lock_);
};
