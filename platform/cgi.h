// The web server's side of a request: its context, passwords and sessions.
//
// A login answers 1 (accepted), 0 (wrong name or password), -5 (the password is right and the second step is
// missing) or -1 (could not be checked or stored; the error record says why). None of these calls throws.
#pragma once

// Login flags. Bits without a name here ask for nothing.
enum TavrLoginFlag {
    kTavrLoginSession = 1,         // open a session; a login always does
    kTavrLoginPreferenceDir = 2,   // make the account's preference directory if it is not there
};
// 15, the ordinary login, holds both. 1, the login in safe mode, opens the session and writes nothing else: the
// volume that the preference directories lie on may be away then.

extern "C" {

struct TavrCgi { void* request; };               // first member of the wizard handler: both have one address
struct TavrLogin { char* user; const char* password; const char* client; int flags; };   // user: canonical

// Fills `cgi` with the context of the request that this process serves. `name` may be empty, not null.
int   TavrCgiInit(const char* name, TavrCgi* cgi);
void  TavrCgiFree(TavrCgi* cgi);

// Checks the password and opens a session, whose identifier goes into `sid` (33 bytes; nothing is written unless
// the login answers 1). The library passes 122 as `size`, and so no more is ever written.
int   TavrCgiLogin(TavrCgi* cgi, char* sid, int size, TavrLogin* login);

// Checks the password and opens nothing. With `refusePending` an account whose second step is missing gets -5,
// without it 1. The reserved arguments are not looked at.
int   TavrCgiTestLoginEx2(TavrLogin* login, void* reserved1, void* reserved2, int refusePending);

int   TavrCgiIsTokenEnable(TavrCgi* cgi);        // 1: changes need the session's token
int   TavrCgiLoadInCookies(TavrCgi* cgi);        // 0; the context has the request's cookies from its start

// Option 2: the token of the session that this request opened, else `fallback`. Valid until TavrCgiFree.
const char* TavrCgiGetOption(TavrCgi* cgi, int option, const char* fallback);

}  // extern "C"

// The canonical form of a name as typed, into `out`; negative for what can be no name or does not fit.
namespace WebUtils { int ParseInputUserName(const char* input, char* out, unsigned long size); }
