#include "platform/SignalContext.h"

#include <signal.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace kel::platform {

namespace {

constexpr greg_t pageSize = 4096;
constexpr int pagesAtMost = 1024;  // the kernel keeps up to 256 free below a stack, and a frame may be larger

greg_t& Register(void* context, int number) { return static_cast<ucontext_t*>(context)->uc_mcontext.gregs[number]; }

// The kernel looks at the mask that it is given before it finds that there is nothing of the kind to do with it.
bool IsReadable(greg_t address) {
    constexpr int nothingToDo = -1;
    constexpr size_t maskSize = 8;
    const int error = errno;
    syscall(SYS_rt_sigprocmask, nothingToDo, address, nullptr, maskSize);
    const bool isReadable = errno != EFAULT;
    errno = error;
    return isReadable;
}

}  // namespace

// As a call instruction does it, so that the interrupted function's frame is found from the call by the rules for that
// function. What it may have left below the stack pointer it does not need any more.
void CallOnReturn(void* context, void (*function)()) {
    greg_t& stack = Register(context, REG_RSP);
    greg_t& instruction = Register(context, REG_RIP);
    stack -= static_cast<greg_t>(sizeof instruction);
    *reinterpret_cast<greg_t*>(stack) = instruction;
    instruction = reinterpret_cast<greg_t>(function);
}

void BringStackIntoReach(void* context) {
    greg_t& stack = Register(context, REG_RSP);
    if (IsReadable(stack)) return;
    greg_t page = stack / pageSize * pageSize;
    for (int i = 0; i < pagesAtMost; ++i) {
        page += pageSize;
        if (IsReadable(page)) {
            stack = page;
            return;
        }
    }
}

}  // namespace kel::platform
