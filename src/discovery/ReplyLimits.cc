#include "discovery/ReplyLimits.h"

#include <iterator>

namespace kel::discovery {
namespace {

// While the table is full, looking through it for what can go must not be what every further search costs.
constexpr uint32_t forgetPeriodMs = 500;

bool IsOver(uint32_t time, uint32_t now) {
    const auto age = static_cast<int32_t>(now - time);
    return age < 0 || age >= static_cast<int32_t>(ReplyLimits::periodMs);
}

}  // namespace

bool ReplyLimits::MayAnswer(const CStdStr& searcher, uint32_t now, uint32_t* toAllAt) {
    const auto known = lastReplyMs_.find(searcher);
    if (known != lastReplyMs_.end()) {
        if (now - known->second < periodMs) {
            *toAllAt = DueToAll(known->second + periodMs);
            return false;
        }
        known->second = now;
        return true;
    }
    if (lastReplyMs_.size() >= capacity && now - lastForgottenMs_ >= forgetPeriodMs) Forget(now);
    if (lastReplyMs_.size() >= capacity) {
        *toAllAt = DueToAll(now + periodMs);
        return false;
    }
    lastReplyMs_.emplace(searcher, now);
    return true;
}

uint32_t ReplyLimits::DueToAll(uint32_t earliest) {
    somebodyWaits_ = true;
    if (!lastToAllMs_) return earliest;
    const uint32_t next = *lastToAllMs_ + periodMs;
    return static_cast<int32_t>(next - earliest) > 0 ? next : earliest;
}

void ReplyLimits::AnsweredAll(uint32_t now) {
    if (somebodyWaits_) lastToAllMs_ = now;
    somebodyWaits_ = false;
}

void ReplyLimits::Forget(uint32_t now) {
    lastForgottenMs_ = now;
    for (auto entry = lastReplyMs_.begin(); entry != lastReplyMs_.end();) {
        entry = IsOver(entry->second, now) ? lastReplyMs_.erase(entry) : std::next(entry);
    }
    if (lastToAllMs_ && IsOver(*lastToAllMs_, now)) lastToAllMs_.reset();
}

}  // namespace kel::discovery
