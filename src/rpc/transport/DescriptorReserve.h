// Descriptors that connections leave to everything else that a process opens, files above all.
#pragma once

namespace kel::transport {

// Whether a connection that got this descriptor took it out of the reserve.
bool IsOfReserve(int descriptor);

// Whether the next one would.
bool ReserveIsNext();

}  // namespace kel::transport
