#include "rpc/satellite/KelDelegate.h"

KelSatelliteDelegateGeneric::~KelSatelliteDelegateGeneric() = default;
