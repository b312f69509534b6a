// Folders and files that everything else stands on. Whatever is there already is left as it is but for owner
// and mode, and links are never followed into a folder that is not root's.
#include "cli/commands.h"
#include "cli/console.h"
#include "linux/database.h"
#include "linux/descriptor.h"
#include "linux/ids.h"
#include "linux/machine_key.h"
#include "linux/new_file.h"
#include "linux/paths.h"
#include "linux/policy_file.h"
#include "linux/system_accounts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tavr::console
{

namespace
{

constexpr char kSettingsTarget[] = "/etc/tavr/tavrinfo.conf";
constexpr char kSettingsLink[] = "tavr/tavrinfo.conf"; // as seen from /etc
constexpr char kFirstSettings[] = "# Settings of two-step sign-in, lines key=\"value\".\n"
                                  "maillang=\"enu\"\n";

struct Ids {
    uid_t uid;
    gid_t gid;
};

Json::Value steps(Json::arrayValue);

void Report(const char* what, const std::string& path)
{
    Say(std::string(what) + ' ' + path);
    Json::Value step;
    step["did"] = what;
    step["path"] = path;
    steps.append(step);
}

[[noreturn]] void Fail(const std::string& path, const std::string& reason)
{
    throw Failure(Exit::Failed, "setup_failed", path + ": " + reason);
}

[[noreturn]] void FailWithErrno(const std::string& path)
{
    Fail(path, std::generic_category().message(errno));
}

// Puts owner and mode right. True when they were not.
bool Mend(const std::string& path, int fd, Ids owner, mode_t mode)
{
    struct stat entry {
    };
    if (fstat(fd, &entry) != 0) {
        FailWithErrno(path);
    }
    if (entry.st_uid == owner.uid && entry.st_gid == owner.gid && (entry.st_mode & 07777) == mode) {
        return false;
    }
    if ((entry.st_uid != owner.uid || entry.st_gid != owner.gid) && fchown(fd, owner.uid, owner.gid) != 0) {
        FailWithErrno(path);
    }
    if (fchmod(fd, mode) != 0) {
        FailWithErrno(path);
    }
    return true;
}

void MakeFolder(const std::string& path, Ids owner, mode_t mode)
{
    const bool made = mkdir(path.c_str(), mode) == 0;
    if (!made && errno != EEXIST) {
        FailWithErrno(path);
    }
    const Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) {
        FailWithErrno(path);
    }
    const bool mended = Mend(path, folder.Get(), owner, mode);
    Report(made ? "made" : mended ? "mended" : "kept", path);
}

// Whole or not at all: the next set-up would keep an incomplete one. False: something stands there.
bool PutFile(const std::string& path, mode_t mode, std::string_view content)
{
    const size_t slash = path.rfind('/');
    const Descriptor folder(
        open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    NewFile file(folder, path.substr(slash + 1), mode);
    if (!folder || !file.Write(content)) {
        FailWithErrno(path);
    }
    const bool done = file.PutInPlace(AtPlace::Keep);
    if (!done && errno != EEXIST) {
        FailWithErrno(path);
    }
    return done;
}

// A file that is there keeps its content.
void MakeFile(const std::string& path, Ids owner, mode_t mode, std::string_view content)
{
    struct stat entry {
    };
    const bool made = lstat(path.c_str(), &entry) != 0 && errno == ENOENT && PutFile(path, mode, content);
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file || fstat(file.Get(), &entry) != 0) {
        FailWithErrno(path);
    }
    if (!S_ISREG(entry.st_mode)) {
        Fail(path, "is no regular file");
    }
    const bool mended = Mend(path, file.Get(), owner, mode);
    Report(made ? "made" : mended ? "mended" : "kept", path);
}

void LinkSettings()
{
    char target[64] = {};
    if (symlink(kSettingsLink, kSettingsFile) == 0) {
        Report("made", kSettingsFile);
        return;
    }
    if (errno != EEXIST) {
        FailWithErrno(kSettingsFile);
    }
    const ssize_t size = readlink(kSettingsFile, target, sizeof target - 1);
    if (size < 0 || (std::strcmp(target, kSettingsLink) != 0 && std::strcmp(target, kSettingsTarget) != 0)) {
        Fail(kSettingsFile, std::string("must be a link to ") + kSettingsTarget +
                                "; move what is there to that place and try again");
    }
    Report("kept", kSettingsFile);
}

void MakeRootsPart(Ids service)
{
    const EffectiveIds ids = EffectiveIds::Root();
    if (!ids.Changed()) {
        throw Failure(Exit::NotAllowed, "not_root", "set-up must be run by root");
    }
    constexpr Ids root{0, 0};
    MakeFolder(kConfigDir, root, 0755);
    MakeFile(kSettingsTarget, root, 0644, kFirstSettings);
    LinkSettings();
    MakeFolder("/usr/tavr", root, 0755);
    MakeFolder(kDataDir, service, 0755);
    MakeFolder(kStateDir, service, 0700);
    MakeFolder(kRunDir, root, 0755);
}

// A file that is gone may have picked somebody: its last good copy goes before an empty one.
void MakePolicyFile(Ids service)
{
    if (!PolicyReading().Usable()) {
        Fail(kPolicyFile, "cannot be used, see the log; put back one from a backup, or {} for no picks");
    }
    MakeFile(kPolicyFile, service, 0644, "{}\n");
    const PolicyReading takesCopy;
}

void Open(const char* path, Database& (*open)())
{
    try {
        open();
    } catch (const DatabaseError& error) {
        Fail(path, error.what());
    }
    Report("opened", path);
}

// With the service's ids: the folders are its own, and what stands in them may have been put there by it.
void MakeServicesPart(Ids service)
{
    MakeFolder(kPreferenceDir, service, 0700);
    MakePolicyFile(service);
    Open(kAccountsDatabase, AccountsDatabase);
    if (AreSystemAccounts()) {
        Open(kSystemAccountsDatabase, SystemAccountsDatabase);
    }
    Open(kSigninDatabase, SigninDatabase);
    Open(kMailDatabase, MailDatabase);
}

void MakeKey()
{
    const EffectiveIds ids = EffectiveIds::Root();
    switch (CreateMachineKey()) {
    case tavr::MakeKey::Made:
        Report("made", kMachineKeyFile);
        return;
    case tavr::MakeKey::Kept:
        Report("kept", kMachineKeyFile);
        return;
    case tavr::MakeKey::Mended:
        Report("mended", kMachineKeyFile);
        return;
    case tavr::MakeKey::RowsSealed:
        Fail(kMachineKeyFile,
             "is missing while there are secrets sealed with it; bring it back from a backup");
    case tavr::MakeKey::NotRoot:
        throw Failure(Exit::NotAllowed, "not_root", "set-up must be run by root");
    case tavr::MakeKey::NoKey:
        Fail(kMachineKeyFile, "is no key, or others than root can write it: see tavrctl doctor");
    case tavr::MakeKey::Failed:
        FailWithErrno(kMachineKeyFile);
    }
}

} // namespace

void SetUp()
{
    const Ids service{geteuid(), getegid()};
    MakeRootsPart(service);
    MakeServicesPart(service);
    MakeKey();
    Json::Value answer;
    answer["steps"] = steps;
    Answer(std::move(answer));
}

} // namespace tavr::console
