#include "Requests.h"

#include "rpc/values/VUtil.h"
#include "rpc/wire/Codec.h"
#include "rpc/wire/Framer.h"

#include <sys/socket.h>

#include <string_view>

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
    ScopedVariant in;
    VUtil::CreateArray(in, VT_VARIANT, 2);
    VUtil::PutElement(in, 0, destination.c_str());
    VUtil::PutElement(in, 1, service.c_str());
    return Encoded("GetServiceReg", in);
}

namespace {

std::string RecordRequest(const char* method, const Satellite& satellite, int id) {
    ScopedVariant entry;
    VUtil::CreateArray(entry, VT_VARIANT, 2);
    VUtil::PutElement(entry, 0, satellite.service.c_str());
    VUtil::PutElement(entry, 1, satellite.description.c_str());
    ScopedVariant services;
    VUtil::CreateArray(services, VT_VARIANT, 1);
    VUtil::PutElement(services, 0, entry);
    ScopedVariant in;
    VUtil::CreateArray(in, VT_VARIANT, 7);
    VUtil::PutElement(in, 0, satellite.name.c_str());
    VUtil::PutElement(in, 1, "studio");
    VUtil::PutElement(in, 2, satellite.port);
    VUtil::PutElement(in, 3, 2);  // protocol version
    VUtil::PutElement(in, 4, id);
    VUtil::PutElement(in, 5, 1);  // services that follow
    VUtil::PutElement(in, 6, services);
    return Encoded(method, in);
}

}  // namespace

std::string RegisterRequest(const Satellite& satellite, int id) { return RecordRequest("Register", satellite, id); }

std::string UnregisterRequest(const Satellite& satellite, int id) { return RecordRequest("UnRegister", satellite, id); }

std::string BeRightBackRequest(const std::string& satellite, int seconds) {
    return NumberRequest("SetBeRightBackTimer", satellite, seconds);
}

std::string NumberRequest(const std::string& method, const std::string& caller, int number) {
    ScopedVariant in;
    in.vt = VT_I4;
    in.lVal = number;
    return Encoded(method, in, caller);
}

std::string ListenRequest(const std::string& listener, const std::vector<std::string>& services) {
    ScopedVariant in;
    VUtil::CreateArray(in, VT_VARIANT, services.size());
    for (size_t i = 0; i < services.size(); ++i) VUtil::PutElement(in, static_cast<int>(i), services[i].c_str());
    return Encoded("AddServiceAvailabilityListener", in, listener);
}

std::string PingRequest(const std::string& satellite, int id) {
    ScopedVariant in;
    VUtil::CreateArray(in, VT_VARIANT, 2);
    VUtil::PutElement(in, 0, satellite.c_str());
    VUtil::PutElement(in, 1, id);
    return Encoded("kel.Ping", in, "MainRegister");
}

std::string AliveAnswer() {
    ScopedVariant alive;
    alive.vt = VT_I4;
    alive.lVal = 1;
    std::string bytes;
    if (!wire::EncodeResponse(bytes, messageId, 0, alive)) throw std::runtime_error("an answer has no encoding");
    return bytes;
}

std::string ServiceCameNotification(const std::string& service, const std::string& satellite) {
    ScopedVariant in;
    VUtil::CreateArray(in, VT_VARIANT, 3);
    VUtil::PutElement(in, 0, service.c_str());
    VUtil::PutElement(in, 1, satellite.c_str());
    VUtil::PutElement(in, 2, 1);
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
