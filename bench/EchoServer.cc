#include "EchoServer.h"

#include "Support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <thread>
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

void Watch(int epoll, int socket) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = socket;
    if (::epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &event) != 0) FailWithErrno("epoll_ctl");
}

void Echo(int socket, std::array<char, 65536>& buffer) {
    const ssize_t size = ::read(socket, buffer.data(), buffer.size());
    if (size <= 0 || ::write(socket, buffer.data(), static_cast<size_t>(size)) != size) ::close(socket);
}

[[noreturn]] void Serve(int epoll) {
    std::array<epoll_event, 64> events;
    std::array<char, 65536> buffer;
    for (;;) {
        const int count = ::epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i) Echo(events[static_cast<size_t>(i)].data.fd, buffer);
    }
}

}  // namespace

void RunEchoServer(unsigned threads) {
    const int listener = ListenOnLoopback();
    std::vector<int> epolls;
    for (unsigned i = 0; i < threads; ++i) {
        epolls.push_back(::epoll_create1(EPOLL_CLOEXEC));
        std::thread(Serve, epolls.back()).detach();
    }
    for (size_t next = 0;; next = (next + 1) % epolls.size()) {
        const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) FailWithErrno("accept");
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        Watch(epolls[next], socket);
    }
}

}  // namespace kel::bench
