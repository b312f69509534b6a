// Second-step secrets: where an account's file lies, the check of a code against a file, and the machine's id
// for key URIs.
//
// A secret file is text, lines ended by a line feed. Line 1 is the secret. Lines that begin with a double
// quote are options. Every other line is one scratch code. Secret and codes may stand there in the enciphered
// form of platform/core.h. Such a file is made whole by the platform's tool /usr/bin/google-authenticator:
// "-s PATH" writes it to PATH, which is /tmp/OTP_ and the account's number, readable by its owner alone, and
// prints the secret as the first bytes of its output, 24 at least. The library takes 24 bytes of that output,
// and of line 1 the first 16, and has both deciphered, so both have to give the secret: in base-32 (RFC
// 4648), without anything behind it that a person or an app could take for a part of it. It moves the file to
// its place with /bin/mv, so the folder there has to stand by then.
#pragma once

extern "C" {

// Writes the absolute path of the account's secret file, in a folder that the service alone may write to.
// Creates nothing, and does not ask whether account or file are there. 0 on success; negative when the name
// has no place for one or the path does not fit, `path` is then an empty text: callers take the path as it
// stands and look at the file only. They give 4096 bytes.
int TAVRGetSecretPathByUser(const char* user, char* path, int size);

// Checks a one-time code. `count` is 3 and `texts` are, in this order and without a null at the end,
// "username=NAME", "code=CODE" and "secret=PATH", PATH being the file that holds the secret, of this account.
// They come cut at 1023, 63 and 4095 bytes. 0: the code is valid now (RFC 6238: SHA-1, 30 s, six digits) and
// has been taken; whatever rules the platform has about steps, repetition and number of tries are its own and
// have been applied. Anything else: refused, what has not this form too. Leaves the file where it is. Works
// with the caller's ids.
int TAVRGoogleAuth(int count, const char* const* texts);

// --- the machine's id ---
//
// A stable text of at most 64 bytes that tells one machine from another. Optional: a platform without one
// answers false.

struct TavrHwid {
    int size;   // length of the text, without terminator
    char* text; // belongs to the record; null until tavrcrypto_hwid_str has filled it
};

// A new record, to be given back by tavrcrypto_hwid_free; null on failure. The two calls below take null.
TavrHwid* tavrcrypto_hwid_init(void);

// Fills the record's text, of at most `size` bytes (64) with its terminator; may be called again. False when
// there is no id, for one that does not fit whole, and for a null record.
bool tavrcrypto_hwid_str(TavrHwid* id, int size);

void tavrcrypto_hwid_free(TavrHwid* id);

} // extern "C"
