// tavr-webapid: takes the socket and the one lock, gives up root for good, and serves.
#include "linux/daemon.h"
#include "linux/descriptor.h"
#include "linux/ids.h"
#include "linux/ldap.h"
#include "linux/paths.h"
#include "linux/unix_socket.h"
#include "webapi/loop.h"
#include "webapi/smtp.h"

#include <fcntl.h>
#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <sodium.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

namespace
{

using tavr::Descriptor;
using tavr::Die;
using tavr::Misuse;

constexpr char kUsage[] = R"(Usage: tavr-webapid [OPTION]...
Serves the local web API on a Unix socket and does the background work: it sends the mails that wait, clears old
rows and refreshes the copy of the domain's accounts and groups.

  --socket PATH    listening socket (default /run/tavrscgi-fastapi.sock)
  --help           this text
  --version        the version

Starts as root, or as tavr-web where it may make the socket or is handed one (socket activation); runs as tavr-web
alone. Ends with SIGTERM. See tavr-webapid(8).
)";

std::string ReadSocketPath(int argc, char** argv)
{
    static constexpr option kOptions[] = {{"socket", required_argument, nullptr, 's'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {"version", no_argument, nullptr, 'v'},
                                          {}};
    std::string path = tavr::kWebApiSocket;
    for (int c = 0; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        switch (c) {
        case 's':
            path = optarg;
            if (!tavr::UnixAddress(path)) {
                Misuse("--socket takes a path of 1 to 107 bytes");
            }
            break;
        case 'h':
            std::fputs(kUsage, stdout);
            std::exit(0);
        case 'v':
            std::puts("tavr-webapid " TAVR_VERSION);
            std::exit(0);
        default:
            Misuse("wrong option");
        }
    }
    if (optind != argc) {
        Misuse("no arguments are taken");
    }
    return path;
}

// Two services would send every mail twice. The lock goes with the process, however it ends.
void TakeLock()
{
    const tavr::EffectiveIds service = tavr::EffectiveIds::Service();
    Descriptor lock(
        open(tavr::kWebApiLockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    if (!service.Changed() || !lock) {
        Die(std::string("cannot open ") + tavr::kWebApiLockFile + ": " + std::strerror(errno));
    }
    if (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        Die("another one runs");
    }
    static_cast<void>(lock.Release());
}

// Real, effective and saved ids: there is no way back.
void GiveUpRoot(const passwd& service)
{
    if ((geteuid() == 0 && setgroups(0, nullptr) != 0) ||
        setresgid(service.pw_gid, service.pw_gid, service.pw_gid) != 0 ||
        setresuid(service.pw_uid, service.pw_uid, service.pw_uid) != 0 || setuid(0) == 0 ||
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_DUMPABLE, 0) != 0) {
        Die("cannot give up root");
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::string path = ReadSocketPath(argc, argv);
    const passwd* found = getpwnam(tavr::kServiceUser);
    if (found == nullptr || found->pw_uid == 0) {
        Die(std::string("no account ") + tavr::kServiceUser);
    }
    const passwd service = *found;
    if (geteuid() != 0 && (geteuid() != service.pw_uid || getuid() != service.pw_uid)) {
        Die("has to be started as root or tavr-web");
    }
    const bool activated = tavr::IsActivated();
    tavr::PrepareProcess(activated ? tavr::kFirstPassed + 1 : tavr::kFirstPassed);
    tavr::OpenLog("tavr-webapid");
    tavr::IgnoreLdapConfiguration();
    if (sodium_init() < 0 || !tavr::webapi::StartMailTransfers()) {
        Die("libraries cannot be started");
    }

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);

    try {
        TakeLock();
        Descriptor listener =
            activated ? tavr::PassedListener() : tavr::ListenAt(path, service.pw_uid, service.pw_gid);
        GiveUpRoot(service);
        tavr::webapi::Serve(std::move(listener), service.pw_uid);
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "ends: %s", error.what());
        Die(error.what());
    }
    return 0;
}
