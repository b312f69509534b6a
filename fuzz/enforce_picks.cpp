// The file of the enforcement picks: whatever stands in it, the decision and the list leave it alone, and a
// change either ends in an exception with the file as it was, or leaves a file of one object in which the
// change shows, which the same change does not change again. What our programs take for picks ends in no
// exception, and a change leaves picks again.
#include "otp/OTPEnforceHandler.h"

#include "fuzz/demand.h"
#include "linux/picks.h"
#include "tests/support/fake_platform.h"
#include "tests/support/temp_dir.h"

#include <algorithm>
#include <cstdint>

#include <gtest/gtest.h>
#include <json/json.h>

namespace
{

enum class Outcome { No, Yes, Threw };

template<class Ask>
Outcome OutcomeOf(Ask ask)
{
    try {
        return ask() ? Outcome::Yes : Outcome::No;
    } catch (const Json::Exception&) {
        return Outcome::Threw;
    }
}

Outcome Decide()
{
    return OutcomeOf([] { return OTPEnforceIsEnabled("alice"); });
}

Outcome ShowsEnforced()
{
    return OutcomeOf([] {
        int total = 0;
        Json::Value rows;
        Demand(OTPEnforceCustomSettingList(0, -1, "local_user", "", "", "enforced", total, rows) == 0,
               "list");
        return total == 1 && rows[0]["id"] == "1026";
    });
}

Outcome Change(bool enforced)
{
    Json::Value row;
    row["id"] = "1026";
    row["is_enforced"] = enforced;
    Json::Value rows(Json::arrayValue);
    rows.append(row);
    return OutcomeOf([&] { return OTPEnforceCustomSettingSet("local_user", rows) == 0; });
}

void CheckList(const std::string& text, bool enforced)
{
    Json::Value picks;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Demand(reader->parse(text.data(), text.data() + text.size(), &picks, nullptr) && picks.isObject(),
           "a change leaves one object");
    std::vector<std::string> ids;
    for (const Json::Value& id : picks["local_user"]) {
        Demand(id.isString(), "ids are texts");
        ids.push_back(id.asString());
    }
    Demand(std::is_sorted(ids.begin(), ids.end()), "ids are sorted");
    Demand(std::adjacent_find(ids.begin(), ids.end()) == ids.end(), "each id stands there once");
    Demand(std::binary_search(ids.begin(), ids.end(), "1026") == enforced, "the change shows");
}

void Check(const std::string& before, const TempDir& dir)
{
    FakePlatform platform;
    platform.files["/usr/tavr/etc/tavr_otp_enforce_custom_setting"] = dir.Write("picks", before);
    platform.options["otp_enforce_option"] = "custom";
    platform.users["alice"] = {1026, 65537, 1, {}, {}};
    platform.gidsOfUser = {65537, 65540};
    platform.userList = {{"alice", 1026, "", 1}};

    const std::optional<Json::Value> picks = tavr::ParsePicks(before);
    const bool threw = Decide() == Outcome::Threw || ShowsEnforced() == Outcome::Threw;
    Demand(!picks || !threw, "picks can be asked");
    Demand(dir.Read("picks") == before, "asking changes nothing");
    for (const bool enforced : {true, false}) {
        const std::string last = dir.Read("picks");
        if (Change(enforced) == Outcome::Threw) {
            Demand(!picks, "picks can be changed");
            Demand(dir.Read("picks") == last, "a change that failed changes nothing");
            return;
        }
        const std::string after = dir.Read("picks");
        CheckList(after, enforced);
        if (picks) {
            const std::optional<Json::Value> changed = tavr::ParsePicks(after);
            Demand(changed.has_value(), "a change leaves picks");
            tavr::ChangesBetween(*picks, *changed);
        }
        Demand(ShowsEnforced() == (enforced ? Outcome::Yes : Outcome::No), "the list shows the change");
        Demand(!enforced || Decide() == Outcome::Yes, "the decision follows the change");
        Change(enforced);
        Demand(dir.Read("picks") == after, "the same change changes nothing more");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const TempDir dir;
    Check(std::string(reinterpret_cast<const char*>(data), size), dir);
    Demand(!testing::UnitTest::GetInstance()->Failed(), "everything handed out came back");
    return 0;
}
