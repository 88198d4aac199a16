#include "rpc/transport/Listener.h"

#include "rpc/LibraryLog.h"

namespace kel::transport {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr auto retryAfter = std::chrono::milliseconds(200);

}  // namespace

Listener::Listener(asio::io_context& io, std::function<void(Socket)> accepted, Pausing pausing)
    : accepted_(std::move(accepted)),
      pausing_(std::move(pausing)),
      acceptor_(io.get_executor()),
      retry_(io.get_executor()) {}

boost::system::error_code Listener::Open(const Address& at) {
    PMutexHold hold(lock_);
    boost::system::error_code error;
    const auto address = asio::ip::make_address_v4(at.host, error);
    if (error) return error;
    acceptor_.open(tcp::v4(), error);
    if (error) return error;
    CloseOnExec(acceptor_.native_handle());
    acceptor_.set_option(asio::socket_base::reuse_address(true), error);
    if (!error) acceptor_.bind(tcp::endpoint(address, at.port), error);
    if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (!error) port_ = acceptor_.local_endpoint(error).port();
    if (error) {
        boost::system::error_code ignored;
        acceptor_.close(ignored);
    }
    return error;
}

void Listener::Start() { AcceptOne(); }

void Listener::AcceptOne() {
    PMutexHold hold(lock_);
    if (!acceptor_.is_open()) return;
    acceptor_.async_accept(
        [this](const boost::system::error_code& error, Socket socket) { OnAccepted(error, std::move(socket)); });
}

void Listener::OnAccepted(const boost::system::error_code& error, Socket socket) {
    if (error == asio::error::operation_aborted) return;
    if (IsShortage(error)) return Pause(error);
    if (!error) {
        if (paused_) CBBLog::warn(LibraryLogger(), "libkel: accepting connections on port %u again", unsigned{port_});
        paused_ = false;
        accepted_(std::move(socket));
    }
    AcceptOne();
}

void Listener::Pause(const boost::system::error_code& error) {
    if (!paused_) {
        CBBLog::warn(LibraryLogger(), "libkel: accepting connections on port %u pauses: %s", unsigned{port_},
                     error.message().c_str());
    }
    paused_ = true;
    pausing_(error);
    PMutexHold hold(lock_);
    if (!acceptor_.is_open()) return;
    retry_.expires_after(retryAfter);
    retry_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) AcceptOne();
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
