// Unix stream sockets of our services.
#pragma once

#include "linux/descriptor.h"

#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <string>

namespace tavr
{

// Empty for a path that no socket can have: it takes 1 to 107 bytes.
std::optional<sockaddr_un> UnixAddress(const std::string& path);

// A listening, non-blocking socket at `path`, of this owner and mode 0660, in place of one that a program
// left behind. Throws std::runtime_error when somebody listens there, when something else than a socket
// stands there, and when it cannot be made.
Descriptor ListenAt(const std::string& path, uid_t owner, gid_t group);

} // namespace tavr
