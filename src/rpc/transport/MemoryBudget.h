// How much memory strangers may take of an endpoint together. MemoryBudget.cc opens with what is counted, and what
// gives way.
#pragma once

#include "foundation/Locks.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <utility>

namespace kel::transport {

class Connection;
using ConnectionPtr = std::shared_ptr<Connection>;

constexpr size_t maxBufferBytes = 64u << 20;         // in the buffers of all connections
constexpr size_t smallCallBytes = 16u << 10;         // a call that takes no more is not counted
constexpr size_t middlingCallBytes = 4u << 20;       // up to here of one kind, beyond of the other
constexpr size_t maxMiddlingCallsBytes = 32u << 20;  // together
constexpr size_t maxLargeCallsBytes = 96u << 20;     // likewise

// Any thread.
class MemoryBudget {
public:
    // `freed` is called, with no lock held, when much memory has been given back. Throws nothing.
    explicit MemoryBudget(std::function<void()> freed) : freed_(std::move(freed)) {}

    // The buffers of a connection hold `change` bytes more, or fewer.
    void CountBuffers(ptrdiff_t change);
    bool BuffersAreOver() const { return buffers_.load(std::memory_order_relaxed) > ptrdiff_t{maxBufferBytes}; }

    // What a call takes, until this goes.
    class Share {
    public:
        Share() = default;
        Share(MemoryBudget& budget, size_t bytes) : budget_(&budget), bytes_(bytes) {}
        Share(Share&& other) noexcept : budget_(std::exchange(other.budget_, nullptr)), bytes_(other.bytes_) {}
        Share& operator=(Share&& other) noexcept;
        ~Share() { Return(); }

        explicit operator bool() const { return budget_ != nullptr; }

    private:
        void Return();

        MemoryBudget* budget_ = nullptr;
        size_t bytes_ = 0;
    };

    // Who goes on once there is memory: a connection's reading turn, which is worth nothing when it has closed by then,
    // or its turn to run notifications, which came before it closed.
    enum class Turn { reading, notifications };

    // Takes `bytes` for a call of `connection`. False when others have to end before; Connection::GoOn is called then,
    // on any thread, maybe before this returns.
    bool Take(size_t bytes, Share& share, const ConnectionPtr& connection, Turn turn);

    // Forgets who waits, and waits no more: the threads have ended.
    void Close();

private:
    struct Waiter {
        std::weak_ptr<Connection> connection;
        ConnectionPtr kept;  // notifications
        Turn turn;
        size_t bytes;
    };
    struct Kind {
        explicit Kind(size_t bytes) : most(bytes) {}
        const size_t most;
        size_t used = 0;
        std::deque<Waiter> waiting;
    };

    Kind& KindOf(size_t bytes) KEL_REQUIRES(lock_) { return bytes <= middlingCallBytes ? middling_ : large_; }
    void Give(size_t bytes);
    bool GoOnWithNext(size_t ofKind);

    const std::function<void()> freed_;
    std::atomic<ptrdiff_t> buffers_{0};

    PMutex lock_;
    Kind middling_ KEL_GUARDED_BY(lock_){maxMiddlingCallsBytes};
    Kind large_ KEL_GUARDED_BY(lock_){maxLargeCallsBytes};
};

}  // namespace kel::transport
