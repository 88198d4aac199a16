// The bytes that a peer sends: the framer and the codec on anything at all.
#include "rpc/wire/Codec.h"
#include "rpc/wire/Framer.h"

#include "Require.h"

#include <msgpack/null_visitor.hpp>
#include <msgpack/unpack.hpp>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace kel::wire;

std::string EncodeAgain(const Message& message) {
    std::string bytes;
    bool encoded = true;
    switch (message.kind) {
        case MessageKind::request:
            encoded = EncodeRequest(bytes, message.id, message.method, message.caller, message.value);
            break;
        case MessageKind::notification:
            encoded = EncodeNotification(bytes, message.method, message.caller, message.value);
            break;
        case MessageKind::response:
            if (message.failed) EncodeError(bytes, message.id, message.code, message.errorText);
            else encoded = EncodeResponse(bytes, message.id, message.code, message.value);
            break;
    }
    Require(encoded, "what was decoded can be encoded");
    return bytes;
}

// Scans in pieces of 1, 2, ... 7, 1, ... bytes.
Framer::Status ScanInPieces(Framer& framer, const char* data, size_t size) {
    Framer::Status status = Framer::Status::incomplete;
    size_t arrived = 0;
    for (size_t piece = 0; arrived < size && status == Framer::Status::incomplete; ++piece) {
        arrived = std::min(size, arrived + piece % 7 + 1);
        status = framer.Scan(data, arrived);
    }
    return status;
}

void RequireSameBytesAgain(const Message& message) {
    const std::string once = EncodeAgain(message);
    Framer framer;
    Require(framer.Scan(once.data(), once.size()) == Framer::Status::complete && framer.length() == once.size(),
            "what is encoded is one message");
    Message again;
    Require(Decode(once.data(), once.size(), again), "what is encoded can be decoded");
    Require(EncodeAgain(again) == once, "a second round gives the same bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::vector<char> input(bytes, bytes + size);  // of the exact size, so that reading behind it shows
    Framer whole;
    const Framer::Status status = whole.Scan(input.data(), size);
    Framer pieces;
    Require(ScanInPieces(pieces, input.data(), size) == status, "pieces get the verdict of the whole");

    Message message;
    const bool decoded = Decode(input.data(), size, message);
    Require(!decoded || (status == Framer::Status::complete && whole.length() == size), "the framer sees what decodes");
    if (decoded) {
        RequireSameBytesAgain(message);
        msgpack::null_visitor readsAll;
        size_t end = 0;
        Require(msgpack::parse(input.data(), size, end, readsAll) && end == size, "another reader takes what decodes");
    }

    if (status == Framer::Status::complete) {
        Require(pieces.length() == whole.length(), "pieces find the end of the whole");
        Require(pieces.decodedBytes() == whole.decodedBytes(), "pieces take as much memory");
        for (const auto kind : {MessageKind::request, MessageKind::response, MessageKind::notification}) {
            Require(pieces.Is(kind, input.data()) == whole.Is(kind, input.data()), "pieces are of the same kind");
        }
        Message first;
        if (Decode(input.data(), whole.length(), first)) RequireSameBytesAgain(first);
    }
    return 0;
}
