// Lockdown, the service every phone answers on port 62078: its values,
// pairing, sessions (TLS between StartSession and StopSession) and the
// ports of the services it starts.
#pragma once

#include "device.h"

namespace devsim {

// Serves one lockdown connection until the client says Goodbye or leaves.
void serve_lockdown(int fd, Device& dev);

}  // namespace devsim
