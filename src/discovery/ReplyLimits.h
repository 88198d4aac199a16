// ReplyLimits: the two-second rule. Anybody can send searches, in any number and under any sender's address, so what a
// search may cause is limited here:
//
//   - a searcher is answered once in two seconds;
//   - one that asks again in between is answered, when its two seconds have passed, by an announcement to all;
//   - announcements to all for that reason are two seconds apart too, however many searchers wait for one: each of them
//     hears the next;
//   - all searchers together have a token bucket: 100 answers a second, `answersAtOnce` of them at once; whoever comes
//     when it is empty waits for an announcement to all as well.
//
// So memory is bounded too, for only who is answered is remembered, until Forget.
//
// Times are milliseconds of up-time, 32 bits, wrapping; Forget has to be called more often than once in 24 days.
// For one thread.
#pragma once

#include "foundation/StdString.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>

namespace kel::discovery {

class ReplyLimits {
public:
    static constexpr uint32_t periodMs = 2000;
    static constexpr uint32_t answerCostMs = 10;
    static constexpr uint32_t answersAtOnce = 50;

    // Whether the searcher may be answered at `now`; if so, this is noted as its answer. If not, `*toAllAt` is when an
    // announcement to all is due in its place.
    bool MayAnswer(const CStdStr& searcher, uint32_t now, uint32_t* toAllAt);

    // An announcement to all went out at `now`. It answers whoever waits for one.
    void AnsweredAll(uint32_t now);

    // Forgets what has no effect any more.
    void Forget(uint32_t now);

    size_t size() const { return lastReplyMs_.size(); }

private:
    uint32_t DueToAll(uint32_t earliest);
    bool TakeAnswer(uint32_t now);

    std::map<CStdStr, uint32_t> lastReplyMs_;
    std::optional<uint32_t> bucketFullAtMs_;  // unless it is full
    std::optional<uint32_t> lastToAllMs_;     // the last announcement to all that a search brought about
    bool somebodyWaits_ = false;
};

}  // namespace kel::discovery
