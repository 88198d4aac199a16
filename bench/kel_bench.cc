// kel_bench: the directory end to end over loopback, with each figure beside a baseline from the same run. Client,
// directory and baselines are processes of their own.
#include "EchoServer.h"
#include "FileLoop.h"
#include "LibraryProcess.h"
#include "Measurements.h"
#include "Support.h"
#include "SwarmProcess.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace kel::bench;
namespace fs = std::filesystem;

constexpr const char* usage =
    "usage: kel_bench [--quick] [--only NAME] [--directory PROGRAM]\n"
    "\n"
    "  --quick              fewer and shorter rounds: about six minutes instead of about fourteen\n"
    "  --only NAME          one measurement: calls, register, service, host, request, memory, startup,\n"
    "                       liveness, fanout, deaths, attack, fair or rest\n"
    "  --directory PROGRAM  the directory to measure (default: KelDirectory beside this program)\n"
    "\n"
    "Files are written to a folder of its own below $TMPDIR (default /tmp), which should lie on the kind of disk that "
    "a\n"
    "directory would use, and removed at the end. Exit status 0 when all was measured, whether goals were reached or "
    "not.\n";

constexpr const char* legend =
    "\n"
    "N x M: connections x calls in flight on each\n"
    "ratio: median (least..most) of the rounds, in each of which both sides ran one after the other\n"
    "cpu a call: processor time that the server used for a call / that the baseline's server used\n"
    "baselines: GetSatelliteId: an epoll echo with requests and answers of the same lengths, [threads of the echo\n"
    "  server, the better of 1 and 2];\n"
    "  Register: one thread that only replaces the same two files, with or without the same syncs; GetServiceReg: a "
    "directory with 10 satellites;\n"
    "  outer address, another host: the same calls over loopback;\n"
    "  start-up: a program that only reads these files; alive: a loop of one thread that asks the same satellites the\n"
    "  same, one after the other; AddService: a loop that writes the same bytes to as many sockets;\n"
    "  names held: the same directory before that;\n"
    "  Request: an echo with as many calls in flight on one connection, of one thread with blocking sockets for 1 "
    "thread;\n"
    "  beside 1 x 1024: the same beside 16 x 1\n";

struct Measurement {
    const char* name;
    std::vector<Row> (Measurements::*run)();
};

constexpr Measurement measurements[] = {
    {"calls", &Measurements::Calls},
    {"register", &Measurements::Register},
    {"service", &Measurements::ServiceLookUp},
    {"host", &Measurements::FromAnotherHost},
    {"request", &Measurements::LibraryCalls},
    {"memory", &Measurements::Memory},
    {"startup", &Measurements::StartUp},
    {"liveness", &Measurements::Liveness},
    {"fanout", &Measurements::FanOut},
    {"deaths", &Measurements::Deaths},
    {"attack", &Measurements::Attack},
    {"fair", &Measurements::Fairness},
    {"rest", &Measurements::Rest},
};

constexpr Effort quick{.callRounds = 9,
                       .secondsASide = 0.15,
                       .fileRounds = 3,
                       .registrationsASide = 500,
                       .passes = 2,
                       .attackSeconds = 12,
                       .fairSeconds = 1,
                       .oneWayCalls = 200'000,
                       .restSeconds = 4};

struct Options {
    bool quick = false;
    std::string only;
    std::string directory;
};

class TemporaryFolder {
public:
    TemporaryFolder() : path_((fs::temp_directory_path() / "kel-bench-XXXXXX").string()) {
        if (!::mkdtemp(path_.data())) FailWithErrno(path_);
    }
    ~TemporaryFolder() {
        std::fputs("removing the files ...\n", stderr);
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

bool IsMeasurement(const std::string& name) {
    for (const Measurement& measurement : measurements) {
        if (name == measurement.name) return true;
    }
    return false;
}

// False when the arguments make no sense.
bool ReadOptions(const std::vector<std::string>& arguments, Options& options) {
    for (size_t i = 0; i < arguments.size(); ++i) {
        const bool more = i + 1 < arguments.size();
        if (arguments[i] == "--quick") options.quick = true;
        else if (arguments[i] == "--only" && more) options.only = arguments[++i];
        else if (arguments[i] == "--directory" && more) options.directory = arguments[++i];
        else return false;
    }
    return options.only.empty() || IsMeasurement(options.only);
}

// Signals only interrupt what waits; the stack then unwinds, which ends the children and removes the files. The alarm
// bounds the whole run.
void WatchSignals(unsigned secondsAtMost) {
    struct sigaction action {};
    action.sa_handler = [](int signal) { interruptedBy = signal; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) ::sigaction(signal, &action, nullptr);
    ::signal(SIGPIPE, SIG_IGN);  // a child that has ended is found out by what it does not say
    ::alarm(secondsAtMost);
}

void PrintRow(const Row& row, std::string_view reached) {
    const auto orDash = [](const std::string& text) { return text.empty() ? "-" : text.c_str(); };
    std::printf("%-44s %15s %17s  %-19s %-15s %-15s %.*s\n", row.what.c_str(), row.measured.c_str(),
                orDash(row.baseline), orDash(row.ratio), orDash(row.cpuACall), orDash(row.goal),
                static_cast<int>(reached.size()), reached.data());
}

void PrintTable(const std::vector<Row>& rows, const std::string& folder) {
    utsname system{};
    ::uname(&system);
    std::printf("%ld processors, %s %s, files below %s\n\n", ::sysconf(_SC_NPROCESSORS_ONLN), system.sysname,
                system.release, fs::path(folder).parent_path().c_str());
    PrintRow({"what", "measured", "baseline", "ratio", "goal", false, "cpu a call"}, "reached");
    for (const Row& row : rows) PrintRow(row, row.goal.empty() ? "-" : row.reached ? "yes" : "no");
    std::fputs(legend, stdout);
    std::fflush(stdout);  // removing the files may take a while
}

int Measure(Options options) {
    WatchSignals(options.quick ? 900 : 1800);
    RaiseDescriptorLimit();
    if (options.directory.empty()) {
        options.directory = fs::read_symlink("/proc/self/exe").replace_filename("KelDirectory").string();
    }
    const TemporaryFolder folder;
    Measurements all(options.directory, folder.path(), options.quick ? quick : Effort{});
    std::vector<Row> rows;
    int status = 0;
    try {
        for (const Measurement& measurement : measurements) {
            if (!options.only.empty() && options.only != measurement.name) continue;
            for (Row& row : (all.*measurement.run)()) rows.push_back(std::move(row));
        }
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kel_bench: %s\n", failure.what());
        status = 1;
    }
    PrintTable(rows, folder.path());  // what was measured before a failure too
    return status;
}

// The child modes; false when the arguments name none.
bool RunAsChild(const std::vector<std::string>& arguments) {
    const size_t count = arguments.size();
    if (count == 4 && arguments[0] == "--as-echo") {
        RunEcho(arguments[1], std::stoul(arguments[2]), std::stoul(arguments[3]));
    } else if (count == 2 && arguments[0] == "--as-file-reader") {
        std::printf("%zu\n", ReadFiles(arguments[1]));
    } else if (count == 6 && arguments[0] == "--as-file-loop") {
        const auto number = [&](size_t place) { return static_cast<unsigned>(std::stoul(arguments[place])); };
        std::printf("%f\n", ReplaceFiles(arguments[1], static_cast<unsigned short>(number(2)), number(3), number(4),
                                         number(5) ? Syncing::on : Syncing::off));
    } else if (count == 1 && arguments[0] == "--as-ping-loop") {
        RunPingLoop();
    } else if (count == 1 && arguments[0] == "--as-callee") {
        RunCallee();
    } else if (count == 1 && arguments[0] == "--as-caller") {
        RunCaller();
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main(int count, char** values) {
    const std::vector<std::string> arguments(values + 1, values + count);
    try {
        if (RunAsChild(arguments)) return 0;
        Options options;
        if (ReadOptions(arguments, options)) return Measure(options);
        const bool asked = arguments == std::vector<std::string>{"--help"};
        std::fputs(usage, asked ? stdout : stderr);
        return asked ? 0 : 2;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kel_bench: %s\n", failure.what());
        return 1;
    }
}
