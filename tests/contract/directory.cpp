// platform/directory.h, and what users.h says of directories' accounts.
#include "platform/directory.h"

#include "platform/cgi.h"
#include "tests/contract/support.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <strings.h>

namespace contract
{
namespace
{

// --- Without a directory ---

using DirectoryNames = Case;

TEST_F(DirectoryNames, AreSplitAtTheAt)
{
    Out bare;
    EXPECT_GT(TAVRLDAPSplitName("mia@office.example", nullptr, nullptr, bare.Get(), 1024), 0);
    EXPECT_EQ("mia", bare.Text());
    EXPECT_TRUE(bare.Untouched(4));
    Out exact;
    EXPECT_GT(TAVRLDAPSplitName("mia@office.example", nullptr, nullptr, exact.Get(), 4), 0) << "it just fits";
    Out none;
    EXPECT_LE(TAVRLDAPSplitName("mia@office.example", nullptr, nullptr, none.Get(), 3), 0);
    EXPECT_LE(TAVRLDAPSplitName("@office.example", nullptr, nullptr, none.Get(), 1024), 0);
    EXPECT_LE(TAVRLDAPSplitName("", nullptr, nullptr, none.Get(), 1024), 0);
    EXPECT_LE(TAVRLDAPSplitName("mia", nullptr, nullptr, none.Get(), 1024), 0) << "there is no @";
    EXPECT_LE(TAVRLDAPSplitName(nullptr, nullptr, nullptr, none.Get(), 1024), 0);
    EXPECT_LE(TAVRLDAPSplitName("mia@office.example", nullptr, nullptr, nullptr, 1024), 0);
    EXPECT_TRUE(none.Untouched());
}

using DirectoryResources = Case;

TEST_F(DirectoryResources, AreGivenBackWhole)
{
    EXPECT_TRUE(GivesEverythingBack([] { TAVRLDAPSearchOptionFree(TAVRLDAPSearchOptionAlloc()); }));
    TAVRLDAPSearchOptionFree(nullptr);
    TAVRLDAPHost host{};
    TAVRLDAPHostFree(&host);
    EXPECT_TRUE(Fails([] { return TAVRLDAPSearchOptionGet(nullptr, 0); }));
    EXPECT_TRUE(Fails([] { return TAVRLDAPHostInitByBindConfigOnly(nullptr); }));
}

// --- LDAP ---

class DirectoryLdap : public Case
{
protected:
    void SetUp() override
    {
        Case::SetUp();
        ldap_ = SetUpLdap();
        if (!ldap_) {
            GTEST_SKIP() << "the maker says that there is no LDAP directory";
        }
        StartRequest();
        options_ = TAVRLDAPSearchOptionAlloc();
        ASSERT_NE(nullptr, options_);
        ASSERT_EQ(0, TAVRLDAPSearchOptionGet(options_, 0));
        ASSERT_EQ(0, TAVRLDAPHostInitByBindConfigOnly(&host_));
    }
    void TearDown() override
    {
        TAVRLDAPHostFree(&host_);
        TAVRLDAPSearchOptionFree(options_);
        Case::TearDown();
    }
    int Search(const std::string& bare, Out& dn, int size = 1024)
    {
        return TAVRLDAPBrowserGetDNByUserUID(&host_, bare.c_str(), dn.Get(), size, options_);
    }
    int Read(const std::string& dn, TAVRUser** record)
    {
        return TAVRLDAPBrowserUserGet(&host_, dn.c_str(), record, 0, 0, options_);
    }

    std::optional<Ldap> ldap_;
    TAVRLDAPSearchOption* options_ = nullptr;
    TAVRLDAPHost host_{};
};

TEST_F(DirectoryLdap, FindsAPersonByTheBareName)
{
    Out dn;
    ASSERT_EQ(1, Search(ldap_->person.bare, dn));
    EXPECT_EQ(0, strcasecmp(ldap_->person.dn.c_str(), dn.Text().c_str())) << dn.Text();
    EXPECT_TRUE(dn.Untouched(dn.Text().size() + 1));
    Out exact;
    const int size = static_cast<int>(dn.Text().size());
    EXPECT_EQ(1, Search(ldap_->person.bare, exact, size + 1)) << "it just fits";
    Out none;
    EXPECT_TRUE(Fails([&] { return Search(ldap_->person.bare, none, size); })) << "it does not fit";
    EXPECT_EQ(0, Search("contract-nobody", none));
    EXPECT_EQ(0, Search(ldap_->person.bare.substr(0, 2) + "*", none)) << "data, and not a filter";
    EXPECT_EQ(0, Search(ldap_->person.bare + ")(uid=*", none));
    EXPECT_TRUE(none.Untouched());
    EXPECT_EQ(1, Search(ldap_->specials, dn)) << ldap_->specials;
    EXPECT_GT(Search(ldap_->twice, dn), 1) << "more than one, and the first's";
    EXPECT_TRUE(
        Fails([&] { return TAVRLDAPBrowserGetDNByUserUID(&host_, nullptr, dn.Get(), 1024, options_); }));
    EXPECT_TRUE(Fails([&] { return TAVRLDAPBrowserGetDNByUserUID(&host_, "x", nullptr, 1024, options_); }));
}

TEST_F(DirectoryLdap, ReadsAnEntry)
{
    TAVRUser* record = nullptr;
    ASSERT_GT(Read(ldap_->person.dn, &record), 0);
    ASSERT_NE(nullptr, record);
    const UserRecord person(record);
    EXPECT_STREQ(ldap_->person.mail.c_str(), person->mail);
    EXPECT_EQ(8, person->kind);
    record = nullptr;
    ASSERT_GT(Read(ldap_->withoutMail.dn, &record), 0);
    const UserRecord withoutMail(record);
    EXPECT_TRUE(withoutMail->mail == nullptr || *withoutMail->mail == 0);

    auto* const untouched = reinterpret_cast<TAVRUser*>(this);
    record = untouched;
    EXPECT_EQ(
        0, Read("uid=contract-nobody," + ldap_->person.dn.substr(ldap_->person.dn.find(',') + 1), &record));
    EXPECT_TRUE(Fails([&] { return TAVRLDAPBrowserUserGet(&host_, nullptr, &record, 0, 0, options_); }));
    EXPECT_EQ(untouched, record);
    EXPECT_TRUE(Fails([&] { return Read(ldap_->person.dn, nullptr); }));
}

TEST_F(DirectoryLdap, AccountsAreAccounts)
{
    const UserRecord person = Find(ldap_->person.name);
    ASSERT_TRUE(person);
    EXPECT_EQ(ldap_->person.name, person->name);
    EXPECT_EQ(8, person->kind);
    EXPECT_STREQ(ldap_->person.mail.c_str(), person->mail);
    uint32_t uid = 0;
    EXPECT_EQ(0, TAVRUserGetUGID(ldap_->person.name.c_str(), &uid, nullptr));
    EXPECT_EQ(person->uid, uid);
    uint32_t gid = 0;
    EXPECT_EQ(0, TAVRGroupGetGID(ldap_->group.name.c_str(), &gid));
    uint32_t* gids = nullptr;
    int count = 0;
    ASSERT_EQ(0, KLIBGroupInfoGidGet(ldap_->person.name.c_str(), 0, &gids, &count));
    EXPECT_NE(gids + count, std::find(gids, gids + count, gid));
    free(gids); // NOLINT(cppcoreguidelines-no-malloc)
    EXPECT_FALSE(Find("contract-nobody" + ldap_->person.name.substr(ldap_->person.name.find('@'))));
    person->mail = "other@home.example";
    EXPECT_TRUE(Fails([&] { return TAVRConfdUserUpdate(ldap_->person.name.c_str(), person.get(), 0); }))
        << "a directory is never written to";
}

TEST_F(DirectoryLdap, AccountsAreListed)
{
    std::vector<std::string> names;
    const auto take = [](const KLIBUserInfo* entry, void* taken) {
        EXPECT_EQ(8, entry->source);
        static_cast<std::vector<std::string>*>(taken)->emplace_back(entry->name);
        return 0;
    };
    const int total = KLIBUserInfoEnumBySubstr(8, "", 0, 1, ldap_->person.bare.c_str(), 1, take, &names);
    EXPECT_GE(total, 1);
    EXPECT_EQ(1U, names.size()) << "one page of one";
    names.clear();
    EXPECT_EQ(total, KLIBUserInfoEnumBySubstr(8, "", 0, -1, ldap_->person.bare.c_str(), 1, take, &names));
    EXPECT_NE(names.end(), std::find(names.begin(), names.end(), ldap_->person.name));
    const auto takeGroup = [](const KLIBGroupInfo* entry, void* taken) {
        EXPECT_EQ(8, entry->source);
        static_cast<std::vector<std::string>*>(taken)->emplace_back(entry->name);
        return 0;
    };
    names.clear();
    EXPECT_GE(KLIBGroupInfoEnumBySubstr(8, "", 0, -1, "", 1, takeGroup, &names), 1);
    EXPECT_NE(names.end(), std::find(names.begin(), names.end(), ldap_->group.name));
}

TEST_F(DirectoryLdap, GroupsHaveDescriptions)
{
    char* description = nullptr;
    ASSERT_EQ(0, TAVRLDAPGroupDescGet(ldap_->group.name.c_str(), &description, nullptr));
    EXPECT_EQ(ldap_->group.description, Text(description).get());
    char untouched = 0;
    description = &untouched;
    const std::string nobody = "contract-nobody" + ldap_->group.name.substr(ldap_->group.name.find('@'));
    EXPECT_TRUE(Fails([&] { return TAVRLDAPGroupDescGet(nobody.c_str(), &description, nullptr); }));
    EXPECT_TRUE(Fails([&] { return TAVRLDAPGroupDescGet(nullptr, &description, nullptr); }));
    EXPECT_EQ(&untouched, description);
    EXPECT_TRUE(Fails([&] { return TAVRLDAPGroupDescGet(ldap_->group.name.c_str(), nullptr, nullptr); }));
}

TEST_F(DirectoryLdap, AsksAndGivesEverythingBack)
{
    EXPECT_TRUE(GivesEverythingBack([this] {
        TAVRLDAPHost host{};
        TAVRLDAPHostInitByBindConfigOnly(&host);
        Out dn;
        TAVRLDAPBrowserGetDNByUserUID(&host, ldap_->person.bare.c_str(), dn.Get(), 1024, options_);
        TAVRLDAPHostFree(&host);
    }));
}

// --- Domain ---

struct OptionDeleter {
    void operator()(TAVRWinsDomainEnumOpt* option) const noexcept { TAVRWinsDomainEnumOptFree(option); }
};
using Option = std::unique_ptr<TAVRWinsDomainEnumOpt, OptionDeleter>;

Option NewOption()
{
    TAVRWinsDomainEnumOpt* option = nullptr;
    return TAVRWinsDomainEnumOptAlloc(&option) < 0 ? Option() : Option(option);
}

using DirectoryNoDomain = Case;

TEST_F(DirectoryNoDomain, OptionsOfNoneAreFailures)
{
    EXPECT_TRUE(Fails([] { return TAVRWinsDomainEnumOptAlloc(nullptr); }));
    EXPECT_TRUE(Fails([] { return TAVRWinsDomainEnumOptAddSearchFields(nullptr, "Name"); }));
    EXPECT_TRUE(Fails([] { return TAVRWinsDomainEnumOptSetStart(nullptr, 0); }));
    EXPECT_TRUE(Fails([] { return TAVRWinsDomainEnumOptSetLimit(nullptr, -1); }));
    EXPECT_TRUE(Fails([] { return TAVRWinsDomainEnumOptSetUGType(nullptr, 0); }));
    EXPECT_TRUE(Fails([] { return TAVRWinsDomainEnumOptSetSearchSubString(nullptr, "x"); }));
    EXPECT_TRUE(Fails([] { return TAVRWinsDomainEnumOptSetDomain(nullptr, "x"); }));
    EXPECT_TRUE(Fails([] { return TAVRWinsDomainEnumOptSetOU(nullptr, "x"); }));
    const auto row = [](int, char**, char**, void*) { return 0; };
    EXPECT_TRUE(Fails([&] { return TAVRWinsDomainCoreFullDbEnum(nullptr, row, nullptr); }));
    TAVRWinsDomainEnumOptFree(nullptr);
}

TEST_F(DirectoryNoDomain, IsSaid)
{
    if (!LeaveDomain()) {
        GTEST_SKIP() << "the maker says that the domain cannot be left";
    }
    StartRequest();
    EXPECT_EQ(0, TAVRWinIsEnableTrustDomain()) << "without a domain there are none that it trusts";
    EXPECT_TRUE(Fails([] {
        // The list is asked for, as the library does, where the option can be had without a domain.
        TAVRWinsDomainEnumOpt* made = nullptr;
        const int status = TAVRWinsDomainEnumOptAlloc(&made);
        const Option option(made);
        EXPECT_EQ(status < 0, made == nullptr);
        const auto row = [](int, char**, char**, void*) { return 0; };
        return status < 0 ? status : TAVRWinsDomainCoreFullDbEnum(option.get(), row, nullptr);
    }));
}

class DirectoryDomain : public Case
{
protected:
    void SetUp() override
    {
        Case::SetUp();
        domain_ = SetUpDomain();
        if (!domain_) {
            GTEST_SKIP() << "the maker says that no domain is joined";
        }
        StartRequest();
        option_ = NewOption();
        ASSERT_TRUE(option_);
        ASSERT_EQ(0, TAVRWinsDomainEnumOptAddSearchFields(option_.get(), "Name"));
        ASSERT_EQ(0, TAVRWinsDomainEnumOptAddSearchFields(option_.get(), "Description"));
        Page(0, -1);
    }
    void Page(int start, int limit)
    {
        ASSERT_EQ(0, TAVRWinsDomainEnumOptSetStart(option_.get(), start));
        ASSERT_EQ(0, TAVRWinsDomainEnumOptSetLimit(option_.get(), limit));
    }
    void Ask(int groups) { ASSERT_EQ(0, TAVRWinsDomainEnumOptSetUGType(option_.get(), groups)); }

    struct Listed {
        int total = -1;
        std::vector<std::string> names;
        std::vector<std::string> descriptions;
    };
    static int Take(int count, char** values, char** names, void* taken)
    {
        auto* listed = static_cast<Listed*>(taken);
        for (int i = 0; i < count; ++i) {
            const std::string value = values[i] == nullptr ? "" : values[i];
            if (strcasecmp(names[i], "Name") == 0) {
                listed->names.push_back(value);
            } else if (strcasecmp(names[i], "Description") == 0) {
                listed->descriptions.push_back(value);
            }
        }
        return 0;
    }
    Listed List()
    {
        Listed listed;
        listed.total = TAVRWinsDomainCoreFullDbEnum(option_.get(), Take, &listed);
        return listed;
    }
    static std::vector<std::string> NamesOf(const std::vector<Entry>& entries)
    {
        std::vector<std::string> names;
        names.reserve(entries.size());
        for (const Entry& entry : entries) {
            names.push_back(entry.name);
        }
        return names;
    }

    std::optional<Domain> domain_;
    Option option_;
};

TEST_F(DirectoryDomain, ListsUsersAndGroups)
{
    Ask(0);
    Listed listed = List();
    EXPECT_EQ(static_cast<int>(domain_->users.size()), listed.total);
    EXPECT_EQ(NamesOf(domain_->users), listed.names);
    ASSERT_FALSE(listed.descriptions.empty());
    EXPECT_EQ(domain_->users[0].description, listed.descriptions[0]);
    Ask(1);
    listed = List();
    EXPECT_EQ(static_cast<int>(domain_->groups.size()), listed.total);
    EXPECT_EQ(NamesOf(domain_->groups), listed.names);
}

TEST_F(DirectoryDomain, ListsPages)
{
    Ask(0);
    Page(1, 1);
    EXPECT_EQ(static_cast<int>(domain_->users.size()), List().total);
    EXPECT_EQ(std::vector<std::string>{domain_->users[1].name}, List().names);
    Page(1, -1);
    EXPECT_EQ(domain_->users.size() - 1, List().names.size());
    Page(0, 2);
    EXPECT_EQ(2U, List().names.size());
    EXPECT_TRUE(Fails([&] { return TAVRWinsDomainEnumOptSetStart(option_.get(), -1); }));
}

TEST_F(DirectoryDomain, ListsWhatHoldsTheText)
{
    Ask(0);
    ASSERT_EQ(0, TAVRWinsDomainEnumOptSetSearchSubString(option_.get(), domain_->part.c_str()));
    EXPECT_EQ(std::vector<std::string>{domain_->users[0].name}, List().names);
    EXPECT_EQ(1, List().total);
    ASSERT_EQ(0, TAVRWinsDomainEnumOptSetSearchSubString(option_.get(), "contract-nobody"));
    EXPECT_EQ(0, List().total);
    EXPECT_TRUE(Fails([&] { return TAVRWinsDomainEnumOptSetSearchSubString(option_.get(), nullptr); }));
    EXPECT_TRUE(Fails([&] { return TAVRWinsDomainEnumOptAddSearchFields(option_.get(), nullptr); }));
    option_ = NewOption();
    Page(0, -1);
    ASSERT_EQ(0, TAVRWinsDomainEnumOptAddSearchFields(option_.get(), "Name"));
    ASSERT_EQ(0,
              TAVRWinsDomainEnumOptSetSearchSubString(option_.get(), domain_->users[0].description.c_str()));
    EXPECT_EQ(0, List().total) << "that stands in another field";
}

TEST_F(DirectoryDomain, ListsOneDomainOrUnit)
{
    Ask(0);
    ASSERT_EQ(0, TAVRWinsDomainEnumOptSetDomain(option_.get(), domain_->name.c_str()));
    EXPECT_EQ(static_cast<int>(domain_->users.size()), List().total);
    ASSERT_EQ(0, TAVRWinsDomainEnumOptSetDomain(option_.get(), "CONTRACTNONE"));
    EXPECT_LE(List().total, 0) << "no such domain: none, or a failure";
    ASSERT_EQ(0, TAVRWinsDomainEnumOptSetDomain(option_.get(), ""));
    EXPECT_EQ(static_cast<int>(domain_->users.size()), List().total) << "empty: all";
    ASSERT_EQ(0, TAVRWinsDomainEnumOptSetOU(option_.get(), "OU=contract-none"));
    EXPECT_LE(List().total, 0) << "no such unit: none, or a failure";
    ASSERT_EQ(0, TAVRWinsDomainEnumOptSetOU(option_.get(), ""));
    EXPECT_EQ(static_cast<int>(domain_->users.size()), List().total) << "empty: all";
}

TEST_F(DirectoryDomain, GoesOnAfterARowThatIsDropped)
{
    Ask(0);
    int rows = 0;
    const auto drop = [](int, char**, char**, void* count) {
        ++*static_cast<int*>(count);
        return -1;
    };
    EXPECT_EQ(static_cast<int>(domain_->users.size()),
              TAVRWinsDomainCoreFullDbEnum(option_.get(), drop, &rows));
    EXPECT_EQ(static_cast<int>(domain_->users.size()), rows);
    const auto throws = [](int, char**, char**, void*) -> int { throw std::range_error("of the row"); };
    EXPECT_THROW(TAVRWinsDomainCoreFullDbEnum(option_.get(), throws, nullptr), std::range_error);
    EXPECT_TRUE(Fails([&] { return TAVRWinsDomainCoreFullDbEnum(option_.get(), nullptr, nullptr); }));
    EXPECT_EQ(NamesOf(domain_->users), List().names) << "everything works on";
}

TEST_F(DirectoryDomain, AccountsAreAccounts)
{
    const Entry& first = domain_->users[0];
    const UserRecord person = Find(first.name);
    ASSERT_TRUE(person);
    EXPECT_EQ(first.name, person->name);
    EXPECT_EQ(2, person->kind);
    EXPECT_STREQ(first.description.c_str(), person->description);
    uint32_t uid = 0;
    EXPECT_EQ(0, TAVRUserGetUGID(first.name.c_str(), &uid, nullptr));
    EXPECT_EQ(person->uid, uid);
    uint32_t gid = 0;
    EXPECT_EQ(0, TAVRGroupGetGID(domain_->groups[0].name.c_str(), &gid));
    uint32_t* gids = nullptr;
    int count = 0;
    ASSERT_EQ(0, KLIBGroupInfoGidGet(first.name.c_str(), 0, &gids, &count));
    const std::unique_ptr<uint32_t, FreeMemory> owner(gids);
    EXPECT_NE(gids + count, std::find(gids, gids + count, gid));
    EXPECT_FALSE(Find(domain_->name + "\\contract-nobody"));
    person->mail = "other@home.example";
    EXPECT_TRUE(Fails([&] { return TAVRConfdUserUpdate(first.name.c_str(), person.get(), 0); }))
        << "a directory is never written to";
}

TEST_F(DirectoryDomain, AccountsAreOpenedByTheirPasswords)
{
    const Entry& first = domain_->users[0];
    std::string name = first.name;
    const auto logIn = [&](const std::string& password) {
        StartRequest();
        TavrLogin login{name.data(), password.c_str(), "", 0};
        return TavrCgiTestLoginEx2(&login, nullptr, nullptr, 0);
    };
    EXPECT_EQ(1, logIn(first.password));
    EXPECT_LE(logIn(first.password + "x"), 0);
    EXPECT_LE(logIn(""), 0);
}

TEST_F(DirectoryDomain, TellsOfTrustAndGivesEverythingBack)
{
    EXPECT_EQ(domain_->trustedDomains, TAVRWinIsEnableTrustDomain() != 0);
    EXPECT_TRUE(GivesEverythingBack([] { NewOption(); }));
}

} // namespace
} // namespace contract
