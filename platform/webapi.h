// A client of the local web API: a Unix stream socket that takes one JSON request and gives one JSON answer.
//
// Client and service are both the platform's, and so is the form of a message on the wire; callers see whole
// texts alone. (Ours: 4 bytes of length, the most significant first, then that many bytes of UTF-8, 1 MiB at
// most; the service closes the connection after its answer.) An answer is one JSON object with the boolean
// "success" and, when that is true and the call has something to tell, the object "data"; else the object
// "error" with the number "code".
//
// The service judges its callers by the credentials that the kernel tells (SO_PEERCRED), so the effective ids
// at Connect matter, and nothing in the message does: "runner" is an argument. Every wait has an end that the
// platform sets, for all of one operation together. A connection serves one exchange. Failing calls set the
// error record (platform/core.h).
#pragma once

#include <string>

namespace tavrdaemon
{

class SockConnection
{
public:
    // Receives one whole answer. False, with `text` untouched, on failure, on silence, and for an answer that
    // is too large or was cut.
    bool Recv(std::string& text);

protected:
    int descriptor_ = -1; // -1: closed
};

class DomainSockConnection : public SockConnection
{
public:
    // Connects to nothing yet; keeps a copy of `path`.
    explicit DomainSockConnection(const char* path);

    // Closes the descriptor when there is one.
    ~DomainSockConnection();

    DomainSockConnection(const DomainSockConnection&) = delete;
    DomainSockConnection& operator=(const DomainSockConnection&) = delete;

    // False when nobody listens there, when the listener's queue stays full, and for a path that no socket
    // can have.
    bool Connect();

    // Sends one whole request; false when it could not be handed over whole, or is none (empty, too large).
    // Never raises SIGPIPE.
    bool Send(const std::string& text);

private:
    std::string path_;
};

} // namespace tavrdaemon
