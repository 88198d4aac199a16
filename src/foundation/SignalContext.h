// The platform's hold on an interrupted thread, for the crash handler: see platform/SignalContext.h.
#pragma once

#include "platform/SignalContext.h"

namespace kel {

using platform::BringStackIntoReach;
using platform::CallOnReturn;

}  // namespace kel
