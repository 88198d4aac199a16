#include "rpc/transport/InputBuffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kel::transport {

namespace {

constexpr size_t threadBuffer = 16 * 1024;
constexpr size_t ordinaryBuffer = 4096;     // of a connection that gets more than a little at once
constexpr size_t largeBuffer = 256 * 1024;  // one that grew beyond this is given back once it is empty

char* OfThread() {
    thread_local const std::unique_ptr<char[]> buffer(new char[threadBuffer]);
    return buffer.get();
}

}  // namespace

ptrdiff_t InputBuffer::Prepare() {
    if (size() == 0 && reads_ == Reads::byThread) {
        const ptrdiff_t growth = Drop();
        data_ = OfThread();
        capacity_ = threadBuffer;
        return growth;
    }
    if (size() == 0) {
        const bool wasFull = end_ == capacity_;
        begin_ = end_ = 0;
        if (ownCapacity_ == 0 || ownCapacity_ > largeBuffer) return MoveTo(smallBuffer);
        return wasFull && ownCapacity_ < ordinaryBuffer ? MoveTo(ordinaryBuffer) : 0;
    }
    if (!isOwn()) return MoveTo(std::max(2 * size(), ordinaryBuffer));
    if (end_ < capacity_) return 0;
    if (begin_ < capacity_ / 2) return MoveTo(std::max(capacity_ * 2, ordinaryBuffer));
    std::memmove(data_, data_ + begin_, size());
    end_ -= std::exchange(begin_, 0);
    return 0;
}

ptrdiff_t InputBuffer::Keep() {
    if (isOwn() || size() == 0) return 0;
    return MoveTo(size() < smallBuffer / 2 ? smallBuffer : std::max(size(), ordinaryBuffer));
}

// Gives the bytes that wait an own buffer, another one if there is one already.
ptrdiff_t InputBuffer::MoveTo(size_t capacity) {
    if (size() == 0) own_.reset();
    std::unique_ptr<char[]> other(new char[capacity]);
    if (size() > 0) std::memcpy(other.get(), data(), size());
    own_ = std::move(other);
    data_ = own_.get();
    end_ -= std::exchange(begin_, 0);
    capacity_ = capacity;
    return Counting(capacity) - Counting(std::exchange(ownCapacity_, capacity));
}

ptrdiff_t InputBuffer::Drop() {
    own_.reset();
    data_ = nullptr;
    capacity_ = begin_ = end_ = 0;
    return -Counting(std::exchange(ownCapacity_, 0));
}

}  // namespace kel::transport
