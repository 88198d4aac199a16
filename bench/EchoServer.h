// The baselines of the calls: what the kernel alone allows.
#pragma once

#include "DirectoryProcess.h"
#include "LoadClient.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kel::bench {

// An echo server in a process of its own.
struct EchoProcess {
    ChildProcess process;
    uint16_t port;
};

// One whose requests and answers are as long as the exchange's. `kind` is a number of threads, or "blocking".
EchoProcess StartEcho(const std::string& kind, const Exchange& exchange);

// The exchange with such a server: it answers with as many first bytes of the request, or with all of it and zeros.
Exchange EchoOf(const Exchange& exchange);

// The program of that process; it prints its port first. With threads, each has a level-triggered epoll of its own and
// does nothing but wait, read what is there at once, and write the answers to all that is whole at once; connections
// are dealt out to the threads in turn. A blocking one serves one connection after the other with one thread that only
// reads and writes. Does not return: the process is there to be ended.
[[noreturn]] void RunEcho(const std::string& kind, size_t requestBytes, size_t answerBytes);

}  // namespace kel::bench
