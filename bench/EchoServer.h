// The baseline of the calls: what the kernel alone allows.
#pragma once

namespace kel::bench {

// Sends back what arrives, from a free port of the loopback address whose number it prints on standard output first.
// Each of the `threads` has a level-triggered epoll of its own and does nothing but wait, read and write; connections
// are dealt out to the threads in turn. Does not return: the process is there to be ended.
[[noreturn]] void RunEchoServer(unsigned threads);

}  // namespace kel::bench
