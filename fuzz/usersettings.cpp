// The preference file of a domain account: whatever stands in it, a look-up gives an address or leaves the
// buffer alone, an update stores the address or leaves the file alone, and the ids are as before. What an
// update has written is JSON that the next one changes no more.
#include "otp/OTPutils.h"

#include "fuzz/demand.h"
#include "tests/support/fake_platform.h"
#include "tests/support/temp_dir.h"

#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>
#include <json/json.h>

namespace
{

constexpr char kUser[] = "CORP\\alice";
constexpr char kMail[] = "new@home.example";

enum class Outcome { Done, Refused, Threw };

Outcome Look(std::string& mail)
{
    char dst[64];
    std::memset(dst, '#', sizeof dst);
    const std::string untouched(dst, sizeof dst);
    try {
        if (OTPUtils::GetUserMail(kUser, dst, sizeof dst)) {
            Demand(std::memchr(dst, '\0', sizeof dst) != nullptr, "an address is terminated");
            mail = dst;
            return Outcome::Done;
        }
    } catch (const Json::Exception&) {
        Demand(untouched == std::string(dst, sizeof dst), "the buffer is untouched after an exception");
        return Outcome::Threw;
    }
    Demand(untouched == std::string(dst, sizeof dst), "the buffer is untouched after a failure");
    return Outcome::Refused;
}

Outcome Store()
{
    try {
        return OTPUtils::SetUserMail(kUser, kMail) ? Outcome::Done : Outcome::Refused;
    } catch (const Json::Exception&) {
        return Outcome::Threw;
    }
}

void Check(const std::string& before, const TempDir& dir)
{
    FakePlatform platform;
    platform.preferenceDir = dir.Path();

    dir.Write("usersettings", before);
    std::string mail;
    Look(mail);
    Demand(platform.euid == 64217 && platform.egid == 64217, "the ids are given back");
    Demand(dir.Read("usersettings") == before, "a look-up changes nothing");

    if (Store() != Outcome::Done) {
        Demand(dir.Read("usersettings") == before, "an update that failed changes nothing");
        return;
    }
    Demand(Look(mail) == Outcome::Done && mail == kMail, "the address is there after an update");
    const std::string after = dir.Read("usersettings");
    Demand(Store() == Outcome::Done && dir.Read("usersettings") == after, "a second update changes nothing");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const TempDir dir;
    Check(std::string(reinterpret_cast<const char*>(data), size), dir);
    Demand(!testing::UnitTest::GetInstance()->Failed(), "everything handed out came back");
    return 0;
}
