#include "platform/users.h"

#include "linux/account_list.h"
#include "linux/accounts.h"
#include "linux/domain_accounts.h"
#include "linux/domain_lists.h"
#include "linux/domain_names.h"
#include "linux/error.h"
#include "linux/guarded.h"
#include "linux/ldap_accounts.h"
#include "linux/names.h"
#include "linux/system_accounts.h"
#include "linux/user_record.h"
#include "platform/directory.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <unordered_map>

using tavr::Account;
using tavr::Error;
using tavr::Fail;
using tavr::Group;
using tavr::Guarded;

namespace
{

// A record as handed out. Callers may put a mail text of their own into `user`; the texts here are never
// theirs.
struct Record {
    explicit Record(Account found) : account(std::move(found))
    {
        user = {account.name.c_str(),        account.uid,         account.gid, account.kind,
                account.description.c_str(), account.mail.c_str()};
    }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
    Account account;
    TAVRUser user{};
};

std::unordered_map<const TAVRUser*, std::unique_ptr<Record>>& Records()
{
    static std::unordered_map<const TAVRUser*, std::unique_ptr<Record>> records;
    return records;
}

// Whether a text is one that a record was handed out with, so that its field was not set by the caller; this
// holds for a copy of a record too.
bool IsHandedOut(const char* text)
{
    for (const auto& [user, record] : Records()) {
        if (text == record->account.description.c_str() || text == record->account.mail.c_str()) {
            return true;
        }
    }
    return false;
}

std::optional<std::string> TextToStore(const char* text)
{
    return text == nullptr || IsHandedOut(text) ? std::nullopt : std::optional<std::string>(text);
}

int CopyOut(const std::string& text, char* out, int size, int result)
{
    if (text.size() >= static_cast<size_t>(size)) {
        return Fail(Error::BufferTooSmall);
    }
    std::memcpy(out, text.c_str(), text.size() + 1);
    return result;
}

// Finds by a canonical name, one function for each kind.
template<class Found>
struct Finders {
    using Find = std::optional<Found> (*)(const std::string& canonicalName);
    Find local, domain, ldap;

    // Null: the name is of a directory that is not set up.
    [[nodiscard]] Find For(const std::string& canonicalName) const
    {
        if (!tavr::IsDirectoryName(canonicalName)) {
            return local;
        }
        if (tavr::IsDomainName(canonicalName)) {
            return domain;
        }
        return tavr::IsLdapName(canonicalName) ? ldap : nullptr;
    }
};

// Calls use(what is found by that name); -1 when there is nothing.
template<class Found, class Use>
int WithFound(const char* name, const Finders<Found>& finders, Error absent, Use use)
{
    return Guarded([&] {
        const auto canonical = tavr::CanonicalName(name);
        if (!canonical) {
            return Fail(Error::BadName);
        }
        const auto find = finders.For(*canonical);
        if (find == nullptr) {
            return Fail(Error::DirectoryNotConfigured);
        }
        auto found = find(*canonical);
        return found ? use(std::move(*found)) : Fail(absent);
    });
}

template<class Use>
int WithAccount(const char* name, Use use)
{
    const Finders<Account> finders{[](const std::string& canonical) { return tavr::FindAccount(canonical); },
                                   tavr::FindDomainAccount, tavr::FindLdapAccount};
    return WithFound(name, finders, Error::NoSuchUser, use);
}

// The group that a list is calling back with: whoever shows it asks for its description next.
const tavr::ListEntry* g_listedGroup = nullptr;

class ListedGroup
{
public:
    explicit ListedGroup(const tavr::ListEntry& group) { g_listedGroup = &group; }
    ~ListedGroup() { g_listedGroup = nullptr; }
    ListedGroup(const ListedGroup&) = delete;
    ListedGroup& operator=(const ListedGroup&) = delete;
};

int CopyDescription(const char* text, char** description, char** second)
{
    char* copy = strdup(text);
    if (copy == nullptr) {
        return Fail(Error::OutOfMemory);
    }
    *description = copy;
    if (second != nullptr) {
        *second = nullptr; // directories alone have one
    }
    return 0;
}

template<class Use>
int WithGroup(const char* name, Use use)
{
    const Finders<Group> finders{[](const std::string& canonical) { return tavr::FindGroup(canonical); },
                                 tavr::FindDomainGroup, tavr::FindLdapGroup};
    return WithFound(name, finders, Error::NoSuchGroup, use);
}

std::vector<uint32_t> GroupsOfKind(const Account& account)
{
    switch (account.kind) {
    case tavr::kKindDomain:
        return tavr::GroupsOfDomainAccount(account.name);
    case tavr::kKindLdap:
        return tavr::GroupsOfLdapAccount(account.name);
    default:
        return tavr::GroupsOf(account);
    }
}

int DescribeGroup(const char* name, char** description, char** second)
{
    return WithGroup(name, [&](const Group& group) {
        return CopyDescription(group.description.c_str(), description, second);
    });
}

} // namespace

TAVRUser* tavr::NewUserRecord(Account account)
{
    auto made = std::make_unique<Record>(std::move(account));
    TAVRUser* user = &made->user;
    Records().emplace(user, std::move(made));
    return user;
}

int TAVRUserGet(const char* name, TAVRUser** record)
{
    if (name == nullptr || record == nullptr) {
        return Fail(Error::BadParameter);
    }
    return WithAccount(name, [&](Account account) {
        *record = tavr::NewUserRecord(std::move(account));
        return 0;
    });
}

void TAVRUserFree(TAVRUser* record)
{
    Records().erase(record);
}

int TAVRUserLoginNameConvert(const char* name, char* out, int size)
{
    if (name == nullptr || out == nullptr || size <= 0) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        const auto canonical = tavr::CanonicalName(name);
        return canonical ? CopyOut(*canonical, out, size, 1) : Fail(Error::BadName);
    });
}

int TAVRUserPreferenceDirGet(const char* name, char* dir, int size, int /*flags*/)
{
    if (name == nullptr || dir == nullptr || size <= 0) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        const auto canonical = tavr::CanonicalName(name);
        return canonical ? CopyOut(tavr::PreferencePath(*canonical), dir, size, 0) : Fail(Error::BadName);
    });
}

int TAVRConfdUserUpdate(const char* name, const TAVRUser* record, int /*flags*/)
{
    if (name == nullptr || record == nullptr) {
        return Fail(Error::BadParameter);
    }
    return WithAccount(name, [&](const Account& account) {
        if (account.kind != tavr::kKindLocal) {
            return Fail(Error::NotAllowed);
        }
        // Another account by now: the one that the record was read of has been removed.
        if (account.uid != record->uid) {
            return Fail(Error::NoSuchUser);
        }
        if (tavr::AreSystemAccounts() && TextToStore(record->description)) {
            return Fail(Error::NotAllowed); // the system's to say
        }
        const tavr::AccountChange change{TextToStore(record->description), TextToStore(record->mail)};
        if ((change.mail && tavr::MailProblem(*change.mail) != nullptr) ||
            (change.description && tavr::DescriptionProblem(*change.description) != nullptr)) {
            return Fail(Error::BadParameter);
        }
        return tavr::ChangeAccount(account.uid, change) ? 0 : Fail(Error::NoSuchUser);
    });
}

int TAVRUserGetUGID(const char* name, uint32_t* uid, uint32_t* gid)
{
    if (name == nullptr) {
        return Fail(Error::BadParameter);
    }
    if (const uint32_t listed = tavr::NumberOfListedAccount(name); listed != 0 && gid == nullptr) {
        if (uid != nullptr) {
            *uid = listed;
        }
        return 0;
    }
    return WithAccount(name, [&](const Account& account) {
        if (uid != nullptr) {
            *uid = account.uid;
        }
        if (gid != nullptr) {
            *gid = account.gid;
        }
        return 0;
    });
}

int TAVRGroupGetGID(const char* name, uint32_t* gid)
{
    if (name == nullptr || gid == nullptr) {
        return Fail(Error::BadParameter);
    }
    if (const uint32_t listed = tavr::NumberOfListedGroup(name); listed != 0) {
        *gid = listed;
        return 0;
    }
    return WithGroup(name, [&](const Group& group) {
        *gid = group.gid;
        return 0;
    });
}

int TAVRGroupDescGet(const char* name, char** description, char** second)
{
    if (name == nullptr || description == nullptr) {
        return Fail(Error::BadParameter);
    }
    if (g_listedGroup != nullptr && std::strcmp(g_listedGroup->name, name) == 0) {
        return CopyDescription(g_listedGroup->description, description, second);
    }
    return DescribeGroup(name, description, second);
}

int TAVRLDAPGroupDescGet(const char* name, char** description, char** second)
{
    if (name == nullptr || description == nullptr) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        if (!tavr::IsLdapSetUp()) {
            return Fail(Error::DirectoryNotConfigured);
        }
        const auto canonical = tavr::CanonicalName(name);
        const bool isOurs = canonical && tavr::IsLdapName(*canonical);
        return isOurs ? DescribeGroup(name, description, second) : Fail(Error::NoSuchGroup);
    });
}

int KLIBGroupIsAdminGroupMem(const char* name, int /*flags*/)
{
    if (name == nullptr) {
        return Fail(Error::BadParameter);
    }
    return WithAccount(name, [](const Account& account) { return account.isAdmin ? 1 : 0; });
}

int KLIBGroupInfoGidGet(const char* name, int /*flags*/, uint32_t** gids, int* count)
{
    if (name == nullptr || gids == nullptr || count == nullptr) {
        return Fail(Error::BadParameter);
    }
    return WithAccount(name, [&](const Account& account) {
        const auto groups = GroupsOfKind(account);
        if (groups.empty()) {
            *gids = nullptr;
            *count = 0;
            return 0;
        }
        const size_t size = groups.size() * sizeof groups[0];
        auto* copy = static_cast<uint32_t*>(std::malloc(size));
        if (copy == nullptr) {
            return Fail(Error::OutOfMemory);
        }
        std::memcpy(copy, groups.data(), size);
        *gids = copy;
        *count = static_cast<int>(groups.size());
        return 0;
    });
}

// --- Lists -------------------------------------------------------------------------------------------------

namespace
{

using List = int64_t (*)(std::string_view text, const tavr::ListPage& page, const tavr::EachEntry& each);
using Numbered = int (*)(const char* name, uint32_t* number);

// The lists of either accounts or groups.
struct Lists {
    List local;
    List ldap;
    tavr::DomainList domain;
    tavr::DomainList seen; // of a domain that there is no copy of; null: nobody can tell
    Numbered numberOf;     // of a domain
};

struct Asked {
    int source;
    const char* domain;
    const char* query;
    tavr::ListPage page;
};

// As the library's own list of a domain has it, and in its place where that fails.
int64_t ListDomain(const Lists& lists, const Asked& asked, std::string_view query,
                   const tavr::EachEntry& each)
{
    tavr::CopyPart part;
    (TAVRWinIsEnableTrustDomain() != 0 ? part.domain : part.unit) =
        asked.domain == nullptr ? "" : asked.domain;
    auto total = lists.domain(part, query, asked.page, [&](const tavr::ListEntry& found) {
        tavr::ListEntry entry = found;
        if (entry.number != 0 || lists.numberOf(entry.name, &entry.number) == 0) {
            each(entry);
        }
    });
    if (!total && lists.seen != nullptr) {
        total = lists.seen(part, query, asked.page, each);
    }
    return total ? *total : Fail(Error::DomainNotCopied);
}

// Gives the number of all matches; calls `row` with what is made of each entry of the page.
template<class Row, class ToEntry>
int Enumerate(const Lists& lists, const Asked& asked, Row row, void* userData, ToEntry toEntry)
{
    if (row == nullptr || asked.page.offset < 0 || asked.page.limit < -1) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        const char* query = asked.query == nullptr ? "" : asked.query;
        const auto each = [&](const tavr::ListEntry& found) {
            const auto entry = toEntry(found);
            row(&entry, userData);
        };
        if (asked.source == tavr::kKindLocal) {
            return static_cast<int>(lists.local(query, asked.page, each));
        }
        if (asked.source == tavr::kKindLdap && tavr::IsLdapSetUp()) {
            return static_cast<int>(lists.ldap(query, asked.page, each));
        }
        if (asked.source == tavr::kKindDomain && !tavr::KnownDomains().empty()) {
            return static_cast<int>(ListDomain(lists, asked, query, each));
        }
        return Fail(Error::DirectoryNotConfigured);
    });
}

int64_t ListGroupsWithDescriptions(std::string_view query, const tavr::ListPage& page,
                                   const tavr::EachEntry& each)
{
    return tavr::ListGroups(query, page, [&](const tavr::ListEntry& found) {
        const ListedGroup listed(found);
        each(found);
    });
}

std::optional<int64_t> ListDomainGroupsWithDescriptions(const tavr::CopyPart& part, std::string_view query,
                                                        const tavr::ListPage& page,
                                                        const tavr::EachEntry& each)
{
    return tavr::ListDomainGroups(part, query, page, [&](const tavr::ListEntry& found) {
        const ListedGroup listed(found);
        each(found);
    });
}

constexpr Lists kAccountLists{
    tavr::ListAccounts, tavr::ListLdapAccounts, tavr::ListDomainAccounts, tavr::ListSeenDomainAccounts,
    [](const char* name, uint32_t* uid) { return TAVRUserGetUGID(name, uid, nullptr); }};
constexpr Lists kGroupLists{ListGroupsWithDescriptions, tavr::ListLdapGroups,
                            ListDomainGroupsWithDescriptions, nullptr, TAVRGroupGetGID};

} // namespace

int KLIBUserInfoEnumBySubstr(int source, const char* domain, int offset, int limit, const char* query,
                             int /*flags*/, KLIBUserInfoRow row, void* userData)
{
    return Enumerate(kAccountLists, {source, domain, query, {offset, limit}}, row, userData,
                     [source](const tavr::ListEntry& found) {
                         return KLIBUserInfo{found.name, found.number, found.description, source};
                     });
}

int KLIBGroupInfoEnumBySubstr(int source, const char* domain, int offset, int limit, const char* query,
                              int /*flags*/, KLIBGroupInfoRow row, void* userData)
{
    return Enumerate(kGroupLists, {source, domain, query, {offset, limit}}, row, userData,
                     [source](const tavr::ListEntry& found) {
                         return KLIBGroupInfo{found.name, found.number, source};
                     });
}
