// Places to wait for mail servers: as many as half of the workers, and at least one. So a mail server that
// hangs leaves the other workers to everybody else.
//
// A place is a lock on one byte of a file that the parent opens and every worker inherits. The kernel gives
// back those of a worker that dies.
#pragma once

namespace tavr::web
{

// For the parent, before its first worker. False, with errno set, when the file cannot be made.
bool MakeMailPlaces(int workers);

// One of the places, if one is free, until the end of the scope. At most one at a time in a worker: its own
// locks are no obstacle to it.
class MailPlace
{
public:
    MailPlace();
    ~MailPlace();
    MailPlace(const MailPlace&) = delete;
    MailPlace& operator=(const MailPlace&) = delete;

    [[nodiscard]] bool Taken() const { return place_ >= 0; }

private:
    int place_ = -1;
};

} // namespace tavr::web
