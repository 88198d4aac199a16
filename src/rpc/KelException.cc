#include "rpc/KelException.h"

KelException::~KelException() = default;
KelInvalidParameterException::~KelInvalidParameterException() = default;
