#include "Requests.h"

#include "rpc/VUtil.h"
#include "rpc/wire/Codec.h"
#include "rpc/wire/Framer.h"

#include <sys/socket.h>

#include <string_view>

namespace kel::bench {
namespace {

constexpr uint32_t messageId = 1;
constexpr const char* caller = "Player";

std::string Encoded(std::string_view method, const tagVARIANT& in) {
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

std::string AnyServiceRequest(const std::string& service) {
    ScopedVariant in;
    VUtil::CreateArray(in, VT_VARIANT, 2);
    VUtil::PutElement(in, 0, "any");
    VUtil::PutElement(in, 1, service.c_str());
    return Encoded("GetServiceReg", in);
}

std::string RegisterRequest(const Satellite& satellite) {
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
    VUtil::PutElement(in, 4, 0);  // no id yet
    VUtil::PutElement(in, 5, 1);  // services that follow
    VUtil::PutElement(in, 6, services);
    return Encoded("Register", in);
}

std::optional<std::string> Ask(uint16_t port, const std::string& request) {
    const Descriptor socket = ConnectToLoopback(port);
    if (socket.get() < 0) return std::nullopt;
    if (::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        FailWithErrno("send");
    std::string answer = ReadAnswer(socket.get());
    wire::Message message;
    if (!wire::Decode(answer.data(), answer.size(), message) || message.kind != wire::MessageKind::response)
        throw std::runtime_error("the directory's answer is no response");
    if (message.failed || message.code != 0) return std::nullopt;
    return answer;
}

Exchange Learn(uint16_t port, const std::string& request) {
    const std::optional<std::string> answer = Ask(port, request);
    if (!answer) throw std::runtime_error("the directory refused a call");
    return {request, *answer, answer->size()};
}

Exchange LearnRegister(uint16_t port, unsigned number) {
    Exchange exchange = Learn(port, RegisterRequest(SatelliteNumber(number)));
    constexpr size_t idBytes = 5;  // an integer beyond 16 bits, at the very end
    exchange.answerStart.resize(exchange.answerBytes - idBytes);
    return exchange;
}

}  // namespace kel::bench
