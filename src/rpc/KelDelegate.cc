#include "rpc/KelDelegate.h"

KelSatelliteDelegateGeneric::~KelSatelliteDelegateGeneric() = default;
