// The platform error record: last code, source file and line, read by platform/core.h's three functions.
// Every failing function of the platform sets it at the statement that fails:
//
//     return Fail(Error::NotFound);            // sets the record, gives -1
#pragma once

namespace tavr
{

// The codes that KLIBCErrGet gives. Values are shown in log lines and stay.
enum class Error : int {
    None = 0,
    BadParameter = 0x0D00,
    OutOfMemory = 0x0200,
    BufferTooSmall = 0x0300,
    OpenFailed = 0x0400,
    ReadFailed = 0x0500,
    WriteFailed = 0x0600,
    NotFound = 0x0700,
    KeyNotFound = 0x0800,
    ExecFailed = 0x0900,
    DatabaseFailed = 0x0A00,
    BadName = 0x1400,
    NoSuchUser = 0x1D00,
    NoSuchGroup = 0x1E00,
    DirectoryNotConfigured = 0x2100, // LDAP or domain asked for, none set up
    DirectoryUnavailable = 0x2200,   // it cannot be asked, or did not answer in time
    DomainNotCopied = 0x2300,        // there is no copy of it yet
    VaultUnavailable = 0x2800,       // vault or machine key missing, locked or damaged
    NotAllowed = 0x2900,
};

// Sets the record to `code` and the caller's place; gives -1, for use behind `return`.
int Fail(Error code, const char* file = __builtin_FILE(), int line = __builtin_LINE());

} // namespace tavr
