// LDAP accounts: none can be set up yet, so every question is answered with DirectoryNotConfigured.
#include "linux/error.h"
#include "platform/directory.h"

#include <cstring>
#include <new>

using tavr::Error;
using tavr::Fail;

struct TAVRLDAPSearchOption {
};

TAVRLDAPSearchOption* TAVRLDAPSearchOptionAlloc(void)
{
    auto* options = new (std::nothrow) TAVRLDAPSearchOption;
    if (options == nullptr) {
        Fail(Error::OutOfMemory);
    }
    return options;
}

int TAVRLDAPSearchOptionGet(TAVRLDAPSearchOption* /*options*/, int /*flags*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

void TAVRLDAPSearchOptionFree(TAVRLDAPSearchOption* options)
{
    delete options;
}

// The part before the "@". Asks nobody, so it works without a directory.
int TAVRLDAPSplitName(const char* name, char* /*reserved1*/, char* /*reserved2*/, char* bare, int size)
{
    if (name == nullptr || bare == nullptr || size <= 0) {
        return Fail(Error::BadParameter);
    }
    const size_t length = std::strcspn(name, "@");
    if (length == 0) {
        return Fail(Error::BadName);
    }
    if (length >= static_cast<size_t>(size)) {
        return Fail(Error::BufferTooSmall);
    }
    std::memcpy(bare, name, length);
    bare[length] = 0;
    return 1;
}

int TAVRLDAPHostInitByBindConfigOnly(TAVRLDAPHost* /*host*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRLDAPBrowserGetDNByUserUID(TAVRLDAPHost* /*host*/, const char* /*bare*/, char* /*dn*/, int /*size*/,
                                  TAVRLDAPSearchOption* /*options*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

int TAVRLDAPBrowserUserGet(TAVRLDAPHost* /*host*/, const char* /*dn*/, TAVRUser** /*record*/, int /*flags1*/,
                           int /*flags2*/, TAVRLDAPSearchOption* /*options*/)
{
    return Fail(Error::DirectoryNotConfigured);
}

void TAVRLDAPHostFree(TAVRLDAPHost* /*host*/) {}

int TAVRLDAPGroupDescGet(const char* /*name*/, char** /*description*/, char** /*second*/)
{
    return Fail(Error::DirectoryNotConfigured);
}
