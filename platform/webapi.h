// A client of the local web API: a Unix stream socket that takes one JSON request and gives one JSON answer.
//
// The service judges its callers by the credentials that the kernel tells (SO_PEERCRED), so the ids at
// Connect matter. Every wait has an end that the platform sets. A connection serves one exchange.
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

    bool Connect();

    // Sends one whole request. Never raises SIGPIPE.
    bool Send(const std::string& text);

private:
    std::string path_;
};

} // namespace tavrdaemon
