#include "host/YarModuleBase.h"

#include "crash/FaultSignals.h"
#include "foundation/Log.h"
#include "foundation/StandardStreams.h"
#include "rpc/satellite/KelSatellite.h"

#include <boost/make_shared.hpp>

#include <unistd.h>

#include <stdexcept>
#include <string>

namespace {

constexpr long long maxLogSize = 524288;

// A connection that is gone and a file that may not grow are errors of a write, not the end.
void IgnoreSignalsOfWrites() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    for (const int number : {SIGPIPE, SIGXFSZ}) sigaction(number, &ignore, nullptr);
}

// Whoever started the process may have blocked what the crash handler waits for, and a block is inherited.
void LetCrashSignalsThrough() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    for (const int fault : kel::crash::faultSignals) sigaddset(&signals, fault);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace

YarModuleBase* YarModuleBase::yarModule = nullptr;

YarModuleBase::YarModuleBase(const CStdStr& name) : name_(name), crashHandler_(name_.c_str()) {
    if (yarModule) {
        CBBLog::error("YarModuleBase %s trying to create multiple instances", name_.c_str());
        throw std::logic_error("Can't have more than one instance of YarModuleBase per module!");
    }
    yarModule = this;
    try {
        SetUp();
    } catch (...) {
        yarModule = nullptr;
        throw;
    }
}

void YarModuleBase::SetUp() {
    logger_ = boost::make_shared<CBBLog>(name_ + ".log", false, maxLogSize);
    CBBLog::setLogger(logger_);
    KelSatellite::setLogger(logger_);

    IgnoreSignalsOfWrites();
    LetCrashSignalsThrough();
    sigemptyset(&signalSet_);
    sigaddset(&signalSet_, SIGINT);
    sigaddset(&signalSet_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signalSet_, nullptr);

    logger_->initialize();  // now that its thread blocks them as well, and while there is everything that it needs
    if (CBBLog::isDebugEnabled()) CBBLog::debug("YarModuleBase %s", name_.c_str());
}

YarModuleBase::~YarModuleBase() {
    if (yarModule == this) yarModule = nullptr;
    if (CBBLog::isDebugEnabled()) CBBLog::debug("~YarModuleBase %s", name_.c_str());
}

void YarModuleBase::run() {
    int received = 0;
    const int error = sigwait(&signalSet_, &received);
    if (error != 0) kel::PrintOut("error waiting signal: " + std::to_string(error) + "\n");
}

void YarModuleBase::abort() { kill(getpid(), SIGTERM); }
