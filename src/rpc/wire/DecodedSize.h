// What one message takes of its reader's memory.
#pragma once

#include "rpc/wire/Message.h"

#include <algorithm>
#include <cstddef>

namespace kel::wire {

// Counted alike by who finds the end of a message, who reads it and who writes it, so that each refuses the same ones.
// The members return false once the message is over a limit.
class DecodedSize {
public:
    bool AddText(size_t length) {
        // A block of the allocator: the text, its NUL and a word, in steps of 16 bytes, 32 at the least.
        return AddBytes(std::max<size_t>((length + 24) & ~size_t{15}, 32));
    }
    // An array of numbers or bytes.
    bool AddNumbers(size_t bytes) { return AddBytes(arrayHead + bytes); }
    // An array of texts or variants, without its elements.
    bool AddArray() { return AddBytes(arrayHead); }
    // Elements of such an array, without what they point at.
    bool AddElements(size_t count, size_t elementSize) {
        elements_ += count;
        return elements_ <= maxElements && AddBytes(count * elementSize);
    }

    size_t bytes() const { return bytes_; }

private:
    static constexpr size_t arrayHead = 48;

    bool AddBytes(size_t bytes) { return (bytes_ += bytes) <= maxDecodedBytes; }

    size_t bytes_ = 0;
    size_t elements_ = 0;
};

}  // namespace kel::wire
