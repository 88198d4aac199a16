#include "rpc/transport/Listener.h"

#include "rpc/transport/LibraryLog.h"
#include "rpc/transport/Quietly.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace kel::transport {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr auto retryAfter = std::chrono::milliseconds(200);
constexpr int maxAtOnce = 16;

}  // namespace

Listener::Listener(WorkerPool& pool, Accepted accepted, HasRoom hasRoom, Pausing pausing)
    : pool_(pool),
      accepted_(std::move(accepted)),
      hasRoom_(std::move(hasRoom)),
      pausing_(std::move(pausing)),
      acceptor_(pool.io().get_executor()),
      retry_(pool.io().get_executor()) {}

boost::system::error_code Listener::Open(const Address& at) {
    PMutexHold hold(lock_);
    boost::system::error_code error;
    const auto address = asio::ip::make_address_v4(at.host, error);
    if (error) return error;
    acceptor_.open(tcp::v4(), error);
    if (error) return error;
    CloseOnExec(acceptor_.native_handle());
    acceptor_.set_option(asio::socket_base::reuse_address(true), error);
    if (!error) acceptor_.non_blocking(true, error);  // nothing keeps the thread inside accept
    if (!error) acceptor_.bind(tcp::endpoint(address, at.port), error);
    if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (!error) port_ = acceptor_.local_endpoint(error).port();
    if (error) {
        boost::system::error_code ignored;
        acceptor_.close(ignored);
    }
    return error;
}

void Listener::Start() { pool_.Do(wait_); }

// Waits for connections to accept, not for a connection accepted: where there is no memory to make a socket of that,
// the handler would never be called.
void Listener::Wait() {
    PMutexHold hold(lock_);
    if (!acceptor_.is_open()) return;
    acceptor_.async_wait(Acceptor::wait_read, [this](const boost::system::error_code& error) {
        if (error != asio::error::operation_aborted) OnReady();
    });
}

void Listener::OnReady() {
    boost::system::error_code error = asio::error::no_memory;
    Quietly([&] { error = AcceptWaiting(); });
    if (IsShortage(error)) {
        Pause(error);
    } else {
        pool_.Do(wait_);
    }
}

// Accepts what waits, unless that is so much that others should have the thread in between.
boost::system::error_code Listener::AcceptWaiting() {
    for (int i = 0; i < maxAtOnce; ++i) {
        const Room room = hasRoom_();
        if (room != Room::yes) return room == Room::no ? asio::error::no_descriptors : boost::system::error_code();
        boost::system::error_code error;
        sockaddr_in peer{};
        Descriptor socket = AcceptOne(peer, error);
        if (error) return error;
        if (std::exchange(paused_, false)) {
            CBBLog::note(LibraryLogger(), "libkel: accepting connections on port %u again", unsigned{port_});
        }
        accepted_(std::move(socket), peer);
    }
    return {};
}

Descriptor Listener::AcceptOne(sockaddr_in& peer, boost::system::error_code& error) {
    PMutexHold hold(lock_);
    if (!acceptor_.is_open()) {
        error = asio::error::operation_aborted;
        return Descriptor();
    }
    socklen_t size = sizeof peer;
    Descriptor socket;
    do {
        socket =
            Descriptor(::accept4(acceptor_.native_handle(), reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC));
    } while (socket.get() < 0 && (errno == EINTR || errno == ECONNABORTED));
    if (socket.get() < 0) error = {errno, boost::system::system_category()};
    return socket;
}

void Listener::Pause(const boost::system::error_code& error) {
    if (!std::exchange(paused_, true)) {
        Quietly([&] {
            CBBLog::note(LibraryLogger(), "libkel: accepting connections on port %u pauses: %s", unsigned{port_},
                         error.message().c_str());
        });
    }
    Quietly([&] { pausing_(error); });
    pool_.Do(waitForRoom_);
}

void Listener::WaitForRoom() {
    PMutexHold hold(lock_);
    if (!acceptor_.is_open()) return;
    retry_.expires_after(retryAfter);
    retry_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) OnReady();
    });
}

void Listener::Close() {
    PMutexHold hold(lock_);
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    retry_.cancel();
    port_ = 0;
}

}  // namespace kel::transport
