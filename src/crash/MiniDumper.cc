// What happens in a crash
//
// 1. The thread that faults enters Breakpad's signal handler, on its alternate stack. A second one that faults
//    meanwhile waits there for good.
// 2. Breakpad clones a process, which stops all threads, writes the dump and ends. The threads run on then, the crashed
//    one excepted: it is in minidumpCallback.
// 3. The reporter is run and waited for.
// 4. The fatal line is logged, and the process ends, with status 0 and without running a destructor.
//
// The crashed thread may hold any lock and the heap may be in ruins. So minidumpCallback and what it calls use what was
// made ready before, and system calls: the dump's name and the reporter's command line are known from the start, the
// reporter is spawned without fork(), and the line is left to a thread that stands by for it (CrashLog).
#include "crash/MiniDumper.h"

#include "crash/CrashEntries.h"
#include "crash/CrashLog.h"
#include "crash/ShellRun.h"
#include "foundation/FileTools.h"
#include "foundation/SignalContext.h"
#include "foundation/StdPath.h"

#include <client/linux/handler/exception_handler.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace {

// Called by Breakpad before it writes the dump, with its own copy of what it is going to write about the crashed
// thread. Of a thread that has used up its stack the pointer leads nowhere, and Breakpad would find no stack there.
// False has it go on.
bool PrepareDump(const void* crash, size_t, void*) {
    auto* copy = static_cast<google_breakpad::ExceptionHandler::CrashContext*>(const_cast<void*>(crash));
    kel::BringStackIntoReach(&copy->context);
    return false;
}

}  // namespace

// What the MiniDumpers of a process have in common.
struct MiniDumper::Shared {
    explicit Shared(const CStdStr& module) : log(module), entries(log, &MiniDumper::crashWithoutDump) {}

    kel::crash::CrashLog log;
    kel::crash::CrashEntries entries;
    kel::crash::ShellRun shell;
};

std::atomic<MiniDumper*> MiniDumper::newest{nullptr};

MiniDumper::MiniDumper(const char* appName) : appName_(appName) { initialize(true, true); }

MiniDumper::MiniDumper(const char* appName, bool logCrash, bool startReporter, bool, bool takeFaults, bool takeOthers)
    : appName_(appName), logCrash_(logCrash), startReporter_(startReporter) {
    initialize(takeFaults, takeOthers);
}

MiniDumper::MiniDumper(const char* appName, const char* reporterArg1, const char* reporterArg2,
                       const char* reporterPath)
    : appName_(appName), reporterArg1_(reporterArg1), reporterArg2_(reporterArg2), reporterPath_(reporterPath) {
    if (reporterPath_.empty()) reporterPath_ = "./YarCrashReporter";
    initialize(true, true);
}

MiniDumper::~MiniDumper() {
    handler_.reset();
    if (newest == this) {
        newest = older_;
        return;
    }
    MiniDumper* younger = newest;
    while (younger->older_ != this) younger = younger->older_;
    younger->older_ = older_;
}

void MiniDumper::initialize(bool takeFaults, bool takeOthers) {
    if (appName_.empty()) appName_ = "Unknown";
    if (dumpDir_.empty()) dumpDir_ = "/tmp/";
    if (reporterPath_.empty())
        reporterPath_ = CStdPath(CFileTools::getYarBinFolderPath()).AppendPath("YarCrashReporter");

    older_ = newest;
    shared_ = older_ ? older_->shared_ : std::make_shared<Shared>(appName_);
    newest = this;

    // Breakpad puts a "/" between the folder and the name, so it is given the folder without.
    const google_breakpad::MinidumpDescriptor folder(dumpDir_.substr(0, dumpDir_.size() - 1));
    handler_ =
        std::make_unique<google_breakpad::ExceptionHandler>(folder, nullptr, &_minidumpCallback, this, takeFaults, -1);
    handler_->set_crash_handler(&PrepareDump);
    dumpFile_ = handler_->minidump_descriptor().path();
    prepareCommand();
    if (takeOthers) shared_->entries.Open();
}

void MiniDumper::SetCrashReporterPath(const CStdStr& path) {
    reporterPath_ = path;
    prepareCommand();
}

void MiniDumper::setAppData(const CStdStr& folder) {
    appData_ = folder;
    appData_.Replace("\"", " ");
    prepareCommand();
}

void MiniDumper::prepareCommand() {
    CStdStr command = reporterPath_ + " \"" + dumpFile_ + "\" \"" + appName_ + "\"";
    if (!reporterArg1_.empty()) command += " \"" + reporterArg1_ + "\" \"" + reporterArg2_ + "\"";
    else if (!appData_.empty()) command += " -appData \"" + appData_ + "\"";
    if (reporterPath_.empty()) command.clear();
    commands_.push_back(std::make_unique<const CStdStr>(std::move(command)));
    command_ = commands_.back().get();
}

bool MiniDumper::_minidumpCallback(const google_breakpad::MinidumpDescriptor&, void* context, bool succeeded) {
    static_cast<MiniDumper*>(context)->minidumpCallback(succeeded);
}

// Where not even Breakpad could do anything: no memory, or no process to spare.
void MiniDumper::crashWithoutDump() {
    if (MiniDumper* const dumper = newest) dumper->minidumpCallback(false);
    _exit(0);  // the last one has just gone
}

// Several threads may come here at once, since not everything is serialised below Breakpad: the first goes on, to the
// end of the process. It does not wait for itself when it faults once more.
void MiniDumper::AloneFromHere() {
    static std::atomic<pthread_t> first{};
    pthread_t nobody{};
    const pthread_t self = pthread_self();
    if (first.compare_exchange_strong(nobody, self)) return;
    if (pthread_equal(nobody, self)) _exit(0);
    for (;;) pause();
}

void MiniDumper::minidumpCallback(bool isWhole) {
    AloneFromHere();
    const CStdStr* const command = command_;  // first: what was made ready before it is seen with it
    if (!command) _exit(0);
    struct stat dump {};
    const bool isThere = isWhole && stat(dumpFile_.c_str(), &dump) == 0;
    if (startReporter_ && !command->empty()) shared_->shell.RunAndWait(command->c_str());
    if (logCrash_) {
        shared_->log.Write(LOGLEVEL_FATAL, "crash of %s. minidump generated as %s (%dkB)", appName_.c_str(),
                           dumpFile_.c_str(), isThere ? static_cast<int>(dump.st_size / 1024) : 0);
    }
    _exit(0);
}
