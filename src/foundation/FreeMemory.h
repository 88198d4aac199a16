// How much memory that nobody uses stays with the process.
#pragma once

namespace yar {

// Returns what is free to the system. Takes milliseconds where much is. Any thread.
void ReturnFreeMemory();

// Has the process keep little of what it frees. For main, before it starts threads.
void KeepLittleFreeMemory();

}  // namespace yar
