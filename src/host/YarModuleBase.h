// YarModuleBase: what every module of the product needs before its own work starts: the rule that a process has one
// module, what happens when it crashes, its log, and the signals that stop it. The process's entry (commonMain) creates
// the module, owns it and is the only caller of everything but abort.
#pragma once

#include "crash/MiniDumper.h"
#include "foundation/StdString.h"

#include <boost/shared_ptr.hpp>

#include <signal.h>

#include <vector>

class CBBLog;

class YarModuleBase {
public:
    // Belongs before the first thread of the process: threads inherit from here that SIGINT and SIGTERM are blocked, so
    // that run() alone receives them. Sets up what a crash leaves behind. Makes "<name>.log" the log of the process and
    // of libkel, and ignores SIGPIPE and SIGXFSZ. Throws std::logic_error while another module lives, and leaves that
    // one as it is.
    explicit YarModuleBase(const CStdStr& name);
    virtual ~YarModuleBase();
    YarModuleBase(const YarModuleBase&) = delete;
    YarModuleBase& operator=(const YarModuleBase&) = delete;

    // Starts the module's work; `args` is the command line, the program's path first. False when there is nothing to
    // run: neither run() nor close() follows.
    virtual bool init(const std::vector<CStdStr>& args) = 0;

    // Stops the module's work in order.
    virtual void close() = 0;

    // Waits for SIGINT or SIGTERM, one that came since the construction included.
    virtual void run();

    // Has run() return, as by SIGTERM from outside. From any thread.
    virtual void abort();

private:
    void SetUp();

    static YarModuleBase* yarModule;  // the one that lives, or null

    CStdStr name_;
    boost::shared_ptr<CBBLog> logger_;
    MiniDumper crashHandler_;
    sigset_t signalSet_;
};
