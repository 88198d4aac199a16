#include "foundation/FreeMemory.h"

#include "platform/FreeMemory.h"

namespace yar {

void ReturnFreeMemory() { kel::platform::ReturnFreeMemory(); }

void KeepLittleFreeMemory() { kel::platform::KeepLittleFreeMemory(); }

}  // namespace yar
