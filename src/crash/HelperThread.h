// The threads that the crash handler keeps ready.
#pragma once

#include <memory>

class PThread;
class PThreadDelegateGeneric;

namespace kel::crash {

// Starts a thread to which no signal is delivered but its own faults, so that it never runs a handler of somebody
// else's and takes no SIGINT or SIGTERM away from who waits for them. Takes the delegate over. Null when the system has
// no thread to give.
std::unique_ptr<PThread> StartHelper(PThreadDelegateGeneric* delegate);

}  // namespace kel::crash
