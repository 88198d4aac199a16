#include "foundation/StandardStreams.h"

#include "foundation/Locks.h"
#include "foundation/StdString.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>

namespace kel {

namespace {

class Stream {
public:
    Stream(int fd, const char* name) : fd_(fd), name_(name) {}

    void Print(std::string_view lines) EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        ForgetAnotherFile();
        if (!(FinishRest() && SayMissing() && Begin(lines))) ++missing_;
    }

private:
    // The descriptor may have been given another file, which the rest of a line is not for.
    void ForgetAnotherFile() REQUIRES(lock_) {
        struct stat now {};
        if (fstat(fd_, &now) != 0 || (now.st_ino == inode_ && now.st_dev == device_)) return;
        inode_ = now.st_ino;
        device_ = now.st_dev;
        rest_.clear();
    }

    // Whether any of the text was taken; the rest is kept.
    bool Begin(std::string_view text) REQUIRES(lock_) {
        const ssize_t taken = WriteAtOnce(fd_, text.data(), text.size());
        if (taken < 0) return false;
        rest_.assign(text.substr(static_cast<size_t>(taken)));
        return true;
    }

    bool FinishRest() REQUIRES(lock_) { return rest_.empty() || (Begin(CStdStr(rest_)) && rest_.empty()); }

    bool SayMissing() REQUIRES(lock_) {
        if (missing_ == 0) return true;
        CStdStr line;
        line.Format("... %llu lines are missing here: %s did not take them\n",
                    static_cast<unsigned long long>(missing_), name_);
        if (!Begin(line)) return false;
        missing_ = 0;
        return rest_.empty();
    }

    const int fd_;
    const char* const name_;
    PMutex lock_;
    dev_t device_ GUARDED_BY(lock_) = 0;
    ino_t inode_ GUARDED_BY(lock_) = 0;
    CStdStr rest_ GUARDED_BY(lock_);  // of the line that was taken in part
    uint64_t missing_ GUARDED_BY(lock_) = 0;
};

}  // namespace

// The streams are never destroyed: a thread that outlives main may still print.

void PrintOut(std::string_view lines) {
    static Stream& stream = *new Stream(STDOUT_FILENO, "standard output");
    stream.Print(lines);
}

void PrintError(std::string_view lines) {
    static Stream& stream = *new Stream(STDERR_FILENO, "standard error");
    stream.Print(lines);
}

}  // namespace kel
