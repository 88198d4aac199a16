#include "Requests.h"

#include "rpc/values/VUtil.h"
#include "rpc/wire/Codec.h"
#include "rpc/wire/Framer.h"

#include <sys/socket.h>

#include <string_view>
#include <utility>

namespace kel::bench {
namespace {

constexpr uint32_t messageId = firstCallId;
constexpr size_t messageIdAt = 3;  // after the array, the kind of message and the type of the id

std::string Encoded(std::string_view method, const tagVARIANT& in, const std::string& caller = "Player") {
    std::string bytes;
    if (!wire::EncodeRequest(bytes, messageId, method, caller, in))
        throw std::runtime_error("a request has no encoding");
    return bytes;
}

// The bytes of the one answer that comes.
std::string ReadAnswer(int socket) {
    std::string bytes;
    wire::Framer framer;
    for (;;) {
        const auto status = framer.Scan(bytes.data(), bytes.size());
        if (status == wire::Framer::Status::complete && framer.length() == bytes.size()) return bytes;
        if (status != wire::Framer::Status::incomplete)
            throw std::runtime_error("the directory's answer is no message");
        char piece[4096];
        const ssize_t size = ::recv(socket, piece, sizeof piece, 0);
        ThrowIfInterrupted();
        if (size <= 0) throw std::runtime_error("the directory closed a connection instead of answering");
        bytes.append(piece, static_cast<size_t>(size));
    }
}

}  // namespace

std::string SatelliteIdRequest(const std::string& satellite) {
    return Encoded("GetSatelliteId", MakeString(satellite.c_str()));
}

std::string SatelliteHostRequest(const std::string& satellite) {
    return Encoded("GetSatelliteHost", MakeString(satellite.c_str()));
}

std::string ServiceRequest(const std::string& destination, const std::string& service) {
    return Encoded("GetServiceReg", VUtil::MakeList(destination, service));
}

namespace {

std::string RecordRequest(const char* method, const Satellite& satellite, int id) {
    constexpr int protocolVersion = 2;
    constexpr int services = 1;
    ScopedVariant list = VUtil::MakeList(VUtil::MakeList(satellite.service, satellite.description));
    return Encoded(method, VUtil::MakeList(satellite.name, "studio", satellite.port, protocolVersion, id, services,
                                           std::move(list)));
}

}  // namespace

std::string RegisterRequest(const Satellite& satellite, int id) { return RecordRequest("Register", satellite, id); }

std::string UnregisterRequest(const Satellite& satellite, int id) { return RecordRequest("UnRegister", satellite, id); }

std::string BeRightBackRequest(const std::string& satellite, int seconds) {
    return NumberRequest("SetBeRightBackTimer", satellite, seconds);
}

std::string NumberRequest(const std::string& method, const std::string& caller, int number) {
    return Encoded(method, MakeInt(number), caller);
}

std::string ListenRequest(const std::string& listener, const std::vector<std::string>& services) {
    return Encoded("AddServiceAvailabilityListener", VUtil::MakeListOf(services), listener);
}

std::string PingRequest(const std::string& satellite, int id) {
    return Encoded("kel.Ping", VUtil::MakeList(satellite, id), "MainRegister");
}

std::string AliveAnswer() {
    std::string bytes;
    if (!wire::EncodeResponse(bytes, messageId, 0, MakeInt(1))) throw std::runtime_error("an answer has no encoding");
    return bytes;
}

std::string ServiceCameNotification(const std::string& service, const std::string& satellite) {
    const ScopedVariant in = VUtil::MakeList(service, satellite, 1);
    std::string bytes;
    if (!wire::EncodeNotification(bytes, "OnServiceAvailabilityChanged", "MainRegister", in))
        throw std::runtime_error("a notification has no encoding");
    return bytes;
}

Answer AskOn(const Descriptor& connection, const std::string& request) {
    if (::send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        FailWithErrno("send");
    std::string bytes = ReadAnswer(connection.get());
    wire::Message message;
    if (!wire::Decode(bytes.data(), bytes.size(), message) || message.kind != wire::MessageKind::response)
        throw std::runtime_error("the directory's answer is no response");
    if (message.failed) throw std::runtime_error("a call failed: " + message.errorText);
    return {message.code, std::move(message.value), std::move(bytes)};
}

std::optional<std::string> Ask(const Server& server, const std::string& request) {
    const Descriptor socket = ConnectTo(server);
    if (socket.get() < 0) return std::nullopt;
    Answer answer = AskOn(socket, request);
    if (answer.result != 0) return std::nullopt;
    return std::move(answer.bytes);
}

Exchange Learn(const Server& server, const std::string& request) {
    const std::optional<std::string> answer = Ask(server, request);
    if (!answer) throw std::runtime_error("the directory refused a call");
    return {request, *answer, answer->size(), messageIdAt};
}

Exchange LearnRegister(uint16_t port, const Satellite& satellite) {
    Exchange exchange = Learn(port, RegisterRequest(satellite));
    constexpr size_t idBytes = 5;  // an integer beyond 16 bits, at the very end
    exchange.answerStart.resize(exchange.answerBytes - idBytes);
    return exchange;
}

std::vector<Exchange> Registrations(const Exchange& example, std::span<const Satellite> satellites) {
    std::vector<Exchange> exchanges(satellites.size(), example);
    for (size_t i = 0; i < satellites.size(); ++i) exchanges[i].request = RegisterRequest(satellites[i]);
    return exchanges;
}

}  // namespace kel::bench
