// The web request that this process serves: its cookies and options, the login service, and the parser of
// names that people type.
//
// One process serves one request at a time. The login calls are made with the effective ids raised to root.
#pragma once

extern "C" {

// The request, as a handler holds it. First member of whatever class owns one, so that both have one address.
struct TavrCgi {
    void* request; // the platform's
};

// Binds `cgi`, zero-filled before, to the current request. `name` is an empty text. 0 on success, negative on
// failure; TavrCgiFree is called in both cases, and takes a context that was never bound.
int TavrCgiInit(const char* name, TavrCgi* cgi);
void TavrCgiFree(TavrCgi* cgi);

// --- login ---

// What is to happen besides the check of the password. Other bits ask for nothing.
enum TavrLoginFlag {
    kTavrLoginSession = 1,       // open a session, and give its identifier; a login always does
    kTavrLoginPreferenceDir = 2, // make the account's preference directory if it is missing (users.h)
    kTavrLoginReplace = 4,       // end the session that asked
    kTavrLoginAudit = 8,         // write the login to the audit trail
};

// What a login asks for.
struct TavrLogin {
    char* user;           // canonical name; the caller's buffer
    const char* password; // as it was typed; an empty one is never accepted
    const char* client;   // "webui"

    // 15, all of the above, for an ordinary login. 1 while the system runs in safe mode (TAVRHAIsSafemode):
    // the session and nothing else, as the volume of the preference directories may be away. 0: check only.
    int flags;
};

// Status of a login:
//    1  accepted
//   -5  the password is right and the second step, or an enrolment that policy demands, is missing
//    0  refused
//   -1  could not be checked or carried out; the error record says why. Never to be read as a wrong password.
//
// Whether a second step is missing is told only with the right password. An account has one from the moment
// in which its secret file stands at its place with a code of it accepted; the request that had the code
// accepted may sign it in, so that the wizard's last step opens a session.

// Checks the password and does what login->flags say. `sid` of `size` bytes (122) gets the identifier of the
// session as a text when one was opened, on status 1 only, and is untouched otherwise. One that has no room
// there is -1 before anything is opened.
int TavrCgiLogin(TavrCgi* cgi, char* sid, int size, TavrLogin* login);

// Checks the password and opens nothing. With `refusePending` an account whose second step is missing gets
// -5, without it 1. The reserved arguments are null.
int TavrCgiTestLoginEx2(TavrLogin* login, void* reserved1, void* reserved2, int refusePending);

// --- request token ---

// Non-zero when requests of a session must carry a token.
int TavrCgiIsTokenEnable(TavrCgi* cgi);

// Loads the cookies of the request, and those that this request has set, into the context. 0 on success,
// negative on failure.
int TavrCgiLoadInCookies(TavrCgi* cgi);

// An option of the context, or `fallback` when it is not there. Option 2 is the token of the session, the new
// one after a login; it belongs to one session and does not tell its identifier. Valid until the next call
// with this context; never null unless `fallback` is.
const char* TavrCgiGetOption(TavrCgi* cgi, int option, const char* fallback);

} // extern "C"

namespace WebUtils
{

// Writes the canonical name of the account that `input` spells: a local name, DOMAIN\user or user@domain.
// Every spelling of one account gives one name, and that name itself. A domain's has a backslash, otherwise a
// directory's has an @, a local one neither: the library tells them by that. Judges the form alone and asks
// no directory, so that unknown names look the same. Negative when `input` is no name (as what is empty,
// blank, not UTF-8, or holds a control character never is), or does not fit into `size` bytes (493, 1024);
// `out` is then untouched.
int ParseInputUserName(const char* input, char* out, unsigned long size);

} // namespace WebUtils
