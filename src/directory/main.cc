// The program KelDirectory.
#include "directory/KelDirectory.h"
#include "host/commonMain.h"
#include "platform/ProcessPaths.h"

YarModuleBase* createYarModuleInstance() { return new KelDirectory; }

int main(int argc, char** argv) {
    kel::platform::EnsureSystemFolders();
    return commonMain(std::vector<CStdStr>(argv, argv + argc));
}
