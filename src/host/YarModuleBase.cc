#include "host/YarModuleBase.h"

#include "foundation/Log.h"
#include "foundation/StandardStreams.h"
#include "rpc/KelSatellite.h"

#include <boost/make_shared.hpp>

#include <unistd.h>

#include <stdexcept>
#include <string>

namespace {

constexpr long long maxLogSize = 524288;

void IgnoreBrokenPipes() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, nullptr);
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

    IgnoreBrokenPipes();
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
