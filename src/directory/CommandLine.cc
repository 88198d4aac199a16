#include "directory/CommandLine.h"

#include "directory/SelfCheck.h"
#include "foundation/CheckedSettings.h"
#include "foundation/LogText.h"

#include <cstdio>

namespace {

constexpr const char* usage =
    "Usage: KelDirectory            runs the directory, in the foreground, until SIGTERM or SIGINT\n"
    "       KelDirectory --check    says what is wrong with settings, folders, files and port, and starts nothing;\n"
    "                               the status is 1 when something is\n"
    "       KelDirectory --version  prints the version\n"
    "       KelDirectory --help     prints this\n"
    "Other arguments are ignored.\n"
    "\n"
    "Settings, in property lists in $XDG_CONFIG_HOME, or ~/.config without it:\n";

constexpr const char* rest =
    "\n"
    "Folders, below the one that the environment variable YAR_ROOT names, if it does:\n"
    "  /Library/Tessaly       what is registered, and the reports of crashes\n"
    "  /Library/Logs/Tessaly  KelDirectory.log, and errors.log with the fatal lines\n"
    "\n"
    "Signals: SIGTERM and SIGINT end the directory in order; SIGUSR1 has it leave a dump and crash.\n"
    "The exit status of a run is 0, also of one that could not start or crashed; the log says which.\n";

void PrintSettings() {
    const char* file = "";
    for (const kel::settings::Setting& setting : kel::settings::All()) {
        if (setting.identifier != file) std::printf("  %s.plist\n", setting.identifier);
        file = setting.identifier;
        std::printf("    %s, %s (%s)\n        %s\n", setting.name, TypeOf(setting), setting.byDefault, setting.meaning);
    }
}

int PrintVersion() {
    std::printf("KelDirectory %s\n", KEL_VERSION);
    return 0;
}

int PrintHelp() {
    std::fputs(usage, stdout);
    PrintSettings();
    std::fputs(rest, stdout);
    return 0;
}

// Names of files come from strangers.
void Print(const char* before, const CStdStr& text) {
    CStdStr line(before);
    kel::AppendPrintable(line, text);
    std::printf("%s\n", line.c_str());
}

int Check() {
    const SelfCheck check;
    for (const CStdStr& line : check.notes()) Print("", line);
    for (const CStdStr& line : check.faults()) Print("wrong: ", line);
    if (!check.faults().empty()) return 1;
    std::printf("KelDirectory %s: nothing is wrong\n", KEL_VERSION);
    return 0;
}

}  // namespace

std::optional<int> AnswerCommandLine(const std::vector<CStdStr>& args) {
    for (size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--version") return PrintVersion();
        if (args[i] == "--help") return PrintHelp();
        if (args[i] == "--check") return Check();
    }
    return std::nullopt;
}
