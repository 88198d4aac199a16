// Two hosts joined by a network: network namespaces with a pair of virtual Ethernet interfaces between them.
#pragma once

#include "Support.h"

#include <string>

namespace kel::bench {

// They go with the object. Takes root and iproute2. Not thread-safe.
class TwoHosts {
public:
    // Throws when there are none to be had.
    TwoHosts();
    ~TwoHosts();
    TwoHosts(const TwoHosts&) = delete;
    TwoHosts& operator=(const TwoHosts&) = delete;

    const std::string& home() const { return home_; }
    const std::string& away() const { return away_; }
    std::string homeAddress() const { return "10.0.0.1"; }

    // Gives home that many routes in all, or leaves it those that it has when they are more. None of those that it adds
    // leads to away.
    void GiveRoutes(unsigned count);

    // As long as it lives, the sockets and processes that this thread makes are the host's.
    class Stay {
    public:
        explicit Stay(const std::string& host);
        ~Stay();
        Stay(const Stay&) = delete;
        Stay& operator=(const Stay&) = delete;

    private:
        Descriptor before_;
    };

private:
    void Remove() const;

    std::string home_;
    std::string away_;
    unsigned routes_ = 1;
};

}  // namespace kel::bench
