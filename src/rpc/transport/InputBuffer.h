// The bytes of a connection that have been read and not been used.
#pragma once

#include <cstddef>
#include <memory>

namespace kel::transport {

// What a buffer of so many bytes counts towards the budget; every connection may have a small one.
constexpr size_t smallBuffer = 1024;
inline ptrdiff_t Counting(size_t capacity) { return capacity > smallBuffer ? static_cast<ptrdiff_t>(capacity) : 0; }

// Bytes are read into a buffer that the calling thread has for all connections, and used there; only what is left when
// the thread turns to something else is kept in a buffer of the connection's own (Keep). A connection whose bytes are
// read while the thread has others at hand reads into its own at once. Not thread-safe. Members that return a size say
// by how much what is held grew, as Counting counts.
class InputBuffer {
public:
    enum class Reads { byThread, byItself };
    explicit InputBuffer(Reads reads) : reads_(reads) {}

    const char* data() const { return data_ + begin_; }
    size_t size() const { return end_ - begin_; }
    void Use(size_t bytes) { begin_ += bytes; }

    // Sees to space behind what waits; std::bad_alloc.
    ptrdiff_t Prepare();
    char* space() const { return data_ + end_; }
    size_t spaceSize() const { return capacity_ - end_; }
    void Got(size_t bytes) { end_ += bytes; }

    // To be called before another thread uses it, or this one another; std::bad_alloc.
    ptrdiff_t Keep();
    // Forgets everything.
    ptrdiff_t Drop();

private:
    bool isOwn() const { return own_ && data_ == own_.get(); }
    ptrdiff_t MoveTo(size_t capacity);

    const Reads reads_;
    std::unique_ptr<char[]> own_;
    size_t ownCapacity_ = 0;
    char* data_ = nullptr;  // own_, or the thread's
    size_t capacity_ = 0;   // of that
    size_t begin_ = 0;
    size_t end_ = 0;
};

}  // namespace kel::transport
