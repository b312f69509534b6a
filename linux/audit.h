// The audit: every sign-in, refusal and change of an account's second step as one line to the authentication
// log and one row in the sign-in database. doc/audit.md has the format and every event. Nothing secret ever
// goes into it: no password, code, key, identifier or address of mail.
#pragma once

#include "linux/accounts.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

enum class AuditEvent {
    SignIn,            // a session was opened
    PasswordRefused,   //
    PasswordThrottled, // not compared; a line without a row, so that a flood does not fill the disk
    CodeRefused,       //
    CodeNotCompared,   // it has not the form of a code, or there is no secret; a line without a row
    CodeReplayed,      // right, but of a step already used
    CodeThrottled,     // not compared; a line without a row
    CodeClosed,        // not compared, as the second step is closed; a line without a row
    SecondStepClosed,  // by this refusal, until an administrator opens it
    SecondStepOpened,  // by an administrator
    Enrolled,
    Renewed,     // a new secret in place of the former one
    SwitchedOff, // by its owner
    Reset,       // by an administrator
    ScratchCodeSpent,
    CodeMailed,        // an emergency code, to its owner
    CodeMailRefused,   // no address, no code, or no way to send
    CodeMailThrottled, // asked too often; a line without a row
    CodeMailClosed,    // the second step is closed; a line without a row
    CodeMailBusy,      // too many others waited for mail servers; a line without a row
    TemporaryCodeMade,
    TemporaryCodeSpent,
    AddressChanged, // the recovery address
    SessionsEnded,  // by an administrator
    PrivilegeFailed,
    AccountAdded,
    AccountRemoved,
    AccountDisabled,
    AccountEnabled,
    PasswordChanged,
    PolicyOption,   // of who must use two-step sign-in; by an administrator
    PolicyPicked,   // an account or group; by an administrator
    PolicyUnpicked, // likewise
    PolicyRestored, // the picks' file was broken or gone
    PolicyAdopted,  // the picks' file was changed past us
};

// Writes line and row, with the client's address of the current request, and notes what the account's owner
// is to be told of it by mail (notices.h). Never fails its caller: a row that cannot be stored is told in the
// log, and a request that has met a fault gets the line alone. Not for use inside a transaction that may yet
// be undone. `detail` is a literal: one word of a-z, 0-9 and "-".
void Audit(AuditEvent event, const Account& account, const char* detail = "-");
void Audit(AuditEvent event, std::string_view typedName,
           const char* detail = "-"); // of whom nothing is known

// What came to the policy's picks or went: a row for each, stored together. `who` null: the console.
struct PickChange {
    bool picked = false;
    std::string what; // a detail: the type and the number
};
void AuditPicks(const Account* who, const std::vector<PickChange>& changes);

// For what is granted, and for what takes a second step away: made inside the transaction that does it, it
// stores the row there, so that nothing is done without it; the line follows when that is durable. Making it
// throws DatabaseError.
class AuditedGrant
{
public:
    AuditedGrant(AuditEvent event, const Account& account, const char* detail);
    void Committed() const; // writes the line, notes the notice

private:
    AuditEvent event_;
    uint32_t account_;
    std::string line_;
};

// A name as lines and rows have it: the canonical one where there is one; blanks, quotes, "=", "\" and
// whatever cannot be seen as "\x" and two digits for each byte; "\+" at the end of one that was cut.
std::string AuditName(std::string_view name);

// --- Reading ---

struct AuditRow {
    int64_t id = 0;   // growing, in the order of their storing
    int64_t time = 0; // WallSeconds
    std::string event;
    std::string outcome;
    std::string address;
    std::optional<uint32_t> uid;
    std::string detail;
    std::string account; // an AuditName
};

struct AuditQuery {
    int64_t after = 0;   // rows with a greater id
    int64_t since = 0;   // rows of this time or later
    std::string account; // an AuditName; empty: all
};
void ForEachAuditRow(const AuditQuery& query, const std::function<void(const AuditRow&)>& each); // throws

// Removes a bounded number of rows that are older than the setting audit_days, or not among the newest
// 250,000. Throws DatabaseError.
void ClearAudit();

} // namespace tavr
