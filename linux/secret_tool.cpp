#include "linux/secret_tool.h"

#include "linux/account_lock.h"
#include "linux/new_file.h"
#include "linux/paths.h"
#include "linux/vault.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>

namespace tavr
{

namespace
{

[[noreturn]] void FailWithErrno(const std::string& what)
{
    throw ToolError(what + ": " + std::strerror(errno)); // NOLINT(concurrency-mt-unsafe): no threads here
}

// Root's or our own, and nobody else can rename or remove our files in it.
bool IsSafeDirectory(const Descriptor& directory)
{
    struct stat what {
    };
    if (fstat(directory.Get(), &what) != 0 || (what.st_uid != 0 && what.st_uid != geteuid())) {
        return false;
    }
    return (what.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (what.st_mode & S_ISVTX) != 0;
}

// What an earlier try of our own left may be replaced, and nothing else.
AtPlace LookAtPlace(const Descriptor& directory, const ToolPath& path)
{
    const std::string shown = path.directory + '/' + path.name;
    struct stat what {
    };
    if (fstatat(directory.Get(), path.name.c_str(), &what, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) {
            FailWithErrno("cannot look at " + shown);
        }
        return AtPlace::Keep;
    }
    if (!S_ISREG(what.st_mode)) {
        throw ToolError(shown + " is there and is not a regular file");
    }
    if (what.st_uid != geteuid()) {
        throw ToolError(shown + " belongs to somebody else");
    }
    if (what.st_nlink != 1) {
        throw ToolError(shown + " has another name too");
    }
    return AtPlace::Replace;
}

} // namespace

std::optional<ToolPath> ParseToolPath(std::string_view path)
{
    if (path.size() >= PATH_MAX || path.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    const size_t slash = path.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    const std::string_view prefix = kWaitingFilePrefix;
    if (!name.starts_with(prefix)) {
        return std::nullopt;
    }
    ToolPath parsed;
    std::from_chars(name.data() + prefix.size(), name.data() + name.size(), parsed.account);
    if (name != kWaitingFilePrefix + std::to_string(parsed.account)) {
        return std::nullopt;
    }
    parsed.name = name;
    parsed.directory = slash == std::string_view::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    return parsed;
}

std::string MakeWaitingSecret(const ToolPath& path)
{
    const Descriptor directory = OpenDirectoryNoLinks(path.directory);
    if (!directory) {
        FailWithErrno("cannot open the directory " + path.directory);
    }
    if (!IsSafeDirectory(directory)) {
        throw ToolError("others could exchange files in the directory " + path.directory);
    }
    const Descriptor lock = LockAccount(path.account, LockWait::AWhile);
    if (!lock) {
        FailWithErrno(std::string("cannot lock the account in ") + kAccountLockFile);
    }
    const AtPlace atPlace = LookAtPlace(directory, path);
    const SecretFileText references = MakeReferences();
    NewFile file(directory, path.name);
    if (!file.Write(RenderSecretFile(references))) {
        FailWithErrno("cannot write in " + path.directory);
    }
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(path.account, references, secret);
    if (!file.PutInPlace(atPlace)) {
        const int reason = errno;
        RetireWaitingSecret(path.account);
        errno = reason;
        FailWithErrno("cannot make " + path.directory + '/' + path.name);
    }
    return references.secret;
}

} // namespace tavr
