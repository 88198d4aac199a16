// What the host name "auto" stands for.
#pragma once

#include "rpc/transport/Sockets.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace kel {

// Whether `host` asks for the directory to be found.
bool IsAuto(const char* host);

// The directory of this machine, at `ownPort`, if it answers; else the first of those found on the networks, at the
// first of its addresses that answers. `answers` tells whether a directory answers there, within a few seconds. Nothing
// when none was found within six seconds, or none of those found answered within 15.
std::optional<transport::Address> FindDirectory(uint16_t ownPort,
                                                const std::function<bool(const transport::Address&)>& answers);

}  // namespace kel
