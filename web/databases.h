// The databases that requests need. Opening them is a good part of a start, so it happens when nobody
// waits, or for the first request that has something to look up.
#pragma once

namespace tavr::web
{

// For the parent, before its first worker: what the workers agree with about who clears. False, with errno
// set, when it cannot be made. A process that works for itself alone makes none, and clears nothing.
bool MakeClearing();

// Opens what is not open, with lowered ids, before anything that raises them. The first worker that comes
// here drops the secrets that waited for their confirmation when the program last ended, the others wait for
// that, and the next one takes over from one that dies meanwhile: so nobody is served from the databases
// before. Throws DatabaseError.
void OpenDatabases();

} // namespace tavr::web
