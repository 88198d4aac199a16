// The program KelDirectory.
#include "directory/CommandLine.h"
#include "directory/KelDirectory.h"
#include "host/commonMain.h"
#include "platform/ProcessPaths.h"

YarModuleBase* createYarModuleInstance() { return new KelDirectory; }

int main(int argc, char** argv) {
    const std::vector<CStdStr> args(argv, argv + argc);
    if (const std::optional<int> status = AnswerCommandLine(args)) return *status;
    kel::platform::EnsureSystemFolders();
    return commonMain(args);
}
