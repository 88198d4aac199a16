// Finds where messages end in a byte stream that has no other framing than MessagePack's own.
#pragma once

#include "rpc/wire/DecodedSize.h"
#include "rpc/wire/Message.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kel::wire {

struct Header;

// Walks the headers of one message as its bytes arrive, without decoding values and without taking memory, and refuses
// a message as soon as a header announces more than a limit, is no MessagePack, or is a map. No value is walked twice,
// however small the pieces in which the bytes come. Not thread-safe.
class Framer {
public:
    enum class Status { incomplete, complete, malformed };

    // Looks at `data[0..size)`: the bytes of one message from its first on, those of earlier calls included (they may
    // have moved). After `complete`, length() is the message's size in bytes; bytes behind it belong to the next one.
    // After `complete` and `malformed` a further call changes nothing.
    Status Scan(const char* data, size_t size);

    size_t length() const { return position_; }

    // After `complete`: what the message will take of memory once it is decoded.
    size_t decodedBytes() const { return decoded_.bytes(); }

    // After `complete`: whether `data`, that of the message, says that it is of this kind. It may be no message yet.
    bool Is(MessageKind kind, const char* data) const { return data[kindAt_] == static_cast<char>(kind); }

    // Starts the next message.
    void Reset();

private:
    void TakeUsual(const char* data, size_t size);
    bool Take(const Header& header);
    bool TakeText(const Header& header);
    bool CountMemory(const Header& header);

    // src/rpc/wire/Framer.cc explains the state.
    size_t position_ = 0;
    size_t textsEnd_ = 0;
    size_t kindAt_ = 0;
    size_t awaited_ = 1;
    unsigned depth_ = 0;
    std::array<uint32_t, maxNesting + 2> rest_{};  // in use: [0, depth_)
    size_t texts_ = 0;
    DecodedSize decoded_;
};

}  // namespace kel::wire
