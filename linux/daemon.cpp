#include "linux/daemon.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tavr
{

void Misuse(const std::string& text)
{
    std::fprintf(stderr, "%s: %s (see --help)\n", program_invocation_short_name, text.c_str());
    std::exit(2);
}

void Die(const std::string& text)
{
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, text.c_str());
    std::exit(1);
}

bool IsActivated()
{
    const char* pid = std::getenv("LISTEN_PID");
    const char* count = std::getenv("LISTEN_FDS");
    const bool meant = pid != nullptr && count != nullptr && pid == std::to_string(getpid());
    if (meant && std::strcmp(count, "1") != 0) {
        Die("takes exactly one socket");
    }
    return meant;
}

Descriptor PassedListener()
{
    Descriptor passed(kFirstPassed);
    int listening = 0;
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof(int);
    if (getsockopt(kFirstPassed, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 ||
        getsockopt(kFirstPassed, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 ||
        getsockopt(kFirstPassed, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || listening == 0 ||
        domain != AF_UNIX || type != SOCK_STREAM) {
        Die("what was handed over is no listening Unix stream socket");
    }
    if (fcntl(kFirstPassed, F_SETFD, FD_CLOEXEC) != 0 || fcntl(kFirstPassed, F_SETFL, O_NONBLOCK) != 0) {
        Die("cannot use the socket that was handed over");
    }
    return passed;
}

void PrepareProcess(unsigned firstClosed)
{
    close_range(firstClosed, ~0U, 0);
    for (int fd = 0; (fd = open("/dev/null", O_RDWR)) >= 0;) {
        if (fd > STDERR_FILENO) {
            close(fd);
            break;
        }
    }
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    umask(S_IRWXG | S_IRWXO);
}

void OpenLog(const char* name)
{
    openlog(name, LOG_PID | (access("/dev/log", W_OK) == 0 ? 0 : LOG_PERROR), LOG_DAEMON);
}

} // namespace tavr
