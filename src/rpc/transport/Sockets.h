// The socket types of the transport. Those of Boost.Asio are bound to the io_context's own executor, not to a
// type-erased one, so that a completion costs no indirection.
#pragma once

#include "platform/Files.h"

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <fcntl.h>

#include <chrono>
#include <compare>
#include <cstdint>
#include <string>

namespace kel::transport {

using Executor = boost::asio::io_context::executor_type;
using Socket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, Executor>;  // until it is connected
using Acceptor = boost::asio::basic_socket_acceptor<boost::asio::ip::tcp, Executor>;
using Timer = boost::asio::basic_waitable_timer<std::chrono::steady_clock,
                                                boost::asio::wait_traits<std::chrono::steady_clock>, Executor>;
using platform::Descriptor;
using Deadline = std::chrono::steady_clock::time_point;

// Where an endpoint listens: a name or a dotted address, and a port in host order.
struct Address {
    std::string host;
    uint16_t port = 0;

    auto operator<=>(const Address&) const = default;
    std::string text() const { return host + ":" + std::to_string(port); }
};

// Programs that this process starts do not get the descriptor.
inline void CloseOnExec(int descriptor) { ::fcntl(descriptor, F_SETFD, FD_CLOEXEC); }

// Whether a socket could not be had because the process or the system has none left.
inline bool IsShortage(const boost::system::error_code& error) {
    return error == boost::asio::error::no_descriptors || error == boost::asio::error::no_memory ||
           error == boost::asio::error::no_buffer_space || error == boost::system::errc::too_many_files_open_in_system;
}

}  // namespace kel::transport
