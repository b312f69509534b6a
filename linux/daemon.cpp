#include "linux/daemon.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

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
