#include "cli/commands.h"
#include "cli/console.h"
#include "linux/audit.h"
#include "linux/clock.h"
#include "platform/json.h"

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <ctime>

namespace tavr::console
{

namespace
{

constexpr useconds_t kLookAgainMicroseconds = 300'000;

// So many minutes, hours or days ago.
std::optional<int64_t> TimeAgo(std::string_view text)
{
    int64_t count = 0;
    const auto [unit, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || unit + 1 != text.data() + text.size() || count < 0 || count > 1'000'000) {
        return std::nullopt;
    }
    switch (*unit) {
    case 'm':
        return WallSeconds() - count * 60;
    case 'h':
        return WallSeconds() - count * 60 * 60;
    case 'd':
        return WallSeconds() - count * 24 * 60 * 60;
    default:
        return std::nullopt;
    }
}

// A day or a time of it, in UTC as they are printed.
std::optional<int64_t> TimeOfDay(const std::string& text)
{
    for (const char* form : {"%Y-%m-%d", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M:%SZ"}) {
        tm parts{};
        const char* end = strptime(text.c_str(), form, &parts);
        if (end == nullptr || *end != 0) {
            continue;
        }
        const int day = parts.tm_mday;
        const time_t seconds = timegm(&parts);
        if (parts.tm_mday == day) { // else a day that the month does not have
            return seconds;
        }
    }
    return std::nullopt;
}

int64_t ReadTime(const std::string& text)
{
    std::optional<int64_t> time = TimeAgo(text);
    if (!time) {
        time = TimeOfDay(text);
    }
    if (!time) {
        throw Failure(Exit::Usage, "bad_time",
                      "--since takes YYYY-MM-DD, YYYY-MM-DDTHH:MM[:SS] or a number with m, h or d");
    }
    return *time;
}

Json::Value ToJson(const AuditRow& row)
{
    Json::Value entry;
    entry["id"] = Json::Int64{row.id};
    entry["time"] = TimeText(row.time);
    entry["event"] = row.event;
    entry["outcome"] = row.outcome;
    entry["address"] = row.address;
    entry["uid"] = row.uid ? Json::Value(*row.uid) : Json::Value();
    entry["detail"] = row.detail;
    entry["account"] = row.account;
    return entry;
}

std::string ToText(const AuditRow& row)
{
    return TimeText(row.time) + '\t' + row.event + '\t' + row.outcome + '\t' + row.address + '\t' +
           row.detail + '\t' + (row.account.empty() ? "-" : row.account);
}

// One line an event, whether in JSON or not, until it is interrupted or nobody reads any more.
void Follow(AuditQuery query)
{
    for (;;) {
        ForEachAuditRow(query, [&](const AuditRow& row) {
            std::puts((IsJson() ? JsonToString(ToJson(row)) : ToText(row)).c_str());
            query.after = row.id;
        });
        if (std::fflush(stdout) != 0) {
            throw Failure(Exit::Failed, "output", "cannot write to standard output");
        }
        usleep(kLookAgainMicroseconds);
    }
}

} // namespace

void ShowAudit(const AuditChoice& choice)
{
    AuditQuery query;
    query.account = choice.account.empty() ? std::string() : AuditName(choice.account);
    query.since = choice.since.empty() ? INT64_MIN : ReadTime(choice.since);
    if (choice.follow) {
        Follow(query);
    }
    if (!IsJson()) {
        ForEachAuditRow(query, [](const AuditRow& row) { Say(ToText(row)); });
        return;
    }
    JsonList list("audit");
    ForEachAuditRow(query, [&](const AuditRow& row) { list.Add(ToJson(row)); });
    list.End();
}

} // namespace tavr::console
