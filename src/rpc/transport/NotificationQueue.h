// The notifications of a connection that wait for their turn.
#pragma once

#include "foundation/Locks.h"
#include "rpc/transport/InputBuffer.h"
#include "rpc/wire/Framer.h"

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>

namespace kel::transport {

// They run one after the other, in the order in which they came: whoever finds nobody running them is the runner, and
// runs those that arrive meanwhile too. They wait as the bytes that they came in, since there may be many of them. Any
// thread. Members that return a size say by how much what is held grew.
class NotificationQueue {
public:
    // Becomes the runner without queueing anything; false when there is one.
    bool Begin() {
        PMutexHold hold(lock_);
        return !std::exchange(running_, true);
    }

    // True in `runs` when the caller becomes the runner.
    ptrdiff_t Add(std::string_view bytes, bool& runs) {
        waiting_ += bytes.size();
        PMutexHold hold(lock_);
        const ptrdiff_t before = Counting(bytes_.capacity());
        bytes_.append(bytes);
        runs = !std::exchange(running_, true);
        return Counting(bytes_.capacity()) - before;
    }

    // The runner's: measures the next one; false when there is none, and the caller is no longer the runner.
    bool Next(wire::Framer& framer) {
        PMutexHold hold(lock_);
        running_ = !bytes_.empty();
        if (!running_) return false;
        framer.Reset();
        (void)framer.Scan(bytes_.data() + begin_, bytes_.size() - begin_);
        return true;
    }

    // The runner's: takes the next one, of `length` bytes; false when it has been forgotten meanwhile.
    bool Take(size_t length, std::string& bytes, ptrdiff_t& growth) {
        PMutexHold hold(lock_);
        if (bytes_.empty()) return false;
        bytes = bytes_.substr(begin_, length);
        begin_ += length;
        if (begin_ == bytes_.size()) {
            growth = Empty();
        } else if (begin_ > bytes_.size() / 2) {
            bytes_.erase(0, std::exchange(begin_, 0));
        }
        return true;
    }

    // One that was taken has been run.
    void Ran(size_t length) { waiting_ -= length; }
    // Bytes of those that wait or run.
    size_t waiting() const { return waiting_; }

    ptrdiff_t Forget() {
        PMutexHold hold(lock_);
        return Empty();
    }

private:
    ptrdiff_t Empty() KEL_REQUIRES(lock_) {
        const ptrdiff_t held = Counting(bytes_.capacity());
        bytes_ = std::string();
        begin_ = 0;
        return -held;
    }

    std::atomic<size_t> waiting_{0};
    PMutex lock_;
    std::string bytes_ KEL_GUARDED_BY(lock_);  // one behind the other
    size_t begin_ KEL_GUARDED_BY(lock_) = 0;
    bool running_ KEL_GUARDED_BY(lock_) = false;
};

}  // namespace kel::transport
