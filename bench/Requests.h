// The calls of the measurements, encoded and tried once before anything is measured.
#pragma once

#include "FileLoop.h"
#include "LoadClient.h"
#include "rpc/values/Variant.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kel::bench {

// Encoded requests; all carry the same message id, in whose place a LoadClient puts that of the call.
std::string SatelliteIdRequest(const std::string& satellite);
std::string SatelliteHostRequest(const std::string& satellite);

// GetServiceReg; `destination` is "any", which gives one of those that publish the service, or "all".
std::string ServiceRequest(const std::string& destination, const std::string& service);

// `id` is the satellite's, or 0 for one that registers anew.
std::string RegisterRequest(const Satellite& satellite, int id = 0);
std::string UnregisterRequest(const Satellite& satellite, int id);

// Has the directory leave the satellite of that name unpinged for so long.
std::string BeRightBackRequest(const std::string& satellite, int seconds = 3600);

// The satellite `listener` wants to hear of these services.
std::string ListenRequest(const std::string& listener, const std::vector<std::string>& services);

// A directory's question to a satellite whether it is alive, and the answer that it is.
std::string PingRequest(const std::string& satellite, int id);
std::string AliveAnswer();

// A call with one number.
std::string NumberRequest(const std::string& method, const std::string& caller, int number);

// The directory's notification that a service has come.
std::string ServiceCameNotification(const std::string& service, const std::string& satellite);

// Makes one call on a connection of its own and returns the answer's bytes; nothing when nobody listens on the port or
// when the method's result is not 0.
std::optional<std::string> Ask(const Server& server, const std::string& request);

// The same on a connection that is there, and with what the method gave. Throws when the connection is lost.
struct Answer {
    int result;
    ScopedVariant value;
    std::string bytes;
};
Answer AskOn(const Descriptor& connection, const std::string& request);

// Makes the call once, to learn its answer. Throws when the method does not answer 0.
Exchange Learn(const Server& server, const std::string& request);

// Registers the satellite and gives what other registrations look like: a prefix that ends before the id handed out,
// and the answer's length.
Exchange LearnRegister(uint16_t port, const Satellite& satellite);

// The registrations of these satellites, which look like `example`.
std::vector<Exchange> Registrations(const Exchange& example, std::span<const Satellite> satellites);

}  // namespace kel::bench
