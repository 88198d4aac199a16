// The clock of deadlines: monotonic, in milliseconds.
#pragma once

#include <cstdint>

namespace yar {

// Milliseconds since the system started, the low 32 bits: compare two of them by their signed difference. Any thread.
uint32_t UpTimeMs();

}  // namespace yar
