#include "crash/LastWords.h"

#include "foundation/FileTools.h"
#include "foundation/LogFolder.h"
#include "foundation/LogText.h"
#include "foundation/StdPath.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string_view>

namespace kel::crash {

namespace {

long OffsetOfLocalTime() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    return local.tm_gmtoff;
}

off_t SizeOf(const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 ? status.st_size : 0;
}

}  // namespace

LastWords::LastWords(const CStdStr& module)
    : shortName_(module.substr(0, module.find('.'))), secondsEastOfGreenwich_(OffsetOfLocalTime()) {
    folder_ = CFileTools::GetLogsDirectory();
    files_[0].name = module + ".log";
    files_[1].name = "errors.log";
    for (File& file : files_) file.path = CStdPath(folder_).AppendPath(file.name);
}

void LastWords::Begin() {
    for (File& file : files_) file.end = SizeOf(file.path.c_str());
}

void LastWords::Write(const char* text) {
    WritePrintable(text_, std::string_view(text).substr(0, longestText))[0] = '\0';
    const size_t length = FormatLine(text_);
    mkdir(folder_.c_str(), 0777);  // without a line so far, it is not there yet
    const LogFolder folder(folder_.c_str());
    for (const File& file : files_) {
        bool isNew = false;
        const int fd = folder.OpenFile(file.name.c_str(), isNew);
        if (fd < 0) continue;
        if (!IsIn(fd, file.end, text_)) {
            const ssize_t written = write(fd, line_, length);
            static_cast<void>(written);  // there is nobody left to tell
        }
        close(fd);
    }
}

// Whether the file holds the text behind `from`. A file that has been renamed meanwhile is searched from its beginning.
bool LastWords::IsIn(int fd, off_t from, const char* text) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return false;
    const off_t start = from <= status.st_size ? from : 0;
    const ssize_t count = pread(fd, read_, sizeof read_, start);
    return count > 0 && std::string_view(read_, static_cast<size_t>(count)).find(text) != std::string_view::npos;
}

// The line as the log writes it. The calendar is worked out here, since the C library's takes a lock. Text that does
// not fit is cut.
size_t LastWords::FormatLine(const char* text) {
    namespace chrono = std::chrono;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto local = chrono::sys_seconds(chrono::seconds(now.tv_sec + secondsEastOfGreenwich_));
    const auto day = chrono::floor<chrono::days>(local);
    const chrono::year_month_day date(day);
    const long second = (local - day).count();
    const int length =
        snprintf(line_, sizeof line_ - 1, "%04d/%02u/%02u %02ld:%02ld:%02ld.%03ld [FATAL] - %s - %s",
                 static_cast<int>(date.year()), static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                 second / 3600, second / 60 % 60, second % 60, now.tv_nsec / 1000000, shortName_.c_str(), text);
    const size_t end = std::min(static_cast<size_t>(std::max(length, 0)), sizeof line_ - 2);
    line_[end] = '\n';
    return end + 1;
}

}  // namespace kel::crash
