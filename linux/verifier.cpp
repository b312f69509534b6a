#include "linux/verifier.h"

#include "linux/attempts.h"
#include "linux/audit.h"
#include "linux/clock.h"
#include "linux/enrolment.h"
#include "linux/error.h"
#include "linux/ids.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/settings.h"
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
constexpr int64_t kHintSteps = 10 * 60 / kStepSeconds; // how far off a phone's clock is looked for
constexpr int kLongestTemporaryMinutes = 24 * 60;
constexpr int kFailuresTold = 3; // in a row: the account's owner gets a notice, once

constexpr CodeAnswer kNotCompared = {CodeResult::Wrong, 0, Fault::None, CodeKind::None, false};

// --- Which secret a code is for ---

// The one that is not active and whose reference is line 1 of the tool's file in kWaitingDir. Everything else
// is a fault: no code could be right there, so none may be called wrong.
StoredSecret WaitingSecretOf(const Account& account)
{
    const Descriptor directory = OpenDirectoryNoLinks(kWaitingDir);
    // never: there is a /tmp at all times
    const FoundFile found = directory ? ReadOwnFile(directory, WaitingFileName(account.uid)) : FoundFile();
    const std::optional<SecretFileText> file =
        found.found == Found::Text ? ParseSecretFile(found.text) : std::nullopt;
    const std::vector<StoredSecret> secrets = SecretsOf(account.uid);
    const auto secret = std::find_if(secrets.begin(), secrets.end(), [&](const StoredSecret& candidate) {
        return file.has_value() && candidate.reference == file->secret &&
               candidate.state != SecretState::Active;
    });
    if (secret == secrets.end()) {
        throw VaultError(Fault::SecretFile);
    }
    return *secret;
}

// --- Comparing; inside the transaction that counts the try ---

enum class Form { None, Totp, Single };

Form FormOf(std::string_view code)
{
    if (!std::all_of(code.begin(), code.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return Form::None;
    }
    if (code.size() == kTotpDigits) {
        return Form::Totp;
    }
    return code.size() == kCodeDigits ? Form::Single : Form::None;
}

bool IsCodeOfStep(const SecretBytes& secret, int64_t step, std::string_view code)
{
    char right[kTotpDigits + 1] = {};
    // never: it could lack memory alone
    if (oath_hotp_generate(reinterpret_cast<const char*>(secret.bytes.data()), secret.bytes.size(),
                           static_cast<uint64_t>(step), kTotpDigits, false, OATH_HOTP_DYNAMIC_TRUNCATION,
                           right) != OATH_OK) {
        throw VaultError(Fault::StateUnavailable);
    }
    const bool same = sodium_memcmp(right, code.data(), kTotpDigits) == 0;
    sodium_memzero(right, sizeof right);
    return same;
}

int64_t AcceptedAround()
{
    return Setting("otp_strict_window", "no") == "yes" ? 0 : kWindow;
}

CodeAnswer CompareTotp(Transaction& transaction, const StoredSecret& secret, int64_t told,
                       std::string_view code)
{
    SecretBytes bytes;
    const int64_t present = WallSeconds() / kStepSeconds;
    const int64_t last = OpenForCode(secret, present + kWindow, bytes);
    const int64_t around = AcceptedAround();
    CodeAnswer answer{CodeResult::Wrong};
    // The latest first: of steps whose codes are the same, no later one is left for another try.
    for (int64_t step = present + around; step >= present - around; --step) {
        if (step < 0 || !IsCodeOfStep(bytes, step, code)) {
            continue;
        }
        if (step != told && step > last) {
            AcceptStep(transaction, secret, step);
            return {CodeResult::Accepted, 0, Fault::None, CodeKind::Totp};
        }
        answer.result = CodeResult::Used;
    }
    return answer;
}

bool IsSame(const CodeDigits& right, std::string_view code)
{
    return sodium_memcmp(right.text, code.data(), kCodeDigits) == 0;
}

// Every code is looked at, so that the time tells nothing about its place.
CodeAnswer CompareSingle(Transaction& transaction, const StoredSecret& secret, std::string_view code)
{
    const std::string* found = nullptr;
    for (const CodeLine& line : secret.codes) {
        CodeDigits right;
        // never: under the account's lock no code goes
        if (!line.spent && OpenCode(secret.account, line.reference, right) && IsSame(right, code)) {
            found = &line.reference;
        }
    }
    CodeDigits given;
    const bool isGiven = OpenTemporaryCode(secret.account, given) && IsSame(given, code);
    // never: nor is one spent meanwhile
    if (found != nullptr && SpendCode(transaction, secret, *found)) {
        ForgetFailures(transaction, secret.account);
        return {CodeResult::Accepted, 0, Fault::None, CodeKind::Emergency};
    }
    // never: likewise
    if (isGiven && SpendTemporaryCode(transaction, secret.account)) {
        ForgetFailures(transaction, secret.account);
        return {CodeResult::Accepted, 0, Fault::None, CodeKind::Temporary};
    }
    return {CodeResult::Wrong};
}

// --- The decision ---

std::optional<CodeAnswer> RefusalOf(const SecondStep& counter)
{
    if (counter.closed) {
        return CodeAnswer{CodeResult::Closed};
    }
    if (counter.waitSeconds > 0) {
        return CodeAnswer{CodeResult::Throttled, counter.waitSeconds};
    }
    return std::nullopt;
}

// One durable transaction, one at a time: it reads the counter before the comparison, and stores what came of
// it, the count of a wrong one included. Until that is stored nobody has learned anything, and a try that
// ends before was none.
CodeAnswer CountAndCompare(const Account& account, std::string_view code, Form form,
                           const StoredSecret& secret, const GrantInside& grant)
{
    Transaction transaction(SigninDatabase());
    const SecondStep counter = SecondStepOf(account.uid);
    if (const auto refusal = RefusalOf(counter)) {
        return *refusal;
    }
    const CodeAnswer answer = form == Form::Totp ? CompareTotp(transaction, secret, counter.toldStep, code)
                                                 : CompareSingle(transaction, secret, code);
    if (answer.result == CodeResult::Used) {
        return answer; // not a guess: nothing is stored
    }
    std::optional<AuditedGrant> spent;
    if (answer.result == CodeResult::Wrong) {
        CountFailure(transaction, account.uid);
    } else if (answer.kind != CodeKind::Totp) {
        spent.emplace(answer.kind == CodeKind::Emergency ? AuditEvent::ScratchCodeSpent
                                                         : AuditEvent::TemporaryCodeSpent,
                      account, "-");
    }
    if (answer.result == CodeResult::Accepted && grant) {
        grant(transaction);
    }
    transaction.Commit();
    if (spent) {
        spent->Committed();
    }
    if (answer.result == CodeResult::Wrong && counter.failures + 1 == kFailuresUntilClosed) {
        Audit(AuditEvent::SecondStepClosed, account);
    }
    if (answer.result == CodeResult::Wrong && counter.failures + 1 == kFailuresTold &&
        secret.state == SecretState::Active) {
        CurrentRequest().notices.push_back(
            {"OTP_notice_wrong_codes", account.uid, WallSeconds(), std::nullopt});
    }
    return answer;
}

// What ClockOffsetMinutes may be asked about.
struct CountedWrong {
    uint64_t request = 0;
    StoredSecret secret;
    std::string code;
};

CountedWrong& KeptWrong()
{
    static CountedWrong kept;
    return kept;
}

// The one place where a code is found good. Under the account's lock, with the service's ids. `active`: the
// secret that the account settled with; empty: it is the waiting one's turn.
CodeAnswer Decide(const Account& account, std::string_view code, std::optional<StoredSecret> active,
                  const GrantInside& grant = {})
{
    KeptWrong() = {};
    const Form form = FormOf(code);
    if (form == Form::None || (form == Form::Single && !active)) {
        return kNotCompared;
    }
    CodeAnswer answer;
    StoredSecret secret;
    const Fault fault = FaultIn([&] {
        secret = active ? std::move(*active) : WaitingSecretOf(account);
        answer = CountAndCompare(account, code, form, secret, grant);
    });
    if (fault != Fault::None) {
        NoteFault(fault);
        return {CodeResult::Fault, 0, fault};
    }
    if (answer.result == CodeResult::Accepted) {
        CurrentRequest().codeOf = account.uid;
    }
    if (answer.result == CodeResult::Wrong && form == Form::Totp) {
        KeptWrong() = {CurrentRequest().number, std::move(secret), std::string(code)};
    }
    return answer;
}

// --- The hint about the phone's clock ---

// How many steps ahead of the present one the code is, the nearest first; empty: of none near enough.
std::optional<int64_t> StepsAhead(const SecretBytes& secret, int64_t present, std::string_view code)
{
    for (int64_t distance = 1; distance <= kHintSteps; ++distance) {
        for (const int64_t ahead : {-distance, distance}) {
            if (present + ahead >= 0 && IsCodeOfStep(secret, present + ahead, code)) {
                return ahead;
            }
        }
    }
    return std::nullopt;
}

std::optional<int64_t> TellStepsAhead(const Account& account, const CountedWrong& wrong)
{
    SecretBytes bytes;
    // never: under the account's lock nobody retires it
    if (!OpenSecret(account.uid, wrong.secret.reference, bytes)) {
        throw VaultError(Fault::SecretFile);
    }
    Transaction transaction(SigninDatabase());
    const int64_t present = WallSeconds() / kStepSeconds;
    const std::optional<int64_t> ahead = StepsAhead(bytes, present, wrong.code);
    const bool isLater = ahead.has_value() && *ahead > 0;
    if (!isLater || wrong.secret.state != SecretState::Active) { // who sets up has seen the secret itself
        return ahead;
    }
    if (SecondStepOf(account.uid).toldStep >= present - kWindow) {
        return std::nullopt;
    }
    NoteToldStep(transaction, account.uid, present + *ahead);
    transaction.Commit();
    return ahead;
}

// Accepted ones show in what they were accepted for.
CodeAnswer Audited(const Account& account, const CodeAnswer& answer, const char* detail)
{
    switch (answer.result) {
    case CodeResult::Wrong:
        Audit(answer.compared ? AuditEvent::CodeRefused : AuditEvent::CodeNotCompared, account, detail);
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
    if (account.has_value() && question.path == SecretPath(account->name)) {
        return VerifyCode(*account, question.code);
    }
    if (!account.has_value() ||
        question.path != std::string(kWaitingDir) + '/' + WaitingFileName(account->uid)) {
        return {CodeResult::Wrong};
    }
    const EffectiveIds service = EffectiveIds::Service();
    const AccountLock lock(*account);
    if (!service.Changed() || !lock.Held()) {
        return FaultAnswer(Fault::StateUnavailable);
    }
    return Audited(*account, Decide(*account, question.code, std::nullopt), "setup");
}

} // namespace

CodeAnswer VerifyCode(const Account& account, std::string_view code, const GrantInside& grant)
{
    const EffectiveIds service = EffectiveIds::Service();
    const AccountLock lock(account);
    if (!service.Changed() || !lock.Held()) {
        return FaultAnswer(Fault::StateUnavailable);
    }
    EnrolmentState state = Settle(account);
    if (state.enrolment == Enrolment::Fault) {
        return FaultAnswer(state.fault);
    }
    if (state.enrolment == Enrolment::No) {
        return Audited(account, kNotCompared, "signin");
    }
    const CodeAnswer answer = Decide(account, code, std::move(state.active), grant);
    if (answer.kind == CodeKind::Emergency) {
        Settle(account); // the file loses the spent code's line
    }
    return Audited(account, answer, "signin");
}

std::optional<CodeAnswer> RefusalBeforeCode(const Account& account)
{
    const EffectiveIds service = EffectiveIds::Service();
    if (!service.Changed()) {
        return FaultAnswer(Fault::StateUnavailable);
    }
    std::optional<CodeAnswer> refusal;
    const Fault fault = FaultIn([&] { refusal = RefusalOf(SecondStepOf(account.uid)); });
    if (fault != Fault::None) {
        return FaultAnswer(fault);
    }
    return refusal.has_value() ? Audited(account, *refusal, "setup") : refusal;
}

std::optional<int> ClockOffsetMinutes(const Account& account)
{
    const CountedWrong wrong = KeptWrong();
    KeptWrong() = {};
    const EffectiveIds service = EffectiveIds::Service();
    const AccountLock lock(account);
    if (wrong.request != CurrentRequest().number || wrong.secret.account != account.uid ||
        !service.Changed() || !lock.Held()) {
        return std::nullopt;
    }
    std::optional<int64_t> ahead;
    if (FaultIn([&] { ahead = TellStepsAhead(account, wrong); }) != Fault::None || !ahead.has_value()) {
        return std::nullopt;
    }
    const int64_t away = *ahead < 0 ? -*ahead : *ahead;
    const auto minutes = static_cast<int>((away * kStepSeconds + 30) / 60);
    return *ahead < 0 ? -minutes : minutes;
}

std::string MintTemporaryCode(const Account& account, int minutes)
{
    const EffectiveIds service = EffectiveIds::Service();
    if (!service.Changed()) {
        throw VaultError(Fault::StateUnavailable);
    }
    CodeDigits code;
    DrawCode(code);
    StoreTemporaryCode(account.uid, code, int64_t{60} * std::clamp(minutes, 1, kLongestTemporaryMinutes));
    return code.text;
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
