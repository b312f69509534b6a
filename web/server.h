// A worker: serves requests from the listening socket, one at a time, until SIGTERM.
#pragma once

#include <cstddef>

namespace tavr::web
{

struct Serving {
    int listener;
    std::size_t mostMemory; // bytes; a worker that holds more after a request ends, to be replaced
};

// Gives the worker's exit status. SIGTERM has to be blocked; it is let in between requests alone.
int ServeRequests(const Serving& serving);

} // namespace tavr::web
