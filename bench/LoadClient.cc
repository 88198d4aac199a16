#include "LoadClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace kel::bench {
namespace {

constexpr int answerDeadlineMilliseconds = 10'000;
constexpr size_t idBytes = 2;

}  // namespace

Descriptor ConnectTo(const Server& server) {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.get() < 0) FailWithErrno("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::inet_addr(server.address.c_str());
    address.sin_port = htons(server.port);
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno == ECONNREFUSED) return Descriptor();
        FailWithErrno("connect");
    }
    const int on = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

LoadClient::LoadClient(const Server& server, unsigned connections, unsigned inFlight)
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), connections_(connections) {
    for (size_t i = 0; i < connections_.size(); ++i) {
        connections_[i].calls.resize(inFlight);
        connections_[i].socket = ConnectTo(server);
        if (connections_[i].socket.get() < 0) throw std::runtime_error("nobody listens on the server's port");
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = i;
        if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, connections_[i].socket.get(), &event) != 0)
            FailWithErrno("epoll_ctl");
    }
}

double LoadClient::RunFor(std::span<const Exchange> exchanges, double seconds) {
    const auto length = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    return Run(exchanges, true, Clock::now() + length);
}

double LoadClient::RunOnce(std::span<const Exchange> exchanges) {
    return Run(exchanges, false, Clock::time_point::max());
}

double LoadClient::Run(std::span<const Exchange> exchanges, bool again, Clock::time_point end) {
    answered_ = 0;
    if (exchanges.empty()) return 0;
    Prepare(exchanges);
    again_ = again;
    const auto start = Clock::now();
    for (Connection& connection : connections_) {
        for (size_t place = 0; place < connection.calls.size(); ++place) AddNext(connection, place);
        Send(connection);
    }
    std::array<epoll_event, 64> events;
    while (outstanding_ > 0) {
        const int count =
            ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), answerDeadlineMilliseconds);
        ThrowIfInterrupted();
        if (count == 0) throw std::runtime_error("no answer for ten seconds");
        for (int i = 0; i < count; ++i) Receive(connections_[events[static_cast<size_t>(i)].data.u64]);
        if (Clock::now() >= end) stopping_ = true;
    }
    return static_cast<double>(answered_) / SecondsSince(start);
}

void LoadClient::Prepare(std::span<const Exchange> exchanges) {
    exchanges_ = exchanges;
    answerBytes_ = exchanges.front().answerBytes;
    idAt_ = exchanges.front().idAt;
    for (const Exchange& exchange : exchanges) {
        if (exchange.answerBytes != answerBytes_) throw std::runtime_error("the answers are not of one length");
    }
    next_ = 0;
    stopping_ = false;
    for (Connection& connection : connections_) {
        connection.oldest = 0;
        connection.received.resize(std::max<size_t>(connection.calls.size() * answerBytes_, 4096));
    }
}

void LoadClient::Receive(Connection& connection) {
    const ssize_t size = ::read(connection.socket.get(), connection.received.data() + connection.receivedBytes,
                                connection.received.size() - connection.receivedBytes);
    if (size <= 0) throw std::runtime_error("the server closed a connection");
    const char* answer = connection.received.data();
    size_t left = connection.receivedBytes + static_cast<size_t>(size);
    for (; left >= answerBytes_; left -= answerBytes_, answer += answerBytes_) {
        AddNext(connection, TakeAnswer(connection, answer));
    }
    std::memmove(connection.received.data(), answer, left);
    connection.receivedBytes = left;
    Send(connection);
}

// The place of the call that it answers.
size_t LoadClient::TakeAnswer(Connection& connection, const char* answer) {
    size_t place = connection.oldest;
    if (idAt_ == 0) {
        connection.oldest = (place + 1) % connection.calls.size();
    } else {
        const auto byte = [&](size_t at) { return static_cast<size_t>(static_cast<unsigned char>(answer[at])); };
        place = (byte(idAt_) << 8 | byte(idAt_ + 1)) - firstCallId;
    }
    if (place >= connection.calls.size() || !connection.calls[place])
        throw std::runtime_error("the server answered what it was not asked");
    const std::string& expected = connection.calls[place]->answerStart;
    const size_t rest = idAt_ == 0 ? 0 : idAt_ + idBytes;
    if (std::memcmp(answer, expected.data(), idAt_) != 0 ||
        std::memcmp(answer + rest, expected.data() + rest, expected.size() - rest) != 0)
        throw std::runtime_error("the server gave another answer than at the first call");
    connection.calls[place] = nullptr;
    ++answered_;
    --outstanding_;
    return place;
}

void LoadClient::AddNext(Connection& connection, size_t place) {
    if (next_ == exchanges_.size() && again_) next_ = 0;
    if (stopping_ || next_ == exchanges_.size()) return;
    const Exchange& exchange = exchanges_[next_++];
    connection.calls[place] = &exchange;
    const size_t start = connection.toSend.size();
    connection.toSend += exchange.request;
    if (idAt_ != 0) {
        const size_t id = firstCallId + place;
        connection.toSend[start + idAt_] = static_cast<char>(id >> 8);
        connection.toSend[start + idAt_ + 1] = static_cast<char>(id);
    }
    ++outstanding_;
}

void LoadClient::Send(Connection& connection) {
    std::string& bytes = connection.toSend;
    if (bytes.empty()) return;
    const ssize_t sent = ::send(connection.socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(bytes.size())) FailWithErrno("send");
    bytes.clear();
}

}  // namespace kel::bench
