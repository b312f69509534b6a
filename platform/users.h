#pragma once

#include <cstdint>

extern "C" {

struct TAVRUser {                                // texts belong to the record, except a mail text that a caller put there
    const char* name; uint32_t uid; uint32_t gid; int kind; const char* description; const char* mail;
};
int   TAVRUserGet(const char* name, TAVRUser** record);
void  TAVRUserFree(TAVRUser* record);
int   TAVRUserLoginNameConvert(const char* name, char* out, int size);
int   TAVRUserPreferenceDirGet(const char* name, char* dir, int size, int flags);
int   TAVRConfdUserUpdate(const char* name, const TAVRUser* record, int flags);
int   TAVRUserGetUGID(const char* name, uint32_t* uid, uint32_t* gid);
int   TAVRGroupGetGID(const char* name, uint32_t* gid);
int   TAVRGroupDescGet(const char* name, char** description, char** second);
int   KLIBGroupIsAdminGroupMem(const char* name, int flags);
int   KLIBGroupInfoGidGet(const char* name, int flags, uint32_t** gids, int* count);
struct KLIBUserInfo  { const char* name; uint32_t uid; const char* description; int source; };
struct KLIBGroupInfo { const char* name; uint32_t gid; int source; };
using KLIBUserInfoRow  = int (*)(const KLIBUserInfo* entry, void* userData);
using KLIBGroupInfoRow = int (*)(const KLIBGroupInfo* entry, void* userData);
int   KLIBUserInfoEnumBySubstr(int source, const char* domain, int offset, int limit, const char* query,
                               int flags, KLIBUserInfoRow row, void* userData);
int   KLIBGroupInfoEnumBySubstr(int source, const char* domain, int offset, int limit, const char* query,
                                int flags, KLIBGroupInfoRow row, void* userData);

}  // extern "C"
