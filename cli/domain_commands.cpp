#include "cli/commands.h"
#include "cli/console.h"
#include "linux/clock.h"
#include "linux/domain_copy.h"

#include <unistd.h>

#include <cstdio>

namespace tavr::console
{

namespace
{

// Over one line, where somebody watches.
class Progress
{
public:
    explicit Progress(std::string domain) : domain_(std::move(domain)) {}
    ~Progress()
    {
        if (isShown_) {
            std::fputs("\r\033[K", stderr);
        }
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Show(int64_t count)
    {
        if (!IsJson() && isatty(STDERR_FILENO) == 1) {
            std::fprintf(stderr, "\r%s: %lld entries read", domain_.c_str(), static_cast<long long>(count));
            isShown_ = true;
        }
    }

private:
    const std::string domain_;
    bool isShown_ = false;
};

std::string CountsText(const CopyCounts& counts)
{
    return std::to_string(counts.accounts) + " accounts, " + std::to_string(counts.groups) + " groups, " +
           std::to_string(counts.leftOut) + " left out";
}

Json::Value JsonOf(const std::string& domain, const CopyCounts& counts)
{
    Json::Value answer;
    answer["domain"] = domain;
    answer["accounts"] = Json::Int64{counts.accounts};
    answer["groups"] = Json::Int64{counts.groups};
    answer["left_out"] = Json::Int64{counts.leftOut};
    return answer;
}

CopyPlan Plan()
{
    try {
        CopyPlan plan = ReadCopyPlan();
        if (!plan.domains.empty()) {
            return plan;
        }
    } catch (const LdapError& error) {
        throw Failure(Exit::Failed, "domain_settings",
                      std::string(error.what()) + "; mend the settings domain_* in /etc/tavrinfo.conf");
    }
    throw Failure(Exit::Failed, "domain_settings",
                  "there is no domain to be copied: domain_name or domain_uri is empty");
}

} // namespace

void SyncDomain()
{
    const CopyPlan plan = Plan();
    CopyRunner runner;
    if (!runner) {
        throw Failure(Exit::Failed, "busy",
                      "the copy is being refreshed already; tavrctl domain status tells how far it is");
    }
    runner.KeepOnly(plan.domains);
    Json::Value answers(Json::arrayValue);
    std::string failed;
    for (const CopiedDomain& domain : plan.domains) {
        try {
            CopyCounts counts;
            {
                Progress progress(domain.name);
                counts = runner.Refresh(domain, [&](int64_t count) {
                    progress.Show(count);
                    return true;
                });
            }
            Say(domain.name + ": " + CountsText(counts));
            answers.append(JsonOf(domain.name, counts));
        } catch (const LdapError& error) {
            failed += (failed.empty() ? "" : "; ") + domain.name + ": " + error.what();
        }
    }
    if (!failed.empty()) {
        throw Failure(Exit::Failed, "domain_sync", failed + "; the copy of it stays as it is");
    }
    Json::Value answer;
    answer["domains"] = std::move(answers);
    Answer(std::move(answer));
}

void ShowDomain()
{
    const CopyPlan plan = Plan();
    Json::Value answers(Json::arrayValue);
    for (const CopyState& state : CopyStates()) {
        Json::Value one = JsonOf(state.domain, state.counts);
        std::string line = state.domain + ": no copy yet";
        if (state.made) {
            const int64_t age = WallSeconds() - *state.made;
            line = state.domain + ": " + CountsText(state.counts) + ", as of " + TimeText(*state.made) +
                   ", " + std::to_string(age) + " s ago";
            one["made"] = TimeText(*state.made);
            one["age"] = Json::Int64{age};
        }
        if (!state.failure.empty()) {
            line += "; failed at " + TimeText(state.tried) + ": " + state.failure;
            one["failed"] = TimeText(state.tried);
            one["failure"] = state.failure;
        }
        Say(line);
        answers.append(std::move(one));
    }
    Json::Value answer;
    answer["domains"] = std::move(answers);
    answer["refresh"] = Json::Int64{plan.refreshSeconds};
    if (const std::optional<int64_t> count = CopyProgress()) {
        Say("under way: " + std::to_string(*count) + " entries read");
        answer["read"] = Json::Int64{*count};
    }
    Answer(std::move(answer));
}

} // namespace tavr::console
