// "usersettings" in a domain user's preference directory: a JSON object of personal settings, in which the
// library keeps the recovery address. The library rewrites it in place, and throws at one that is no object;
// our programs put this around it.
//
//     SettleUserSettings(account)                       // before anything that may read it
//     {
//         UserSettingsWriting settings(account);        // alone, under the account's lock
//         if (settings.Usable()) { handler.SaveMail(...); settings.Commit(); }
//     }
//
// Before it is rewritten its content stands beside it, durable, as "usersettings.before": whoever is killed
// in between leaves one of the two whole, and the next to settle takes the rewritten one if it is whole, else
// the one from before. What is no object of this form and was not ours to break is kept as
// "usersettings.unusable", and an empty object takes its place; unless it was written within the last second,
// when somebody may be at it.
//
// Accounts of other kinds have no such file: everything here is done then, and does nothing.
#pragma once

#include "linux/accounts.h"
#include "linux/descriptor.h"
#include "linux/enrolment.h"
#include "linux/ids.h"

#include <optional>
#include <string>

namespace tavr
{

// Whether the library may be let at it. False: it cannot be read or mended, and the log says why; as
// Fault::StateUnavailable. Takes the account's lock.
bool SettleUserSettings(const Account& account);

// The recovery address in it; empty when there is none that can be read.
std::string UserSettingsMail(const Account& account);

// That of an account of any kind, from where it stands. Throws LdapError.
std::string RecoveryAddress(const Account& account);

class UserSettingsWriting
{
public:
    explicit UserSettingsWriting(const Account& account);
    ~UserSettingsWriting(); // puts back what stood there unless it was committed
    UserSettingsWriting(const UserSettingsWriting&) = delete;
    UserSettingsWriting& operator=(const UserSettingsWriting&) = delete;

    [[nodiscard]] bool Usable() const { return usable_; } // false: nothing has changed, the log says why

    // What the library has written is whole, and durable now. False: it was not, and will be put back.
    [[nodiscard]] bool Commit();

private:
    const Account& account_;
    std::optional<AccountLock> lock_;
    Descriptor folder_;
    bool usable_ = false;
};

} // namespace tavr
