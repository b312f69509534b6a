// Directories: finding a person in an LDAP directory, and listing the users and groups of a domain.
//
// Unless it is said otherwise, calls return 0 on success and a negative number on failure, and set the error
// record (platform/core.h); a directory that is not set up is a failure. Searches may wait for a server, up
// to the time limit that the platform has set for them.
#pragma once

#include "users.h"

extern "C" {

// --- LDAP (RFC 4511): from the name of a person to the entry ---

struct TAVRLDAPSearchOption; // where and how to search, as the administrator has set it up
struct TAVRLDAPHost {        // a connection; zero-filled before use
    void* state;
};

// Null on failure. To be given back by TAVRLDAPSearchOptionFree.
TAVRLDAPSearchOption* TAVRLDAPSearchOptionAlloc(void);

// Loads the options that are set up. `flags` is 0.
int TAVRLDAPSearchOptionGet(TAVRLDAPSearchOption* options, int flags);

// Null is allowed.
void TAVRLDAPSearchOptionFree(TAVRLDAPSearchOption* options);

// Writes the part of user@domain before the @ to `bare`. Positive on success; 0 or negative, with `bare`
// untouched, when `name` has no such form or does not fit. Asks nobody. The reserved ones are null.
int TAVRLDAPSplitName(const char* name, char* reserved1, char* reserved2, char* bare, int size);

// Describes the connection by the stored bind account. It may be opened by now, or by the first search.
int TAVRLDAPHostInitByBindConfigOnly(TAVRLDAPHost* host);

// Searches the entry of a person by the bare name. Gives the number of matches: 0 none, 1 one, more: several,
// `dn` is that of the first; negative on failure. `bare` is data and is escaped for the filter (RFC 4515
// section 3). A DN that does not fit is a failure, it is not cut.
int TAVRLDAPBrowserGetDNByUserUID(TAVRLDAPHost* host, const char* bare, char* dn, int size,
                                  TAVRLDAPSearchOption* options);

// Reads the entry `dn`. Positive: found, *record is the caller's (TAVRUserFree); an entry without address has
// a null or empty mail text. 0: not found. Negative: failure. Both flags are 0.
int TAVRLDAPBrowserUserGet(TAVRLDAPHost* host, const char* dn, TAVRUser** record, int flags1, int flags2,
                           TAVRLDAPSearchOption* options);

// Closes the connection. Safe on a host that was zero-filled and never opened.
void TAVRLDAPHostFree(TAVRLDAPHost* host);

// As TAVRGroupDescGet (users.h), for a group of the LDAP directory; its name is group@domain.
int TAVRLDAPGroupDescGet(const char* name, char** description, char** second);

// --- domain: a list of users or groups ---

struct TAVRWinsDomainEnumOpt; // what to list

// Called once for an entry, with `count` fields: their values (null: none) and their names, compared without
// case. Valid during the call-back alone. 0: taken; -1: this entry is dropped, the list goes on.
using TAVRWinsDomainRow = int (*)(int count, char** values, char** names, void* userData);

// *option is to be given back by TAVRWinsDomainEnumOptFree; it stays null on failure.
int TAVRWinsDomainEnumOptAlloc(TAVRWinsDomainEnumOpt** option);

// The setters fail for a null option, a null text, and a number that makes no sense.

// Adds a field to those that the search text is looked for in ("Name", "Description").
int TAVRWinsDomainEnumOptAddSearchFields(TAVRWinsDomainEnumOpt* option, const char* field);

// The page: index of the first entry, and the number of entries, -1 for all.
int TAVRWinsDomainEnumOptSetStart(TAVRWinsDomainEnumOpt* option, int start);
int TAVRWinsDomainEnumOptSetLimit(TAVRWinsDomainEnumOpt* option, int limit);

// 0 users, 1 groups.
int TAVRWinsDomainEnumOptSetUGType(TAVRWinsDomainEnumOpt* option, int groups);

// Only entries that hold the text in one of the search fields, ignoring case.
int TAVRWinsDomainEnumOptSetSearchSubString(TAVRWinsDomainEnumOpt* option, const char* text);

// Only one domain (with trusted domains), or one organisational unit (without); empty: all. One that is not
// there has no entries, or makes the list fail.
int TAVRWinsDomainEnumOptSetDomain(TAVRWinsDomainEnumOpt* option, const char* domain);
int TAVRWinsDomainEnumOptSetOU(TAVRWinsDomainEnumOpt* option, const char* ou);

// Calls `row` for every entry of the page, in an order that stays the same from page to page. Gives the
// number of all matching entries, before paging. An exception of `row` passes through; nothing is left open,
// and the option can be used again.
int TAVRWinsDomainCoreFullDbEnum(TAVRWinsDomainEnumOpt* option, TAVRWinsDomainRow row, void* userData);

// Null is allowed.
void TAVRWinsDomainEnumOptFree(TAVRWinsDomainEnumOpt* option);

// Non-zero when accounts of trusted domains may sign in; 0 when no domain is joined.
int TAVRWinIsEnableTrustDomain(void);

} // extern "C"
