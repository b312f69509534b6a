// The CGI layer (platform/cgi.h): passwords and sessions for the library's login. The library calls it with
// raised ids, so it opens no database (a worker has them open) and makes no file but through functions that
// lower the ids themselves. Nothing throws out of it.
#include "platform/cgi.h"

#include "linux/accounts.h"
#include "linux/database.h"
#include "linux/domain_accounts.h"
#include "linux/error.h"
#include "linux/guarded.h"
#include "linux/ldap_accounts.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/session.h"

#include <sodium.h>
#include <syslog.h>

#include <cstring>
#include <exception>
#include <optional>
#include <string>

using tavr::Account;
using tavr::Error;
using tavr::Fail;

namespace
{

// Status values of a login, as the library reads them.
constexpr int kAccepted = 1;
constexpr int kRefused = 0;
constexpr int kNotKnown = -1; // could not be checked, or no session could be stored
constexpr int kSecondStepMissing = -5;

constexpr int kTokenOption = 2;

std::string tokenText; // what TavrCgiGetOption gave, until the context is freed

int NotKnown(tavr::Fault fault, const char* what)
{
    syslog(LOG_ERR, "login not possible: %s", what);
    tavr::NoteFault(fault);
    Fail(Error::DatabaseFailed);
    return kNotKnown;
}

std::optional<Account> CheckPassword(const TavrLogin& login)
{
    if (tavr::IsDomainName(login.user)) {
        return tavr::CheckDomainPassword(login.user, login.password);
    }
    return tavr::IsLdapName(login.user) ? tavr::CheckLdapPassword(login.user, login.password)
                                        : tavr::CheckPassword(login.user, login.password);
}

// The account whose password it is; empty when refused. Throws DatabaseError and DirectoryError.
std::optional<Account> Authenticate(const TavrLogin& login)
{
    tavr::Request& request = tavr::CurrentRequest();
    std::optional<Account> account = CheckPassword(login);
    request.passwordCompared = true;
    if (account) {
        request.passwordOf = account->uid;
        request.passwordGeneration = account->generation;
    }
    return account;
}

int Login(char* sid, const TavrLogin& login)
{
    const std::optional<Account> account = Authenticate(login);
    if (!account) {
        return kRefused;
    }
    if ((login.flags & kTavrLoginPreferenceDir) != 0 && !tavr::MakePreferenceDirectory(*account)) {
        syslog(LOG_WARNING, "no preference directory for %s", account->name.c_str());
    }
    switch (tavr::OpenSession(*account)) {
    case tavr::Grant::SecondStepMissing:
        return kSecondStepMissing;
    case tavr::Grant::Ended:
        return kRefused;
    case tavr::Grant::Fault:
        return kNotKnown;
    case tavr::Grant::Opened:
        break;
    }
    const std::string& identifier = tavr::CurrentRequest().newSid;
    std::memcpy(sid, identifier.c_str(), identifier.size() + 1);
    return kAccepted;
}

} // namespace

int TavrCgiInit(const char* name, TavrCgi* cgi)
{
    if (name == nullptr || cgi == nullptr) {
        return Fail(Error::BadParameter);
    }
    cgi->request = &tavr::CurrentRequest();
    return 0;
}

void TavrCgiFree(TavrCgi* cgi)
{
    if (cgi != nullptr) {
        cgi->request = nullptr;
    }
    sodium_memzero(tokenText.data(), tokenText.size());
    tokenText.clear();
}

int TavrCgiLogin(TavrCgi* cgi, char* sid, int size, TavrLogin* login)
{
    if (cgi == nullptr || cgi->request == nullptr || sid == nullptr || login == nullptr ||
        login->user == nullptr || login->password == nullptr) {
        return Fail(Error::BadParameter);
    }
    // Before the session is opened: one whose identifier nobody learns is of no use.
    if (size < static_cast<int>(tavr::kIdentifierSize) + 1) {
        return Fail(Error::BufferTooSmall);
    }
    try {
        return Login(sid, *login);
    } catch (const tavr::DatabaseError& error) {
        return NotKnown(tavr::Fault::AccountsUnavailable, error.what());
    } catch (const tavr::DirectoryError& error) {
        return NotKnown(tavr::FaultOf(error), error.what());
    } catch (const std::exception& error) {
        return NotKnown(tavr::Fault::StateUnavailable, error.what());
    }
}

int TavrCgiTestLoginEx2(TavrLogin* login, void* /*reserved1*/, void* /*reserved2*/, int refusePending)
{
    if (login == nullptr || login->user == nullptr || login->password == nullptr) {
        return Fail(Error::BadParameter);
    }
    try {
        const std::optional<Account> account = Authenticate(*login);
        if (!account) {
            return kRefused;
        }
        return refusePending != 0 && tavr::SecondStepMissing(*account) ? kSecondStepMissing : kAccepted;
    } catch (const tavr::DatabaseError& error) {
        return NotKnown(tavr::Fault::AccountsUnavailable, error.what());
    } catch (const tavr::DirectoryError& error) {
        return NotKnown(tavr::FaultOf(error), error.what());
    } catch (const std::exception& error) {
        return NotKnown(tavr::Fault::StateUnavailable, error.what());
    }
}

int TavrCgiIsTokenEnable(TavrCgi* /*cgi*/)
{
    return 1;
}

// The web program put the request's cookies into the context before anything else.
int TavrCgiLoadInCookies(TavrCgi* cgi)
{
    return cgi == nullptr || cgi->request == nullptr ? Fail(Error::BadParameter) : 0;
}

const char* TavrCgiGetOption(TavrCgi* cgi, int option, const char* fallback)
{
    if (cgi == nullptr || cgi->request == nullptr || option != kTokenOption) {
        return fallback;
    }
    try {
        const std::string& identifier = static_cast<const tavr::Request*>(cgi->request)->newSid;
        if (identifier.empty()) {
            return fallback;
        }
        tokenText = tavr::TokenOf(identifier);
        return tokenText.c_str();
    } catch (const std::exception&) {
        Fail(Error::OutOfMemory);
        return fallback;
    }
}
