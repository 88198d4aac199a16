// A port for a test's own server.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <random>
#include <string>

// A port at which nobody listens, kept off other tests that ask in this way while this lives. It is below the range
// that the system picks ports from, so that it stays free.
class ReservedPort {
public:
    ReservedPort() {
        std::random_device random;
        do {
            number_ = static_cast<unsigned short>(10000 + random() % 22000);
        } while (!Reserve() || !IsFree());
    }
    ~ReservedPort() { close(reservation_); }
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;

    unsigned short number() const { return number_; }

private:
    // Binds an abstract socket of the port's name, which one process at a time can.
    bool Reserve() {
        if (reservation_ >= 0) close(reservation_);
        reservation_ = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string name = "kel-test-port-" + std::to_string(number_);
        name.copy(address.sun_path + 1, name.size());
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        return bind(reservation_, reinterpret_cast<sockaddr*>(&address), length) == 0;
    }

    bool IsFree() const {
        const int probe = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(number_);
        const bool isFree = bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        close(probe);
        return isFree;
    }

    int reservation_ = -1;
    unsigned short number_ = 0;
};
