#pragma once

#include <cstdio>

extern "C" {

int         KLIBCErrGet(void);
const char* KLIBCErrorGetFile(void);
int         KLIBCErrorGetLine(void);
FILE* KLIBCPopen(const char* path, const char* mode, ...);   // arguments after mode (argv[1]...), ended by a null char*
int   KLIBCPclose(FILE* stream);
int   KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3, const char* arg4);
int   KLIBCBase64SzEncodeFull(const char* in, int inSize, char* out, int outSize, int flags);
int   KLIBCCryptSzDecrypt(const char* stored, char* plain, int size);
int   KLIBCFileExist(const char* path);
int   KLIBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flags);
struct KLIBCSzHash;
KLIBCSzHash* KLIBCSzHashAlloc(int size);
int   KLIBCSzHashSetValue(KLIBCSzHash** hash, const char* key, const char* value);
void  KLIBCSzHashFree(KLIBCSzHash* hash);
int   TAVRHAIsSafemode(void);

}  // extern "C"
