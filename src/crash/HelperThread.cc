#include "crash/HelperThread.h"

#include "crash/FaultSignals.h"
#include "foundation/Thread.h"

#include <signal.h>

#include <stdexcept>

namespace kel::crash {

std::unique_ptr<PThread> StartHelper(PThreadDelegateGeneric* delegate) {
    auto thread = std::make_unique<PThread>(delegate);
    sigset_t others;
    sigset_t before;
    sigfillset(&others);
    for (const int fault : faultSignals) sigdelset(&others, fault);
    pthread_sigmask(SIG_SETMASK, &others, &before);
    try {
        thread->Start();
    } catch (const std::runtime_error&) {
        thread.reset();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

}  // namespace kel::crash
