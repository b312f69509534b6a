// The console's commands. Each does its work with the service's effective ids, prints its answer, and throws
// Failure (console.h) or DatabaseError when it could not.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavr::console
{

// setup_command.cpp: as root
void SetUp();

// certificate_commands.cpp: the web server's
void UseCertificate(const std::string& certificate, const std::string& key);
void UseSelfSignedCertificate();
void ShowCertificate();
void InstallCertificate(); // where the web server reads it

// doctor_command.cpp
void Examine();

// user_commands.cpp
struct UserTexts {
    std::optional<std::string> mail; // not given: stays as it is
    std::optional<std::string> description;
};
void AddUser(const std::string& typedName, const UserTexts& texts,
             bool isAdmin); // password from standard input
void SetUser(const std::string& typedName, const UserTexts& texts);
void SetUserPassword(const std::string& typedName); // from standard input
void ListUsers();
void RemoveUser(const std::string& typedName);
void DisableUser(const std::string& typedName);
void EnableUser(const std::string& typedName);

// group_commands.cpp
void AddGroupCommand(const std::string& typedName, const std::string& description);
void RemoveGroupCommand(const std::string& typedName);
void ListGroups();
void JoinGroupCommand(const std::string& typedGroup, const std::string& typedUser);
void LeaveGroupCommand(const std::string& typedGroup, const std::string& typedUser);

// otp_commands.cpp
void ShowOtpStatus(const std::string& typedName);
void ResetOtp(const std::string& typedName);
void OpenOtp(const std::string& typedName);
inline constexpr int kMostMinutes = 24 * 60;
void MakeOtpCode(const std::string& typedName, int minutes);

// directory_commands.cpp
void TestDirectory(const std::string& typedName); // empty: without a name

// domain_commands.cpp
void SyncDomain();
void ShowDomain();

// enforce_commands.cpp
struct EnforceChoice {
    std::string type;
    std::vector<std::string> names; // as typed
    bool numbers = false;           // the names are numbers
};
struct EnforceList {
    std::string type;
    std::string query;
    std::string domain;
    std::string filter = "enforced";
    int offset = 0;
    int limit = -1; // all
};
void ShowPolicy();
void SetPolicyOption(const std::string& option);
void AddPicks(const EnforceChoice& choice);
void RemovePicks(const EnforceChoice& choice);
void ListPolicy(const EnforceList& asked);
void ExplainPolicy(const std::string& typedName);

// session_commands.cpp
void ListSessionsCommand(const std::string& typedName); // empty: of all users
void EndSessionsCommand(const std::string& typedName);
void EndSessionCommand(const std::string& handle);

// mail_commands.cpp
struct ServerTexts { // not given: stays as it is
    std::optional<std::string> host;
    std::optional<int> port;
    std::optional<std::string> security;
    std::optional<std::string> user;
    std::optional<std::string> from;
    std::optional<std::string> caFile;
};
void SetMailServer(const ServerTexts& texts, bool passwordStdin);
void SwitchMailServerOff();
void ShowMailServer();
void TestMailServer(const std::string& address);
void ListMailQueue();
void RetryQueuedMail(int64_t id);
void DropQueuedMail(int64_t id);

// mail_account_commands.cpp
struct NewMailAccountTexts {
    std::string alias;
    ServerTexts server;
    std::string to; // of the test mail; empty: the recovery address, or the sender's own
    bool passwordStdin = false;
    bool isDefault = false;
    bool test = true;
};
void AddMailAccountCommand(const std::string& typedName, const NewMailAccountTexts& texts);
void TestMailAccount(const std::string& typedName, const std::string& alias, const std::string& address);
void SetDefaultMailAccountCommand(const std::string& typedName, const std::string& alias);
void RemoveMailAccountCommand(const std::string& typedName, const std::string& alias); // asks
void ListMailAccounts(const std::string& typedName);

// audit_command.cpp
struct AuditChoice {
    std::string account; // as typed; empty: all
    std::string since;   // as typed; empty: from the beginning
    bool follow = false;
};
void ShowAudit(const AuditChoice& choice);

} // namespace tavr::console
