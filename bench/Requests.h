// The calls of the measurements, encoded and tried once before anything is measured.
#pragma once

#include "FileLoop.h"
#include "LoadClient.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kel::bench {

// Encoded requests; all carry the same message id, as each connection has one call outstanding.
std::string SatelliteIdRequest(const std::string& satellite);
std::string AnyServiceRequest(const std::string& service);
std::string RegisterRequest(const Satellite& satellite);

// Makes one call on a connection of its own and returns the answer's bytes; nothing when nobody listens on the port or
// when the method's result is not 0.
std::optional<std::string> Ask(uint16_t port, const std::string& request);

// Makes the call once, to learn its answer. Throws when the method does not answer 0.
Exchange Learn(uint16_t port, const std::string& request);

// Registers the satellite of that number and gives what other registrations look like: a prefix that ends before the id
// handed out, and the answer's length.
Exchange LearnRegister(uint16_t port, unsigned number);

}  // namespace kel::bench
