#include "host/commonMain.h"

#include "host/YarModuleBase.h"

#include <sys/resource.h>

#include <memory>

namespace {

// A module has a descriptor open for every connection, so it takes all that the system grants it.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int commonMain(const std::vector<CStdStr>& args) {
    RaiseDescriptorLimit();
    const std::unique_ptr<YarModuleBase> module(createYarModuleInstance());
    if (module->init(args)) {
        module->run();
        module->close();
    }
    return 0;
}
