#include "linux/user_settings.h"

#include "linux/file_stamp.h"
#include "linux/ldap_accounts.h"
#include "linux/names.h"
#include "linux/new_file.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace tavr
{

namespace
{

constexpr char kName[] = "usersettings";
constexpr char kBefore[] = "usersettings.before";
constexpr char kUnusable[] = "usersettings.unusable";
constexpr char kSettingsMember[] = "TAVR.Ombra.App.PersonalSettings.Instance";
constexpr char kMailMember[] = "otp_mail";
constexpr size_t kMaxSize = 1 << 20;

// The library's reader, so that both take the same for JSON.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool Parse(const std::string& text, Json::Value& value)
{
    try {
        Json::Reader reader;
        return reader.parse(text.data(), text.data() + text.size(), value, false);
    } catch (const Json::Exception&) { // nested too deep
        return false;
    }
}

#pragma GCC diagnostic pop

bool IsObjectOrNothing(const Json::Value& value)
{
    return value.isNull() || value.isObject();
}

// What the library reads and rewrites without throwing. Gives the settings; empty: it is no such document.
std::optional<Json::Value> SettingsIn(const std::string& text)
{
    Json::Value document;
    if (!Parse(text, document) || !document.isObject()) {
        return std::nullopt;
    }
    const Json::Value& settings = document[kSettingsMember];
    const bool usable = IsObjectOrNothing(settings) && (settings.isNull() || settings[kMailMember].isNull() ||
                                                        settings[kMailMember].isString());
    return usable ? std::optional(settings) : std::nullopt;
}

StampedRead Read(const Account& account, const char* name, std::string& text, FileStamp& stamp)
{
    return ReadStamped((PreferencePath(account.name) + '/' + name).c_str(), O_NOFOLLOW, kMaxSize, text,
                       stamp);
}

bool Is(const Descriptor& folder, const char* name)
{
    struct stat entry {
    };
    return fstatat(folder.Get(), name, &entry, AT_SYMLINK_NOFOLLOW) == 0;
}

bool Store(const Descriptor& folder, const char* name, std::string_view text)
{
    NewFile file(folder, name);
    return file.Write(text) && file.PutInPlace(AtPlace::Replace);
}

bool Rename(const Descriptor& folder, const char* from, const char* to)
{
    return renameat(folder.Get(), from, folder.Get(), to) == 0;
}

bool RemoveBefore(const Descriptor& folder)
{
    return unlinkat(folder.Get(), kBefore, 0) == 0;
}

// Puts aside what is no object; false where somebody may be writing it.
bool SetAside(const Account& account, const Descriptor& folder)
{
    struct stat entry {
    };
    if (fstatat(folder.Get(), kName, &entry, AT_SYMLINK_NOFOLLOW) != 0 ||
        IsJustNow(StampOf(entry).modified)) {
        syslog(LOG_WARNING, "%s of %s is no object of settings, and was written just now", kName,
               account.name.c_str());
        return false;
    }
    if (!Rename(folder, kName, kUnusable) || !Store(folder, kName, "{}\n")) {
        syslog(LOG_ERR, "%s of %s cannot be mended: %m", kName, account.name.c_str());
        return false;
    }
    syslog(LOG_WARNING, "%s of %s was no object of settings; it is kept as %s", kName, account.name.c_str(),
           kUnusable);
    return true;
}

// Under the lock, with the service's ids. The folder is there.
bool SettleLocked(const Account& account, const Descriptor& folder)
{
    std::string text;
    FileStamp stamp;
    const StampedRead read = Read(account, kName, text, stamp);
    if (read == StampedRead::Failed) {
        syslog(LOG_ERR, "%s of %s cannot be read: %m", kName, account.name.c_str());
        return false;
    }
    const bool isUsable = read == StampedRead::Done && SettingsIn(text);
    if (Is(folder, kBefore)) {
        std::string before;
        FileStamp beforeStamp;
        if (isUsable) { // written whole, or not touched yet
            return RemoveBefore(folder);
        }
        if (Read(account, kBefore, before, beforeStamp) == StampedRead::Done && SettingsIn(before)) {
            syslog(LOG_WARNING, "%s of %s was cut short and is restored", kName, account.name.c_str());
            return Rename(folder, kBefore, kName) && fsync(folder.Get()) == 0;
        }
    }
    if (read == StampedRead::Absent) {
        return Store(folder, kName, "{}\n");
    }
    return isUsable || SetAside(account, folder);
}

Descriptor OpenFolder(const Account& account)
{
    return Descriptor(
        open(PreferencePath(account.name).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool Complain(const Account& account, const char* what)
{
    syslog(LOG_ERR, "%s of %s cannot be used: %s: %m", kName, account.name.c_str(), what);
    return false;
}

} // namespace

bool SettleUserSettings(const Account& account)
{
    if (account.kind != kKindDomain) {
        return true;
    }
    const EffectiveIds service = EffectiveIds::Service();
    const AccountLock lock(account);
    if (!service.Changed() || !lock.Held()) {
        return Complain(account, "no lock");
    }
    const Descriptor folder = OpenFolder(account);
    return folder ? SettleLocked(account, folder) : Complain(account, "its folder");
}

std::string UserSettingsMail(const Account& account)
{
    if (account.kind != kKindDomain) {
        return {};
    }
    const EffectiveIds service = EffectiveIds::Service();
    std::string text;
    FileStamp stamp;
    if (!service.Changed() || Read(account, kName, text, stamp) != StampedRead::Done) {
        return {};
    }
    const std::optional<Json::Value> settings = SettingsIn(text);
    return settings && settings->isObject() ? (*settings)[kMailMember].asString() : "";
}

std::string RecoveryAddress(const Account& account)
{
    switch (account.kind) {
    case kKindDomain:
        return SettleUserSettings(account) ? UserSettingsMail(account) : "";
    case kKindLdap:
        return MailOfLdapAccount(account);
    default:
        return account.mail;
    }
}

UserSettingsWriting::UserSettingsWriting(const Account& account) : account_(account)
{
    if (account.kind != kKindDomain) {
        usable_ = true;
        return;
    }
    lock_.emplace(account);
    usable_ = lock_->Held() && SettleUserSettings(account);
    if (!usable_) {
        return;
    }
    const EffectiveIds service = EffectiveIds::Service();
    folder_ = OpenFolder(account);
    std::string text;
    FileStamp stamp;
    usable_ = service.Changed() && folder_ && Read(account, kName, text, stamp) == StampedRead::Done &&
              Store(folder_, kBefore, text);
    if (!usable_) {
        Complain(account, "it could not be put back");
    }
}

UserSettingsWriting::~UserSettingsWriting()
{
    if (!folder_ || !Is(folder_, kBefore)) {
        return;
    }
    const EffectiveIds service = EffectiveIds::Service();
    if (!Rename(folder_, kBefore, kName) || fsync(folder_.Get()) != 0) {
        Complain(account_, "it cannot be put back");
    }
}

bool UserSettingsWriting::Commit()
{
    if (account_.kind != kKindDomain) {
        return true;
    }
    const EffectiveIds service = EffectiveIds::Service();
    std::string text;
    FileStamp stamp;
    const Descriptor file(openat(folder_.Get(), kName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    const bool whole = file && Read(account_, kName, text, stamp) == StampedRead::Done && SettingsIn(text) &&
                       fsync(file.Get()) == 0;
    if (!whole) {
        return Complain(account_, "it was not written whole, and is put back");
    }
    return RemoveBefore(folder_);
}

} // namespace tavr
