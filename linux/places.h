// Places to wait for servers that are not ours: for mail servers, and for directories, as many each as half
// of the workers, and at least one. So a server that hangs leaves the other workers to everybody else.
//
// A place is a lock on one byte of a file that the parent opens and every worker inherits. The kernel gives
// back those of a worker that dies.
#pragma once

#include <chrono>
#include <optional>

namespace tavr
{

enum class WaitingFor { MailServer, Directory };

// For the parent, before its first worker. False, with errno set, when the file cannot be made. A process
// that works for itself alone makes none, and finds a place whenever it looks for one.
bool MakePlaces(int workers);

// One of the places, if one is free now or within some time, until the end of the scope. At most one of a
// kind at a time in a worker: its own locks are no obstacle to it.
class Place
{
public:
    explicit Place(WaitingFor what, std::chrono::milliseconds longest = std::chrono::milliseconds(0));
    ~Place();
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    [[nodiscard]] bool Taken() const { return taken_; }

private:
    bool taken_ = false;
    std::optional<int> byte_; // locked
};

// Takes a place to wait for directories for the current request, unless it has one: whichever directories it
// asks, it has the one until it ends. Throws DirectoryError (busy) when none becomes free within half a
// second; the same request does not wait again.
void TakeDirectoryPlace();

} // namespace tavr
