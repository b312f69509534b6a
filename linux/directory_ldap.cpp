// The library's own search for a person in the LDAP directory (platform/directory.h). The connection is the
// request's, so options and host are there to be asked for and given back, and hold nothing.
#include "platform/directory.h"

#include "linux/error.h"
#include "linux/guarded.h"
#include "linux/ldap_accounts.h"
#include "linux/user_record.h"

#include <cstring>
#include <new>

using tavr::Error;
using tavr::Fail;
using tavr::Guarded;

struct TAVRLDAPSearchOption {
    bool loaded = false;
};

namespace
{

char initialised; // a host's state points here

// Calls search(), if a directory is set up and the arguments are what it takes.
template<class Search>
int WithHost(const TAVRLDAPHost* host, const TAVRLDAPSearchOption* options, bool otherwiseValid,
             Search search)
{
    return Guarded([&] {
        if (!tavr::IsLdapSetUp()) {
            return Fail(Error::DirectoryNotConfigured);
        }
        const bool valid = otherwiseValid && host != nullptr && host->state == &initialised &&
                           options != nullptr && options->loaded;
        return valid ? search() : Fail(Error::BadParameter);
    });
}

} // namespace

TAVRLDAPSearchOption* TAVRLDAPSearchOptionAlloc(void)
{
    auto* options = new (std::nothrow) TAVRLDAPSearchOption;
    if (options == nullptr) {
        Fail(Error::OutOfMemory);
    }
    return options;
}

int TAVRLDAPSearchOptionGet(TAVRLDAPSearchOption* options, int /*flags*/)
{
    if (options == nullptr) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        options->loaded = tavr::IsLdapSetUp();
        return options->loaded ? 0 : Fail(Error::DirectoryNotConfigured);
    });
}

void TAVRLDAPSearchOptionFree(TAVRLDAPSearchOption* options)
{
    delete options;
}

// Asks nobody, so it works without a directory.
int TAVRLDAPSplitName(const char* name, char* /*reserved1*/, char* /*reserved2*/, char* bare, int size)
{
    if (name == nullptr || bare == nullptr || size <= 0) {
        return Fail(Error::BadParameter);
    }
    const size_t length = std::strcspn(name, "@");
    if (length == 0 || name[length] == 0) {
        return Fail(Error::BadName);
    }
    if (length >= static_cast<size_t>(size)) {
        return Fail(Error::BufferTooSmall);
    }
    std::memcpy(bare, name, length);
    bare[length] = 0;
    return 1;
}

int TAVRLDAPHostInitByBindConfigOnly(TAVRLDAPHost* host)
{
    if (host == nullptr) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        if (!tavr::IsLdapSetUp()) {
            return Fail(Error::DirectoryNotConfigured);
        }
        host->state = &initialised; // opened by the first search
        return 0;
    });
}

int TAVRLDAPBrowserGetDNByUserUID(TAVRLDAPHost* host, const char* bare, char* dn, int size,
                                  TAVRLDAPSearchOption* options)
{
    return WithHost(host, options, bare != nullptr && dn != nullptr && size > 0, [&] {
        const tavr::LdapMatches found = tavr::FindLdapEntries(bare);
        if (found.dn.size() >= static_cast<size_t>(size)) {
            return Fail(Error::BufferTooSmall);
        }
        if (found.count > 0) {
            std::memcpy(dn, found.dn.c_str(), found.dn.size() + 1);
        }
        return found.count;
    });
}

int TAVRLDAPBrowserUserGet(TAVRLDAPHost* host, const char* dn, TAVRUser** record, int /*flags1*/,
                           int /*flags2*/, TAVRLDAPSearchOption* options)
{
    return WithHost(host, options, dn != nullptr && record != nullptr, [&] {
        auto account = tavr::ReadLdapEntry(dn);
        if (!account) {
            return 0;
        }
        *record = tavr::NewUserRecord(std::move(*account));
        return 1;
    });
}

void TAVRLDAPHostFree(TAVRLDAPHost* host)
{
    if (host != nullptr) {
        host->state = nullptr;
    }
}
