// The messages that endpoints exchange, as values. What they look like in bytes: Codec.h.
#pragma once

#include "rpc/values/Variant.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kel::wire {

// A message that announces more than one of these is refused before memory is taken for it.
constexpr size_t maxMessageBytes = 16u << 20;   // a whole message
constexpr unsigned maxNesting = 32;             // arrays inside arrays in one variant
constexpr size_t maxArrayElements = 1'048'576;  // elements of one array; byte arrays are bounded by the message
constexpr size_t maxElements = 2'097'152;       // of all arrays of variants and of texts
constexpr size_t maxDecodedBytes = 48u << 20;   // of the reader's memory (DecodedSize.h)

// The number that a message opens with.
enum class MessageKind : uint8_t { request = 0, response = 1, notification = 2 };

// One decoded message. Reusable: Decode overwrites every member that its kind uses.
struct Message {
    MessageKind kind = MessageKind::request;
    uint32_t id = 0;        // requests and responses: chosen by the caller
    std::string method;     // requests and notifications
    std::string caller;     // requests and notifications: the calling satellite's name, or empty
    bool failed = false;    // responses: the method did not run, or threw
    int32_t code = 0;       // responses: the method's result, or the error's code when failed
    std::string errorText;  // responses: the error's text when failed
    ScopedVariant value;    // the in-parameter, or the out-parameter of a response that did not fail
};

}  // namespace kel::wire
