// What the platform knows of the request that this process serves. A worker serves one at a time, a console
// command is one; so there is exactly one, and the calls of platform/ that carry no context find it here.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavr
{

class Place;

// Why something could not be looked up or stored. Never to be read as "wrong" or as "not enrolled".
enum class Fault {
    None,
    KeyMissing,           // no machine key, while the vault holds sealed rows
    KeyWrong,             // a machine key that did not seal these rows
    VaultDamaged,         // a row that does not open, or a table that is not as it should be
    StateUnavailable,     // the database cannot be read or written (locked, read-only, disk full)
    SecretFile,           // the account's secret file is not what the vault says
    AccountsUnavailable,  // the account store cannot be read
    MailNotQueued,        // a notification mail was to go out and could not be stored
    DirectoryBusy,        // others wait for a directory that does not answer
    DirectoryUnavailable, // a directory cannot be asked, or did not answer in time
    SettingsUnavailable,  // the system settings cannot be read
    PolicyUnavailable,    // it cannot be told whether the policy demands two-step sign-in
};

const char* FaultText(Fault fault); // for logs and the console: a few words, no final stop

struct Request {
    uint64_t number = 0; // counts the requests of this process

    // From the web server. Addresses never come from a header that a client can send.
    std::string sidCookie;
    std::string pendingCookie;
    std::string clientAddress;
    bool secure = false; // came over TLS

    // What the web program says of the account before any login (session.h).
    struct Facts {
        uint32_t account = 0;
        bool enrolled = false;
        bool demanded = false; // by the administrator's policy
    };
    std::optional<Facts> facts;

    // What this request has proved. Written by the platform alone.
    bool passwordCompared = false;      // a password was found right or wrong
    std::optional<uint32_t> passwordOf; // account whose password was right
    int64_t passwordGeneration = 0;     // the account's generation that this password belongs to
    std::optional<uint32_t> codeOf;     // account whose code was accepted

    // The account whose references the cipher answers for (cipher.h).
    std::optional<uint32_t> cipherAccount;

    // The first fault met; see NoteFault.
    Fault fault = Fault::None;

    // The connection to a directory and what it has said, for as long as the request lasts
    // (ldap_accounts.cpp); and what the domain has said (domain_accounts.cpp).
    std::shared_ptr<void> directory;
    std::shared_ptr<void> domain;

    // The place that it waits for them at (places.h), let go of when it ends.
    std::shared_ptr<Place> directoryPlace;

    // Whether local accounts are the system's, once it is asked, and whether their store is in step with the
    // system (system_accounts.cpp): one request has one store.
    std::optional<bool> hasSystemAccounts;
    bool systemAccountsLookedAt = false;

    // What owners of accounts are to be told by mail once this request is over (notices.h).
    struct Notice {
        const char* tag = nullptr; // of the template; a literal
        uint32_t account = 0;
        int64_t time = 0;                   // WallSeconds
        std::optional<std::string> address; // not given: the one on file by then
    };
    std::vector<Notice> notices;

    // The session that this request opened; empty when none.
    std::string newSid;
};

Request& CurrentRequest();
void StartRequest();         // forgets everything of the one before, overwriting what is secret
void NoteFault(Fault fault); // kept in the current request unless one stands there already

} // namespace tavr
