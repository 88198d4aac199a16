#include "foundation/AlternateStack.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace {

// Room for the registers that the system saves there (with the widest of them 11 KiB), and for a handler that formats a
// few lines. Only what is used costs memory.
constexpr size_t smallest = size_t{64} * 1024;

size_t RoundUp(size_t size, size_t unit) { return (size + unit - 1) / unit * unit; }

}  // namespace

AlternateStack::AlternateStack() {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const long advised = sysconf(_SC_SIGSTKSZ);
    const size_t size = RoundUp(std::max(smallest, advised > 0 ? static_cast<size_t>(advised) : 0), page);
    if (sigaltstack(nullptr, &before_) == 0 && !(before_.ss_flags & SS_DISABLE) && before_.ss_size >= size) return;

    const size_t length = size + page;
    void* memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return;
    mprotect(memory, page, PROT_NONE);

    stack_t mine{};
    mine.ss_sp = static_cast<char*>(memory) + page;
    mine.ss_size = size;
    if (sigaltstack(&mine, nullptr) != 0) {
        munmap(memory, length);
        return;
    }
    memory_ = memory;
    length_ = length;
}

AlternateStack::~AlternateStack() {
    if (!memory_) return;
    if (before_.ss_flags & SS_DISABLE) before_.ss_size = 0;
    if (sigaltstack(&before_, nullptr) == 0) munmap(memory_, length_);
}
