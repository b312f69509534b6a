#include "linux/unix_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace tavr
{

namespace
{

constexpr int kBacklog = 1024;

const sockaddr* Generic(const sockaddr_un& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

[[noreturn]] void ThrowErrno(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::generic_category().message(errno));
}

Descriptor NewSocket()
{
    Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!made) {
        ThrowErrno("cannot make a socket");
    }
    return made;
}

// A socket that nobody listens on any more is left over from a program that was killed.
void RemoveLeftOver(const sockaddr_un& address)
{
    struct stat entry {
    };
    if (lstat(address.sun_path, &entry) != 0) {
        return; // what else is wrong with the path, bind() tells
    }
    if (!S_ISSOCK(entry.st_mode)) {
        throw std::runtime_error(std::string(address.sun_path) + " is no socket");
    }
    const Descriptor probe = NewSocket();
    if (connect(probe.Get(), Generic(address), sizeof address) == 0 || errno == EAGAIN) {
        throw std::runtime_error(std::string("another one listens on ") + address.sun_path);
    }
    unlink(address.sun_path);
}

} // namespace

std::optional<sockaddr_un> UnixAddress(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return std::nullopt;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

Descriptor ListenAt(const std::string& path, uid_t owner, gid_t group)
{
    const std::optional<sockaddr_un> address = UnixAddress(path);
    if (!address) {
        throw std::runtime_error("no socket can have the path " + path);
    }
    RemoveLeftOver(*address);
    Descriptor listener = NewSocket();
    const mode_t before = umask(S_IXUSR | S_IXGRP | S_IRWXO); // the mode is right from the first moment on
    const bool listening = bind(listener.Get(), Generic(*address), sizeof *address) == 0 &&
                           lchown(address->sun_path, owner, group) == 0 &&
                           listen(listener.Get(), kBacklog) == 0;
    const int error = errno;
    umask(before);
    if (!listening) {
        errno = error;
        ThrowErrno("cannot listen on " + path);
    }
    return listener;
}

} // namespace tavr
