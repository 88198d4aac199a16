#include "rpc/values/KelException.h"

KelException::~KelException() = default;
KelInvalidParameterException::~KelInvalidParameterException() = default;
