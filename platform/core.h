// The core of a platform: its error record, the start of other programs, base-64, the text cipher, files of
// settings, and a table of texts.
//
// For this and the other headers: every failing call of the platform sets the error record. An argument that
// is null, and is not said to be allowed so, is a failure like any other, and so is a buffer of no size.
// Sizes of text buffers count the terminator; whatever is written is terminated, and nothing is written
// beyond. Ids that a call changes are back when it returns.
//
// The calls here work with the ids that the process has.
#pragma once

#include <cstdio>

extern "C" {

// --- the error record: what the last failing call of the platform met ---

// Each thread has its own, kept until its next failure; reading it changes nothing, success does not clear
// it. The code is one of the platform's own (logs show it in hexadecimal), 0 before the first failure. File
// and line are the place in the platform's source; the file is a bare name, never null, valid for ever.
int KLIBCErrGet(void);
const char* KLIBCErrorGetFile(void);
int KLIBCErrorGetLine(void);

// --- other programs ---
//
// Started without a shell, with the arguments as they are given, with a fixed environment, and with no
// descriptor of the caller but 0, 1 and 2.

// Runs `path`, an absolute path, and gives a stream to read its standard output from. `mode` is "r". The
// texts after it are argv[1] and on, ended by a null char* (a typed one: a bare NULL may be passed as an
// int). Null when the program could not be started. Waits for nothing. The stream goes back by KLIBCPclose
// alone.
FILE* KLIBCPopen(const char* path, const char* mode, ...);

// Closes the stream and waits for the program to end; a program that is still writing then gets SIGPIPE.
// Gives its exit status (128 + signal when one killed it), -1 when that is not known.
int KLIBCPclose(FILE* stream);

// Runs `path` with up to four arguments, the first null one ends them, and waits. 0 when the program ended
// with status 0; anything else is a failure: its status, or -1 when it could not be run.
int KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3, const char* arg4);

// --- texts ---

// Writes the base-64 form (RFC 4648 section 4, with padding, on one line) of `inSize` bytes to `out`. Gives
// its length; -1, with `out` an empty text (or untouched when it has no room for that), when it does not fit
// into `outSize` bytes. `flags` is 0.
int KLIBCBase64SzEncodeFull(const char* in, int inSize, char* out, int outSize, int flags);

// Deciphers one stored text. Non-zero: `plain` holds the text, whole. 0: `stored` is none that this cipher
// made, or not one that this request may have, or does not fit, or it could not be looked up; `plain` is
// untouched. A caller takes 0 for a plain text, so a platform that must tell "could not be looked up" from
// "declined" notes the fault elsewhere; one whose secret files hold plain texts always answers 0. A secret
// has 1024 bytes of room here, a scratch code has eight characters at most. Never logs what it is given.
int KLIBCCryptSzDecrypt(const char* stored, char* plain, int size);

// --- files ---

// Non-zero when something stands at `path`, a folder too, as the effective ids can tell.
int KLIBCFileExist(const char* path);

// Reads the value of `key` from a file of lines key="value" (quotes may be missing, lines that begin with #
// are comments, the last of several counts). Gives the length of the value; otherwise `value` is untouched
// and the error record set: 0 when the key is absent or its value empty, -1 when the file cannot be read or
// the value does not fit; it is not cut. Read anew in every call. `flags` is 0.
int KLIBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flags);

// --- a table of texts by key, for the templates of mails ---

struct KLIBCSzHash;

// A new table, to be given back by KLIBCSzHashFree; null on failure. `size` is the room to begin with, in
// bytes.
KLIBCSzHash* KLIBCSzHashAlloc(int size);

// Stores copies of both texts; a key that is there gets the new value. May move the table: *hash is then its
// new address. -1 on failure, the table is then as it was and still the caller's.
int KLIBCSzHashSetValue(KLIBCSzHash** hash, const char* key, const char* value);

// Null is allowed.
void KLIBCSzHashFree(KLIBCSzHash* hash);

// --- the system's state ---

// Non-zero while the system runs in the safe mode of its high-availability pair. Never fails: a state that is
// not known is "no".
int TAVRHAIsSafemode(void);

} // extern "C"
