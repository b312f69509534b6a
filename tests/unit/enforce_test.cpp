// Enforcement on a scripted platform: the picks' file, the decision, the lists.
#include "otp/OTPEnforceHandler.h"

#include "platform/json.h"
#include "tests/support/fake_platform.h"
#include "tests/support/temp_dir.h"

#include <sys/stat.h>

#include <climits>
#include <filesystem>
#include <stdexcept>

#include <gtest/gtest.h>
#include <json/json.h>

namespace
{

using Texts = std::vector<std::string>;

const Texts kNothing;

constexpr char kFile[] = "/usr/tavr/etc/tavr_otp_enforce_custom_setting";
constexpr char kNotLoaded[] = "3 OTPEnforceHandler.cpp Failed to load OTP enforce setting for "
                              "/usr/tavr/etc/tavr_otp_enforce_custom_setting";

const Texts kLoads = {R"(KLIBCFileExist("/usr/tavr/etc/tavr_otp_enforce_custom_setting"))",
                      R"(JsonFromFile("/usr/tavr/etc/tavr_otp_enforce_custom_setting"))"};

// `before`, then the calls of loading the picks, then `after`.
Texts Loading(const Texts& before, const Texts& after)
{
    Texts calls = before;
    calls.insert(calls.end(), kLoads.begin(), kLoads.end());
    calls.insert(calls.end(), after.begin(), after.end());
    return calls;
}

Json::Value Parsed(const std::string& text)
{
    Json::Value value;
    std::string problems;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &problems)) << problems;
    return value;
}

// A platform with a folder in which the picks' file stands, absent at first.
struct Server {
    inline static const TempDir dir; // one for all: making one takes longer than most tests
    FakePlatform platform;

    Server()
    {
        platform.files[kFile] = dir.Path("picks");
        std::filesystem::remove(dir.Path("picks"));
    }
    explicit Server(const std::string& picks) : Server() { Hold(picks); }
    static void Hold(const std::string& picks) { dir.Write("picks", picks); }
    static std::string Picks() { return dir.Read("picks"); }
};

// --- OTPEnforceCustomSettingSet ---

TEST(CustomSettingSet, MergesRowsIntoTheList)
{
    const struct {
        const char* reason;
        const char* before;
        const char* type;
        const char* settings;
        const char* after;
    } cases[] = {
        {"an id is added", R"({"local_user":["1026"]})", "local_user",
         R"([{"id":"1030","is_enforced":true}])", R"({"local_user":["1026","1030"]})"},
        {"a stored id stays one", R"({"local_user":["1026"]})", "local_user",
         R"([{"id":"1026","is_enforced":true}])", R"({"local_user":["1026"]})"},
        {"an id is removed", R"({"local_user":["1026","1030"]})", "local_user",
         R"([{"id":"1026","is_enforced":false}])", R"({"local_user":["1030"]})"},
        {"the last id is removed", R"({"local_user":["1026"]})", "local_user",
         R"([{"id":"1026","is_enforced":false}])", R"({"local_user":[]})"},
        {"an id that is not stored is removed", R"({"local_user":["1026"]})", "local_user",
         R"([{"id":"5","is_enforced":false}])", R"({"local_user":["1026"]})"},
        {"of two rows the later counts: off", R"({"local_user":["5"]})", "local_user",
         R"([{"id":"5","is_enforced":true},{"id":"5","is_enforced":false}])", R"({"local_user":[]})"},
        {"of two rows the later counts: on", R"({"local_user":["5"]})", "local_user",
         R"([{"id":"5","is_enforced":false},{"id":"5","is_enforced":true}])", R"({"local_user":["5"]})"},
        {"texts are sorted, not numbers", R"({"local_user":["999"]})", "local_user",
         R"([{"id":"1000","is_enforced":true}])", R"({"local_user":["1000","999"]})"},
        {"by bytes", R"({"x":["~","\u00e9","a"]})", "x", R"([{"id":"\u4e2d","is_enforced":true}])",
         R"({"x":["a","~","\u00e9","\u4e2d"]})"},
        {"no rows: sorted and each id once", R"({"local_user":["9","10","9","1","10"]})", "local_user", "[]",
         R"({"local_user":["1","10","9"]})"},
        {"no rows and no list", "{}", "ldap_user", "[]", R"({"ldap_user":[]})"},
        {"many at once", R"({"local_user":["2","4","6","8"]})", "local_user",
         R"([{"id":"8","is_enforced":false},{"id":"1","is_enforced":true},{"id":"2","is_enforced":false},
             {"id":"9","is_enforced":true},{"id":"5","is_enforced":true},{"id":"4","is_enforced":false}])",
         R"({"local_user":["1","5","6","9"]})"},
        {"other members stay", R"({"ldap_user":["7","7"],"extra":{"a":[1,null]},"local_user":["1"]})",
         "local_user", R"([{"id":"2","is_enforced":true}])",
         R"({"extra":{"a":[1,null]},"ldap_user":["7","7"],"local_user":["1","2"]})"},
        {"any type is stored", R"({"local_user":["1"]})", "no such type",
         R"([{"id":"2","is_enforced":true}])", R"({"local_user":["1"],"no such type":["2"]})"},
        {"the empty type too", "{}", "", R"([{"id":"2","is_enforced":true}])", R"({"":["2"]})"},
        {"a row without id adds the empty one", R"({"local_user":["1"]})", "local_user",
         R"([{"is_enforced":true}])", R"({"local_user":["","1"]})"},
        {"a row without id removes the empty one", R"({"local_user":["","1"]})", "local_user",
         R"([{"is_enforced":false}])", R"({"local_user":["1"]})"},
        {"a row without flag removes", R"({"local_user":["1","2"]})", "local_user", R"([{"id":"1"}])",
         R"({"local_user":["2"]})"},
        {"an empty row removes the empty id", R"({"local_user":["","2"]})", "local_user", "[{}]",
         R"({"local_user":["2"]})"},
        {"a null row likewise", R"({"local_user":["","2"]})", "local_user", "[null]",
         R"({"local_user":["2"]})"},
        {"ids and flags that are numbers", R"({"local_user":["7"]})", "local_user",
         R"([{"id":1026,"is_enforced":1},{"id":7,"is_enforced":0}])", R"({"local_user":["1026"]})"},
        {"stored entries that are no texts", R"({"local_user":[9,true,null,"9",1.5]})", "local_user", "[]",
         R"({"local_user":["","1.5","9","true"]})"},
        {"a stored list that is an object", R"({"local_user":{"b":"1","a":"2"}})", "local_user", "[]",
         R"({"local_user":["1","2"]})"},
        {"a stored list that is a text", R"({"local_user":"1026"})", "local_user",
         R"([{"id":"1","is_enforced":true}])", R"({"local_user":["1"]})"},
        {"a stored list that is null", R"({"local_user":null})", "local_user",
         R"([{"id":"1","is_enforced":true}])", R"({"local_user":["1"]})"},
        {"rows in an object", "{}", "local_user",
         R"({"b":{"id":"1","is_enforced":true},"a":{"id":"2","is_enforced":true}})",
         R"({"local_user":["1","2"]})"},
        {"null for rows", R"({"local_user":["2","1"]})", "local_user", "null", R"({"local_user":["1","2"]})"},
        {"a text for rows", R"({"local_user":["2","1"]})", "local_user", R"("1")",
         R"({"local_user":["1","2"]})"},
        {"comments are read, and lost", "// picks\n{\"local_user\":[/*first*/\"1\"]}", "local_user", "[]",
         R"({"local_user":["1"]})"},
        {"a file that holds null", "null", "local_user", R"([{"id":"1","is_enforced":true}])",
         R"({"local_user":["1"]})"},
        {"bytes that are no number", R"({"local_user":["a\u0000b","a"]})", "local_user",
         R"([{"id":"a","is_enforced":false}])", R"({"local_user":["a\u0000b"]})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        Server server(c.before);
        EXPECT_EQ(0, OTPEnforceCustomSettingSet(c.type, Parsed(c.settings)));
        EXPECT_EQ(std::string(c.after) + "\n", server.Picks());
        EXPECT_EQ(kLoads, server.platform.calls);
        EXPECT_EQ(kNothing, server.platform.LogTexts());
    }
}

TEST(CustomSettingSet, MakesTheFileThatIsAbsent)
{
    Server server;
    EXPECT_EQ(0, OTPEnforceCustomSettingSet("local_user", Parsed(R"([{"id":"1026","is_enforced":true}])")));
    EXPECT_EQ("{\"local_user\":[\"1026\"]}\n", server.Picks());
    EXPECT_EQ(Texts{R"(KLIBCFileExist("/usr/tavr/etc/tavr_otp_enforce_custom_setting"))"},
              server.platform.calls);
    EXPECT_EQ(kNothing, server.platform.LogTexts());
}

TEST(CustomSettingSet, KeepsTheFilesOwnModeAndGivesNewOnesTheUsual)
{
    const auto mode = [] {
        struct stat entry {
        };
        EXPECT_EQ(0, stat(Server::dir.Path("picks").c_str(), &entry));
        return entry.st_mode & 07777;
    };
    const mode_t before = umask(027);
    Server server;
    EXPECT_EQ(0, OTPEnforceCustomSettingSet("local_user", Parsed("[]")));
    umask(before);
    EXPECT_EQ(0640U, mode());

    std::filesystem::permissions(server.dir.Path("picks"), std::filesystem::perms(0604));
    std::filesystem::create_hard_link(server.dir.Path("picks"), server.dir.Path("second name"));
    EXPECT_EQ(0, OTPEnforceCustomSettingSet("ldap_user", Parsed("[]")));
    EXPECT_EQ(0604U, mode());
    EXPECT_EQ("{\"ldap_user\":[],\"local_user\":[]}\n", server.dir.Read("second name")) << "in place";
}

TEST(CustomSettingSet, WritesLongListsWhole)
{
    Server server;
    Json::Value rows(Json::arrayValue);
    std::string expected = "{\"local_user\":[";
    for (int id = 100000; id < 130000; ++id) {
        Json::Value row;
        row["id"] = std::to_string(id);
        row["is_enforced"] = true;
        rows.append(row);
        expected += (id == 100000 ? "\"" : ",\"") + std::to_string(id) + "\"";
    }
    EXPECT_EQ(0, OTPEnforceCustomSettingSet("local_user", rows));
    EXPECT_EQ(expected + "]}\n", server.Picks());

    for (Json::Value& row : rows) {
        row["is_enforced"] = row["id"] == "129999";
    }
    EXPECT_EQ(0, OTPEnforceCustomSettingSet("local_user", rows));
    EXPECT_EQ("{\"local_user\":[\"129999\"]}\n", server.Picks()) << "nothing of the longer text is left";
}

TEST(CustomSettingSet, GoesOnFromWhatCouldBeReadOfABrokenFile)
{
    const struct {
        const char* reason;
        const char* before;
        const char* after;
    } cases[] = {
        {"empty", "", R"({"local_user":["1"]})"},
        {"no JSON", "picks", R"({"local_user":["1"]})"},
        {"cut in a list", R"({"ldap_user":["7","8)", R"({"ldap_user":["7",null],"local_user":["1"]})"},
        {"cut behind a list", R"({"ldap_user":["7"],"lo)", R"({"ldap_user":["7"],"local_user":["1"]})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        Server server(c.before);
        EXPECT_EQ(0, OTPEnforceCustomSettingSet("local_user", Parsed(R"([{"id":"1","is_enforced":true}])")));
        EXPECT_EQ(std::string(c.after) + "\n", server.Picks());
        EXPECT_EQ(Texts{kNotLoaded}, server.platform.LogTexts());
        EXPECT_EQ(kLoads, server.platform.calls);
    }
}

TEST(CustomSettingSet, LosesWhatCouldNotBeRead)
{
    Server server(R"({"ldap_user":["7"]})");
    server.platform.Fail("JsonFromFile");
    EXPECT_EQ(0, OTPEnforceCustomSettingSet("local_user", Parsed(R"([{"id":"1","is_enforced":true}])")));
    EXPECT_EQ("{\"local_user\":[\"1\"]}\n", server.Picks());
    EXPECT_EQ(Texts{kNotLoaded}, server.platform.LogTexts());
}

TEST(CustomSettingSet, LeavesTheFileAloneWhenShapesAreWrong)
{
    const struct {
        const char* reason;
        const char* before;
        const char* settings;
    } cases[] = {
        {"the file is an array", R"(["1"])", "[]"},
        {"the file is a text", R"("1")", "[]"},
        {"the file is a number", "1", "[]"},
        {"a stored entry is an array", R"({"local_user":["1",["2"]]})", "[]"},
        {"a stored entry is an object", R"({"local_user":[{"id":"2"}]})", "[]"},
        {"a row is a text", "{}", R"(["1"])"},
        {"a row is an array", "{}", R"([["1"]])"},
        {"an id is an array", "{}", R"([{"id":["1"],"is_enforced":true}])"},
        {"an id is an object", "{}", R"([{"id":{},"is_enforced":true}])"},
        {"a flag is a text", "{}", R"([{"id":"1","is_enforced":"true"}])"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        Server server(c.before);
        EXPECT_THROW(OTPEnforceCustomSettingSet("local_user", Parsed(c.settings)), Json::Exception);
        EXPECT_EQ(c.before, server.Picks());
        EXPECT_EQ(kNothing, server.platform.LogTexts());
    }
}

TEST(CustomSettingSet, FailsWhenTheFileCannotBeOpened)
{
    Server server(R"({"local_user":["2","1"]})");
    server.platform.Fail("fopen w");
    EXPECT_EQ(-1, OTPEnforceCustomSettingSet("local_user", Parsed("[]")));
    EXPECT_EQ(R"({"local_user":["2","1"]})", server.Picks());
    EXPECT_EQ(Texts{"3 OTPEnforceHandler.cpp Failed to open file "
                    "[/usr/tavr/etc/tavr_otp_enforce_custom_setting]"},
              server.platform.LogTexts());
}

TEST(CustomSettingSet, FailsWhenTheDiskIsFull)
{
    Json::Value rows(Json::arrayValue);
    for (const int count : {1, 20000}) { // less and more than what a stream keeps back
        SCOPED_TRACE(count);
        Server server;
        server.platform.files[kFile] = "/dev/full";
        server.platform.Answer("KLIBCFileExist", 0);
        for (int id = 0; id < count; ++id) {
            Json::Value row;
            row["id"] = std::to_string(id);
            row["is_enforced"] = true;
            rows.append(row);
        }
        EXPECT_EQ(-1, OTPEnforceCustomSettingSet("local_user", rows));
        EXPECT_EQ(Texts{"3 OTPEnforceHandler.cpp Failed to write settings to file "
                        "[/usr/tavr/etc/tavr_otp_enforce_custom_setting]"},
                  server.platform.LogTexts());
    }
}

TEST(CustomSettingSet, TakesAnyAnswerButZeroForAFileThatIsThere)
{
    Server server(R"({"ldap_user":["7"]})");
    server.platform.Answer("KLIBCFileExist", -1);
    EXPECT_EQ(0, OTPEnforceCustomSettingSet("local_user", Parsed("[]")));
    EXPECT_EQ("{\"ldap_user\":[\"7\"],\"local_user\":[]}\n", server.Picks());

    server.platform.Answer("KLIBCFileExist", 0);
    EXPECT_EQ(0, OTPEnforceCustomSettingSet("domain_user", Parsed("[]")));
    EXPECT_EQ("{\"domain_user\":[]}\n", server.Picks());
    EXPECT_EQ(kNothing, server.platform.LogTexts());
}

// --- OTPEnforceIsEnabled ---

constexpr char kAsksOption[] = R"(Info("otp_enforce_option", ""))";

// A server with the account alice: uid 1026, in the groups 65537 and 65540.
struct Asked : Server {
    explicit Asked(const std::string& picks = "{}", int kind = 1) : Server(picks)
    {
        platform.options["otp_enforce_option"] = "custom";
        platform.users["alice"] = {1026, 65537, kind, {}, {}};
        platform.gidsOfUser = {65537, 65540};
    }
};

// Every combination of option, membership of the administrators, kind of account, entry for the user, entry
// for a group, and entries of both numbers in all lists of the other kinds.
TEST(IsEnabled, FollowsOptionKindAndEntries)
{
    const struct {
        int kind;
        const char* users;
        const char* groups;
    } kinds[] = {{2, "domain_user", "domain_group"}, {8, "ldap_user", "ldap_group"},
                 {1, "local_user", "local_group"},   {0, "local_user", "local_group"},
                 {-1, "local_user", "local_group"},  {3, "local_user", "local_group"},
                 {1026, "local_user", "local_group"}};
    const char* const lists[] = {"local_user",   "local_group", "domain_user",
                                 "domain_group", "ldap_user",   "ldap_group"};
    const std::optional<std::string> options[] = {"user",   "admin", "custom", "Custom", "USER",
                                                  "admin ", "none",  "",       {},       "customuser"};
    int combinations = 0;
    for (const auto& option : options) {
        for (const int member : {1, 0, -1, 2}) {
            for (const auto& kind : kinds) {
                for (int bits = 0; bits < 8; ++bits) {
                    const bool userListed = (bits & 1) != 0;
                    const bool groupListed = (bits & 2) != 0;
                    const bool othersListed = (bits & 4) != 0;
                    SCOPED_TRACE(option.value_or("absent") + " member " + std::to_string(member) + " kind " +
                                 std::to_string(kind.kind) + " entries " + std::to_string(bits));
                    Json::Value picks(Json::objectValue);
                    for (const std::string list : lists) {
                        const bool own = list == kind.users || list == kind.groups;
                        if (own ? list == kind.users && userListed : othersListed) {
                            picks[list].append("1026");
                        }
                        if (own ? list == kind.groups && groupListed : othersListed) {
                            picks[list].append("65540");
                        }
                    }
                    Asked asked(JsonToString(picks), kind.kind);
                    asked.platform.options.clear();
                    if (option) {
                        asked.platform.options["otp_enforce_option"] = *option;
                    }
                    asked.platform.Answer("KLIBGroupIsAdminGroupMem", member);

                    const bool enabled = OTPEnforceIsEnabled("alice");

                    if (option == "user") {
                        EXPECT_TRUE(enabled);
                    } else if (option == "admin") {
                        EXPECT_EQ(member == 1, enabled);
                    } else if (option == "custom") {
                        EXPECT_EQ(userListed || groupListed, enabled);
                    } else {
                        EXPECT_FALSE(enabled);
                    }
                    EXPECT_EQ(kNothing, asked.platform.LogTexts());
                    ++combinations;
                }
            }
        }
    }
    EXPECT_EQ(10 * 4 * 7 * 8, combinations);
}

TEST(IsEnabled, AsksNothingButTheOptionForEverybodyAndNobody)
{
    for (const char* option : {"user", "none", ""}) {
        Asked asked(R"({"local_user":["1026"]})");
        asked.platform.options["otp_enforce_option"] = option;
        EXPECT_EQ(std::string(option) == "user", OTPEnforceIsEnabled("no such account"));
        EXPECT_EQ(Texts{kAsksOption}, asked.platform.calls);
        EXPECT_EQ(kNothing, asked.platform.LogTexts());
    }
}

TEST(IsEnabled, AsksForMembershipAloneWithAdministrators)
{
    Asked asked(R"({"local_user":["1026"]})");
    asked.platform.options["otp_enforce_option"] = "admin";
    EXPECT_FALSE(OTPEnforceIsEnabled("alice"));
    EXPECT_EQ((Texts{kAsksOption, R"(KLIBGroupIsAdminGroupMem("alice", 0))"}), asked.platform.calls);
    asked.platform.Fail("KLIBGroupIsAdminGroupMem");
    EXPECT_FALSE(OTPEnforceIsEnabled("alice"));
    EXPECT_EQ(kNothing, asked.platform.LogTexts());
}

TEST(IsEnabled, LooksForTheUserBeforeItsGroups)
{
    {
        Asked asked(R"({"local_user":["5","1026"],"local_group":["65540"]})");
        EXPECT_TRUE(OTPEnforceIsEnabled("alice"));
        EXPECT_EQ(Loading({kAsksOption}, {R"(TAVRUserGet("alice"))", R"(TAVRUserFree("alice"))"}),
                  asked.platform.calls);
    }
    Asked asked(R"({"local_user":["5"],"local_group":["65540"]})");
    EXPECT_TRUE(OTPEnforceIsEnabled("alice"));
    EXPECT_EQ(Loading({kAsksOption}, {R"(TAVRUserGet("alice"))", R"(KLIBGroupInfoGidGet("alice", 0))",
                                      R"(TAVRUserFree("alice"))"}),
              asked.platform.calls);
}

TEST(IsEnabled, ReadsUserEntriesAsNumbers)
{
    const struct {
        const char* list;
        bool enabled;
    } cases[] = {
        {R"(["1026"])", true},
        {R"(["01026"])", true},
        {R"([1026])", true},
        {R"(["7","x","","1026","1026"])", true},
        {R"([null,true,false,1.5,-1,"1026"])", true},
        {R"({"a":"1026"})", true},
        {R"(["1026",[]])", true}, // in stored order: what follows is not looked at
        {R"(["10260"])", false},
        {R"(["102"])", false},
        {R"(["1026 "])", false},
        {R"([" 1026"])", false},
        {R"(["+1026"])", false},
        {R"(["-1026"])", false},
        {R"(["1026x"])", false},
        {R"(["1026.0"])", false},
        {R"(["0x402"])", false},
        {R"(["4294968322"])", false}, // 1026 and 2 to the power of 32
        {R"(["18446744073709552642"])", false},
        {R"(["1026\u0000"])", false},
        {R"([""])", false},
        {R"([])", false},
        {R"("1026")", false},
        {R"(1026)", false},
        {R"(null)", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.list);
        Asked asked(std::string(R"({"local_user":)") + c.list + "}");
        EXPECT_EQ(c.enabled, OTPEnforceIsEnabled("alice"));
        EXPECT_EQ(kNothing, asked.platform.LogTexts());
        EXPECT_EQ(kNothing, asked.platform.CallsOf("KLIBGroupInfoGidGet"));
    }
}

TEST(IsEnabled, TakesTheSmallestAndTheLargestNumber)
{
    for (const uint32_t number : {0U, 4294967295U}) {
        const std::string text = std::to_string(number);
        Asked asked(R"({"local_user":[")" + text + R"("],"ldap_group":[")" + text + R"("]})");
        asked.platform.users["alice"].uid = number;
        EXPECT_TRUE(OTPEnforceIsEnabled("alice"));
        asked.platform.users["alice"] = {1026, 0, 8, {}, {}};
        asked.platform.gidsOfUser = {5, number, 7};
        EXPECT_TRUE(OTPEnforceIsEnabled("alice"));
    }
}

TEST(IsEnabled, ComparesGroupEntriesAsTexts)
{
    const struct {
        const char* list;
        bool enabled;
    } cases[] = {
        {R"(["65540"])", true},
        {R"(["1","65537"])", true},
        {R"([65540])", true},
        {R"({"a":"65540"})", true},
        {R"(["","x","-1","99999999999","65540"])", true},
        {R"(["065540"])", false},
        {R"(["65540 "])", false},
        {R"(["+65540"])", false},
        {R"(["6554"])", false},
        {R"(["655400"])", false},
        {R"(["1026"])", false},
        {R"([""])", false},
        {R"(["x"])", false},
        {R"([null])", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.list);
        Asked asked(std::string(R"({"local_group":)") + c.list + "}");
        EXPECT_EQ(c.enabled, OTPEnforceIsEnabled("alice"));
        EXPECT_EQ(kNothing, asked.platform.LogTexts());
        EXPECT_EQ(1U, asked.platform.CallsOf("KLIBGroupInfoGidGet").size());
    }
}

TEST(IsEnabled, AsksForGroupsOnlyWhereSomeAreListed)
{
    for (const char* picks :
         {"{}", "null", R"({"local_group":[]})", R"({"local_group":{}})", R"({"local_group":null})",
          R"({"local_group":"65540"})", R"({"local_group":65540})", R"({"ldap_group":["65540"]})"}) {
        SCOPED_TRACE(picks);
        Asked asked(picks);
        asked.platform.Fail("KLIBGroupInfoGidGet");
        EXPECT_FALSE(OTPEnforceIsEnabled("alice"));
        EXPECT_EQ(Loading({kAsksOption}, {R"(TAVRUserGet("alice"))", R"(TAVRUserFree("alice"))"}),
                  asked.platform.calls);
        EXPECT_EQ(kNothing, asked.platform.LogTexts());
    }
}

TEST(IsEnabled, SaysNoWhenTheAccountIsUnknown)
{
    Asked asked(R"({"local_user":["1026"],"local_group":["65540"]})");
    EXPECT_FALSE(OTPEnforceIsEnabled("CORP\\bob"));
    EXPECT_EQ(Texts{"3 OTPEnforceHandler.cpp Failed to get uid for [CORP\\bob]"}, asked.platform.LogTexts());
    EXPECT_EQ(Loading({kAsksOption}, {R"(TAVRUserGet("CORP\bob"))"}), asked.platform.calls);
}

TEST(IsEnabled, SaysNoWhenItsGroupsAreUnknown)
{
    Asked asked(R"({"local_group":["65540"]})");
    asked.platform.Fail("KLIBGroupInfoGidGet");
    EXPECT_FALSE(OTPEnforceIsEnabled("alice"));
    EXPECT_EQ(Texts{"3 OTPEnforceHandler.cpp Failed to get group gids for [alice]"},
              asked.platform.LogTexts());
}

TEST(IsEnabled, SaysNoToAnAccountWithoutGroups)
{
    Asked asked(R"({"local_group":["65540"]})");
    asked.platform.gidsOfUser.clear();
    EXPECT_FALSE(OTPEnforceIsEnabled("alice"));
    EXPECT_EQ(kNothing, asked.platform.LogTexts());
}

TEST(IsEnabled, CountsAFileThatIsAbsentOrBrokenAsNoPicks)
{
    {
        Asked asked;
        std::filesystem::remove(asked.dir.Path("picks"));
        EXPECT_FALSE(OTPEnforceIsEnabled("alice"));
        EXPECT_EQ(kNothing, asked.platform.LogTexts());
        EXPECT_EQ(kNothing, asked.platform.CallsOf("JsonFromFile"));
    }
    for (const char* picks : {"", "x", "{", "{\"local_user\""}) {
        SCOPED_TRACE(picks);
        Asked asked(picks);
        EXPECT_FALSE(OTPEnforceIsEnabled("alice"));
        EXPECT_EQ(Texts{kNotLoaded}, asked.platform.LogTexts());
    }
    Asked asked(R"({"local_user":["1026"],)");
    EXPECT_TRUE(OTPEnforceIsEnabled("alice")) << "what was parsed before the error counts";
    EXPECT_EQ(Texts{kNotLoaded}, asked.platform.LogTexts());
}

TEST(IsEnabled, PassesTheLibrarysExceptionsOn)
{
    const struct {
        const char* picks;
        bool groupsAsked;
    } cases[] = {{"[]", false},
                 {R"("x")", false},
                 {R"({"local_user":[["1026"]]})", false},
                 {R"({"local_user":[{},"1026"]})", false},
                 {R"({"local_group":["65540",[]]})", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.picks);
        Asked asked(c.picks);
        EXPECT_THROW(OTPEnforceIsEnabled("alice"), Json::Exception);
        EXPECT_EQ(Loading({kAsksOption}, {R"(TAVRUserGet("alice"))", R"(TAVRUserFree("alice"))"}),
                  asked.platform.calls);
    }
}

// --- OTPEnforceCustomSettingList ---

struct Answer {
    int result = 0;
    int total = -77;
    Json::Value rows = "before";
    [[nodiscard]] std::string Ids() const
    {
        std::string ids;
        for (const Json::Value& row : rows) {
            ids += (ids.empty() ? "" : " ") + row["id"].asString() + (row["is_enforced"].asBool() ? "+" : "");
        }
        return ids;
    }
};

Answer List(const std::string& type, const std::string& filter, int offset = 0, int limit = -1,
            const std::string& query = "", const std::string& domain = "")
{
    Answer answer;
    answer.result =
        OTPEnforceCustomSettingList(offset, limit, type, query, domain, filter, answer.total, answer.rows);
    return answer;
}

// A server with fifty accounts, 1 to 50, of which 3, 10 and 40 are picked.
struct Fifty : Server {
    explicit Fifty(const std::string& type = "local_user")
        : Server("{\"" + type + "\":[\"10\",\"3\",\"40\"]}")
    {
        for (uint32_t id = 1; id <= 50; ++id) {
            platform.userList.push_back({"somebody", id, "text", 1});
        }
    }
};

TEST(CustomSettingList, AsksForTheListOfTheType)
{
    const struct {
        const char* type;
        const char* call;
    } cases[] = {
        {"local_user", R"(KLIBUserInfoEnumBySubstr(1, "CORP", 20, 10, "ali", 1))"},
        {"local_group", R"(KLIBGroupInfoEnumBySubstr(1, "CORP", 20, 10, "ali", 1))"},
        {"ldap_user", R"(KLIBUserInfoEnumBySubstr(8, "CORP", 20, 10, "ali", 1))"},
        {"ldap_group", R"(KLIBGroupInfoEnumBySubstr(8, "CORP", 20, 10, "ali", 1))"},
        {"", R"(KLIBUserInfoEnumBySubstr(1, "CORP", 20, 10, "ali", 1))"},
        {"Local_group", R"(KLIBUserInfoEnumBySubstr(1, "CORP", 20, 10, "ali", 1))"},
        {"domain_users", R"(KLIBUserInfoEnumBySubstr(1, "CORP", 20, 10, "ali", 1))"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        Server server("{}");
        const Answer answer = List(c.type, "all", 20, 10, "ali", "CORP");
        EXPECT_EQ(0, answer.result);
        EXPECT_EQ(0, answer.total);
        EXPECT_EQ(Json::Value(Json::arrayValue), answer.rows);
        EXPECT_EQ(Loading({}, {c.call}), server.platform.calls);
        EXPECT_EQ(kNothing, server.platform.LogTexts());
    }
}

TEST(CustomSettingList, LeavesThePagesOfTheWholeListToThePlatform)
{
    Fifty server;
    const Answer answer = List("local_user", "all", 38, 3);
    EXPECT_EQ(0, answer.result);
    EXPECT_EQ(50, answer.total);
    EXPECT_EQ("39 40+ 41", answer.Ids());
    EXPECT_EQ(R"([{"desc":"text","id":"39","is_enforced":false,"name":"somebody"},)"
              R"({"desc":"text","id":"40","is_enforced":true,"name":"somebody"},)"
              R"({"desc":"text","id":"41","is_enforced":false,"name":"somebody"}])",
              JsonToString(answer.rows));
    EXPECT_EQ(Loading({}, {R"(KLIBUserInfoEnumBySubstr(1, "", 38, 3, "", 1))"}), server.platform.calls);
}

TEST(CustomSettingList, HandsEveryPageThrough)
{
    const struct {
        int offset, limit;
        const char* call;
    } cases[] = {{0, -1, R"(KLIBUserInfoEnumBySubstr(1, "", 0, -1, "", 1))"},
                 {-5, 0, R"(KLIBUserInfoEnumBySubstr(1, "", -5, 0, "", 1))"},
                 {INT_MAX, INT_MIN, R"(KLIBUserInfoEnumBySubstr(1, "", 2147483647, -2147483648, "", 1))"}};
    for (const auto& c : cases) {
        Server server("{}");
        List("local_user", "all", c.offset, c.limit);
        EXPECT_EQ(Texts{c.call}, server.platform.CallsOf("KLIBUserInfoEnumBySubstr"));
    }
}

TEST(CustomSettingList, DividesFilteredListsIntoPagesItself)
{
    const struct {
        const char* filter;
        int offset, limit;
        const char* ids;
        int total;
    } cases[] = {
        {"enforced", 0, 2, "3+ 10+", 3},
        {"enforced", 2, 2, "40+", 3},
        {"enforced", 0, -1, "3+ 10+ 40+", 3},
        {"enforced", 1, -1, "10+ 40+", 3},
        {"enforced", 3, 2, "", 3},
        {"enforced", INT_MAX, INT_MAX, "", 3},
        {"enforced", 0, INT_MAX, "3+ 10+ 40+", 3},
        {"enforced", 0, 0, "", 3},
        {"enforced", 0, -2, "", 3},
        {"enforced", 0, INT_MIN, "", 3},
        {"enforced", -1, 2, "3+", 3}, // the first row is one behind such an offset
        {"enforced", -1, -1, "3+ 10+ 40+", 3},
        {"enforced", -3, 3, "", 3},
        {"enforced", INT_MIN, INT_MAX, "", 3},
        {"unenforced", 0, 3, "1 2 4", 47},
        {"unenforced", 45, 10, "49 50", 47},
        {"unenforced", 47, 10, "", 47},
        {"unenforced", 1000, 10, "", 47},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.filter) + " " + std::to_string(c.offset) + " " + std::to_string(c.limit));
        Fifty server;
        const Answer answer = List("local_user", c.filter, c.offset, c.limit, "some", "dom");
        EXPECT_EQ(0, answer.result);
        EXPECT_EQ(c.total, answer.total);
        EXPECT_TRUE(answer.rows.isArray());
        EXPECT_EQ(c.ids, answer.Ids());
        EXPECT_EQ(Loading({}, {R"(KLIBUserInfoEnumBySubstr(1, "dom", 0, -1, "some", 1))"}),
                  server.platform.calls);
    }
}

TEST(CustomSettingList, KeepsNothingWithAnotherFilter)
{
    for (const char* filter : {"Enforced", "ALL", "", "enforced ", "none"}) {
        SCOPED_TRACE(filter);
        Fifty server;
        const Answer answer = List("local_user", filter, 0, 10);
        EXPECT_EQ(0, answer.result);
        EXPECT_EQ(0, answer.total);
        EXPECT_EQ(Json::Value(Json::arrayValue), answer.rows);
        EXPECT_EQ(Texts{R"(KLIBUserInfoEnumBySubstr(1, "", 0, -1, "", 1))"},
                  server.platform.CallsOf("KLIBUserInfoEnumBySubstr"));
        EXPECT_EQ(kNothing, server.platform.LogTexts());
    }
}

TEST(CustomSettingList, MarksRowsByTheTypeAsItIsGiven)
{
    const struct {
        const char* reason;
        const char* picks;
        const char* type;
        const char* ids;
    } cases[] = {
        {"another type's list", R"({"ldap_user":["1","2"]})", "local_user", "1 2 30"},
        {"an unknown type has no list", R"({"local_user":["1"]})", "unknown", "1 2 30"},
        {"an unknown type that the file holds", R"({"unknown":["2"]})", "unknown", "1 2+ 30"},
        {"unsorted", R"({"local_user":["30","1"]})", "local_user", "1+ 2 30+"},
        {"texts alone are equal to texts", R"({"local_user":["01"," 2","30 ","3","x",""]})", "local_user",
         "1 2 30"},
        {"entries that are no texts", R"({"local_user":[1,2.0,null,true,30]})", "local_user", "1+ 2 30+"},
        {"an object's values", R"({"local_user":{"1":"2"}})", "local_user", "1 2+ 30"},
        {"a text", R"({"local_user":"1"})", "local_user", "1 2 30"},
        {"no object", "null", "local_user", "1 2 30"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        Server server(c.picks);
        server.platform.userList = {{"a", 1, "", 1}, {"b", 2, "", 1}, {"c", 30, "", 1}};
        EXPECT_EQ(c.ids, List(c.type, "all").Ids());
    }
}

TEST(CustomSettingList, ShowsEverythingUnenforcedWithoutTheFile)
{
    for (const bool broken : {false, true}) {
        Fifty server;
        if (broken) {
            server.Hold("{");
        } else {
            std::filesystem::remove(server.dir.Path("picks"));
        }
        EXPECT_EQ(0, List("local_user", "enforced").total);
        EXPECT_EQ(50, List("local_user", "unenforced").total);
        EXPECT_EQ(50, List("local_user", "all").total);
        EXPECT_EQ(broken ? Texts(3, kNotLoaded) : kNothing, server.platform.LogTexts());
    }
}

TEST(CustomSettingList, PassesTheLibrarysExceptionsOn)
{
    for (const char* picks : {"[\"1\"]", "1", R"({"local_user":[["1"]]})"}) {
        SCOPED_TRACE(picks);
        Fifty server;
        server.Hold(picks);
        Answer answer;
        EXPECT_THROW(
            OTPEnforceCustomSettingList(0, -1, "local_user", "", "", "all", answer.total, answer.rows),
            Json::Exception);
        EXPECT_EQ(kLoads, server.platform.calls);
        EXPECT_EQ(-77, answer.total);
        EXPECT_EQ(Json::Value("before"), answer.rows);
    }
}

TEST(CustomSettingList, FailsWithThePlatform)
{
    for (const char* filter : {"all", "enforced", "unenforced", "other"}) {
        for (const char* call : {"KLIBUserInfoEnumBySubstr", "KLIBUserInfoEnumBySubstr end"}) {
            SCOPED_TRACE(std::string(filter) + " " + call);
            Fifty server;
            server.platform.Answer(call, -5);
            server.platform.error = {0xD00, "users.cpp", 42};
            const Answer answer = List("local_user", filter, 0, 10);
            EXPECT_EQ(-1, answer.result);
            EXPECT_EQ(-5, answer.total);
            EXPECT_EQ(Json::Value("before"), answer.rows) << "rows that came before the failure go nowhere";
            EXPECT_EQ(Texts{"3 OTPEnforceHandler.cpp Failed to get user / group list for [local_user] "
                            "[0x0D00 users.cpp:42]"},
                      server.platform.LogTexts());
        }
    }
    Server server("{}");
    server.platform.Fail("KLIBUserInfoEnumBySubstr");
    List("Unknown", "all");
    EXPECT_EQ(Texts{"3 OTPEnforceHandler.cpp Failed to get user / group list for [Unknown] "
                    "[0x0000 fake.cpp:1]"},
              server.platform.LogTexts());
}

TEST(CustomSettingList, HasARowForEveryUserOfThePlatform)
{
    Server server("{}");
    server.platform.userList = {{"alice", 1026, "Alice A.", 1},
                                {"bob", 4294967295U, nullptr, 1},
                                {nullptr, 7, "no name", 1},
                                {"", 8, "", 2},
                                {"\xE2\x80\xAE<b>\"quoted\"</b>", 9, "\xC3\xA9", 1}};
    const Answer answer = List("local_user", "all");
    EXPECT_EQ(5, answer.total) << "the platform's count";
    EXPECT_EQ(R"([{"desc":"Alice A.","id":"1026","is_enforced":false,"name":"alice"},)"
              R"({"desc":"","id":"4294967295","is_enforced":false,"name":"bob"},)"
              R"({"desc":"","id":"8","is_enforced":false,"name":""},)"
              R"({"desc":"\u00e9","id":"9","is_enforced":false,"name":"\u202e<b>\"quoted\"</b>"}])",
              JsonToString(answer.rows));
    EXPECT_EQ(4, List("local_user", "unenforced").total) << "what has no row is not counted";
}

// Rows are made singly or a page at a time.
TEST(CustomSettingList, HasAsManyRowsAsThePlatformHas)
{
    for (const uint32_t count : {0U, 1U, 4U, 5U, 6U, 49U, 50U, 51U, 120U}) {
        SCOPED_TRACE(count);
        Server server(R"({"local_user":["2","5","50","51","120"]})");
        for (uint32_t id = 1; id <= count; ++id) {
            server.platform.userList.push_back({"somebody", id, "text", 1});
        }
        const Answer answer = List("local_user", "all", 0, 120);
        ASSERT_EQ(count, answer.rows.size());
        for (uint32_t id = 1; id <= count; ++id) {
            const bool picked = id == 2 || id == 5 || id == 50 || id == 51 || id == 120;
            EXPECT_EQ("{\"desc\":\"text\",\"id\":\"" + std::to_string(id) +
                          "\",\"is_enforced\":" + (picked ? "true" : "false") + ",\"name\":\"somebody\"}",
                      JsonToString(answer.rows[id - 1]));
        }
    }
}

TEST(CustomSettingList, AsksForTheRecordOfUsersOfTheDirectory)
{
    Server server(R"({"ldap_user":["2000001"]})");
    server.platform.users["mia@office.example"] = {2000001, 1, 8, "Mia", {}};
    server.platform.users["leo@office.example"] = {2000002, 1, 8, {}, {}};
    server.platform.userList = {{"mia@office.example", 1, "not this", 8},
                                {"gone@office.example", 2, "x", 8},
                                {nullptr, 3, "x", 8},
                                {"leo@office.example", 3, "x", 8}};
    const Answer answer = List("ldap_user", "all");
    EXPECT_EQ(0, answer.result);
    EXPECT_EQ(4, answer.total);
    EXPECT_EQ(R"([{"desc":"Mia","id":"2000001","is_enforced":true,"name":"mia@office.example"},)"
              R"({"desc":"","id":"2000002","is_enforced":false,"name":"leo@office.example"}])",
              JsonToString(answer.rows));
    EXPECT_EQ(Texts{"3 OTPEnforceHandler.cpp Failed to get uid for [gone@office.example]"},
              server.platform.LogTexts());
    EXPECT_EQ(Loading({}, {R"(KLIBUserInfoEnumBySubstr(8, "", 0, -1, "", 1))",
                           R"(TAVRUserGet("mia@office.example"))", R"(TAVRUserFree("mia@office.example"))",
                           R"(TAVRUserGet("gone@office.example"))", R"(TAVRUserGet("leo@office.example"))",
                           R"(TAVRUserFree("leo@office.example"))"}),
              server.platform.calls);
}

TEST(CustomSettingList, HasARowForEveryGroupOfThePlatform)
{
    Server server(R"({"local_group":["65538"]})");
    server.platform.groupList = {{"crew", 65538, 1}, {nullptr, 7, 1}, {"guests", 65539, 2}};
    server.platform.Answer("TAVRGroupDescGet", -1, 2);
    const Answer answer = List("local_group", "all");
    EXPECT_EQ(3, answer.total);
    EXPECT_EQ(R"([{"desc":"group crew","id":"65538","is_enforced":true,"name":"crew"},)"
              R"({"desc":"","id":"65539","is_enforced":false,"name":"guests"}])",
              JsonToString(answer.rows));
    EXPECT_EQ(Loading({}, {R"(KLIBGroupInfoEnumBySubstr(1, "", 0, -1, "", 1))",
                           R"(TAVRGroupDescGet("crew", second))", R"(TAVRGroupDescGet("guests", second))"}),
              server.platform.calls);
    EXPECT_EQ(kNothing, server.platform.LogTexts());
}

TEST(CustomSettingList, AsksTheDirectoryForItsGroups)
{
    Server server(R"({"ldap_group":["0","1000001"]})");
    server.platform.groups["crew@office.example"] = 1000001;
    server.platform.groupList = {
        {"crew@office.example", 5, 8}, {"gone@office.example", 6, 8}, {nullptr, 7, 8}};
    server.platform.Answer("TAVRLDAPGroupDescGet", -1, 2);
    const Answer answer = List("ldap_group", "all");
    EXPECT_EQ(R"([{"desc":"directory group crew@office.example","id":"1000001","is_enforced":true,)"
              R"("name":"crew@office.example"},)"
              R"({"desc":"","id":"0","is_enforced":true,"name":"gone@office.example"}])",
              JsonToString(answer.rows));
    EXPECT_EQ(Loading({}, {R"(KLIBGroupInfoEnumBySubstr(8, "", 0, -1, "", 1))",
                           R"(TAVRLDAPGroupDescGet("crew@office.example", second))",
                           R"(TAVRGroupGetGID("crew@office.example"))",
                           R"(TAVRLDAPGroupDescGet("gone@office.example", second))",
                           R"(TAVRGroupGetGID("gone@office.example"))"}),
              server.platform.calls);
    EXPECT_EQ(kNothing, server.platform.LogTexts());
}

// --- the list of a domain ---

struct Domain : Server {
    Domain() : Server(R"({"domain_user":["1001","1003"],"domain_group":["513"]})")
    {
        platform.users["CORP\\dan"] = {1001, 1, 2, {}, {}};
        platform.users["CORP\\eve"] = {1002, 1, 2, {}, {}};
        platform.users["CORP\\fay"] = {1003, 1, 2, {}, {}};
        platform.groups["CORP\\crew"] = 513;
        platform.domainList = {{{"Name", "CORP\\dan"}, {"Description", "Dan D."}},
                               {{"SID", "S-1"}, {"NAME", "CORP\\eve"}, {"description", {}}, {"Names", "x"}},
                               {{"name", "CORP\\fay"}}};
        platform.userList = {{"CORP\\core", 5, "from the core", 2}};
        platform.groupList = {{"CORP\\staff", 6, 2}};
    }
};

TEST(CustomSettingList, AsksTheDomainsDirectoryForUsers)
{
    Domain server;
    const Answer answer = List("domain_user", "all", 0, 10, "a", "office");
    EXPECT_EQ(0, answer.result);
    EXPECT_EQ(3, answer.total);
    EXPECT_EQ(R"([{"desc":"Dan D.","id":"1001","is_enforced":true,"name":"CORP\\dan"},)"
              R"({"desc":"","id":"1002","is_enforced":false,"name":"CORP\\eve"},)"
              R"({"id":"1003","is_enforced":true,"name":"CORP\\fay"}])",
              JsonToString(answer.rows));
    EXPECT_EQ(Loading({}, {"TAVRWinsDomainEnumOptAlloc()", R"(TAVRWinsDomainEnumOptAddSearchFields("Name"))",
                           R"(TAVRWinsDomainEnumOptAddSearchFields("Description"))",
                           "TAVRWinsDomainEnumOptSetStart(0)", "TAVRWinsDomainEnumOptSetLimit(10)",
                           "TAVRWinsDomainEnumOptSetUGType(0)",
                           R"(TAVRWinsDomainEnumOptSetSearchSubString("a"))", "TAVRWinIsEnableTrustDomain()",
                           R"(TAVRWinsDomainEnumOptSetOU("office"))", "TAVRWinsDomainCoreFullDbEnum()",
                           R"(TAVRUserGetUGID("CORP\dan"))", R"(TAVRUserGetUGID("CORP\eve"))",
                           R"(TAVRUserGetUGID("CORP\fay"))", "TAVRWinsDomainEnumOptFree(option)"}),
              server.platform.calls);
    EXPECT_EQ(kNothing, server.platform.LogTexts());
}

TEST(CustomSettingList, AsksTheDomainsDirectoryForGroups)
{
    Domain server;
    server.platform.trustedDomains = true;
    server.platform.domainList = {{{"Description", "Crew"}, {"Name", "CORP\\crew"}},
                                  {{"Name", "CORP\\unknown"}},
                                  {{"Name", {}}},
                                  {{"Description", "no name"}},
                                  {}};
    server.platform.groups[""] = 9;
    const Answer answer = List("domain_group", "enforced", 0, 10, "", "CORP");
    EXPECT_EQ(1, answer.total);
    EXPECT_EQ(R"([{"desc":"Crew","id":"513","is_enforced":true,"name":"CORP\\crew"}])",
              JsonToString(answer.rows));
    EXPECT_EQ(Loading({}, {"TAVRWinsDomainEnumOptAlloc()", R"(TAVRWinsDomainEnumOptAddSearchFields("Name"))",
                           R"(TAVRWinsDomainEnumOptAddSearchFields("Description"))",
                           "TAVRWinsDomainEnumOptSetStart(0)", "TAVRWinsDomainEnumOptSetLimit(-1)",
                           "TAVRWinsDomainEnumOptSetUGType(1)", "TAVRWinIsEnableTrustDomain()",
                           R"(TAVRWinsDomainEnumOptSetDomain("CORP"))", "TAVRWinsDomainCoreFullDbEnum()",
                           R"(TAVRGroupGetGID("CORP\crew"))", R"(TAVRGroupGetGID("CORP\unknown"))",
                           R"(TAVRGroupGetGID(""))", "TAVRWinsDomainEnumOptFree(option)"}),
              server.platform.calls);
    EXPECT_EQ(kNothing, server.platform.LogTexts());

    const Answer all = List("domain_group", "all");
    EXPECT_EQ(5, all.total) << "the platform's count, dropped rows too";
    EXPECT_EQ("513+ 9", all.Ids()) << "a null name is an empty one";
}

TEST(CustomSettingList, DropsDomainEntriesWhoseNumberIsNotToBeHad)
{
    for (const int result : {-1, 1}) {
        Domain server;
        server.platform.Answer("TAVRUserGetUGID", result, 1);
        EXPECT_EQ("1002 1003+", List("domain_user", "all").Ids());
        EXPECT_EQ(kNothing, server.platform.LogTexts());
    }
}

TEST(CustomSettingList, DoesNotLookAtTheResultsOfTheOptionsSetters)
{
    for (const bool trusted : {false, true}) {
        Domain server;
        server.platform.trustedDomains = trusted;
        for (const char* call :
             {"SetStart", "SetLimit", "SetUGType", "SetSearchSubString", "SetDomain", "SetOU"}) {
            server.platform.Fail(std::string("TAVRWinsDomainEnumOpt") + call);
        }
        EXPECT_EQ("1001+ 1002 1003+", List("domain_user", "all", 0, -1, "x").Ids());
    }
}

TEST(CustomSettingList, FailsWithoutADomainOption)
{
    Domain server;
    server.platform.Answer("TAVRWinsDomainEnumOptAlloc", -2);
    server.platform.error = {0x2100, "domain.cpp", 9};
    const Answer answer = List("domain_user", "enforced");
    EXPECT_EQ(-1, answer.result);
    EXPECT_EQ(-1, answer.total);
    EXPECT_EQ(Json::Value("before"), answer.rows);
    EXPECT_EQ((Texts{kLoads[0], kLoads[1], "TAVRWinsDomainEnumOptAlloc()",
                     "log: TAVRWinsDomainEnumOptAlloc failed [0x2100 domain.cpp:9]",
                     "TAVRWinsDomainEnumOptFree(null)",
                     "log: Failed to get user / group list for [domain_user] [0x2100 domain.cpp:9]"}),
              server.platform.logAndCalls);
    EXPECT_EQ((Texts{"3 OTPEnforceHandler.cpp TAVRWinsDomainEnumOptAlloc failed [0x2100 domain.cpp:9]",
                     "3 OTPEnforceHandler.cpp Failed to get user / group list for [domain_user] "
                     "[0x2100 domain.cpp:9]"}),
              server.platform.LogTexts());
}

TEST(CustomSettingList, FailsWithoutTheDomainsSearchFields)
{
    for (const int nth : {1, 2}) {
        SCOPED_TRACE(nth);
        Domain server;
        server.platform.Answer("TAVRWinsDomainEnumOptAddSearchFields", -3, nth);
        const Answer answer = List("domain_group", "all");
        EXPECT_EQ(-1, answer.result);
        EXPECT_EQ(-1, answer.total);
        EXPECT_EQ(Json::Value("before"), answer.rows);
        Texts calls =
            Loading({}, {"TAVRWinsDomainEnumOptAlloc()", R"(TAVRWinsDomainEnumOptAddSearchFields("Name"))"});
        if (nth == 2) {
            calls.emplace_back(R"(TAVRWinsDomainEnumOptAddSearchFields("Description"))");
        }
        calls.emplace_back("TAVRWinsDomainEnumOptFree(option)");
        EXPECT_EQ(calls, server.platform.calls);
        EXPECT_EQ(Texts{"3 OTPEnforceHandler.cpp Failed to get user / group list for [domain_group] "
                        "[0x0000 fake.cpp:1]"},
                  server.platform.LogTexts());
    }
}

TEST(CustomSettingList, FallsBackToTheCoreWhenTheDomainsDirectoryFails)
{
    Domain server;
    server.platform.Answer("TAVRWinsDomainCoreFullDbEnum", -9);
    const Answer users = List("domain_user", "all", 0, 10, "a", "CORP");
    EXPECT_EQ(0, users.result);
    EXPECT_EQ(1, users.total);
    EXPECT_EQ(R"([{"desc":"from the core","id":"5","is_enforced":false,"name":"CORP\\core"}])",
              JsonToString(users.rows));
    const Texts& calls = server.platform.calls;
    EXPECT_EQ(
        (Texts{"TAVRWinsDomainCoreFullDbEnum()", R"(KLIBUserInfoEnumBySubstr(2, "CORP", 0, 10, "a", 1))",
               "TAVRWinsDomainEnumOptFree(option)"}),
        Texts(calls.end() - 3, calls.end()));

    const Answer groups = List("domain_group", "unenforced", 0, 10, "b", "CORP");
    EXPECT_EQ(1, groups.total);
    EXPECT_EQ("6", groups.Ids());
    EXPECT_EQ(Texts{R"(KLIBGroupInfoEnumBySubstr(2, "CORP", 0, -1, "b", 1))"},
              server.platform.CallsOf("KLIBGroupInfoEnumBySubstr"));
    EXPECT_EQ(kNothing, server.platform.LogTexts());
}

TEST(CustomSettingList, KeepsTheRowsThatTheDomainsDirectoryGaveBeforeItFailed)
{
    Domain server;
    server.platform.Answer("TAVRWinsDomainCoreFullDbEnum end", -9);
    const Answer answer = List("domain_user", "all");
    EXPECT_EQ(1, answer.total) << "the core's count";
    EXPECT_EQ("1001+ 1002 1003+ 5", answer.Ids());
}

TEST(CustomSettingList, FailsWhenTheCoreFailsToo)
{
    Domain server;
    server.platform.Fail("TAVRWinsDomainCoreFullDbEnum");
    server.platform.Answer("KLIBUserInfoEnumBySubstr", -4);
    const Answer answer = List("domain_user", "all");
    EXPECT_EQ(-1, answer.result);
    EXPECT_EQ(-4, answer.total);
    EXPECT_EQ(Texts{"3 OTPEnforceHandler.cpp Failed to get user / group list for [domain_user] "
                    "[0x0000 fake.cpp:1]"},
              server.platform.LogTexts());
}

TEST(CustomSettingList, GivesTheOptionBackWhenSomethingThrows)
{
    Domain server;
    server.platform.During("TAVRUserGetUGID", [] { throw std::runtime_error("in a row"); });
    Answer answer;
    EXPECT_THROW(OTPEnforceCustomSettingList(0, -1, "domain_user", "", "", "all", answer.total, answer.rows),
                 std::runtime_error);
    EXPECT_EQ("TAVRWinsDomainEnumOptFree(option)", server.platform.calls.back());
    EXPECT_EQ(Json::Value("before"), answer.rows);
}

} // namespace
