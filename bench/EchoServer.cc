#include "EchoServer.h"

#include "Support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <thread>
#include <utility>
#include <vector>

namespace kel::bench {
namespace {

int ListenOnLoopback() {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener, SOMAXCONN) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        FailWithErrno("the echo server cannot listen");
    std::printf("%u\n", ntohs(address.sin_port));
    std::fflush(stdout);
    return listener;
}

int AcceptFrom(int listener) {
    const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) FailWithErrno("accept");
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

// One turn at a time takes what has arrived at a connection. A thread has one, for all of its connections.
class Echo {
public:
    Echo(size_t requestBytes, size_t answerBytes) : requestBytes_(requestBytes), answerBytes_(answerBytes) {}

    struct Connection {
        int socket;
        std::string unfinished;  // the start of a request
    };

    // False when the connection is over.
    bool Turn(Connection& connection) {
        std::string& unfinished = connection.unfinished;
        std::copy(unfinished.begin(), unfinished.end(), buffer_.begin());
        const size_t before = unfinished.size();
        const ssize_t size = ::read(connection.socket, buffer_.data() + before, buffer_.size() - before);
        if (size <= 0) return false;
        const size_t whole = (before + static_cast<size_t>(size)) / requestBytes_;
        const char* const rest = buffer_.data() + whole * requestBytes_;
        unfinished.assign(rest, before + static_cast<size_t>(size) - whole * requestBytes_);
        if (whole == 0) return true;
        answers_.assign(whole * answerBytes_, '\0');
        for (size_t i = 0; i < whole; ++i) {
            std::copy_n(buffer_.data() + i * requestBytes_, std::min(requestBytes_, answerBytes_),
                        answers_.data() + i * answerBytes_);
        }
        return ::write(connection.socket, answers_.data(), answers_.size()) == static_cast<ssize_t>(answers_.size());
    }

private:
    const size_t requestBytes_;
    const size_t answerBytes_;
    std::array<char, 65536> buffer_{};
    std::string answers_;
};

void Watch(int epoll, int socket) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = new Echo::Connection{socket, {}};
    if (::epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &event) != 0) FailWithErrno("epoll_ctl");
}

[[noreturn]] void Serve(int epoll, Echo echo) {
    std::array<epoll_event, 64> events;
    for (;;) {
        const int count = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i) {
            const auto connection = static_cast<Echo::Connection*>(events[static_cast<size_t>(i)].data.ptr);
            if (echo.Turn(*connection)) continue;
            ::close(connection->socket);
            delete connection;
        }
    }
}

[[noreturn]] void ServeWith(size_t threads, const Echo& echo) {
    const int listener = ListenOnLoopback();
    std::vector<int> epolls;
    for (size_t i = 0; i < threads; ++i) {
        epolls.push_back(::epoll_create1(EPOLL_CLOEXEC));
        std::thread(Serve, epolls.back(), echo).detach();
    }
    for (size_t next = 0;; next = (next + 1) % epolls.size()) Watch(epolls[next], AcceptFrom(listener));
}

[[noreturn]] void ServeOneByOne(Echo echo) {
    const int listener = ListenOnLoopback();
    for (;;) {
        Echo::Connection connection{AcceptFrom(listener), {}};
        while (echo.Turn(connection)) {
        }
        ::close(connection.socket);
    }
}

}  // namespace

EchoProcess StartEcho(const std::string& kind, const Exchange& exchange) {
    ChildProcess process =
        StartSelf({"--as-echo", kind, std::to_string(exchange.request.size()), std::to_string(exchange.answerBytes)});
    const auto port = static_cast<uint16_t>(std::stoul(process.ReadLine()));
    return {std::move(process), port};
}

Exchange EchoOf(const Exchange& exchange) {
    std::string answer = exchange.request;
    answer.resize(exchange.answerBytes);
    return {exchange.request, answer, exchange.answerBytes, exchange.idAt};
}

void RunEcho(const std::string& kind, size_t requestBytes, size_t answerBytes) {
    const Echo echo(requestBytes, answerBytes);
    if (kind == "blocking") ServeOneByOne(echo);
    ServeWith(std::stoul(kind), echo);
}

}  // namespace kel::bench
