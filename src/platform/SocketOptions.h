// Options of TCP sockets that every system has under names of its own.
#pragma once

namespace kel::platform {

// Has the system end the connection once its peer has not acknowledged anything for `seconds`, also while nothing is
// sent. Best effort: a socket that does not take the options is left as it is.
void GiveUpOnDeadPeers(int socket, unsigned seconds);

}  // namespace kel::platform
