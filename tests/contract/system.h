// What the contract tests ask of the system that a platform runs on. They call platform/*.h and the functions
// below, and nothing else: the maker of a platform writes these (linux_system.cpp is ours), links his
// platform with the tests and runs the program.
//
// The program works as a host of the library does: it is one process that serves one request after the other,
// and whose ids are the service's, with root as the saved ones, or root's altogether. What cannot be done
// throws.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace contract
{

// What the platform has of the things that one may lack. The tests hold it to its word: what is said to be
// there is tested, and what is said to be missing must answer as missing things do.
struct Features {
    bool cipher = false;       // texts in secret files are enciphered (KLIBCCryptSzDecrypt)
    bool hardwareId = false;   // tavrcrypto_hwid_str
    bool tokens = false;       // requests carry tokens (TavrCgiIsTokenEnable)
    bool safeMode = false;     // SetSafeMode works
    bool accountsAway = false; // TakeAccountsAway works
};
Features Has();

// Once, before the first case.
void SetUp();

// A new web request begins. `account`, unless it is empty, is whose it is: whatever a host tells the platform
// before it calls the library for this account is told here. Called before each case, and within some.
void StartRequest(const std::string& account = "");

// --- Accounts and groups, local ones ---

struct Person {
    std::string name;
    std::string password;
    std::string description;
    std::string mail;
    bool administrator = false;
    std::vector<std::string> groups;
};
void AddPerson(const Person& person);
void RemovePerson(const std::string& name);
void AddGroup(const std::string& name, const std::string& description);
void RemoveGroup(const std::string& name);

// Makes the store of accounts answer nothing, as on a full disk or with a server that is down; and back.
void TakeAccountsAway(bool away);

// --- Sessions ---

// The name of the account whose session this is; empty: it is none.
std::string OwnerOfSession(const std::string& identifier);

// --- The system's state and settings ---

// What TavrConf::Info reads. From the next call on.
void SetSetting(const std::string& key, const std::string& value);

void SetSafeMode(bool on);

// --- Mails ---

// The notification service is set up with this server, or (empty) not at all.
void SetMailServer(const std::string& server);

struct Mail {
    std::string to;
    std::string subject;
    std::string body;
};
std::vector<Mail> WaitingMails(); // those that were queued and not sent yet, oldest first

// --- The local web API: the service's end of a connection ---

// Reads one request; gives its text. Then writes one answer.
std::string TakeRequest(int connection);
void GiveAnswer(int connection, const std::string& text);

// --- Directories ---

struct Entry {
    std::string name; // as the account signs in: user@realm, or DOMAIN\user; of a group likewise
    std::string description;
    std::string mail;
    std::string password;
    std::string bare; // LDAP: the part before the @
    std::string dn;   // LDAP
};

// An LDAP directory that is set up and can be asked; empty: there is none, the tests of it are left out.
struct Ldap {
    Entry person;         // with an address
    Entry withoutMail;    // without
    std::string twice;    // the bare name of two entries
    std::string specials; // the bare name of an entry, with characters that filters give a meaning ("a*b")
    Entry group;          // of which `person` is a member
};
std::optional<Ldap> SetUpLdap(); // for the tests of LDAP, before each of them

// A domain that the system has joined; empty: there is none.
struct Domain {
    std::string name; // what TAVRWinsDomainEnumOptSetDomain takes
    // Three at least, in the order of the list; the first one with a password, and with a description that no
    // name holds.
    std::vector<Entry> users;
    std::vector<Entry> groups;   // one at least, likewise; the first user is a member of the first one
    std::string part;            // a text that is in one user's name or description alone: the first one's
    bool trustedDomains = false; // TAVRWinIsEnableTrustDomain
};
std::optional<Domain> SetUpDomain(); // for the tests of the domain, before each of them

// None is joined any more, until SetUpDomain is called again. False: that cannot be had.
bool LeaveDomain();

} // namespace contract
