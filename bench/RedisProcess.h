// Redis, as a baseline of calls that answer with something kept in memory.
#pragma once

#include "DirectoryProcess.h"
#include "LoadClient.h"

#include <cstdint>
#include <string>

namespace kel::bench {

// The machine's redis-server on a free port of the loopback address, which writes nothing to the disk but its log. It
// ends with the object. Not thread-safe.
class RedisProcess {
public:
    // `folder` must exist. Throws when there is no redis-server to be had.
    explicit RedisProcess(const std::string& folder);

    // Keeps a text under `key`, such that GET answers with `answerBytes` or few more, and makes that call once.
    Exchange LearnGet(const std::string& key, size_t answerBytes) const;

    uint16_t port() const { return port_; }
    double CpuSeconds() const { return process_.CpuSeconds(); }

private:
    uint16_t port_;
    ChildProcess process_;
};

}  // namespace kel::bench
