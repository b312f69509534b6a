// Making the machine key. Apart from reading it, so that the secret tool does not carry what needs root.
#include "linux/ids.h"
#include "linux/machine_key.h"
#include "linux/mail_accounts.h"
#include "linux/mail_queue.h"
#include "linux/paths.h"
#include "linux/secret_file.h"
#include "linux/vault.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

namespace tavr
{

namespace
{

constexpr mode_t kKeyMode = S_IRUSR | S_IRGRP;

bool WriteKey(int fd)
{
    std::array<unsigned char, MachineKey::kBytes> key;
    randombytes_buf(key.data(), key.size());
    std::array<char, 2 * MachineKey::kBytes + 1> digits;
    sodium_bin2hex(digits.data(), digits.size(), key.data(), key.size());
    digits.back() = '\n';
    const bool done = write(fd, kMachineKeyHead, std::strlen(kMachineKeyHead)) ==
                          static_cast<ssize_t>(std::strlen(kMachineKeyHead)) &&
                      write(fd, digits.data(), digits.size()) == static_cast<ssize_t>(digits.size());
    sodium_memzero(key.data(), key.size());
    sodium_memzero(digits.data(), digits.size());
    return done;
}

// A file without a name until it is whole; then linked, which never goes over anything.
bool MakeKeyFile(const Descriptor& directory, const std::string& name)
{
    const Descriptor file(openat(directory.Get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kKeyMode));
    if (!file || fchown(file.Get(), 0, ServiceGroup()) != 0 || fchmod(file.Get(), kKeyMode) != 0 ||
        !WriteKey(file.Get()) || fsync(file.Get()) != 0) {
        return false;
    }
    return linkat(file.Get(), "", directory.Get(), name.c_str(), AT_EMPTY_PATH) == 0 &&
           fsync(directory.Get()) == 0;
}

// A key that others could write may be another one by now: that is left for a person to judge.
MakeKey MendKeyFile(const Descriptor& directory, const std::string& name)
{
    const Descriptor file(
        openat(directory.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat entry {
    };
    constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
    if (!file || fstat(file.Get(), &entry) != 0 || !S_ISREG(entry.st_mode) || entry.st_uid != 0 ||
        (entry.st_mode & kOthersWrite) != 0) {
        return MakeKey::NoKey;
    }
    const gid_t group = ServiceGroup();
    if (entry.st_gid == group && (entry.st_mode & 07777) == kKeyMode) {
        return MakeKey::Kept;
    }
    return fchown(file.Get(), 0, group) == 0 && fchmod(file.Get(), kKeyMode) == 0 ? MakeKey::Mended
                                                                                  : MakeKey::Failed;
}

} // namespace

bool IsAnythingSealed()
{
    const EffectiveIds service = EffectiveIds::Service();
    if (!service.Changed()) {
        throw DatabaseError(0, "the service's ids cannot be taken");
    }
    return HoldsSealedRows() || HasSealedMails() || HasSealedPasswords();
}

MakeKey CreateMachineKey()
{
    if (geteuid() != 0) {
        return MakeKey::NotRoot;
    }
    const std::string path = kMachineKeyFile;
    const size_t slash = path.rfind('/');
    const Descriptor parts = OpenDirectoryNoLinks(path.substr(0, slash));
    const Descriptor directory(parts ? openat(parts.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
    const std::string name = path.substr(slash + 1);
    if (!directory || sodium_init() < 0) {
        return MakeKey::Failed;
    }
    if (faccessat(directory.Get(), name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
        const MakeKey done = MendKeyFile(directory, name);
        const bool isGood = done == MakeKey::Kept || done == MakeKey::Mended;
        return isGood && FaultIn([] { MachineKey::Read(); }) != Fault::None ? MakeKey::NoKey : done;
    }
    if (IsAnythingSealed()) {
        return MakeKey::RowsSealed;
    }
    return MakeKeyFile(directory, name) ? MakeKey::Made : MakeKey::Failed;
}

} // namespace tavr
