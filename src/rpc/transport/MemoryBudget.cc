// What is counted
//
// Buffers: what the connections hold of messages that are not complete, of notifications that wait for their turn and
// of answers that are not read. Beyond maxBufferBytes the connection that holds the most is cut, and the next, until
// the rest fits: whoever sends or asks for much and does not go on gives way first, and small messages are never in
// danger.
//
// Calls: what a decoded message takes, twice over, since a method may copy what it is given. A call that does not fit
// waits: its connection is not read any further until others have ended. Those of up to middlingCallBytes are counted
// by themselves, so that they do not wait for the large ones, and small ones are neither counted nor do they wait. Nor
// do answers to calls of this side: those that wait for them may be what has to end.
//
// Whoever waits is served in the order of coming. Taking, giving back and queueing are one step under the lock, so
// that nobody waits for what is there; the share of the next is taken before it is told.
#include "rpc/transport/MemoryBudget.h"

#include "rpc/transport/Connection.h"

namespace kel::transport {

namespace {
constexpr size_t muchFreed = 1u << 20;
}

void MemoryBudget::CountBuffers(ptrdiff_t change) {
    buffers_ += change;
    if (change < -ptrdiff_t{muchFreed}) freed_();
}

MemoryBudget::Share& MemoryBudget::Share::operator=(Share&& other) noexcept {
    Return();
    budget_ = std::exchange(other.budget_, nullptr);
    bytes_ = other.bytes_;
    return *this;
}

void MemoryBudget::Share::Return() {
    if (MemoryBudget* const budget = std::exchange(budget_, nullptr)) budget->Give(bytes_);
}

bool MemoryBudget::Take(size_t bytes, Share& share, const ConnectionPtr& connection, Turn turn) {
    {
        PMutexHold hold(lock_);
        Kind& kind = KindOf(bytes);
        if (!kind.waiting.empty() || kind.used + bytes > kind.most) {
            kind.waiting.push_back({connection, turn == Turn::notifications ? connection : nullptr, turn, bytes});
            return false;
        }
        kind.used += bytes;
    }
    share = Share(*this, bytes);
    return true;
}

void MemoryBudget::Close() {
    std::deque<Waiter> forgotten[2];
    PMutexHold hold(lock_);
    forgotten[0].swap(middling_.waiting);
    forgotten[1].swap(large_.waiting);
}

// Throws nothing.
void MemoryBudget::Give(size_t bytes) {
    {
        PMutexHold hold(lock_);
        KindOf(bytes).used -= bytes;
    }
    while (GoOnWithNext(bytes)) {
    }
    if (bytes > muchFreed) freed_();
}

// Has the first that waits for a share of this kind go on, or forgets it if it is gone; false when there is none, or no
// room for it.
bool MemoryBudget::GoOnWithNext(size_t ofKind) {
    ConnectionPtr connection;
    Waiter waiter{};
    {
        PMutexHold hold(lock_);
        Kind& kind = KindOf(ofKind);
        if (kind.waiting.empty()) return false;
        Waiter& first = kind.waiting.front();
        connection = first.connection.lock();
        const bool gone = !connection || (first.turn == Turn::reading && connection->closed());
        if (!gone && kind.used + first.bytes > kind.most) return false;
        waiter = std::move(first);
        kind.waiting.pop_front();
        if (gone) return true;
        kind.used += waiter.bytes;
    }
    connection->GoOn(waiter.turn, Share(*this, waiter.bytes));
    return true;
}

}  // namespace kel::transport
