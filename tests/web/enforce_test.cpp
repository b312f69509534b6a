// What the routes of enforcement are asked for, and the number of those who are not enrolled beside what the
// library says of each account.
#include "web/enforce_request.h"

#include "linux/enrolment.h"
#include "linux/not_enrolled.h"
#include "linux/paths.h"
#include "linux/settings.h"
#include "linux/vault.h"
#include "otp/OTPEnforceHandler.h"
#include "platform/json.h"
#include "tests/support/fresh_server.h"
#include "tests/support/rounds.h"
#include "tests/web/asking.h"
#include "web/request.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace tavr::web
{

namespace
{

// --- Queries -----------------------------------------------------------------------------------------------

std::string Shown(std::string_view query)
{
    const std::optional<ListRequest> asked = ParseListRequest(query);
    return !asked ? "refused"
                  : asked->type + '|' + std::to_string(asked->offset) + '|' + std::to_string(asked->limit) +
                        '|' + asked->query + '|' + asked->domain + '|' + asked->filter;
}

TEST(ListRequest, IsReadStrictly)
{
    const std::string long1024(1024, 'x');
    const std::string long256(256, 'x');
    const std::pair<std::string, std::string> rows[] = {
        {"type=local_user", "local_user|0|50|||all"},
        {"type=ldap_group&offset=20&limit=10&query=a&domain=b&filter=enforced",
         "ldap_group|20|10|a|b|enforced"},
        {"type=domain_user&filter=unenforced&limit=-1", "domain_user|0|-1|||unenforced"},
        {"&&type=local_user&", "local_user|0|50|||all"},
        {"type=local_user&query=", "local_user|0|50|||all"},
        {"type=local_user&query", "local_user|0|50|||all"},
        {"type=local_user&query=a+b%20c%2Bd%26e%3Df", "local_user|0|50|a b c+d&e=f||all"},
        {"type=local_user&query=a=b", "local_user|0|50|a=b||all"},
        {"type=local_user&query=%C3%84%e2%80%ae", "local_user|0|50|\xC3\x84\xE2\x80\xAE||all"},
        {"t%79pe=local%5Fuser", "local_user|0|50|||all"},
        {"type=local_user&unknown=1", "local_user|0|50|||all"},
        {"type=local_user&limit=500", "local_user|0|500|||all"},
        {"type=local_user&limit=0", "local_user|0|0|||all"},
        {"type=local_user&offset=2147483647", "local_user|2147483647|50|||all"},
        {"type=local_user&query=" + long1024, "local_user|0|50|" + long1024 + "||all"},
        {"type=local_user&domain=" + long256, "local_user|0|50||" + long256 + "|all"},

        {"", "refused"},
        {"type=", "refused"},
        {"type=Local_user", "refused"},
        {"type=local_user%20", "refused"},
        {"type=users", "refused"},
        {"offset=0", "refused"},
        {"type=local_user&type=local_user", "refused"},
        {"type=local_user&type=local_group", "refused"},
        {"type=local_user&x=1&x=1", "refused"},
        {"type=local_user&offset=-1", "refused"},
        {"type=local_user&offset=2147483648", "refused"},
        {"type=local_user&offset=99999999999999999999", "refused"},
        {"type=local_user&offset=", "refused"},
        {"type=local_user&offset=+1", "refused"},
        {"type=local_user&offset=%2B1", "refused"},
        {"type=local_user&offset=1.0", "refused"},
        {"type=local_user&offset=0x10", "refused"},
        {"type=local_user&offset=1%00", "refused"},
        {"type=local_user&limit=501", "refused"},
        {"type=local_user&limit=-2", "refused"},
        {"type=local_user&limit=-2147483649", "refused"},
        {"type=local_user&filter=Enforced", "refused"},
        {"type=local_user&filter=", "refused"},
        {"type=local_user&query=%", "refused"},
        {"type=local_user&query=%4", "refused"},
        {"type=local_user&query=%4g", "refused"},
        {"type=local_user&query=%00", "refused"},
        {"type=local_user&query=%ff", "refused"},
        {"type=local_user&query=%C3", "refused"},
        {"type=local_user&query=\xff", "refused"},
        {"type=local_user&unknown=%ff", "refused"},
        {"type=local_user&query=x" + long1024, "refused"},
        {"type=local_user&domain=x" + long256, "refused"},
    };
    for (const auto& [query, expected] : rows) {
        EXPECT_EQ(expected, Shown(query)) << query;
    }
    EXPECT_EQ("refused", Shown(std::string_view("type=local_user\0", 16)));
}

TEST(Settings, AreRowsAsListsGiveThem)
{
    const std::pair<const char*, bool> rows[] = {
        {"[]", true},
        {R"([{"id":"1026","is_enforced":true},{"id":"1026","is_enforced":false}])", true},
        {R"([{"id":"0","is_enforced":true}])", true},
        {R"([{"id":"4294967295","is_enforced":true,"name":"x"}])", true},
        {R"([{"id":"4294967296","is_enforced":true}])", false},
        {R"([{"id":"01026","is_enforced":true}])", false},
        {R"([{"id":"","is_enforced":true}])", false},
        {R"([{"id":"-1","is_enforced":true}])", false},
        {R"([{"id":"+1","is_enforced":true}])", false},
        {R"([{"id":" 1","is_enforced":true}])", false},
        {R"([{"id":"1\u0000","is_enforced":true}])", false},
        {R"([{"id":"1e3","is_enforced":true}])", false},
        {R"([{"id":"alice","is_enforced":true}])", false},
        {R"([{"id":1026,"is_enforced":true}])", false},
        {R"([{"id":"1026"}])", false},
        {R"([{"id":"1026","is_enforced":1}])", false},
        {R"([{"id":"1026","is_enforced":"true"}])", false},
        {R"([{"is_enforced":true}])", false},
        {R"([{"id":"1026","is_enforced":true},null])", false},
        {R"([[]])", false},
        {R"(["1026"])", false},
        {R"({"id":"1026","is_enforced":true})", false},
        {R"({})", false},
        {R"("1026")", false},
        {"null", false},
    };
    for (const auto& [text, expected] : rows) {
        const auto body = ParseBody(std::string("{\"settings\":") + text + "}", {});
        ASSERT_TRUE(body) << text;
        EXPECT_EQ(expected, AreSettings((*body)["settings"])) << text;
    }
}

// --- Who is not enrolled -----------------------------------------------------------------------------------

class NotEnrolled : public test::FreshServer
{
};

int64_t Asked(const char* option)
{
    EXPECT_TRUE(WriteSetting("otp_enforce_option", option));
    Json::Value picks;
    JsonFromFile(kPolicyFile, picks);
    return CountNotEnrolled(option, picks);
}

int64_t CountedOneByOne()
{
    int64_t count = 0;
    std::vector<Account> accounts;
    ForEachAccount([&](const Account& account) { accounts.push_back(account); });
    for (const Account& account : accounts) {
        const bool enrolled = Settle(account).enrolment != Enrolment::No;
        count += OTPEnforceIsEnabled(account.name) && !enrolled ? 1 : 0;
    }
    return count;
}

TEST_F(NotEnrolled, AreAsManyAsTheLibrarySaysOneByOne)
{
    WriteSettings("");
    AsWorker([] {
        std::mt19937 random(20260713);
        const auto one = [&](int in) { return random() % static_cast<unsigned>(in) == 0; };
        std::vector<Group> groups;
        for (const char* name : {"g1", "g2", "g3", "g4"}) {
            groups.push_back(*AddGroup(name, ""));
        }
        std::vector<Account> accounts;
        for (int i = 0; i < 60; ++i) {
            accounts.push_back(test::MakeAccount("u" + std::to_string(i)));
            if (one(3)) {
                Enrol(accounts.back());
            }
            for (const Group& group : groups) {
                if (one(4)) {
                    JoinGroup(accounts.back(), group);
                }
            }
            if (one(8)) {
                JoinGroup(accounts.back(), *FindGroup(kAdministrators));
            }
        }
        for (int i = 0; i < 60; i += 7) { // picks of these stay behind
            RemoveAccount(accounts[static_cast<size_t>(i)].uid);
            MarkAsSwitchingOff(accounts[static_cast<size_t>(i + 1)].uid);
        }
        for (int round = 0; round < test::Rounds(40, 400); ++round) {
            Json::Value picks(Json::objectValue);
            for (const Account& account : accounts) {
                if (one(5)) {
                    picks["local_user"].append((one(4) ? "0" : "") + std::to_string(account.uid));
                }
                if (one(5)) {
                    picks["domain_user"].append(std::to_string(account.uid));
                }
            }
            for (const Group& group : groups) {
                if (one(3)) {
                    picks["local_group"].append((one(4) ? "0" : "") + std::to_string(group.gid));
                }
            }
            if (one(10)) {
                picks["local_group"].append("65537"); // everybody's
            }
            picks["local_user"].append("nobody");
            picks["local_group"].append("");
            std::ofstream(kPolicyFile) << picks;
            for (const char* option : {"custom", "user", "admin", "none", "User"}) {
                const int64_t counted = Asked(option);
                EXPECT_EQ(CountedOneByOne(), counted) << option << ' ' << picks;
            }
        }
    });
}

TEST_F(NotEnrolled, AreCountedTheSameWhereThereAreMany)
{
    WriteSettings("");
    AsWorker([] {
        const auto execute = [](Database& db, const char* sql) {
            ASSERT_EQ(SQLITE_OK, sqlite3_exec(db.Handle(), sql, nullptr, nullptr, nullptr))
                << sqlite3_errmsg(db.Handle());
        };
        // 1026 to 31025; the first 12,000 of them are enrolled, 100 of those are about to be no more.
        execute(AccountsDatabase(),
                "WITH RECURSIVE n (i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 29999) "
                "INSERT INTO account (name, gid, password) SELECT 'u' || i, 65537, '*' FROM n");
        execute(SigninDatabase(),
                "WITH RECURSIVE n (i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 11999) "
                "INSERT INTO secret (reference, account, sealed, state, made_boot, made) SELECT 'r' || i, "
                "1026 + i, x'00', CASE WHEN i % 2 THEN 'active' ELSE 'confirmed' END, '', 0 FROM n; "
                "INSERT INTO secret (reference, account, sealed, state, made_boot, made) "
                "SELECT 'w' || account, account + 12000, x'00', 'waiting', '', 0 FROM secret; "
                "INSERT INTO account_mark (account, switching_off) "
                "SELECT account, 1 FROM secret WHERE state <> 'waiting' ORDER BY account LIMIT 100");
        EXPECT_EQ(30000 - 12000 + 100, CountNotEnrolled("user", {}));
        Json::Value picks;
        for (int uid = 1000; uid < 16026; ++uid) { // 26 of which there are none
            picks["local_user"].append(std::to_string(uid));
        }
        EXPECT_EQ(15000 - 12000 + 100, CountNotEnrolled("custom", picks));
        picks["local_group"].append("65537");
        EXPECT_EQ(30000 - 12000 + 100, CountNotEnrolled("custom", picks));
    });
}

} // namespace

} // namespace tavr::web
