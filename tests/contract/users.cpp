// platform/users.h.
#include "platform/users.h"

#include "tests/contract/support.h"

#include <cstdint>
#include <set>
#include <stdexcept>

#include <sys/mman.h>
#include <unistd.h>

namespace contract
{
namespace
{

constexpr char kUnknown[] = "contract-nobody";

const Person& Mia()
{
    static const Person mia{"contract-mia", "mia's password", "Mia from the office", "mia@home.example",
                            true,           {"contract-crew"}};
    return mia;
}

const Person& Bob()
{
    static const Person bob{"contract-bob", "bob's password", "", "", false, {}};
    return bob;
}

// Names that no platform takes for an account's.
std::vector<std::string> NoNames()
{
    return {"", "\xff\xfe", "a\xc3", "a\nb", "a\tb", "a\x7f", std::string(5000, 'a')};
}

class UsersRecord : public Case
{
protected:
    const GroupOfPeople crew_{"contract-crew", "On 100% board"};
    const Account mia_{Mia()};
    const Account bob_{Bob()};
};
using UsersNames = UsersRecord;
using UsersNumbers = UsersRecord;
using UsersUpdate = UsersRecord;
using UsersList = UsersRecord;

TEST_F(UsersRecord, HoldsWhatIsKnownOfAnAccount)
{
    const UserRecord mia = Find("contract-mia");
    ASSERT_TRUE(mia);
    EXPECT_STREQ("contract-mia", mia->name);
    EXPECT_STREQ("Mia from the office", mia->description);
    EXPECT_STREQ("mia@home.example", mia->mail);
    EXPECT_NE(2, mia->kind);
    EXPECT_NE(8, mia->kind);
    const UserRecord bob = Find("contract-bob");
    ASSERT_TRUE(bob);
    EXPECT_TRUE(bob->mail == nullptr || *bob->mail == 0);
    EXPECT_TRUE(bob->description == nullptr || *bob->description == 0);
    EXPECT_NE(mia->uid, bob->uid);
    EXPECT_STREQ("mia@home.example", mia->mail) << "a record stands beside others";
}

TEST_F(UsersRecord, OfNobodyIsAFailure)
{
    auto* const untouched = reinterpret_cast<TAVRUser*>(this);
    std::vector<std::string> names = NoNames();
    names.emplace_back(kUnknown);
    for (const std::string& name : names) {
        TAVRUser* record = untouched;
        EXPECT_TRUE(Fails([&] { return TAVRUserGet(name.c_str(), &record); })) << name;
        EXPECT_EQ(untouched, record) << name;
    }
    TAVRUser* record = untouched;
    EXPECT_TRUE(Fails([&] { return TAVRUserGet(nullptr, &record); }));
    EXPECT_TRUE(Fails([&] { return TAVRUserGet("contract-mia", nullptr); }));
    EXPECT_EQ(untouched, record);
}

TEST_F(UsersRecord, IsGivenBackWhole)
{
    EXPECT_TRUE(GivesEverythingBack([] { Find("contract-mia"); }));
    TAVRUserFree(nullptr);
}

TEST_F(UsersRecord, IsGivenBackWithoutALookAtTheCallersMail)
{
    // Whoever reads or frees it does not live on.
    void* const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, page);
    UserRecord record = Find("contract-mia");
    ASSERT_TRUE(record);
    record->mail = static_cast<const char*>(page);
    record.reset();
    munmap(page, 4096);
}

TEST_F(UsersRecord, CannotBeHadWithoutTheStore)
{
    if (!Has().accountsAway) {
        GTEST_SKIP() << "the maker says that the store cannot be taken away";
    }
    TakeAccountsAway(true);
    uint32_t number = 7;
    uint32_t* gids = &number;
    int count = 7;
    TAVRUser* record = nullptr;
    const auto row = [](const KLIBUserInfo*, void*) { return 0; };
    EXPECT_TRUE(Fails([&] { return TAVRUserGet("contract-mia", &record); }));
    EXPECT_TRUE(Fails([&] { return TAVRUserGetUGID("contract-mia", &number, nullptr); }));
    EXPECT_TRUE(Fails([&] { return TAVRGroupGetGID("contract-crew", &number); }));
    EXPECT_TRUE(Fails([&] { return KLIBGroupIsAdminGroupMem("contract-mia", 0); }));
    EXPECT_TRUE(Fails([&] { return KLIBGroupInfoGidGet("contract-mia", 0, &gids, &count); }));
    EXPECT_TRUE(Fails([&] { return KLIBUserInfoEnumBySubstr(1, "", 0, -1, "", 1, row, nullptr); }));
    TakeAccountsAway(false);
    EXPECT_EQ(nullptr, record);
    EXPECT_EQ(7U, number);
    EXPECT_EQ(7, count);
    EXPECT_TRUE(Find("contract-mia")) << "it is back";
}

// --- Names and places ---

TEST_F(UsersNames, AreThoseToSignInWith)
{
    Out out;
    if (TAVRUserLoginNameConvert("contract-mia", out.Get(), 493) == 1) {
        EXPECT_EQ("contract-mia", out.Text());
        EXPECT_TRUE(out.Untouched(13));
        Out exact;
        EXPECT_EQ(1, TAVRUserLoginNameConvert("contract-mia", exact.Get(), 13)) << "it just fits";
        Out tooSmall;
        EXPECT_NE(1, TAVRUserLoginNameConvert("contract-mia", tooSmall.Get(), 12));
        EXPECT_TRUE(tooSmall.Untouched());
    } else {
        EXPECT_TRUE(out.Untouched());
    }
    for (const std::string& name : NoNames()) {
        Out none;
        EXPECT_NE(1, TAVRUserLoginNameConvert(name.c_str(), none.Get(), 493)) << name;
        EXPECT_TRUE(none.Untouched()) << name;
    }
    EXPECT_NE(1, TAVRUserLoginNameConvert(nullptr, out.Get(), 493));
    EXPECT_NE(1, TAVRUserLoginNameConvert("contract-mia", nullptr, 493));
}

std::string PreferenceDir(const std::string& name)
{
    Out dir;
    EXPECT_EQ(0, TAVRUserPreferenceDirGet(name.c_str(), dir.Get(), 4096, 0)) << name;
    return dir.Untouched() ? "" : dir.Text();
}

TEST_F(UsersNames, HaveAPlaceOfTheirOwn)
{
    const std::string mia = PreferenceDir("contract-mia");
    ASSERT_FALSE(mia.empty());
    EXPECT_EQ('/', mia.front());
    EXPECT_NE('/', mia.back());
    EXPECT_EQ(mia, PreferenceDir("contract-mia"));
    std::set<std::string> places = {mia};
    for (const char* other : {"contract-bob", "CORP\\contract-mia", "contract-mia@office.example",
                              "contract-mia@other.example"}) {
        EXPECT_TRUE(places.insert(PreferenceDir(other)).second) << other << " shares a place";
    }
    EXPECT_FALSE(Stands(PreferenceDir("CORP\\contract-never"))) << "asking creates nothing";
    EXPECT_FALSE(Stands(PreferenceDir("contract-never@office.example"))) << "asking creates nothing";
}

TEST_F(UsersNames, ThatAreNoneHaveNoPlace)
{
    std::vector<std::string> names = NoNames();
    names.insert(names.end(), {".", "..", "../contract-mia", "a/../../b"});
    for (const std::string& name : names) {
        Out dir;
        if (TAVRUserPreferenceDirGet(name.c_str(), dir.Get(), 4096, 0) == 0) {
            EXPECT_EQ(std::string::npos, (dir.Text() + "/").find("/../")) << name;
            EXPECT_EQ(std::string::npos, (dir.Text() + "/").find("/./")) << name;
            EXPECT_NE("", name);
        } else {
            EXPECT_TRUE(dir.Untouched()) << name;
        }
    }
    Out dir;
    EXPECT_TRUE(Fails([&] { return TAVRUserPreferenceDirGet(nullptr, dir.Get(), 4096, 0); }));
    EXPECT_TRUE(Fails([&] { return TAVRUserPreferenceDirGet("contract-mia", nullptr, 4096, 0); }));
    const int size = static_cast<int>(PreferenceDir("contract-mia").size());
    EXPECT_TRUE(Fails([&] { return TAVRUserPreferenceDirGet("contract-mia", dir.Get(), size, 0); }))
        << "it does not fit";
    EXPECT_TRUE(dir.Untouched());
    EXPECT_EQ(0, TAVRUserPreferenceDirGet("contract-mia", dir.Get(), size + 1, 0)) << "it just fits";
}

// --- Updates ---

TEST_F(UsersUpdate, StoresWhatTheCallerHasPutThere)
{
    UserRecord record = Find("contract-mia");
    ASSERT_TRUE(record);
    std::string address = "new@home.example";
    record->mail = address.c_str();
    EXPECT_EQ(0, TAVRConfdUserUpdate("contract-mia", record.get(), 0));
    address.assign(address.size(), 'x'); // the caller's own, free to change
    EXPECT_STREQ("new@home.example", Find("contract-mia")->mail);
    EXPECT_STREQ("Mia from the office", Find("contract-mia")->description);

    record = Find("contract-mia");
    record->mail = "";
    EXPECT_EQ(0, TAVRConfdUserUpdate("contract-mia", record.get(), 0));
    const UserRecord after = Find("contract-mia");
    EXPECT_TRUE(after->mail == nullptr || *after->mail == 0) << "an empty address is one to store";
    EXPECT_STREQ("Mia from the office", after->description);

    record = Find("contract-bob");
    record->description = "Bob B.";
    EXPECT_EQ(0, TAVRConfdUserUpdate("contract-bob", record.get(), 0));
    EXPECT_STREQ("Bob B.", Find("contract-bob")->description);
}

TEST_F(UsersUpdate, LeavesWhatOthersHaveChangedMeanwhile)
{
    const UserRecord early = Find("contract-mia");
    const UserRecord other = Find("contract-mia");
    ASSERT_TRUE(early && other);
    other->description = "changed meanwhile";
    EXPECT_EQ(0, TAVRConfdUserUpdate("contract-mia", other.get(), 0));
    early->mail = "early@home.example";
    EXPECT_EQ(0, TAVRConfdUserUpdate("contract-mia", early.get(), 0));
    EXPECT_STREQ("changed meanwhile", Find("contract-mia")->description);
    EXPECT_STREQ("early@home.example", Find("contract-mia")->mail);
}

TEST_F(UsersUpdate, OfWhatCannotBeStoredIsAFailure)
{
    const UserRecord record = Find("contract-mia");
    ASSERT_TRUE(record);
    const std::string tooLong(100'000, 'm');
    for (const char* mail :
         {tooLong.c_str(), "a@b.example\r\nBcc: c@d.example", "a\x01@b.example", "\xff\xfe"}) {
        record->mail = mail;
        EXPECT_TRUE(Fails([&] { return TAVRConfdUserUpdate("contract-mia", record.get(), 0); }));
        EXPECT_STREQ("mia@home.example", Find("contract-mia")->mail);
    }
    record->mail = "a@b.example";
    EXPECT_TRUE(Fails([&] { return TAVRConfdUserUpdate(kUnknown, record.get(), 0); }));
    EXPECT_TRUE(Fails([&] { return TAVRConfdUserUpdate("contract-mia", nullptr, 0); }));
    EXPECT_TRUE(Fails([&] { return TAVRConfdUserUpdate(nullptr, record.get(), 0); }));
    EXPECT_STREQ("mia@home.example", Find("contract-mia")->mail);
}

// --- Numbers and memberships ---

TEST_F(UsersNumbers, AreTheRecords)
{
    const UserRecord mia = Find("contract-mia");
    ASSERT_TRUE(mia);
    uint32_t uid = 0;
    uint32_t gid = 0;
    EXPECT_EQ(0, TAVRUserGetUGID("contract-mia", &uid, &gid));
    EXPECT_EQ(mia->uid, uid);
    EXPECT_EQ(mia->gid, gid);
    uid = gid = 0;
    EXPECT_EQ(0, TAVRUserGetUGID("contract-mia", &uid, nullptr));
    EXPECT_EQ(mia->uid, uid);
    EXPECT_EQ(0, TAVRUserGetUGID("contract-mia", nullptr, &gid));
    EXPECT_EQ(mia->gid, gid);

    uid = gid = 7;
    EXPECT_TRUE(Fails([&] { return TAVRUserGetUGID(kUnknown, &uid, &gid); }));
    EXPECT_TRUE(Fails([&] { return TAVRUserGetUGID(nullptr, &uid, &gid); }));
    EXPECT_EQ(7U, uid);
    EXPECT_EQ(7U, gid);
}

TEST_F(UsersNumbers, AreNotGivenToSomebodyElse)
{
    uint32_t first = 0;
    uint32_t second = 0;
    const Person person{"contract-again", "first password", "", "", false, {}};
    {
        const Account once(person);
        EXPECT_EQ(0, TAVRUserGetUGID("contract-again", &first, nullptr));
    }
    EXPECT_FALSE(Find("contract-again")) << "it has been removed";
    const Account again(person);
    EXPECT_EQ(0, TAVRUserGetUGID("contract-again", &second, nullptr));
    EXPECT_NE(first, second) << "secrets and picks go by the number";
}

std::set<uint32_t> GroupsOf(const std::string& name)
{
    uint32_t* gids = nullptr;
    int count = -1;
    EXPECT_EQ(0, KLIBGroupInfoGidGet(name.c_str(), 0, &gids, &count)) << name;
    EXPECT_EQ(count == 0, gids == nullptr);
    const std::set<uint32_t> groups(gids, gids + count);
    EXPECT_EQ(static_cast<size_t>(count), groups.size()) << "one of them comes twice";
    free(gids); // NOLINT(cppcoreguidelines-no-malloc)
    return groups;
}

TEST_F(UsersNumbers, OfGroupsAreThoseOfTheMembers)
{
    uint32_t crew = 0;
    EXPECT_EQ(0, TAVRGroupGetGID("contract-crew", &crew));
    EXPECT_TRUE(GroupsOf("contract-mia").contains(crew));
    EXPECT_FALSE(GroupsOf("contract-bob").contains(crew));

    uint32_t gid = 7;
    EXPECT_TRUE(Fails([&] { return TAVRGroupGetGID(kUnknown, &gid); }));
    EXPECT_TRUE(Fails([&] { return TAVRGroupGetGID(nullptr, &gid); }));
    EXPECT_EQ(7U, gid);
    EXPECT_TRUE(Fails([] { return TAVRGroupGetGID("contract-crew", nullptr); }));

    auto* const untouched = &gid;
    uint32_t* gids = untouched;
    int count = 7;
    EXPECT_TRUE(Fails([&] { return KLIBGroupInfoGidGet(kUnknown, 0, &gids, &count); }));
    EXPECT_TRUE(Fails([&] { return KLIBGroupInfoGidGet(nullptr, 0, &gids, &count); }));
    EXPECT_EQ(untouched, gids);
    EXPECT_EQ(7, count);
    EXPECT_TRUE(GivesEverythingBack([] { GroupsOf("contract-mia"); }));
}

TEST_F(UsersNumbers, KnowTheAdministrators)
{
    EXPECT_EQ(1, KLIBGroupIsAdminGroupMem("contract-mia", 0));
    EXPECT_EQ(0, KLIBGroupIsAdminGroupMem("contract-bob", 0));
    EXPECT_TRUE(Fails([] { return KLIBGroupIsAdminGroupMem(kUnknown, 0); })) << "not known is not no";
    EXPECT_TRUE(Fails([] { return KLIBGroupIsAdminGroupMem(nullptr, 0); }));
}

TEST_F(UsersNumbers, AndDescriptionsOfGroups)
{
    const GroupOfPeople bare("contract-bare", "");
    char* description = nullptr;
    char* second = nullptr;
    ASSERT_EQ(0, TAVRGroupDescGet("contract-crew", &description, &second));
    EXPECT_STREQ("On 100% board", Text(description).get());
    description = nullptr;
    ASSERT_EQ(0, TAVRGroupDescGet("contract-crew", &description, nullptr)) << "nobody wants the second";
    EXPECT_STREQ("On 100% board", Text(description).get());
    description = nullptr;
    ASSERT_EQ(0, TAVRGroupDescGet("contract-bare", &description, nullptr));
    ASSERT_NE(nullptr, description) << "an empty text, not none";
    EXPECT_STREQ("", Text(description).get());

    char untouched = 0;
    description = &untouched;
    EXPECT_TRUE(Fails([&] { return TAVRGroupDescGet(kUnknown, &description, nullptr); }));
    EXPECT_TRUE(Fails([&] { return TAVRGroupDescGet(nullptr, &description, nullptr); }));
    EXPECT_EQ(&untouched, description);
    EXPECT_TRUE(Fails([] { return TAVRGroupDescGet("contract-crew", nullptr, nullptr); }));
}

// --- Lists ---

struct Row {
    std::string name;
    uint32_t number = 0;
    std::string description;
    int source = 0;
    bool operator==(const Row&) const = default;
};

struct Listed {
    int total = -1;
    std::vector<Row> rows;
};

std::string TextOf(const char* text)
{
    return text == nullptr ? "" : text;
}

int TakeUser(const KLIBUserInfo* entry, void* rows)
{
    static_cast<std::vector<Row>*>(rows)->push_back(
        {TextOf(entry->name), entry->uid, TextOf(entry->description), entry->source});
    return 0;
}

int TakeGroup(const KLIBGroupInfo* entry, void* rows)
{
    // As the library asks within the call-back.
    char* description = nullptr;
    TAVRGroupDescGet(entry->name, &description, nullptr);
    static_cast<std::vector<Row>*>(rows)->push_back(
        {TextOf(entry->name), entry->gid, TextOf(Text(description).get()), entry->source});
    return 0;
}

Listed Users(const char* query, int offset = 0, int limit = -1, KLIBUserInfoRow row = TakeUser)
{
    Listed listed;
    listed.total = KLIBUserInfoEnumBySubstr(1, "", offset, limit, query, 1, row, &listed.rows);
    return listed;
}

Listed Groups(const char* query, int offset = 0, int limit = -1)
{
    Listed listed;
    listed.total = KLIBGroupInfoEnumBySubstr(1, "", offset, limit, query, 1, TakeGroup, &listed.rows);
    return listed;
}

TEST_F(UsersList, HoldsThoseWhoseNameOrDescriptionHoldsTheText)
{
    const uint32_t uid = Find("contract-mia")->uid;
    const Row mia{"contract-mia", uid, "Mia from the office", 1};
    for (const char* query : {"contract-mia", "CONTRACT-MIA", "tract-mi", "from the", "FROM THE OFF"}) {
        const Listed found = Users(query);
        EXPECT_EQ(1, found.total) << query;
        EXPECT_EQ(std::vector<Row>{mia}, found.rows) << query;
    }
    EXPECT_EQ(2, Users("contract-").total);
    for (const char* none : {"contract-nobody", "contract%", "contract_mia", "contract*", "' OR 1=1", "\\"}) {
        EXPECT_EQ(0, Users(none).total) << none << " stands for itself";
    }
    const Listed everybody = Users("");
    EXPECT_GE(everybody.total, 2);
    EXPECT_EQ(static_cast<size_t>(everybody.total), everybody.rows.size());
}

TEST_F(UsersList, ComesInPages)
{
    std::vector<std::unique_ptr<Account>> people;
    for (const char* name : {"contract-p3", "contract-p1", "contract-p4", "contract-p2"}) {
        people.push_back(std::make_unique<Account>(Person{name, "password", "", "", false, {}}));
    }
    const Listed all = Users("contract-p");
    ASSERT_EQ(4, all.total);
    ASSERT_EQ(4U, all.rows.size());
    std::vector<Row> pages;
    for (int offset = 0; offset < 6; offset += 3) {
        const Listed page = Users("contract-p", offset, 3);
        EXPECT_EQ(4, page.total) << "of all pages";
        pages.insert(pages.end(), page.rows.begin(), page.rows.end());
    }
    EXPECT_EQ(all.rows, pages) << "in the same order on every page";
    EXPECT_TRUE(Users("contract-p", 4, 3).rows.empty());
    EXPECT_EQ(4, Users("contract-p", 4, 3).total);
    EXPECT_TRUE(Users("contract-p", 0, 0).rows.empty());
    EXPECT_EQ(3U, Users("contract-p", 1, -1).rows.size());
}

TEST_F(UsersList, GoesOnAfterARowThatIsDropped)
{
    const auto drop = [](const KLIBUserInfo* entry, void* rows) {
        TakeUser(entry, rows);
        return -1;
    };
    const Listed found = Users("contract-", 0, -1, drop);
    EXPECT_EQ(2, found.total);
    EXPECT_EQ(2U, found.rows.size());
}

TEST_F(UsersList, LetsExceptionsPass)
{
    const auto throws = [](const KLIBUserInfo*, void*) -> int { throw std::range_error("of the row"); };
    EXPECT_THROW(KLIBUserInfoEnumBySubstr(1, "", 0, -1, "contract-", 1, throws, nullptr), std::range_error);
    const auto groupThrows = [](const KLIBGroupInfo*, void*) -> int { throw std::range_error("of the row"); };
    EXPECT_THROW(KLIBGroupInfoEnumBySubstr(1, "", 0, -1, "contract-", 1, groupThrows, nullptr),
                 std::range_error);
    EXPECT_TRUE(Find("contract-mia")) << "everything works on";
    EXPECT_EQ(2, Users("contract-").total);
}

TEST_F(UsersList, OfGroupsIsAlike)
{
    const GroupOfPeople other("contract-others", "Elsewhere");
    uint32_t gid = 0;
    ASSERT_EQ(0, TAVRGroupGetGID("contract-crew", &gid));
    const Row crew{"contract-crew", gid, "On 100% board", 1};
    for (const char* query : {"contract-crew", "CONTRACT-CREW", "100% BOARD"}) {
        const Listed found = Groups(query);
        EXPECT_EQ(1, found.total) << query;
        EXPECT_EQ(std::vector<Row>{crew}, found.rows) << query;
    }
    const Listed both = Groups("contract-");
    ASSERT_EQ(2, both.total);
    ASSERT_EQ(2U, both.rows.size());
    EXPECT_EQ(std::vector<Row>{both.rows[1]}, Groups("contract-", 1, 1).rows);
    EXPECT_EQ(2, Groups("contract-", 1, 1).total);
    EXPECT_EQ(0, Groups("contract-%").total);
}

TEST_F(UsersList, OfWhatIsNotAskedForRightIsAFailure)
{
    EXPECT_TRUE(Fails([] { return Users("", 0, -1, nullptr).total; }));
    EXPECT_TRUE(Fails([] { return KLIBGroupInfoEnumBySubstr(1, "", 0, -1, "", 1, nullptr, nullptr); }));
    EXPECT_TRUE(Fails([] { return Users("", -1).total; })) << "a negative offset";
    std::vector<Row> rows;
    EXPECT_TRUE(Fails([&] { return KLIBUserInfoEnumBySubstr(77, "", 0, -1, "", 1, TakeUser, &rows); }))
        << "no such source";
    EXPECT_TRUE(Fails([&] { return KLIBGroupInfoEnumBySubstr(77, "", 0, -1, "", 1, TakeGroup, &rows); }));
    EXPECT_TRUE(rows.empty());
}

} // namespace
} // namespace contract
