// How much does a recovery address in a preference file cost beyond the JSON library's own reading, parsing
// and writing of that file? The floor reads and writes with plain stdio and parses without a copy.
#include "bench/measure.h"
#include "bench/service.h"
#include "otp/OTPutils.h"
#include "platform/users.h"

#include <json/json.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace
{

constexpr char kUser[] = "CORP\\alice";
constexpr char kMember[] = "TAVR.Ombra.App.PersonalSettings.Instance";

// An object of about `size` bytes, as web programs leave them: small objects of short texts, numbers,
// switches.
std::string Settings(std::size_t size)
{
    std::string text = "{";
    for (int i = 0; text.size() < size; ++i) {
        const std::string number = std::to_string(i);
        text += "\"TAVR.Ombra.App." + number + "\":{\"width\":" + number +
                ",\"height\":600.5,\"open\":true,\"title\":\"window " + number + "\",\"list\":[1,2,3]},";
    }
    return text + "\"" + kMember + "\":{\"otp_mail\":\"alice@home.example\",\"theme\":\"dark\"}}\n";
}

std::string ReadFile(const char* path)
{
    FILE* file = std::fopen(path, "r");
    bench::Demand(file != nullptr, path);
    std::string text;
    char block[8192];
    std::size_t count = 0;
    while ((count = std::fread(block, 1, sizeof block, file)) > 0) {
        text.append(block, count);
    }
    std::fclose(file);
    return text;
}

void WriteFile(const char* path, const std::string& text)
{
    FILE* file = std::fopen(path, "w");
    bench::Demand(file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size(), path);
    std::fclose(file);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // the library's own reader and writer

Json::Value Parse(const char* path)
{
    const std::string text = ReadFile(path);
    Json::Value value;
    bench::Demand(Json::Reader().parse(text.data(), text.data() + text.size(), value, false), "JSON");
    return value;
}

std::string Text(const Json::Value& value)
{
    return Json::FastWriter().write(value);
}

#pragma GCC diagnostic pop

bool Measure(const char* path, std::size_t size, int rounds)
{
    char mail[4096];
    WriteFile(path, Settings(size));
    const auto parse = [&] { bench::Demand(Parse(path).isObject(), "object"); };
    const auto parseAndWrite = [&] {
        Json::Value value = Parse(path);
        value[kMember]["otp_mail"] = "alice@home.example";
        WriteFile(path, Text(value));
    };
    const auto look = [&] {
        bench::Demand(OTPUtils::GetDomainUserMail(kUser, mail, sizeof mail), "look-up");
    };
    const auto lookAsRoot = [&] {
        bench::Demand(OTPUtils::GetUserMail(kUser, mail, sizeof mail), "look-up");
    };
    const auto store = [&] { bench::Demand(OTPUtils::SetUserMail(kUser, "alice@home.example"), "update"); };

    const std::string kib = std::to_string(size / 1024) + " KiB: ";
    bool met = bench::Row((kib + "look-up").c_str(), bench::InTurn(rounds, parse, look), 1.1);
    met &= bench::Row((kib + "update").c_str(), bench::InTurn(rounds, parseAndWrite, store), 1.1);
    bench::Row((kib + "look-up with ids raised and logged").c_str(), bench::InTurn(rounds, parse, lookAsRoot),
               0);
    return met;
}

} // namespace

int main()
{
    bench::MakeFolders();
    bench::BecomeWorker();
    char dir[4096];
    bench::Demand(TAVRUserPreferenceDirGet(kUser, dir, sizeof dir, 0) >= 0, "preference directory");
    std::filesystem::create_directories(dir);
    const std::string path = std::string(dir) + "/usersettings";

    bench::Head();
    bool met = true;
    met &= Measure(path.c_str(), 4U << 10, 2001);
    met &= Measure(path.c_str(), 16U << 10, 1001);
    met &= Measure(path.c_str(), 64U << 10, 501);
    return met ? 0 : 1;
}
