#include "linux/verifier.h"

#include "linux/audit.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/error.h"
#include "linux/ids.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/vault.h"

#include "platform/secrets.h"

#include <liboath/oath.h>
#include <sodium.h>

#include <algorithm>
#include <string>

namespace tavr
{

namespace
{

constexpr int64_t kStepSeconds = 30;
constexpr int64_t kWindow = 1; // steps to either side of the present one
constexpr size_t kTotpDigits = 6;

// --- Which secret a code is for ---

enum class Place {
    Waiting,   // the tool's file in kWaitingDir
    Permanent, // the one in the preference directory
};

FoundFile FindFile(const Account& account, Place place)
{
    if (place == Place::Permanent) {
        return FindSecretFile(account);
    }
    const Descriptor directory = OpenDirectoryNoLinks(kWaitingDir);
    return directory ? ReadOwnFile(directory, kWaitingFilePrefix + std::to_string(account.uid)) : FoundFile();
}

bool MayStandAt(const StoredSecret& secret, Place place)
{
    return (secret.state == SecretState::Active) == (place == Place::Permanent);
}

// The secret whose reference is line 1 of the file at the place. Everything else is a fault: no code could be
// right there, so none may be called wrong.
StoredSecret SecretAt(const Account& account, Place place)
{
    const FoundFile found = FindFile(account, place);
    const std::optional<SecretFileText> file =
        found.found == Found::Text ? ParseSecretFile(found.text) : std::nullopt;
    const std::vector<StoredSecret> secrets = SecretsOf(account.uid);
    const auto secret = std::find_if(secrets.begin(), secrets.end(), [&](const StoredSecret& candidate) {
        return file.has_value() && candidate.reference == file->secret && MayStandAt(candidate, place);
    });
    if (secret == secrets.end()) {
        throw VaultError(Fault::SecretFile);
    }
    return *secret;
}

// --- The decision ---

bool IsTotpCode(std::string_view code)
{
    return code.size() == kTotpDigits &&
           std::all_of(code.begin(), code.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool IsCodeOfStep(const SecretBytes& secret, int64_t step, std::string_view code)
{
    char right[kTotpDigits + 1] = {};
    if (oath_hotp_generate(reinterpret_cast<const char*>(secret.bytes.data()), secret.bytes.size(),
                           static_cast<uint64_t>(step), kTotpDigits, false, OATH_HOTP_DYNAMIC_TRUNCATION,
                           right) != OATH_OK) {
        throw VaultError(Fault::StateUnavailable);
    }
    const bool same = sodium_memcmp(right, code.data(), kTotpDigits) == 0;
    sodium_memzero(right, sizeof right);
    return same;
}

CodeResult CompareTotp(const Account& account, std::string_view code, Place place)
{
    const StoredSecret secret = SecretAt(account, place);
    SecretBytes bytes;
    if (!OpenSecret(account.uid, secret.reference, bytes)) {
        throw VaultError(Fault::SecretFile); // retired since
    }
    const int64_t present = WallSeconds() / kStepSeconds;
    const int64_t newest = present + kWindow;
    const int64_t last = LastStep(secret, newest);
    CodeResult result = CodeResult::Wrong;
    for (const int64_t step : {present, present - kWindow, newest}) {
        if (step < 0 || !IsCodeOfStep(bytes, step, code)) {
            continue;
        }
        if (step > last && AcceptStep(secret, step, newest)) {
            return CodeResult::Accepted;
        }
        result = CodeResult::Used;
    }
    return result;
}

// Counts an attempt before anything is compared. Empty: it may be made.
std::optional<CodeAnswer> ReserveAttempt(const Account& /*account*/)
{
    return std::nullopt;
}

// The one place where a code is found good. Under the account's lock, with the service's ids.
CodeAnswer Decide(const Account& account, std::string_view code, Place place)
{
    if (!IsTotpCode(code)) {
        return {CodeResult::Wrong, 0, Fault::None};
    }
    CodeAnswer answer;
    answer.fault = FaultIn([&] {
        if (const auto refusal = ReserveAttempt(account)) {
            answer = *refusal;
        } else {
            answer.result = CompareTotp(account, code, place);
        }
    });
    if (answer.fault != Fault::None) {
        NoteFault(answer.fault);
        return {CodeResult::Fault, 0, answer.fault};
    }
    if (answer.result == CodeResult::Accepted) {
        CurrentRequest().codeOf = account.uid;
    }
    return answer;
}

// Accepted ones show in what they were accepted for.
CodeAnswer Audited(const Account& account, const CodeAnswer& answer, const char* detail)
{
    switch (answer.result) {
    case CodeResult::Wrong:
        Audit(AuditEvent::CodeRefused, account, detail);
        break;
    case CodeResult::Used:
        Audit(AuditEvent::CodeReplayed, account, detail);
        break;
    case CodeResult::Throttled:
        Audit(AuditEvent::CodeThrottled, account, detail);
        break;
    case CodeResult::Closed:
        Audit(AuditEvent::CodeClosed, account, detail);
        break;
    case CodeResult::Accepted:
    case CodeResult::Fault:
        break;
    }
    return answer;
}

CodeAnswer FaultAnswer(Fault fault)
{
    NoteFault(fault);
    return {CodeResult::Fault, 0, fault};
}

// --- The library's way in ---

struct LibraryAnswer {
    std::optional<CodeAnswer> answer;
    uint64_t request = 0;
};

LibraryAnswer& KeptAnswer()
{
    static LibraryAnswer kept;
    return kept;
}

struct LibraryQuestion {
    std::string user;
    std::string code;
    std::string path;
};

std::optional<LibraryQuestion> ParseQuestion(int count, const char* const* texts)
{
    constexpr int kCount = 3;
    constexpr std::string_view kKeys[kCount] = {"username=", "code=", "secret="};
    if (count != kCount || texts == nullptr) {
        return std::nullopt;
    }
    std::string values[kCount];
    for (int i = 0; i < kCount; ++i) {
        if (texts[i] == nullptr || !std::string_view(texts[i]).starts_with(kKeys[i])) {
            return std::nullopt;
        }
        values[i] = texts[i] + kKeys[i].size();
    }
    return LibraryQuestion{values[0], values[1], values[2]};
}

std::optional<Place> PlaceOf(const Account& account, const std::string& path)
{
    if (path == std::string(kWaitingDir) + '/' + kWaitingFilePrefix + std::to_string(account.uid)) {
        return Place::Waiting;
    }
    if (path == SecretPath(account.name)) {
        return Place::Permanent;
    }
    return std::nullopt;
}

CodeAnswer AnswerLibrary(const LibraryQuestion& question)
{
    const std::optional<std::string> name = CanonicalName(question.user);
    std::optional<Account> account;
    try {
        account = name.has_value() ? FindAccount(*name) : std::nullopt;
    } catch (const DatabaseError& error) {
        LogFault(Fault::AccountsUnavailable, error.what());
        return FaultAnswer(Fault::AccountsUnavailable);
    }
    const std::optional<Place> place = account.has_value() ? PlaceOf(*account, question.path) : std::nullopt;
    if (!place.has_value()) {
        return {CodeResult::Wrong, 0, Fault::None};
    }
    if (*place == Place::Permanent) {
        return VerifyCode(*account, question.code);
    }
    const EffectiveIds service = EffectiveIds::Service();
    const AccountLock lock(account->uid);
    if (!service.Changed() || !lock.Held()) {
        return FaultAnswer(Fault::StateUnavailable);
    }
    return Audited(*account, Decide(*account, question.code, *place), "setup");
}

} // namespace

CodeAnswer VerifyCode(const Account& account, std::string_view code)
{
    const EffectiveIds service = EffectiveIds::Service();
    const AccountLock lock(account.uid);
    if (!service.Changed() || !lock.Held()) {
        return FaultAnswer(Fault::StateUnavailable);
    }
    const EnrolmentState state = Settle(account);
    if (state.enrolment == Enrolment::Fault) {
        return FaultAnswer(state.fault);
    }
    if (state.enrolment == Enrolment::No) {
        return Audited(account, {CodeResult::Wrong, 0, Fault::None}, "signin");
    }
    return Audited(account, Decide(account, code, Place::Permanent), "signin");
}

const std::optional<CodeAnswer>& LastLibraryAnswer()
{
    LibraryAnswer& kept = KeptAnswer();
    if (kept.request != CurrentRequest().number) {
        kept = {std::nullopt, CurrentRequest().number};
    }
    return kept.answer;
}

} // namespace tavr

int TAVRGoogleAuth(int count, const char* const* texts)
{
    using namespace tavr;
    const std::optional<LibraryQuestion> question = ParseQuestion(count, texts);
    if (!question.has_value()) {
        return Fail(Error::BadParameter);
    }
    const CodeAnswer answer = AnswerLibrary(*question);
    KeptAnswer() = {answer, CurrentRequest().number};
    if (answer.result == CodeResult::Fault) {
        return Fail(Error::VaultUnavailable);
    }
    return answer.result == CodeResult::Accepted ? 0 : Fail(Error::NotAllowed);
}
