// The clock by which the system measures spans of time.
#pragma once

#include <cstdint>

namespace kel::platform {

// Milliseconds of the monotonic clock, the low 32 bits: it wraps around every 49.7 days, so two readings are compared
// by the sign of their difference taken as int32_t. From any thread.
uint32_t UpTimeMs();

}  // namespace kel::platform
