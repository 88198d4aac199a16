// Whether the network configuration of this machine has changed.
#pragma once

namespace kel::platform {

// Learns of changes of IPv4 addresses, IPv4 routes and interfaces from the system. For one thread at a time.
class NetworkChanges {
public:
    NetworkChanges() = default;
    ~NetworkChanges();
    NetworkChanges(const NetworkChanges&) = delete;
    NetworkChanges& operator=(const NetworkChanges&) = delete;

    // Whether anything may have changed since the last call: true at the first one, and as long as the system does not
    // tell. Takes a system call, and never waits.
    bool HaveHappened();

private:
    bool Open();
    void Close();

    int socket_ = -1;
    int ready_ = -1;
};

}  // namespace kel::platform
