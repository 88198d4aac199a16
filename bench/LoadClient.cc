#include "LoadClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

namespace kel::bench {
namespace {

constexpr int answerDeadlineMilliseconds = 10'000;

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

LoadClient::LoadClient(const Server& server, unsigned connections)
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), connections_(connections) {
    for (size_t i = 0; i < connections_.size(); ++i) {
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
    exchanges_ = exchanges;
    again_ = again;
    stopping_ = exchanges.empty();
    next_ = 0;
    answered_ = 0;
    for (Connection& connection : connections_) {
        connection.buffer.resize(std::max<size_t>(connection.buffer.size(), 4096));
    }
    const auto start = Clock::now();
    for (Connection& connection : connections_) outstanding_ += SendNext(connection);
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

bool LoadClient::SendNext(Connection& connection) {
    if (next_ == exchanges_.size() && again_) next_ = 0;
    if (stopping_ || next_ == exchanges_.size()) return false;
    const Exchange& exchange = exchanges_[next_++];
    connection.exchange = &exchange;
    connection.received = 0;
    const ssize_t sent =
        ::send(connection.socket.get(), exchange.request.data(), exchange.request.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(exchange.request.size())) FailWithErrno("send");
    return true;
}

void LoadClient::Receive(Connection& connection) {
    const ssize_t size = ::read(connection.socket.get(), connection.buffer.data() + connection.received,
                                connection.buffer.size() - connection.received);
    if (size <= 0 || !connection.exchange) throw std::runtime_error("the server closed a connection, or spoke unasked");
    connection.received += static_cast<size_t>(size);
    const Exchange& exchange = *connection.exchange;
    if (connection.received < exchange.answerBytes) return;
    if (connection.received > exchange.answerBytes ||
        std::memcmp(connection.buffer.data(), exchange.answerStart.data(), exchange.answerStart.size()) != 0)
        throw std::runtime_error("the server gave another answer than at the first call");
    connection.exchange = nullptr;
    ++answered_;
    --outstanding_;
    outstanding_ += SendNext(connection);
}

}  // namespace kel::bench
