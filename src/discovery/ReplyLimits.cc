#include "discovery/ReplyLimits.h"

#include <iterator>

namespace kel::discovery {
namespace {

bool IsOver(uint32_t time, uint32_t now) {
    const auto age = static_cast<int32_t>(now - time);
    return age < 0 || age >= static_cast<int32_t>(ReplyLimits::periodMs);
}

}  // namespace

bool ReplyLimits::MayAnswer(const CStdStr& searcher, uint32_t now, uint32_t* toAllAt) {
    const auto known = lastReplyMs_.find(searcher);
    if (known != lastReplyMs_.end() && now - known->second < periodMs) {
        *toAllAt = DueToAll(known->second + periodMs);
        return false;
    }
    if (!TakeAnswer(now)) {
        *toAllAt = DueToAll(now + periodMs);
        return false;
    }
    lastReplyMs_[searcher] = now;
    return true;
}

// The bucket is kept as the time at which it will be full again: an answer puts that off by what an answer costs, and
// when it is too far away the bucket is empty.
bool ReplyLimits::TakeAnswer(uint32_t now) {
    if (!bucketFullAtMs_ || static_cast<int32_t>(*bucketFullAtMs_ - now) < 0) bucketFullAtMs_ = now;
    if (*bucketFullAtMs_ - now > (answersAtOnce - 1) * answerCostMs) return false;
    *bucketFullAtMs_ += answerCostMs;
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
    for (auto entry = lastReplyMs_.begin(); entry != lastReplyMs_.end();) {
        entry = IsOver(entry->second, now) ? lastReplyMs_.erase(entry) : std::next(entry);
    }
    if (lastToAllMs_ && IsOver(*lastToAllMs_, now)) lastToAllMs_.reset();
    if (bucketFullAtMs_ && static_cast<int32_t>(*bucketFullAtMs_ - now) < 0) bucketFullAtMs_.reset();
}

}  // namespace kel::discovery
