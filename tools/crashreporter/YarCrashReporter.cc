// YarCrashReporter: what the crash handler starts when a program of the product has crashed. It keeps the dump, with a
// report in words beside it, in "CrashReports" in the data folder, where the last ten stay. It runs while the crashed
// program waits, so it asks nobody anything and waits for nothing without a limit.
//
//     YarCrashReporter DUMP PROGRAM [ARGUMENT ARGUMENT] [-appData FOLDER]
//
// FOLDER is the data folder; without it, it is "/Library/Tessaly" below the prefix YAR_ROOT. The stack comes from
// minidump_stackwalk, where that stands beside this program or on the PATH, with function names where there are symbols
// (in "symbols" beside this program, or in "../share/kel/symbols").
#include <dirent.h>
#include <fcntl.h>
#include <google_breakpad/common/minidump_format.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr size_t dumpsKept = 10;
constexpr auto patienceWithStackwalk = std::chrono::seconds(20);

struct Arguments {
    fs::path dump;
    std::string program;
    std::vector<std::string> further;
    fs::path dataFolder;
};

std::optional<Arguments> ReadArguments(const std::vector<std::string>& words) {
    if (words.size() < 2) return std::nullopt;
    Arguments arguments{words[0], words[1], {}, {}};
    for (size_t i = 2; i < words.size(); ++i) {
        if (words[i] == "-appData" && i + 1 < words.size()) arguments.dataFolder = words[++i];
        else arguments.further.push_back(words[i]);
    }
    if (arguments.dataFolder.empty()) {
        const char* root = std::getenv("YAR_ROOT");
        arguments.dataFolder = std::string(root ? root : "") + "/Library/Tessaly";
    }
    return arguments;
}

// --- What the dump says by itself

// A dump in memory. What lies beyond its end, or is not there, reads as nothing.
class Dump {
public:
    explicit Dump(std::string bytes) : bytes_(std::move(bytes)) {}

    template <typename T>
    std::optional<T> At(size_t offset) const {
        T value;
        if (offset > bytes_.size() || bytes_.size() - offset < sizeof value) return std::nullopt;
        std::memcpy(&value, bytes_.data() + offset, sizeof value);
        return value;
    }

    std::optional<MDRawExceptionStream> Exception() const {
        const auto place = Stream(MD_EXCEPTION_STREAM);
        return place ? At<MDRawExceptionStream>(*place) : std::nullopt;
    }

    // The build id of the program, which is the first module, in hexadecimal digits; empty when there is none.
    std::string BuildId() const {
        const auto list = Stream(MD_MODULE_LIST_STREAM);
        // The list is the number of modules and then the modules.
        const auto module =
            list ? At<MDLocationDescriptor>(*list + sizeof(uint32_t) + offsetof(MDRawModule, cv_record)) : std::nullopt;
        const auto signature = module ? At<uint32_t>(module->rva) : std::nullopt;
        if (!signature || *signature != MD_CVINFOELF_SIGNATURE || module->data_size > 100) return "";
        std::string digits;
        for (size_t i = sizeof *signature; i < module->data_size; ++i) {
            const auto byte = At<unsigned char>(module->rva + i);
            if (!byte) return "";
            char pair[3];
            snprintf(pair, sizeof pair, "%02x", *byte);
            digits += pair;
        }
        return digits;
    }

private:
    std::optional<size_t> Stream(uint32_t type) const {
        const auto header = At<MDRawHeader>(0);
        if (!header || header->signature != MD_HEADER_SIGNATURE) return std::nullopt;
        for (size_t i = 0; i < header->stream_count; ++i) {
            const auto entry = At<MDRawDirectory>(header->stream_directory_rva + i * sizeof(MDRawDirectory));
            if (!entry) return std::nullopt;
            if (entry->stream_type == type) return entry->location.rva;
        }
        return std::nullopt;
    }

    const std::string bytes_;
};

// --- The stack

fs::path OwnFolder() {
    std::error_code ignored;
    return fs::read_symlink("/proc/self/exe", ignored).parent_path();
}

// What a program prints on its standard output, at most what it has printed when the patience ends; then it is killed.
std::string OutputOf(const std::vector<std::string>& command) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return "";
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        const int nowhere = open("/dev/null", O_RDWR);
        dup2(nowhere, STDIN_FILENO);
        dup2(nowhere, STDERR_FILENO);
        std::vector<char*> words;
        words.reserve(command.size() + 1);
        for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
        words.push_back(nullptr);
        execvp(words[0], words.data());
        _exit(127);
    }
    close(ends[1]);
    std::string output;
    const auto deadline = std::chrono::steady_clock::now() + patienceWithStackwalk;
    while (child > 0) {
        const auto left = deadline - std::chrono::steady_clock::now();
        const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
        pollfd readable{ends[0], POLLIN, 0};
        if (milliseconds <= 0 || poll(&readable, 1, static_cast<int>(milliseconds)) <= 0) break;
        char part[4096];
        const ssize_t count = read(ends[0], part, sizeof part);
        if (count <= 0) break;
        output.append(part, static_cast<size_t>(count));
    }
    close(ends[0]);
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    return output;
}

// The frames of the crashed thread, a line each, without registers; empty when minidump_stackwalk is not there.
std::string CrashedStack(const fs::path& dump) {
    const fs::path own = OwnFolder();
    std::error_code ignored;
    const bool isBeside = fs::exists(own / "minidump_stackwalk", ignored);
    std::vector<std::string> command{isBeside ? own / "minidump_stackwalk" : fs::path("minidump_stackwalk"), dump};
    for (const fs::path& symbols : {own / "symbols", own / "../share/kel/symbols"}) {
        if (fs::is_directory(symbols, ignored)) command.push_back(symbols);
    }
    std::istringstream lines(OutputOf(command));
    std::string stack;
    bool isCrashed = false;
    for (std::string line; std::getline(lines, line);) {
        if (isCrashed && line.empty()) break;
        if (isCrashed && line.compare(0, 4, "    ") != 0) stack += line + "\n";
        if (line.find("(crashed)") != std::string::npos) isCrashed = true;
    }
    return stack;
}

// --- The report

std::string Now() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[64];
    const size_t length = std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S %z", &local);
    return {text, length};
}

std::string SignalText(const MDRawExceptionStream& exception) {
    const auto number = static_cast<int>(exception.exception_record.exception_code);
    const char* name = sigabbrev_np(number);
    char text[96];
    snprintf(text, sizeof text, "%d (SIG%s) at address 0x%llx", number, name ? name : "?",
             static_cast<unsigned long long>(exception.exception_record.exception_address));
    return text;
}

// `problem` is why the dump could not be kept; empty when it was.
std::string ReportText(const Arguments& arguments, const Dump& dump, const fs::path& kept, const std::string& problem) {
    const auto exception = dump.Exception();
    const std::string buildId = dump.BuildId();
    std::ostringstream report;
    report << "program:  " << arguments.program << "\n"
           << "version:  " << KEL_VERSION << (buildId.empty() ? "" : ", build id " + buildId) << "\n"
           << "time:     " << Now() << "\n";
    if (exception) report << "signal:   " << SignalText(*exception) << "\nthread:   " << exception->thread_id << "\n";
    else report << "signal:   unknown, the dump does not tell (no room on the disk?)\n";
    report << "dump:     " << (problem.empty() ? kept.string() : "could not be copied: " + problem)
           << "\n          written as " << arguments.dump.string() << "\n";
    for (const std::string& word : arguments.further) report << "argument: " << word << "\n";
    const std::string stack = exception ? CrashedStack(arguments.dump) : "";
    report << (stack.empty() ? "\nNo stack: minidump_stackwalk is not there, or cannot read the dump.\n"
                             : "\nThe crashed thread:\n" + stack);
    return report.str();
}

// --- What is kept

std::string Problem() { return std::strerror(errno); }

// Reads a file. Returns what went wrong; empty when nothing did. A pipe is not read, for it would be waited for.
std::string Read(const fs::path& path, std::string* bytes, struct stat* status) {
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return Problem();
    std::string problem;
    if (fstat(file, status) != 0) problem = Problem();
    else if (!S_ISREG(status->st_mode)) problem = "it is no file";
    char part[65536];
    while (problem.empty()) {
        const ssize_t count = read(file, part, sizeof part);
        if (count == 0) break;
        if (count < 0) problem = Problem();
        else bytes->append(part, static_cast<size_t>(count));
    }
    close(file);
    return problem;
}

// Whether a text is the name that Breakpad gives a dump, without its suffix.
bool IsDumpName(std::string_view text) {
    constexpr std::string_view form = "xxxxxxxx-xxxx-xxxx-xxxxxxxx-xxxxxxxx";
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char given, char wanted) {
        return wanted == 'x' ? std::isxdigit(static_cast<unsigned char>(given)) != 0 : given == wanted;
    });
}

// The folder of the reports. The data folder is everybody's, so what has the folder's name there need not be ours, and
// what lies in it may be links and pipes. Hence the folder is looked at once, everything goes through its descriptor,
// and each file that is written is a new one.
class ReportsFolder {
public:
    // Makes the folder when it is missing, with those above it: open to the programs of every user, each to its own
    // files, as "/tmp" is. The data folder gets the mode that all of the product's programs give it.
    explicit ReportsFolder(const fs::path& dataFolder) : path_(dataFolder / "CrashReports") {
        std::error_code ignored;
        umask(022);
        fs::create_directories(dataFolder.parent_path(), ignored);
        umask(0);
        mkdir(dataFolder.c_str(), 0777);
        mkdir(path_.c_str(), 01777);
        umask(077);
        Open();
    }
    ~ReportsFolder() {
        if (folder_) closedir(folder_);
    }
    ReportsFolder(const ReportsFolder&) = delete;
    ReportsFolder& operator=(const ReportsFolder&) = delete;

    const fs::path& path() const { return path_; }
    // Why the folder cannot be used; empty when it can.
    const std::string& problem() const { return problem_; }

    bool Has(const std::string& name, const struct stat& file) const {
        struct stat own {};
        return fstatat(dirfd(folder_), name.c_str(), &own, AT_SYMLINK_NOFOLLOW) == 0 && own.st_dev == file.st_dev &&
               own.st_ino == file.st_ino;
    }

    // Returns what went wrong; empty when nothing did.
    std::string Write(const std::string& name, std::string_view text) const {
        unlinkat(dirfd(folder_), name.c_str(), 0);
        const int file = openat(dirfd(folder_), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (file < 0) return Problem();
        std::string problem;
        while (problem.empty() && !text.empty()) {
            const ssize_t count = write(file, text.data(), text.size());
            if (count < 0) problem = Problem();
            else text.remove_prefix(static_cast<size_t>(count));
        }
        if (close(file) != 0 && problem.empty()) problem = Problem();
        return problem;
    }

    // Removes all but the latest dumps with their reports, also from the folder that the dumps were written to: there
    // they would gather for ever. `newest` stays whatever the clock says.
    void RemoveOldest(const fs::path& newest, const fs::path& dumpFolder) const {
        std::vector<std::pair<Time, std::string>> others;
        for (const auto& [name, time] : Dumps()) {
            if (name != newest.stem()) others.emplace_back(time, name);
        }
        std::sort(others.rbegin(), others.rend());
        std::error_code ignored;
        for (size_t i = dumpsKept - 1; i < others.size(); ++i) {
            const std::string& name = others[i].second;
            Remove(name + ".txt");
            Remove(name + ".dmp");
            fs::remove(dumpFolder / (name + ".dmp"), ignored);
        }
    }

    void Remove(const std::string& name) const { unlinkat(dirfd(folder_), name.c_str(), 0); }

private:
    using Time = std::pair<time_t, long>;  // seconds and nanoseconds; anybody may have given a file any

    void Open() {
        const int folder = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        folder_ = folder < 0 ? nullptr : fdopendir(folder);
        struct stat status {};
        if (!folder_ || fstat(folder, &status) != 0) problem_ = "it cannot be opened as a folder: " + Problem();
        else if (status.st_uid != 0 && status.st_uid != geteuid())
            problem_ = "it belongs to user " + std::to_string(status.st_uid);
    }

    // The names of the dumps and reports in the folder, without suffix, and when each was written.
    std::map<std::string, Time> Dumps() const {
        std::map<std::string, Time> dumps;
        rewinddir(folder_);
        while (const dirent* entry = readdir(folder_)) {
            const fs::path file = entry->d_name;
            struct stat status {};
            if (!IsDumpName(file.stem().native()) || (file.extension() != ".txt" && file.extension() != ".dmp"))
                continue;
            if (fstatat(dirfd(folder_), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
            Time& time = dumps[file.stem()];
            time = std::max(time, Time(status.st_mtim.tv_sec, status.st_mtim.tv_nsec));
        }
        return dumps;
    }

    const fs::path path_;
    DIR* folder_ = nullptr;
    std::string problem_;
};

// Prints on standard output, unless nobody reads and it would block: what the crash handler starts has no standard
// error.
void Say(const std::string& text) {
    pollfd writable{STDOUT_FILENO, POLLOUT, 0};
    if (poll(&writable, 1, 0) != 1 || !(writable.revents & POLLOUT)) return;
    const std::string line = "YarCrashReporter: " + text + "\n";
    const ssize_t written = write(STDOUT_FILENO, line.data(), std::min<size_t>(line.size(), PIPE_BUF));
    static_cast<void>(written);
}

int Keep(const Arguments& arguments) {
    const ReportsFolder folder(arguments.dataFolder);
    if (!folder.problem().empty()) {
        Say("cannot use " + folder.path().string() + ": " + folder.problem());
        return 1;
    }
    const fs::path kept = folder.path() / arguments.dump.filename();
    fs::path report = kept;
    report.replace_extension(".txt");

    std::string bytes;
    struct stat dump {};
    std::string problem = Read(arguments.dump, &bytes, &dump);
    if (problem.empty() && !folder.Has(kept.filename(), dump)) {  // a report can be asked for once more
        problem = folder.Write(kept.filename(), bytes);
        if (!problem.empty()) folder.Remove(kept.filename());
    }
    if (!problem.empty()) Say("cannot copy " + arguments.dump.string() + " to " + kept.string() + ": " + problem);
    const std::string failure =
        folder.Write(report.filename(), ReportText(arguments, Dump(std::move(bytes)), kept, problem));
    folder.RemoveOldest(report, arguments.dump.parent_path());
    if (!failure.empty()) {
        Say("cannot write " + report.string() + ": " + failure);
        return 1;
    }
    Say(report.string());
    return problem.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    // Whoever read its output may be gone, and files may have a greatest size: neither is an end.
    for (const int number : {SIGPIPE, SIGXFSZ}) signal(number, SIG_IGN);
    const auto arguments = ReadArguments(std::vector<std::string>(argv + 1, argv + argc));
    if (!arguments) {
        std::fputs("usage: YarCrashReporter DUMP PROGRAM [ARGUMENT ARGUMENT] [-appData FOLDER]\n", stderr);
        return 2;
    }
    return Keep(*arguments);
}
