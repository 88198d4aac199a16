// MessagePack-RPC messages to bytes and back. Pure functions over memory: no sockets, no state, safe in any thread.
#pragma once

#include "rpc/wire/Message.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kel::wire {

// Decodes the one message that data[0..size) holds, all of it (the Framer tells the size). False when it is malformed:
// wrong shape, a map, an unknown ext type, a payload of a wrong size, text with a NUL in it, over a limit; `message` is
// then unspecified but valid. Also false when there is no memory for a value. Any bytes are safe, those that no Framer
// has seen too.
[[nodiscard]] bool Decode(const char* data, size_t size, Message& message);

// Each appends one message to `out`. False, with `out` as it was, when the message would be over a limit or holds what
// cannot travel: a type that the protocol does not have, an array that is null, has another lower bound than 0 or holds
// other elements than its variant says, or a name with a NUL in it.
[[nodiscard]] bool EncodeRequest(std::string& out, uint32_t id, std::string_view method, std::string_view caller,
                                 const tagVARIANT& in);
[[nodiscard]] bool EncodeNotification(std::string& out, std::string_view method, std::string_view caller,
                                      const tagVARIANT& in);
[[nodiscard]] bool EncodeResponse(std::string& out, uint32_t id, int32_t code, const tagVARIANT& value);
// Never fails: a text is cut at its first NUL and where the message would be over the limit.
void EncodeError(std::string& out, uint32_t id, int32_t code, std::string_view text);

}  // namespace kel::wire
