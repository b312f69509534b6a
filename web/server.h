// A worker: serves requests from the listening socket, one at a time, until SIGTERM.
#pragma once

namespace tavr::web
{

enum class Start { First, Again }; // First: this start of the program; Again: in place of a worker that died

// Gives the worker's exit status. SIGTERM has to be blocked; it is let in between requests alone.
int ServeRequests(int listener, Start start);

} // namespace tavr::web
