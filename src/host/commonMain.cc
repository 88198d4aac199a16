#include "host/commonMain.h"

#include "foundation/FreeMemory.h"
#include "host/YarModuleBase.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>

namespace {

// A module has a descriptor open for every connection, so it takes all that the system grants it.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Takes the places of the standard descriptors that whoever started the process left closed. Otherwise the log's own
// files would take them, and what is meant for standard output would go there.
void TakeStandardDescriptors() {
    int fd = 0;
    do fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}

}  // namespace

int commonMain(const std::vector<CStdStr>& args) {
    TakeStandardDescriptors();
    RaiseDescriptorLimit();
    yar::KeepLittleFreeMemory();
    const std::unique_ptr<YarModuleBase> module(createYarModuleInstance());
    if (module->init(args)) {
        module->run();
        module->close();
    }
    return 0;
}
