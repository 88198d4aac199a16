// LastWords: puts a fatal line into the module's log file and into "errors.log" without the log, for a process whose
// log may be locked by the very thread that has crashed. Write uses nothing but system calls and its own memory: no
// lock, no allocation, no time-zone data.
//
// One thread at a time; the crash handler sees to that.
#pragma once

#include "foundation/LogText.h"
#include "foundation/StdString.h"

#include <sys/types.h>

#include <array>

namespace kel::crash {

class LastWords {
public:
    // `module` names the log file ("KelDirectory" for KelDirectory.log) and stands in the line.
    explicit LastWords(const CStdStr& module);

    // Remembers how far the files go, so that Write sees what the log itself writes from here on.
    void Begin();
    // Appends the line to each of the two files that has not got `text` since Begin. A full disk loses it.
    void Write(const char* text);

private:
    static constexpr size_t longestText = 20480;

    struct File {
        CStdStr name;
        CStdStr path;
        off_t end = 0;
    };

    bool IsIn(int fd, off_t from, const char* text);
    size_t FormatLine(const char* text);

    CStdStr folder_;
    std::array<File, 2> files_;
    CStdStr shortName_;
    long secondsEastOfGreenwich_;
    char text_[longestText * printableGrowth + 1];
    char line_[sizeof text_ + 1024];
    char read_[sizeof line_ + 64 * 1024];
};

}  // namespace kel::crash
