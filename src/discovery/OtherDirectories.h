// OtherDirectories: which other directories were heard, so that each is told of once an hour.
//
// Anybody can claim to be any number of directories, so no more than `most` are told of in an hour.
//
// Times are milliseconds of up-time, 32 bits, wrapping; Forget has to be called more often than once in 24 days.
// For one thread.
#pragma once

#include "foundation/StdString.h"

#include <cstddef>
#include <cstdint>
#include <map>

namespace kel::discovery {

class OtherDirectories {
public:
    static constexpr uint32_t periodMs = 60 * 60 * 1000;
    static constexpr size_t most = 16;

    // Whether the directory of that id, heard at `now`, is to be told of; if so, this is noted.
    bool IsNews(const CStdStr& serverId, uint32_t now) {
        return !IsFull() && toldMs_.try_emplace(serverId, now).second;
    }

    bool IsFull() const { return toldMs_.size() >= most; }

    // Forgets those that may be told of again.
    void Forget(uint32_t now) {
        std::erase_if(toldMs_, [now](const auto& one) { return now - one.second >= periodMs; });
    }

private:
    std::map<CStdStr, uint32_t> toldMs_;
};

}  // namespace kel::discovery
