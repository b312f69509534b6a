#pragma once

#include "users.h"

extern "C" {

struct TAVRLDAPSearchOption;
struct TAVRLDAPHost { void* state; };            // zero-filled before use
TAVRLDAPSearchOption* TAVRLDAPSearchOptionAlloc(void);
int   TAVRLDAPSearchOptionGet(TAVRLDAPSearchOption* options, int flags);
void  TAVRLDAPSearchOptionFree(TAVRLDAPSearchOption* options);
int   TAVRLDAPSplitName(const char* name, char* reserved1, char* reserved2, char* bare, int size);
int   TAVRLDAPHostInitByBindConfigOnly(TAVRLDAPHost* host);
int   TAVRLDAPBrowserGetDNByUserUID(TAVRLDAPHost* host, const char* bare, char* dn, int size, TAVRLDAPSearchOption* options);
int   TAVRLDAPBrowserUserGet(TAVRLDAPHost* host, const char* dn, TAVRUser** record, int flags1, int flags2, TAVRLDAPSearchOption* options);
void  TAVRLDAPHostFree(TAVRLDAPHost* host);
int   TAVRLDAPGroupDescGet(const char* name, char** description, char** second);
struct TAVRWinsDomainEnumOpt;
using TAVRWinsDomainRow = int (*)(int count, char** values, char** names, void* userData);
int   TAVRWinsDomainEnumOptAlloc(TAVRWinsDomainEnumOpt** option);
int   TAVRWinsDomainEnumOptAddSearchFields(TAVRWinsDomainEnumOpt* option, const char* field);
int   TAVRWinsDomainEnumOptSetStart(TAVRWinsDomainEnumOpt* option, int start);
int   TAVRWinsDomainEnumOptSetLimit(TAVRWinsDomainEnumOpt* option, int limit);
int   TAVRWinsDomainEnumOptSetUGType(TAVRWinsDomainEnumOpt* option, int groups);
int   TAVRWinsDomainEnumOptSetSearchSubString(TAVRWinsDomainEnumOpt* option, const char* text);
int   TAVRWinsDomainEnumOptSetDomain(TAVRWinsDomainEnumOpt* option, const char* domain);
int   TAVRWinsDomainEnumOptSetOU(TAVRWinsDomainEnumOpt* option, const char* ou);
int   TAVRWinsDomainCoreFullDbEnum(TAVRWinsDomainEnumOpt* option, TAVRWinsDomainRow row, void* userData);
void  TAVRWinsDomainEnumOptFree(TAVRWinsDomainEnumOpt* option);
int   TAVRWinIsEnableTrustDomain(void);

}  // extern "C"
