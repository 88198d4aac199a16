// What the allocator keeps of memory that nobody uses.
#pragma once

namespace kel::platform {

// Returns what is free to the system. Takes milliseconds where much is. From any thread.
void ReturnFreeMemory();

// Has the allocator keep little for itself: as many pools as threads that usually run, and in each of them no more than
// a small reserve. For the whole process, before it starts threads.
void KeepLittleFreeMemory();

}  // namespace kel::platform
