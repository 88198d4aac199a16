#include "foundation/UpTime.h"

#include "platform/UpTime.h"

namespace yar {

uint32_t UpTimeMs() { return kel::platform::UpTimeMs(); }

}  // namespace yar
