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

    void Print(std::string_view lines) KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        if (!(FinishRest() && SayMissing() && Begin(lines))) ++missing_;
    }

private:
    // Whether any of the text was taken; the rest is kept.
    bool Begin(std::string_view text) KEL_REQUIRES(lock_) {
        const ssize_t taken = WriteAtOnce(fd_, text.data(), text.size());
        if (taken < 0) return false;
        rest_.assign(text.substr(static_cast<size_t>(taken)));
        if (!rest_.empty()) fstat(fd_, &restIsFor_);
        return true;
    }

    bool FinishRest() KEL_REQUIRES(lock_) {
        if (rest_.empty()) return true;
        struct stat now {};  // the descriptor may have been given to another file meanwhile
        if (fstat(fd_, &now) != 0 || now.st_ino != restIsFor_.st_ino || now.st_dev != restIsFor_.st_dev) rest_.clear();
        return rest_.empty() || (Begin(CStdStr(rest_)) && rest_.empty());
    }

    bool SayMissing() KEL_REQUIRES(lock_) {
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
    CStdStr rest_ KEL_GUARDED_BY(lock_);  // of the line that was taken in part
    struct stat restIsFor_ KEL_GUARDED_BY(lock_) {};
    uint64_t missing_ KEL_GUARDED_BY(lock_) = 0;
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
