// What every area of the library stands on: the one form of a log line, owners of what the system and the
// platform hand out, the two ways of raising the effective ids for a stretch, and the few things that several
// areas write, or read off a name or an id. Not installed.
//
// Both ways of raising rights change the effective ids of the whole process and leave the real and the saved
// ones alone. Neither throws, and both give the ids back on every way out of their scope.
#pragma once

#include "platform/core.h"
#include "platform/users.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <json/value.h>
#include <json/writer.h>
#include <pwd.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

// --- log lines ---

// One line for the system log: source file and line first, then the text. The file name is bare.
#define OTP_LOG(priority, file, line, format, ...)                                                           \
    syslog((priority), "%s:%d " format, (file), (line)__VA_OPT__(, ) __VA_ARGS__)

namespace otp
{

constexpr int kAuthError = LOG_AUTH | LOG_ERR;
constexpr int kAuthCritical = LOG_AUTH | LOG_CRIT;
constexpr int kAuthDebug = LOG_AUTH | LOG_DEBUG;

constexpr std::size_t kErrorTextSize = 1024;
constexpr std::size_t kPathSize = 4096;

// The platform's last error, read when the line is about to be written.
struct PlatformError {
    unsigned int code = static_cast<unsigned int>(KLIBCErrGet());
    const char* file = KLIBCErrorGetFile();
    int line = KLIBCErrorGetLine();
};

// --- owners ---

struct FreeMalloc {
    void operator()(void* memory) const noexcept { std::free(memory); }
};
using MallocText = std::unique_ptr<char, FreeMalloc>;

struct CloseFile {
    void operator()(FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

struct FreeUser {
    void operator()(TAVRUser* user) const noexcept { TAVRUserFree(user); }
};
using UserRecord = std::unique_ptr<TAVRUser, FreeUser>;

// Empty when the record cannot be read; the platform error record says why.
inline UserRecord FindUser(const char* name)
{
    TAVRUser* user = nullptr;
    return TAVRUserGet(name, &user) < 0 ? UserRecord() : UserRecord(user);
}

// --- effective ids of a named account ---

constexpr uid_t kSameUid = static_cast<uid_t>(-1);
constexpr gid_t kSameGid = static_cast<gid_t>(-1);

// Runs the rest of the block with the effective ids of an account of the system. The caller asks Switched()
// at once and does not go on without it.
class RunAsGuard
{
public:
    // `file` and `line` stand in the log lines of both ends; `file` is kept.
    RunAsGuard(const char* user, const char* file, int line) noexcept
        : savedUid_(geteuid()), savedGid_(getegid()), file_(file), line_(line)
    {
        switched_ = SwitchTo(user);
        if (!switched_) {
            OTP_LOG(kAuthError, file_, line_, "ERROR: %s(\"%s\")", scopeName_, user);
        }
    }

    ~RunAsGuard()
    {
        if (!Change(geteuid(), getegid(), savedUid_, savedGid_)) {
            OTP_LOG(kAuthCritical, file_, line_, "ERROR: ~%s(%d, %d)", scopeName_,
                    static_cast<int>(savedUid_), static_cast<int>(savedGid_));
        }
    }

    RunAsGuard(const RunAsGuard&) = delete;
    RunAsGuard& operator=(const RunAsGuard&) = delete;

    [[nodiscard]] bool Switched() const { return switched_; }

private:
    bool SwitchTo(const char* user) const noexcept
    {
        long size = sysconf(_SC_GETPW_R_SIZE_MAX);
        if (size == -1) {
            size = 16384;
        }
        char reason[kErrorTextSize] = {};
        const MallocText texts(static_cast<char*>(std::malloc(static_cast<std::size_t>(size))));
        if (!texts) {
            OTP_LOG(kAuthError, file_, line_, "ERROR: malloc(%ld) [%s]", size,
                    strerror_r(errno, reason, sizeof reason));
            return false;
        }
        passwd entry{};
        passwd* found = nullptr;
        const int status = getpwnam_r(user, &entry, texts.get(), static_cast<std::size_t>(size), &found);
        if (found == nullptr) {
            OTP_LOG(kAuthError, file_, line_, "ERROR: getpwnam(%s) [%s]", user,
                    status == 0 ? "Name not found" : strerror_r(status, reason, sizeof reason));
            return false;
        }
        return Change(geteuid(), getegid(), entry.pw_uid, entry.pw_gid);
    }

    // Root first, if neither end is root: nobody else may change the group.
    static bool Change(uid_t fromUid, gid_t fromGid, uid_t toUid, gid_t toGid) noexcept
    {
        if (fromUid == toUid && fromGid == toGid) {
            return true;
        }
        if (fromUid != toUid && fromUid != 0 && setresuid(kSameUid, 0, kSameUid) < 0) {
            return false;
        }
        if (toGid != kSameGid && fromGid != toGid && setresgid(kSameGid, toGid, kSameGid) != 0) {
            return false;
        }
        return toUid == kSameUid || fromUid == toUid || setresuid(kSameUid, toUid, kSameUid) == 0;
    }

    uid_t savedUid_;
    gid_t savedGid_;
    const char* file_;
    int line_;
    const char* scopeName_ = "IF_RUN_AS2";
    bool switched_ = false;
};

// --- the root critical section ---

// Raises the effective ids to root's for the rest of the block. No lock: the name is for the stretch that
// runs with raised rights. A stretch whose ids could not be raised runs all the same, with those that the
// process has; the log tells.
class RootCriticalSection
{
public:
    // The lines stand in the log lines of entering and of leaving; `file` is kept.
    RootCriticalSection(const char* file, int enterLine, int leaveLine) noexcept
        : savedUid_(geteuid()), savedGid_(getegid()), file_(file), leaveLine_(leaveLine)
    {
        if (Enter(enterLine)) {
            errno = 0;
            return;
        }
        errno = EPERM;
        OTP_LOG(kAuthError, file_, enterLine, "ERROR: ENTERCriticalSection");
        errno = EPERM; // writing the line may have changed it
    }

    ~RootCriticalSection()
    {
        if (Leave(leaveLine_)) {
            errno = 0;
            return;
        }
        errno = EPERM;
        OTP_LOG(kAuthError, file_, leaveLine_, "ERROR: LEAVECriticalSection");
        errno = EPERM;
    }

    RootCriticalSection(const RootCriticalSection&) = delete;
    RootCriticalSection& operator=(const RootCriticalSection&) = delete;

private:
    bool Enter(int line) const noexcept
    {
        if (savedGid_ != 0 && !SetGid(0, line)) {
            return false;
        }
        return savedUid_ == 0 || SetUid(0, line);
    }

    // The user goes to root first, else the group could not change; it is given back last.
    bool Leave(int line) const noexcept
    {
        const bool sameUid = geteuid() == savedUid_;
        const bool sameGid = getegid() == savedGid_;
        if (!sameUid && !SetUid(0, line)) {
            return false;
        }
        if (!sameGid && !SetGid(savedGid_, line)) {
            return false;
        }
        return sameUid || SetUid(savedUid_, line);
    }

    bool SetUid(uid_t uid, int line) const noexcept
    {
        return Report("resuid", setresuid(kSameUid, uid, kSameUid) == 0, static_cast<int>(uid), line);
    }

    bool SetGid(gid_t gid, int line) const noexcept
    {
        return Report("resgid", setresgid(kSameGid, gid, kSameGid) == 0, static_cast<int>(gid), line);
    }

    // Tells of a failure, and of every id that has become root's. Gives `done` back.
    bool Report(const char* call, bool done, int id, int line) const noexcept
    {
        if (!done) {
            char reason[kErrorTextSize] = {};
            OTP_LOG(kAuthError, file_, line, "ERROR: set%s(%d, %d, %d) [%s]", call, -1, id, -1,
                    strerror_r(errno, reason, sizeof reason));
        } else if (id == 0) {
            OTP_LOG(kAuthDebug, file_, line, "WARNING: set%s(%d, %d, %d)", call, -1, 0, -1);
        }
        return done;
    }

    uid_t savedUid_;
    gid_t savedGid_;
    const char* file_;
    int leaveLine_;
};

// --- what several areas share ---

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

// The form in which files are written. That of the old writer: its successor's differs, and others see it.
inline std::string CompactText(const Json::Value& value)
{
    return Json::FastWriter().write(value);
}

#pragma GCC diagnostic pop

// The kind of an account, as the form of its name tells it.
enum class AccountKind { Local, Domain, Ldap };

inline AccountKind KindOfName(const char* user) noexcept
{
    if (std::strchr(user, '\\') != nullptr) {
        return AccountKind::Domain;
    }
    return std::strchr(user, '@') != nullptr ? AccountKind::Ldap : AccountKind::Local;
}

// Where the secret of an account waits until its first code has been confirmed.
inline void FormatTmpSecretPath(char (&path)[kPathSize], unsigned int uid) noexcept
{
    std::snprintf(path, sizeof path, "%s/OTP_%u", "/tmp", uid);
}

} // namespace otp
