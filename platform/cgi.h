#pragma once

extern "C" {

struct TavrCgi { void* request; };               // first member of the wizard handler: both have one address
struct TavrLogin { char* user; const char* password; const char* client; int flags; };
int   TavrCgiInit(const char* name, TavrCgi* cgi);
void  TavrCgiFree(TavrCgi* cgi);
int   TavrCgiLogin(TavrCgi* cgi, char* sid, int size, TavrLogin* login);
int   TavrCgiTestLoginEx2(TavrLogin* login, void* reserved1, void* reserved2, int refusePending);
int   TavrCgiIsTokenEnable(TavrCgi* cgi);
int   TavrCgiLoadInCookies(TavrCgi* cgi);
const char* TavrCgiGetOption(TavrCgi* cgi, int option, const char* fallback);

}  // extern "C"

namespace WebUtils { int ParseInputUserName(const char* input, char* out, unsigned long size); }
