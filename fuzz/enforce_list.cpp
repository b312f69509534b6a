// What a page sends for a list: offset, limit, type, search text, domain and filter, a line each. Whatever it
// sends, a filtered page is the part of the whole filtered list that the numbers name, and every entry is
// enforced or unenforced.
#include "otp/OTPEnforceHandler.h"

#include "fuzz/demand.h"
#include "tests/support/fake_platform.h"
#include "tests/support/temp_dir.h"

#include <cstdint>
#include <cstdlib>
#include <sstream>

#include <gtest/gtest.h>
#include <json/value.h>

namespace
{

constexpr char kPicks[] =
    R"({"local_user":["3","5","7","11"],"local_group":["2"],"domain_user":["4"],"x":["1"]})";

struct Asked {
    int offset = 0;
    int limit = 0;
    std::string type, query, domain, filter;
};

Asked Parse(const std::string& text)
{
    std::istringstream lines(text);
    std::string offset;
    std::string limit;
    Asked asked;
    for (std::string* line : {&offset, &limit, &asked.type, &asked.query, &asked.domain, &asked.filter}) {
        std::getline(lines, *line);
    }
    asked.offset = static_cast<int>(std::strtol(offset.c_str(), nullptr, 10));
    asked.limit = static_cast<int>(std::strtol(limit.c_str(), nullptr, 10));
    return asked;
}

struct Answer {
    int total = -1;
    Json::Value rows;
};

Answer Ask(const Asked& asked, const std::string& filter, int offset, int limit)
{
    Answer answer;
    Demand(OTPEnforceCustomSettingList(offset, limit, asked.type, asked.query, asked.domain, filter,
                                       answer.total, answer.rows) == 0,
           "a list");
    Demand(answer.rows.isArray(), "rows are an array");
    return answer;
}

void CheckPage(const Asked& asked)
{
    const Answer whole = Ask(asked, asked.filter, 0, -1);
    const Answer page = Ask(asked, asked.filter, asked.offset, asked.limit);
    Demand(whole.total == static_cast<int>(whole.rows.size()), "the total is that of the whole list");
    Demand(page.total == whole.total, "the total is the same on every page");
    Json::Value expected(Json::arrayValue);
    for (int64_t i = 0; i < whole.total; ++i) {
        if (i >= asked.offset && (asked.limit == -1 || i - asked.offset < asked.limit)) {
            expected.append(whole.rows[static_cast<Json::ArrayIndex>(i)]);
        }
    }
    Demand(page.rows == expected, "a page is a part of the list");
}

void Check(const Asked& asked, const TempDir& dir)
{
    FakePlatform platform;
    platform.files["/usr/tavr/etc/tavr_otp_enforce_custom_setting"] = dir.Path("picks");
    for (uint32_t id = 1; id <= 12; ++id) {
        platform.userList.push_back({"somebody", id, "text", 1});
        platform.groupList.push_back({"some group", id, 1});
        platform.domainList.push_back({{"Name", "CORP\\somebody"}, {"Description", "text"}});
    }
    platform.users["CORP\\somebody"] = {4, 1, 2, {}, {}};
    platform.groups["CORP\\somebody"] = 4;

    const int all = Ask(asked, "all", 0, -1).total;
    const int enforced = Ask(asked, "enforced", 0, -1).total;
    const int unenforced = Ask(asked, "unenforced", 0, -1).total;
    Demand(all == 12 && enforced + unenforced == all, "every entry is one or the other");
    if (asked.filter == "all") {
        Ask(asked, "all", asked.offset, asked.limit); // the platform's page
    } else {
        CheckPage(asked);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const TempDir dir;
    dir.Write("picks", kPicks);
    Check(Parse(std::string(reinterpret_cast<const char*>(data), size)), dir);
    Demand(!testing::UnitTest::GetInstance()->Failed(), "everything handed out came back");
    return 0;
}
