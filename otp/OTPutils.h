// Secrets, their QR codes, codes against them, and recovery addresses.
//
// An int result is 0 for done and -1 for failed; a bool is true for done. Failures are logged. Out-arguments
// are written on success alone. Nothing is kept between calls. Unless a function says so, it runs with the
// ids of its caller. Exceptions of the JSON and string libraries pass through.
#pragma once

#include <cstddef>
#include <string>

#pragma GCC visibility push(default)
namespace OTPUtils
{

// --- the secret file ---

// Has a new secret file made at the temporary path of `uid`, over an earlier one. Gives the first 24 bytes
// that the tool printed, and the path.
int CreateSecretKey(unsigned int uid, std::string& secret, std::string& tmpPath);

// Reads the first 16 bytes of the account's secret file. 0 with both strings untouched: there is no file.
// -1: the file is there and cannot be read, or is shorter.
int GetUserSecretKey(const char* user, std::string& secret, std::string& path);

// Makes a temporary secret file the account's own, in place of an earlier one.
bool MoveTmpSecret(const char* user, const char* tmpPath);

// --- the QR code ---

// The key URI of `secret` under the label `account` as a PNG picture in base-64. Of the picture at most 4,096
// bytes are read; a larger one is cut and comes out broken. Without `defaultMargin` it has no quiet zone.
int GenQRcodePNG(std::string secret, std::string account, std::string& pngBase64, bool defaultMargin);
int GenQRcodePNG(std::string secret, std::string account, std::string& pngBase64);

// --- codes ---

// Asks the platform whether `code` is valid for the secret in the file `secretPath`. Names of more than 1,014
// and codes of more than 58 characters reach it cut.
bool AuthOTPcode(const char* user, const char* code, const char* secretPath);

// --- recovery addresses ---
//
// Kept where the kind of the account has them: in the user record (local), in the preference file
// "usersettings" (a backslash in the name: domain), in the directory (else an @: LDAP, read only).

// `dst` of `n` bytes gets the address, cut to fit. GetUserMail picks the kind and raises the effective ids to
// root for the look-up; the others do not. A "usersettings" that is JSON of another shape ends in an
// exception of the JSON library.
bool GetUserMail(const char* user, char* dst, size_t n);
bool GetNormalUserMail(const char* user, char* dst, size_t n);
bool GetDomainUserMail(const char* user, char* dst, size_t n);
bool GetLDAPUserMail(const char* user, char* dst, size_t n);

// The text is not judged; an empty one is stored as an empty address. The preference file is rewritten in
// place, and has to be there and to be JSON.
bool SetUserMail(const char* user, const char* mail);
bool SetNormalUserMail(const char* user, const char* mail);
bool SetDomainUserMail(const char* user, const char* mail);

} // namespace OTPUtils
#pragma GCC visibility pop
