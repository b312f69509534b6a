// A worker: serves requests from the listening socket, one at a time, until SIGTERM.
#pragma once

#include <cstddef>

namespace tavr::web
{

enum class Start { First, Again }; // First: this start of the program; Again: in place of a worker that died

struct Serving {
    int listener;
    Start start;
    std::size_t mostMemory; // bytes; a worker that holds more after a request ends, to be replaced
};

// Gives the worker's exit status. SIGTERM has to be blocked; it is let in between requests alone.
int ServeRequests(const Serving& serving);

} // namespace tavr::web
