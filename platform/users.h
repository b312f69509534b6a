// Accounts and groups: finding a record, reading what it holds, changing it, and listing.
//
// Unless it is said otherwise, calls return 0 on success and a negative number on failure, leave their
// out-arguments untouched then, and set the error record (platform/core.h). Names are canonical ones. `flags`
// are 0 unless a call says more. Accounts come from three sources, whose codes stand in records and in
// requests: 1 local, 2 domain, 8 LDAP. What could not be looked up is a failure, never "no" and never "none".
#pragma once

#include <cstdint>

extern "C" {

// --- one account ---

struct TAVRUser {
    const char* name;
    uint32_t uid; // unique over all sources, and never given to another account once this one is gone
    uint32_t gid;
    int kind;                // source code: 2 domain, 8 LDAP, any other local
    const char* description; // null or empty: none
    const char* mail;        // null or empty: none
};

// Finds an account of any source. On success *record is the caller's, to be released with TAVRUserFree. Its
// texts belong to the record, except a mail text that a caller has put there.
int TAVRUserGet(const char* name, TAVRUser** record);

// Never looks at `mail` in a record whose caller has put a text of its own there: that text may be gone by
// now. Null is allowed.
void TAVRUserFree(TAVRUser* record);

// The name under which the account of a given spelling signs in. 1: `out` holds it. Anything else: there is
// no other one, `out` is untouched.
int TAVRUserLoginNameConvert(const char* name, char* out, int size);

// The absolute path of the account's preference directory, without a slash at the end: each name has its own.
// Creates nothing, asks nobody. Also for accounts that are known to a directory only. The directory is made
// by the first login (cgi.h) as the service's, with mode 0700. It holds what other parts of the system keep
// for the account too: "usersettings", and "emailaccount.db" (db.h).
int TAVRUserPreferenceDirGet(const char* name, char* dir, int size, int flags);

// Writes the texts that the caller has put into `record` to the local account `name`: a mail address, which
// may be empty, or a description. Texts that TAVRUserGet handed out, and null, say that what is stored stays,
// so others who write at the same time lose nothing. Whether a text is an address is not judged; one that
// cannot be stored (too long, control characters, no UTF-8) is a failure, and so is an account of a
// directory, which is never written to.
int TAVRConfdUserUpdate(const char* name, const TAVRUser* record, int flags);

// --- numbers and memberships ---

// Either out-argument may be null.
int TAVRUserGetUGID(const char* name, uint32_t* uid, uint32_t* gid);
int TAVRGroupGetGID(const char* name, uint32_t* gid);

// The description of a local or domain group in memory of malloc, for the caller to free(); an empty text
// when it has none. `second` may get another text of the group, which stays the platform's; null when nobody
// wants it.
int TAVRGroupDescGet(const char* name, char** description, char** second);

// 1: the account is a member of the administrators. 0: it is not. Negative: not known.
int KLIBGroupIsAdminGroupMem(const char* name, int flags);

// The gids of all groups that the account belongs to, in memory of malloc, for the caller to free(). None: 0,
// *count 0 and *gids null.
int KLIBGroupInfoGidGet(const char* name, int flags, uint32_t** gids, int* count);

// --- lists ---

// One entry of a list, valid during the call-back alone.
struct KLIBUserInfo {
    const char* name; // null: an entry that has none
    uint32_t uid;
    const char* description; // null: none
    int source;
};
struct KLIBGroupInfo {
    const char* name;
    uint32_t gid;
    int source;
};

// 0: taken. -1: this entry is dropped; the list goes on.
using KLIBUserInfoRow = int (*)(const KLIBUserInfo* entry, void* userData);
using KLIBGroupInfoRow = int (*)(const KLIBGroupInfo* entry, void* userData);

// Calls `row` for the entries of `source` that hold `query` in their name or description, ignoring case
// (empty: all of them), in an order that stays the same from page to page: `limit` of them from `offset` on,
// all when `limit` is -1. Every character of `query` stands for itself. `domain` narrows a domain's list;
// local ones ignore it. `flags` is 1. Gives the number of all matching entries, before paging; a source that
// is not there is a failure. `row` may ask for accounts, groups and their descriptions meanwhile; the
// record of an account that it is called with may lack the address, which lists need not ask for. An
// exception of `row` passes through; nothing is left open.
int KLIBUserInfoEnumBySubstr(int source, const char* domain, int offset, int limit, const char* query,
                             int flags, KLIBUserInfoRow row, void* userData);
int KLIBGroupInfoEnumBySubstr(int source, const char* domain, int offset, int limit, const char* query,
                              int flags, KLIBGroupInfoRow row, void* userData);

} // extern "C"
