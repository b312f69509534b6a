// How much do the decision and the writer cost beyond the JSON library's own reading, parsing and writing of
// the picks' file? With as many numbers in the file as there may be accounts; the account that is asked for
// is in none of the lists, so every number is looked at. And what do the lock and the look at the file add,
// that our programs put around them?
#include "bench/measure.h"
#include "bench/service.h"
#include "linux/accounts.h"
#include "linux/policy_file.h"
#include "linux/settings.h"
#include "otp/OTPEnforceHandler.h"

#include <json/json.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>

namespace
{

constexpr char kName[] = "alice";

// `count` numbers that are nobody's, in the file's own order.
std::string Picks(const char* type, int count)
{
    std::string text = std::string("{\"") + type + "\":[";
    for (int i = 0; i < count; ++i) {
        text += (i == 0 ? "\"" : ",\"") + std::to_string(2000000000 + i) + '"';
    }
    return text + "]}\n";
}

void WriteFile(const std::string& text)
{
    FILE* file = std::fopen(tavr::kPolicyFile, "w");
    bench::Demand(file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size(),
                  tavr::kPolicyFile);
    std::fclose(file);
}

Json::Value Parse()
{
    FILE* file = std::fopen(tavr::kPolicyFile, "r");
    bench::Demand(file != nullptr, tavr::kPolicyFile);
    std::string text(std::filesystem::file_size(tavr::kPolicyFile), '\0');
    bench::Demand(std::fread(text.data(), 1, text.size(), file) == text.size(), tavr::kPolicyFile);
    std::fclose(file);
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    bench::Demand(reader->parse(text.data(), text.data() + text.size(), &value, nullptr), "JSON");
    return value;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // the library's own writer

void ParseAndWrite()
{
    WriteFile(Json::FastWriter().write(Parse()));
}

#pragma GCC diagnostic pop

Json::Value OneRow()
{
    Json::Value row;
    row["id"] = "2000000001";
    row["is_enforced"] = false;
    Json::Value rows(Json::arrayValue);
    rows.append(row);
    return rows;
}

void Decide()
{
    bench::Demand(!OTPEnforceIsEnabled(kName), "nobody's number");
}

void Ask()
{
    bench::Demand(tavr::AskPolicy(OTPEnforceIsEnabled, kName) == std::optional(false), "nobody's number");
}

// A file with its copy, that was not changed just now.
void WriteSettledFile(const std::string& text)
{
    WriteFile(text);
    bench::Demand(tavr::PolicyReading().Usable(), "picks");
    usleep(1'100'000);
}

template<typename Work>
bool Measure(bench::Growth& growth, const char* type, int count, Work work)
{
    const auto parse = [] { bench::Demand(Parse().isObject(), "object"); };
    WriteSettledFile(Picks(type, count));
    return growth.Row(count, bench::InTurn(bench::RoundsFor(count), parse, work), 1.25);
}

// One number goes and comes back.
bool MeasureWriter(bench::Growth& growth, int count)
{
    Json::Value rows = OneRow();
    const auto change = [&] {
        bench::Demand(OTPEnforceCustomSettingSet("local_user", rows) == 0, "writer");
        rows[0]["is_enforced"] = !rows[0]["is_enforced"].asBool();
    };
    WriteFile(Picks("local_user", count));
    return growth.Row(count, bench::InTurn(bench::RoundsFor(count), ParseAndWrite, change), 1.3);
}

// Likewise, durable, with the copy and the audit, against the library's writer alone.
void MeasureSave(bench::Growth& growth, int count)
{
    Json::Value rows = OneRow();
    const auto change = [&] {
        bench::Demand(OTPEnforceCustomSettingSet("local_user", rows) == 0, "writer");
        rows[0]["is_enforced"] = !rows[0]["is_enforced"].asBool();
    };
    const auto save = [&] {
        tavr::PolicyWriting policy;
        bench::Demand(policy.Usable(), "picks");
        change();
        bench::Demand(policy.Commit(nullptr), "commit");
    };
    WriteFile(Picks("local_user", count));
    growth.Row(count, bench::InTurn(std::min(101, bench::RoundsFor(count)), change, save), 0);
}

} // namespace

int main()
{
    bench::MakeFolders();
    bench::MakeSettings();
    bench::BecomeWorker();
    bench::Demand(tavr::AddAccount({kName, "", "", false}, "x").has_value(), "account");

    bench::Head();
    bool met = true;
    for (const char* option : {"user", "admin"}) {
        tavr::WriteSetting("otp_enforce_option", option);
        bench::Growth growth(std::string("option ") + option);
        for (const int count : bench::kCounts) {
            WriteFile(Picks("local_user", count));
            const auto decide = [] { OTPEnforceIsEnabled(kName); };
            growth.Row(count, bench::InTurn(301, decide, decide), 0);
        }
        met &= growth.Flat();
    }
    WriteSettledFile(Picks("local_user", 1000));
    const auto decide = [] { OTPEnforceIsEnabled(kName); };
    const auto ask = [] { tavr::AskPolicy(OTPEnforceIsEnabled, kName); };
    bench::Row("option admin, lock and look", bench::InTurn(301, decide, ask), 0);
    tavr::WriteSetting("otp_enforce_option", "custom");
    for (const char* type : {"local_user", "local_group"}) {
        bench::Growth growth(std::string("decision, ") + type);
        for (const int count : bench::kCounts) {
            met &= Measure(growth, type, count, Decide);
        }
        growth.Print();
    }
    bench::Growth asked("lock, look and decision, local_user");
    for (const int count : bench::kCounts) {
        met &= Measure(asked, "local_user", count, Ask);
    }
    asked.Print();
    bench::Growth growth("writer, one row");
    for (const int count : bench::kCounts) {
        met &= MeasureWriter(growth, count);
    }
    growth.Print();
    bench::Growth saved("lock, look, writer and copy, one row");
    for (const int count : bench::kCounts) {
        MeasureSave(saved, count);
    }
    saved.Print();
    return met ? 0 : 1;
}
