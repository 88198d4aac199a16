// The calls that this side has made over a connection and that have not been answered.
#pragma once

#include "foundation/Locks.h"
#include "rpc/wire/Message.h"

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <utility>

namespace kel::transport {

// How a call that this side made ended.
enum class CallEnd {
    answered,  // the method ran: code and value
    failed,    // an error answer: code and errorText
    lost,      // the connection closed before the answer came; the message is empty
};
using AnswerHandler = std::function<void(CallEnd, wire::Message&)>;  // throws nothing when the call is lost

// Any thread. Handlers are called, and go, with no lock held.
class CallTable {
public:
    uint32_t NewId() {
        PMutexHold hold(lock_);
        return next_++;
    }

    enum class Added { theOnlyOne, besideOthers, closed };
    Added Add(uint32_t id, AnswerHandler handler) {
        PMutexHold hold(lock_);
        if (closed_) return Added::closed;
        calls_.emplace(id, std::move(handler));
        return calls_.size() == 1 ? Added::theOnlyOne : Added::besideOthers;
    }

    // Null when the call is not there any more.
    AnswerHandler Take(uint32_t id) {
        AnswerHandler handler;
        PMutexHold hold(lock_);
        const auto found = calls_.find(id);
        if (found == calls_.end()) return handler;
        handler = std::move(found->second);
        calls_.erase(found);
        return handler;
    }

    size_t size() {
        PMutexHold hold(lock_);
        return calls_.size();
    }

    // Refuses further calls if there are none, and runs `before` before one can hear of it; whether.
    template <typename Before>
    bool CloseIfEmpty(Before&& before) {
        PMutexHold hold(lock_);
        if (!calls_.empty()) return false;
        before();
        return closed_ = true;
    }

    // Refuses further calls and gives up those that there are.
    void Close() {
        std::unordered_map<uint32_t, AnswerHandler> lost;
        {
            PMutexHold hold(lock_);
            closed_ = true;
            lost.swap(calls_);
        }
        wire::Message empty;
        for (auto& [id, handler] : lost) handler(CallEnd::lost, empty);
    }

private:
    PMutex lock_;
    std::unordered_map<uint32_t, AnswerHandler> calls_ KEL_GUARDED_BY(lock_);
    uint32_t next_ KEL_GUARDED_BY(lock_) = 0;
    bool closed_ KEL_GUARDED_BY(lock_) = false;
};

}  // namespace kel::transport
