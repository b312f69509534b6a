#include "tests/linux/fake_account.h"

#include "linux/domain_accounts.h"
#include "linux/domain_names.h"
#include "linux/ldap_accounts.h"
#include "linux/settings.h"
#include "linux/system_accounts.h"

namespace
{

FakeAccounts fake;

void FailIfTold()
{
    if (fake.storeFails) {
        throw tavr::DatabaseError(0, "told to fail");
    }
}

} // namespace

FakeAccounts& Fake()
{
    return fake;
}

void ResetFake()
{
    fake = FakeAccounts();
}

tavr::Account& FakeAccounts::Add(const std::string& name, uint32_t uid, const std::string& password)
{
    tavr::Account& account = accounts[name];
    account.name = name;
    account.uid = uid;
    passwords[name] = password;
    return account;
}

namespace tavr
{

std::optional<Account> FindAccount(uint32_t uid)
{
    FailIfTold();
    if (uid < kFirstDirectoryNumber && (uid >= kFirstSystemNumber) != fake.areSystem) {
        return std::nullopt; // of the store that is not in use
    }
    for (const auto& [name, account] : fake.accounts) {
        if (account.uid == uid) {
            return account;
        }
    }
    return std::nullopt;
}

std::optional<Account> CheckPassword(std::string_view name, std::string_view password)
{
    FailIfTold();
    const auto found = fake.accounts.find(std::string(name));
    if (found == fake.accounts.end() || fake.passwords[found->first] != password) {
        return std::nullopt;
    }
    return found->second;
}

bool AreSystemAccounts()
{
    FailIfTold();
    return fake.areSystem;
}

bool IsDomainName(std::string_view /*name*/)
{
    return false;
}

std::optional<Account> CheckDomainPassword(const std::string& /*name*/, std::string_view /*password*/)
{
    return std::nullopt;
}

bool IsLdapName(std::string_view /*name*/)
{
    return false;
}

std::optional<Account> CheckLdapPassword(const std::string& /*name*/, std::string_view /*password*/)
{
    return std::nullopt;
}

bool MakePreferenceDirectory(const Account& /*account*/)
{
    ++fake.directoriesMade;
    return !fake.directoriesFail;
}

EnrolmentState Settle(const Account& account)
{
    ++fake.settled;
    EnrolmentState state;
    const auto found = fake.settlesAs.find(account.uid);
    state.enrolment = found == fake.settlesAs.end() ? Enrolment::No : found->second;
    if (state.enrolment == Enrolment::Fault) {
        state.fault = Fault::SecretFile;
        NoteFault(state.fault);
    }
    return state;
}

CodeAnswer VerifyCode(const Account& /*account*/, std::string_view /*code*/, const GrantInside& grant)
{
    Transaction transaction(SigninDatabase());
    if (fake.codeAnswer.result == CodeResult::Accepted) {
        grant(transaction);
    }
    transaction.Commit();
    return fake.codeAnswer;
}

const std::optional<CodeAnswer>& LastLibraryAnswer()
{
    return fake.libraryAnswer;
}

std::vector<DomainName> KnownDomains()
{
    return {};
}

bool IsCalled(const DomainName& /*domain*/, std::string_view /*text*/)
{
    return false;
}

int64_t NumberSetting(std::string_view key, int64_t fallback, int64_t /*least*/, int64_t /*most*/)
{
    const auto found = fake.settings.find(std::string(key));
    return found == fake.settings.end() ? fallback : found->second;
}

} // namespace tavr
