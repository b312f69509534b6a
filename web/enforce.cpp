// The administrator's routes: who must use two-step sign-in, and an account whose second step is lost.
#include "web/enforce_request.h"
#include "web/handlers.h"

#include "linux/enrolment.h"
#include "linux/error.h"
#include "linux/names.h"
#include "linux/not_enrolled.h"
#include "linux/paths.h"
#include "linux/policy_file.h"
#include "linux/request.h"
#include "linux/settings.h"
#include "otp/OTPEnforceHandler.h"
#include "otp/OTPWizardHandler.h"
#include "platform/core.h"
#include "platform/json.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tavr::web
{

namespace
{

Answer PolicyUnavailable()
{
    NoteFault(Fault::PolicyUnavailable);
    return Unavailable();
}

// Who demands it of others, or of herself, must be able to sign in with it.
std::optional<Answer> RefuseUntilEnrolled(const Account& administrator)
{
    switch (Settle(administrator).enrolment) {
    case Enrolment::Yes:
        return std::nullopt;
    case Enrolment::No:
        return Refusal(409, "enrol_first");
    case Enrolment::Fault:
        break;
    }
    return Unavailable();
}

// What stands in the picks' file, for the option that looks at it; empty when that cannot be told.
std::optional<Json::Value> PicksFor(std::string_view option)
{
    Json::Value picks;
    if (option == "custom") {
        const PolicyReading policy;
        if (policy.Usable()) {
            JsonFromFile(kPolicyFile, picks); // none where there is no file
        }
        if (!policy.Usable() || !policy.Unchanged()) {
            return std::nullopt;
        }
    }
    return picks;
}

Answer ListUnavailable()
{
    Answer answer = Unavailable();
    if (CurrentRequest().fault == Fault::DirectoryUnavailable) {
        answer.body["err"] = "directory_unavailable"; // nobody's sign-in is at stake here
    }
    return answer;
}

Answer ListFailed()
{
    if (CurrentRequest().fault != Fault::None) {
        return ListUnavailable();
    }
    if (KLIBCErrGet() == static_cast<int>(Error::DirectoryNotConfigured)) {
        return Refusal(409, "directory_not_configured");
    }
    if (KLIBCErrGet() == static_cast<int>(Error::DomainNotCopied)) {
        return Refusal(503, "domain_not_copied");
    }
    throw std::runtime_error("the list cannot be made");
}

} // namespace

Answer ShowOption(Call& /*call*/)
{
    const std::string option = PolicyOption();
    const std::optional<Json::Value> picks = PicksFor(option);
    if (!SettingsKnown() || !picks) {
        return PolicyUnavailable();
    }
    Answer answer = Success();
    answer.body["option"] = option;
    answer.body["not_enrolled"] = Json::Int64{CountNotEnrolled(option, *picks)};
    return answer;
}

Answer SaveOption(Call& call)
{
    const char* const option = call.Text("option");
    const Account& administrator = call.session->account;
    if (!IsPolicyOption(option)) {
        return Refusal(400, "bad_request");
    }
    if (std::string_view(option) != "none") {
        if (std::optional<Answer> refusal = RefuseUntilEnrolled(administrator)) {
            return std::move(*refusal);
        }
    }
    switch (ChangePolicyOption(option, &administrator)) {
    case OptionChange::Done:
        return Success();
    case OptionChange::PicksUnusable:
        return PolicyUnavailable();
    case OptionChange::NotWritten:
        break;
    }
    return Refusal(500, "write_failed");
}

Answer ListPicks(Call& call)
{
    const std::optional<ListRequest> asked = ParseListRequest(call.request.query);
    if (!asked) {
        return Refusal(400, "bad_request");
    }
    const int limit = asked->limit < 0 ? kLargestList : asked->limit;
    int total = 0;
    Json::Value rows;
    {
        const PolicyReading policy;
        if (!policy.Usable()) {
            return PolicyUnavailable();
        }
        if (OTPEnforceCustomSettingList(asked->offset, limit, asked->type, asked->query, asked->domain,
                                        asked->filter, total, rows) != 0) {
            return ListFailed();
        }
        if (!policy.Unchanged()) {
            return PolicyUnavailable();
        }
    }
    if (CurrentRequest().fault != Fault::None) {
        return ListUnavailable(); // rows that could not be looked up are missing, or are not whole
    }
    if (asked->limit < 0 && total > kLargestList) {
        return Refusal(400, "list_too_long");
    }
    Answer answer = Success();
    answer.body["total"] = total;
    answer.body["rows"] = std::move(rows);
    return answer;
}

Answer SavePicks(Call& call)
{
    const std::string type = call.Text("type");
    const Json::Value& settings = call.body["settings"];
    const Account& administrator = call.session->account;
    if (!IsSettingType(type) || !AreSettings(settings)) {
        return Refusal(400, "bad_request");
    }
    if (std::optional<Answer> refusal = RefuseUntilEnrolled(administrator)) {
        return std::move(*refusal);
    }
    {
        PolicyWriting policy;
        if (policy.Usable() && OTPEnforceCustomSettingSet(type, settings) == 0 &&
            policy.Commit(&administrator)) {
            return Success();
        }
    }
    return PolicyReading().Usable() ? Refusal(500, "write_failed") : PolicyUnavailable();
}

Answer ResetOtp(Call& call)
{
    OTPWizardHandler handler;
    if (std::optional<Answer> refusal = RefusePassword(handler, call)) {
        return std::move(*refusal);
    }
    const std::optional<std::string> name = CanonicalName(call.Text("user"));
    const std::optional<Account> account = name ? FindAccount(*name) : std::nullopt;
    if (!account) {
        return Refusal(404, "no_such_user");
    }
    const std::string detail = "by-" + std::to_string(call.session->account.uid);
    if (ResetSecondStep(*account, detail.c_str()).state.enrolment != Enrolment::No) {
        return Unavailable();
    }
    return Success();
}

} // namespace tavr::web
