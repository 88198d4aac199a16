// MiniDumper: makes every crash of the process leave a minidump, a fatal line in the log and one start of the product's
// crash reporter, and end the process with status 0. What counts as a crash: a fault in any thread, an exception that
// nobody catches, abort(), and SIGUSR1, with which an operator asks a process for a dump, also one that hangs.
//
// The module host creates one as the first thing of all, before other threads, and destroys it as the last. The setters
// are for that thread, too. MiniDumper.cc opens with what happens in a crash.
#pragma once

#include "foundation/AlternateStack.h"
#include "foundation/StdString.h"

#include <atomic>
#include <memory>
#include <vector>

namespace google_breakpad {
class ExceptionHandler;
class MinidumpDescriptor;
}  // namespace google_breakpad

namespace kel::crash {
class ShellRun;
}

class MiniDumper {
public:
    // `appName` is what the log and the reporter call the process, and names its log file: "<appName>.log". Empty or
    // null stands for "Unknown". The reporter is "YarCrashReporter" in the folder of the product's executables.
    explicit MiniDumper(const char* appName);
    // `logCrash`: whether the fatal line is written. `startReporter`: whether the reporter is started. The third bool
    // has no effect. `takeFaults` and `takeOthers`: whether faults are caught at once, and whether an uncaught
    // exception, abort() and SIGUSR1 are turned into faults.
    MiniDumper(const char* appName, bool logCrash, bool startReporter, bool, bool takeFaults, bool takeOthers);
    // With two more arguments for the reporter, which are passed when the first is not empty, and the reporter's path;
    // an empty one stands for "./YarCrashReporter".
    MiniDumper(const char* appName, const char* reporterArg1, const char* reporterArg2, const char* reporterPath);
    // Without further MiniDumpers in the process, crashes are again what they were before.
    ~MiniDumper();
    MiniDumper(const MiniDumper&) = delete;
    MiniDumper& operator=(const MiniDumper&) = delete;

    // The shell finds the path in its command line as it is: a blank in it ends it.
    void SetCrashReporterPath(const CStdStr& path);
    // The folder that the reporter is told after "-appData". Each double quote in it becomes a blank, so that the
    // quoting of the command line holds.
    void setAppData(const CStdStr& folder);

private:
    struct Shared;

    void initialize(bool takeFaults, bool takeOthers);
    void prepareCommand();
    static bool _minidumpCallback(const google_breakpad::MinidumpDescriptor& descriptor, void* context, bool succeeded);
    static void crashWithoutDump();
    static void AloneFromHere();
    [[noreturn]] void minidumpCallback(bool isWhole);

    static std::atomic<MiniDumper*> newest;

    CStdStr appName_;
    const bool logCrash_ = true;
    const bool startReporter_ = true;
    CStdStr reporterArg1_;
    CStdStr reporterArg2_;
    CStdStr reporterPath_;
    CStdStr dumpDir_;  // ends with "/"
    CStdStr dumpFile_;
    CStdStr appData_;
    // The reporter's command line is put together ahead, since a crash is no time for that. Each one is kept, since a
    // thread may crash while a setter replaces it; empty without a reporter. Null until everything that a crash needs
    // is there.
    std::atomic<const CStdStr*> command_{nullptr};
    std::vector<std::unique_ptr<const CStdStr>> commands_;

    AlternateStack stackForFaults_;
    std::shared_ptr<Shared> shared_;
    MiniDumper* older_ = nullptr;
    std::unique_ptr<google_breakpad::ExceptionHandler> handler_;
};
