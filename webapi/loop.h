// The service's own thread: waits for callers, transfers, the clock and the end, and gives each its turn.
#pragma once

#include "linux/descriptor.h"

#include <sys/types.h>

namespace tavr::webapi
{

// Serves until SIGTERM or SIGINT, which have to be blocked; running calls and transfers are then brought to
// their end, for kDrainSeconds at most or until a second signal. `listener` listens on a Unix stream socket
// and does not block. Throws std::exception when it cannot begin.
void Serve(Descriptor listener, uid_t service);

} // namespace tavr::webapi
