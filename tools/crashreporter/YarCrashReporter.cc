// YarCrashReporter: what the crash handler starts when a program of the product has crashed. It keeps the dump, with a
// report in words beside it, in "CrashReports" in the data folder, where the last ten stay. It runs while the crashed
// program waits, so it asks nobody anything and waits for nothing without a limit.
//
//     YarCrashReporter DUMP PROGRAM [ARGUMENT ARGUMENT] [-appData FOLDER]
//
// FOLDER is the data folder; without it, it is "/Library/Tessaly" below the prefix YAR_ROOT. The stack comes from
// minidump_stackwalk, where that stands beside this program or on the PATH, with function names where there are symbols
// (in "symbols" beside this program, or in "../share/kel/symbols").
#include <fcntl.h>
#include <google_breakpad/common/minidump_format.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
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
    explicit Dump(const fs::path& path) {
        std::ifstream file(path, std::ios::binary);
        bytes_.assign(std::istreambuf_iterator<char>(file), {});
    }

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

    std::vector<char> bytes_;
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

std::string ReportText(const Arguments& arguments, const fs::path& kept) {
    const Dump dump(kept);
    const auto exception = dump.Exception();
    const std::string buildId = dump.BuildId();
    std::ostringstream report;
    report << "program:  " << arguments.program << "\n"
           << "version:  " << KEL_VERSION << (buildId.empty() ? "" : ", build id " + buildId) << "\n"
           << "time:     " << Now() << "\n";
    if (exception) report << "signal:   " << SignalText(*exception) << "\nthread:   " << exception->thread_id << "\n";
    else report << "signal:   unknown, the dump does not tell (no room on the disk?)\n";
    report << "dump:     " << kept.string() << "\n          written as " << arguments.dump.string() << "\n";
    for (const std::string& word : arguments.further) report << "argument: " << word << "\n";
    const std::string stack = CrashedStack(kept);
    report << (stack.empty() ? "\nNo stack: minidump_stackwalk is not there, or cannot read the dump.\n"
                             : "\nThe crashed thread:\n" + stack);
    return report.str();
}

bool Write(const fs::path& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    return static_cast<bool>(file);
}

// --- What is kept

// The folder, made when it is missing, with those above it: open to the programs of every user, each to its own files,
// as "/tmp" is. The data folder gets the mode that all of the product's programs give it.
fs::path ReportsFolder(const fs::path& dataFolder) {
    fs::path folder = dataFolder / "CrashReports";
    const mode_t before = umask(022);
    std::error_code ignored;
    fs::create_directories(dataFolder.parent_path(), ignored);
    if (fs::create_directory(dataFolder, ignored)) chmod(dataFolder.c_str(), 0777);
    if (fs::create_directory(folder, ignored)) chmod(folder.c_str(), 01777);
    umask(before);
    return folder;
}

// Removes all but the latest reports, each with its dump, also from the folder that the dump was written to: there they
// would gather for ever.
void RemoveOldest(const fs::path& folder, const fs::path& dumpFolder) {
    std::vector<std::pair<fs::file_time_type, fs::path>> reports;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        std::error_code gone;  // by another reporter
        const auto time = entry->last_write_time(gone);
        if (!gone && entry->path().extension() == ".txt") reports.emplace_back(time, entry->path());
    }
    std::sort(reports.rbegin(), reports.rend());
    for (size_t i = dumpsKept; i < reports.size(); ++i) {
        fs::path file = reports[i].second;
        fs::remove(file, error);
        file.replace_extension(".dmp");
        fs::remove(file, error);
        fs::remove(dumpFolder / file.filename(), error);
    }
}

int Keep(const Arguments& arguments) {
    const fs::path folder = ReportsFolder(arguments.dataFolder);
    const fs::path kept = folder / arguments.dump.filename();
    fs::path report = kept;
    report.replace_extension(".txt");

    std::error_code error;
    const bool isKept = fs::copy_file(arguments.dump, kept, fs::copy_options::overwrite_existing, error);
    if (!isKept) {
        fprintf(stderr, "YarCrashReporter: cannot copy %s to %s: %s\n", arguments.dump.c_str(), kept.c_str(),
                error.message().c_str());
        fs::remove(kept, error);
    }
    const bool isWritten = Write(report, ReportText(arguments, kept));
    RemoveOldest(folder, arguments.dump.parent_path());
    if (!isWritten) {
        fprintf(stderr, "YarCrashReporter: cannot write %s\n", report.c_str());
        return 1;
    }
    printf("YarCrashReporter: %s\n", report.c_str());
    return isKept ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const auto arguments = ReadArguments(std::vector<std::string>(argv + 1, argv + argc));
    if (!arguments) {
        fprintf(stderr, "usage: YarCrashReporter DUMP PROGRAM [ARGUMENT ARGUMENT] [-appData FOLDER]\n");
        return 2;
    }
    umask(077);
    return Keep(*arguments);
}
