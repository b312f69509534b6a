// Sessions and half sign-ins of the web programs, kept in the sign-in database: the identifier (128 random
// bits) goes to the browser, its hash stays here.
#pragma once

#include "linux/accounts.h"
#include "linux/request.h"
#include "linux/verifier.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

enum class SessionState {
    Live,
    CodeRequired,      // password accepted, second step missing
    EnrolmentRequired, // password accepted, policy demands an enrolment that is missing
};
const char* TextOf(SessionState state); // live, code_required, enrolment_required

struct Session {
    std::string id; // hash of the identifier, as stored
    SessionState state = SessionState::Live;
    Account account;
    std::string token;         // the request token, derived from the identifier
    int64_t expiresIn = 0;     // seconds, the nearer of idle and absolute end
    bool secondStep = false;   // opened on an accepted code
    int64_t confirmedBoot = 0; // BootSeconds of the enrolment that this session was opened on; 0: none
};

// The rule, and the only place that opens sessions. Called by the platform's login after the password and by
// the second step from a half sign-in. Opens a live session for `account` only if
//   - the request's facts are about this account and it needs no second step (not enrolled, not demanded),
//     and it has not been enrolled since, or
//   - this very request has had the account's code accepted and the account settles as enrolled,
// and what the request rests on still holds when the session is stored: the account stands, is not disabled
// and is of the generation that `account` was read in, with the password or the half sign-in.
bool SecondStepMissing(const Account& account); // by that rule, as far as this request knows
enum class Grant {
    Opened,
    SecondStepMissing,
    Ended, // what the request rests on holds no more; nothing is opened
    Fault,
};
Grant OpenSession(const Account& account); // on Opened: CurrentRequest().newSid

// The second step of a half sign-in, whose password an earlier request has proved: the code is decided on
// (VerifyCode), and with an accepted one the session takes the place of the half sign-in, if that is still
// there, all in one transaction. Accepted with another grant than Opened: the code is used, and nothing is
// opened.
struct FinishedSignIn {
    CodeAnswer code;
    Grant grant = Grant::SecondStepMissing; // with Accepted: Opened, Ended or Fault
};
FinishedSignIn FinishSignIn(const Session& half,
                            std::string_view code); // on Opened: CurrentRequest().newSid

// A half sign-in after an accepted password. Gives the identifier, empty when the password holds no more (as
// above); throws DatabaseError. Lives 5 minutes, 30 where an enrolment is demanded.
std::string OpenPending(const Account& account, SessionState state);

// The session that an identifier stands for, its idle time renewed; empty when there is none, it has ended,
// or its account is gone, disabled, of another generation, or local and not of the store that local accounts
// come from. Throws DatabaseError. The renewal is written once in a tenth of the idle time (a minute at
// most), so a session may end that much early and never late.
std::optional<Session> FindSession(std::string_view identifier);

// Removes rows of sessions that have ended by themselves, a bounded number. Throws DatabaseError.
void ClearSessions();

void EndSession(const Session& session); // throws DatabaseError
int64_t EndSessionsOf(uint32_t account); // live and half ones, gives how many rows; throws DatabaseError

// For the console: sessions that have not ended, by handles that are of no use to a browser.
struct ListedSession {
    std::string handle; // 16 lower-case hexadecimal digits
    Account account;
    SessionState state = SessionState::Live;
    bool secondStep = false;
    int64_t age = 0; // seconds since it was opened
    int64_t idle = 0;
    int64_t expiresIn = 0;
};
std::vector<ListedSession> ListSessions(std::optional<uint32_t> account); // empty: all; throws DatabaseError
std::optional<Account> EndSessionByHandle(std::string_view handle); // whose it was; throws DatabaseError

// The request token that belongs to an identifier: derived from it, so that it need not be kept.
std::string TokenOf(std::string_view identifier);

// Bytes of an identifier, all of them lower-case hexadecimal digits.
inline constexpr size_t kIdentifierSize = 32;

} // namespace tavr
