#pragma once

#include <string>

namespace tavrdaemon {
class SockConnection { public: bool Recv(std::string& text); /* descriptor, -1 when closed */ };
class DomainSockConnection : public SockConnection {
public:
    explicit DomainSockConnection(const char* path);
    ~DomainSockConnection();
    bool Connect();
    bool Send(const std::string& text);
};
}
