// The set-up wizard. Each step is one request on a fresh handler, which first tests the password; whose
// account it is, the session says.
#include "web/facts.h"
#include "web/handlers.h"

#include "linux/attempts.h"
#include "linux/audit.h"
#include "linux/cipher.h"
#include "linux/clock.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "linux/secret_file.h"
#include "linux/user_settings.h"
#include "otp/OTPWizardHandler.h"
#include "otp/OTPutils.h"

#include <json/json.h>
#include <sodium.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string_view>

namespace tavr::web
{

namespace
{

constexpr int64_t kMailWithoutCodeSeconds = 10 * 60; // after the confirmation, in the session that it opened
constexpr char kSampleKey[] = "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";
constexpr size_t kPngLimit = 4096; // bytes of the picture that the library reads

// A step that has got past the password. A refusal ends it.
struct Step {
    OTPWizardHandler handler;
    std::optional<AccountLock> lock; // of BeginLocked
    EnrolmentState state;
    std::optional<Answer> refusal;
};

// An enrolled account is served its secret and its changes only in a session that has seen a code: one that
// was opened before the enrolment, and a half sign-in above all, knows the password alone.
bool KnowsTooLittle(const Session& session, const EnrolmentState& state)
{
    return state.enrolment == Enrolment::Yes && !session.secondStep;
}

std::optional<Answer> RefuseByEnrolment(Step& step, const Session& session)
{
    step.state = LearnFacts(session.account);
    if (step.state.enrolment == Enrolment::Fault) {
        return Unavailable();
    }
    return KnowsTooLittle(session, step.state) ? std::optional(Refusal(401, "not_signed_in")) : std::nullopt;
}

void Begin(Step& step, const Call& call)
{
    step.refusal = RefusePassword(step.handler, call);
    if (!step.refusal) {
        step.refusal = RefuseByEnrolment(step, *call.session);
    }
}

// Likewise for a step that changes what the account is: from here to its end nobody else settles, spends,
// confirms or switches off.
void BeginLocked(Step& step, const Call& call)
{
    step.refusal = RefusePassword(step.handler, call);
    if (step.refusal) {
        return;
    }
    step.lock.emplace(call.session->account);
    if (step.lock->Held()) {
        step.refusal = RefuseByEnrolment(step, *call.session);
    } else {
        NoteFault(Fault::StateUnavailable);
        step.refusal = Unavailable();
    }
}

Answer FromLibrary(Json::Value response)
{
    Answer answer;
    answer.body = std::move(response);
    return answer;
}

// Without the tool the library fails, and its log line then holds the key.
std::optional<Answer> RefuseWithoutQrTool()
{
    if (access(kQrToolPath, X_OK) == 0) {
        return std::nullopt;
    }
    syslog(LOG_ERR, "cannot execute %s", kQrToolPath);
    Answer answer = Success();
    answer.body["success"] = false;
    answer.body["err"] = "qr_unavailable";
    return answer;
}

// The library reads one buffer of the picture; what did not fit is missing at its end.
bool IsWholePng(const std::string& base64)
{
    static constexpr std::string_view kSignature = "\x89PNG\r\n\x1a\n";
    static constexpr std::string_view kEnd("\0\0\0\0IEND\xae\x42\x60\x82", 12);
    std::array<char, kPngLimit> bytes{};
    size_t size = 0;
    if (sodium_base642bin(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), base64.data(),
                          base64.size(), nullptr, &size, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0) {
        return false;
    }
    const std::string_view png(bytes.data(), size);
    const bool whole = png.starts_with(kSignature) && png.ends_with(kEnd);
    sodium_memzero(bytes.data(), bytes.size());
    return whole;
}

struct WipedText {
    std::string text;
    ~WipedText() { sodium_memzero(text.data(), text.size()); }
};

// The answer to a step that draws a picture.
Answer WithPicture(Json::Value response)
{
    if (response["success"] == true && !IsWholePng(response["img"].asString())) {
        Wipe(response);
        return Refusal(400, "label_too_long");
    }
    return FromLibrary(std::move(response));
}

// `key` under a label, as the library answers it.
Answer PictureOf(const std::string& key, const char* label)
{
    OTPWizardHandler handler;
    handler.EditAccountName(key.c_str(), label);
    return WithPicture(handler.GetResponse());
}

std::string WaitingReference(const Account& account)
{
    const std::optional<WaitingSecret> waiting = FindWaiting(account.uid);
    return waiting ? waiting->reference : std::string();
}

// What the verifier said to the library, which tells its own caller right from wrong only. Empty for those
// two.
std::optional<Answer> RefuseByVerifier(Json::Value& response)
{
    const std::optional<CodeAnswer>& verdict = LastLibraryAnswer();
    if (!verdict || verdict->result == CodeResult::Accepted || verdict->result == CodeResult::Wrong) {
        return std::nullopt;
    }
    if (verdict->result == CodeResult::Used) {
        response["err"] = "otp_code_used";
        return std::nullopt;
    }
    return RefuseCodeAnswer(*verdict);
}

// The session that this request opened goes out in place of the one that asked.
void HandOutSession(const Call& call, Answer& answer)
{
    SetCookie(answer, call.request, "sid", CurrentRequest().newSid);
    ClearCookie(answer, call.request, "pending");
}

// A secret whose code was accepted and that is still waiting has not replaced the former one.
bool CameToItsPlace(const Account& account)
{
    return Settle(account).enrolment == Enrolment::Yes && !FindWaiting(account.uid);
}

bool MayConfirm(const Session& session)
{
    const std::optional<WaitingSecret> waiting = FindWaiting(session.account.uid);
    return waiting && waiting->session == session.id;
}

bool MailIs(uint32_t uid, std::string_view mail)
{
    const std::optional<Account> account = FindAccount(uid);
    return account && RecoveryAddress(*account) == mail;
}

// First character and domain; nothing of what is no address.
std::string MaskMail(const std::string& mail)
{
    const size_t at = mail.rfind('@');
    if (at == std::string::npos || at == 0) {
        return "***";
    }
    size_t first = 1;
    while (first < at && (static_cast<unsigned char>(mail[first]) & 0xC0) == 0x80) {
        ++first; // the rest of a character of several bytes
    }
    return mail.substr(0, first) + "***" + mail.substr(at);
}

bool ConfirmedJustNow(const Session& session)
{
    return session.confirmedBoot != 0 && BootSeconds() - session.confirmedBoot < kMailWithoutCodeSeconds;
}

std::optional<Answer> RefuseMailWithoutCode(const Call& call, const Step& step)
{
    if (step.state.enrolment != Enrolment::Yes || ConfirmedJustNow(*call.session)) {
        return std::nullopt;
    }
    if (!call.body.isMember("code")) {
        return Refusal(400, "bad_request");
    }
    return RefuseCode(*call.session, call.Text("code"));
}

} // namespace

std::optional<Answer> RefusePassword(OTPWizardHandler& handler, const Call& call)
{
    const Request& request = CurrentRequest();
    const Account& account = call.session->account;
    const PasswordTry counted = CountRepeatedPassword(call.session->id);
    if (counted.waitSeconds > 0) {
        Audit(AuditEvent::PasswordThrottled, account, "session");
        return Later(counted.waitSeconds);
    }
    const bool accepted = handler.AuthUserAccount(account.name.c_str(), call.Text("password"), false, true);
    const bool right = accepted && request.passwordOf == account.uid;
    if (right || request.fault != Fault::None) {
        GiveBack(counted);
    }
    if (right) {
        return std::nullopt;
    }
    if (request.fault != Fault::None) {
        return Unavailable();
    }
    if (!request.passwordCompared) {
        throw std::runtime_error("the password could not be compared");
    }
    Audit(AuditEvent::PasswordRefused, account, "session");
    return Refusal(401, "bad_credentials");
}

Answer WizardQr(Call& call)
{
    Step step;
    Begin(step, call);
    if (step.refusal) {
        return std::move(*step.refusal);
    }
    if (std::optional<Answer> refusal = RefuseWithoutQrTool()) {
        return std::move(*refusal);
    }
    const Account& account = call.session->account;
    if (NameAccountToCipher(account) != Fault::None) {
        return Unavailable();
    }
    const bool enrolled = step.state.enrolment == Enrolment::Yes;
    const std::string before = enrolled ? std::string() : WaitingReference(account);
    const bool done = step.handler.GetQRcodePage(call.Text("account_name"), account.uid);
    if (CurrentRequest().fault != Fault::None) {
        return Unavailable();
    }
    Json::Value response = step.handler.GetResponse();
    if (!enrolled && !done && WaitingReference(account) == before) {
        NoteFault(Fault::StateUnavailable); // no secret could be made
        return Unavailable();
    }
    if (!enrolled && done && !ClaimWaiting(account.uid, call.session->id, response["key"].asString())) {
        Wipe(response);
        return Busy(1); // another page made a newer secret in between
    }
    return WithPicture(std::move(response));
}

// The library's page shows an enrolled account the secret that it has, so a new one is asked for here.
Answer WizardRenew(Call& call)
{
    const char* const label = call.Text("account_name");
    Step step;
    Begin(step, call);
    if (step.refusal) {
        return std::move(*step.refusal);
    }
    if (std::optional<Answer> refusal = RefuseWithoutQrTool()) {
        return std::move(*refusal);
    }
    // What else can be refused comes first: the code is good once.
    if (Answer trial = PictureOf(kSampleKey, label); trial.body["success"] != true) {
        return trial;
    }
    const Account& account = call.session->account;
    if (std::optional<Answer> refusal = RefuseCode(*call.session, call.Text("code"))) {
        return std::move(*refusal);
    }
    std::string reference;
    std::string path;
    if (OTPUtils::CreateSecretKey(account.uid, reference, path) != 0) {
        NoteFault(Fault::StateUnavailable);
        return Unavailable();
    }
    const WipedText key{SecretText(account.uid, BareReference(reference))};
    if (key.text.empty() || !ClaimWaiting(account.uid, call.session->id, key.text)) {
        return Busy(1); // another page made a newer secret in between
    }
    return PictureOf(key.text, label);
}

Answer WizardLabel(Call& call)
{
    Step step;
    Begin(step, call);
    if (step.refusal) {
        return std::move(*step.refusal);
    }
    if (std::optional<Answer> refusal = RefuseWithoutQrTool()) {
        return std::move(*refusal);
    }
    return PictureOf(call.Text("key"), call.Text("account_name"));
}

Answer WizardConfirm(Call& call)
{
    const Account& account = call.session->account;
    Step step;
    BeginLocked(step, call);
    if (step.refusal) {
        return std::move(*step.refusal);
    }
    if (!MayConfirm(*call.session)) {
        return Refusal(409, "no_setup");
    }
    if (!SettleUserSettings(account)) { // the library reads it behind the code
        NoteFault(Fault::StateUnavailable);
        return Unavailable();
    }
    if (const std::optional<CodeAnswer> verdict = RefusalBeforeCode(account)) {
        return std::move(*RefuseCodeAnswer(*verdict));
    }
    step.handler.AuthOTPcode(call.Text("code"), account.uid);
    Json::Value response = step.handler.GetResponse();
    if (std::optional<Answer> refusal = RefuseByVerifier(response)) {
        return std::move(*refusal);
    }
    AddClockHint(*call.session, response);
    if (CurrentRequest().codeOf == account.uid && !CameToItsPlace(account)) {
        NoteFault(Fault::SecretFile);
        return Unavailable();
    }
    Answer answer = FromLibrary(std::move(response));
    if (!CurrentRequest().newSid.empty()) {
        HandOutSession(call, answer);
    }
    return answer;
}

Answer WizardMail(Call& call)
{
    Step step;
    Begin(step, call);
    if (step.refusal) {
        return std::move(*step.refusal);
    }
    if (std::optional<Answer> refusal = RefuseMailWithoutCode(call, step)) {
        return std::move(*refusal);
    }
    const Account& account = call.session->account;
    UserSettingsWriting settings(account);
    if (!settings.Usable()) {
        NoteFault(Fault::StateUnavailable);
        return Unavailable();
    }
    step.handler.SaveMail(call.Text("mail"));
    Answer answer = FromLibrary(step.handler.GetResponse());
    const bool stored = settings.Commit();
    const bool saved = stored && MailIs(account.uid, call.Text("mail"));
    if (saved) {
        Audit(AuditEvent::AddressChanged, call.session->account);
    }
    answer.body["saved"] = saved;
    return answer;
}

Answer WizardStatus(Call& call)
{
    const Account& account = call.session->account;
    const EnrolmentState state = LearnFacts(account);
    if (state.enrolment == Enrolment::Fault) {
        return Unavailable();
    }
    Answer answer = Success();
    answer.body["enrolled"] = state.enrolment == Enrolment::Yes;
    answer.body["closed"] = SecondStepOf(account.uid).closed;
    answer.body["enforced"] = CurrentRequest().facts->demanded;
    const std::string mail = RecoveryAddress(account);
    if (!mail.empty()) {
        answer.body["mail"] = MaskMail(mail);
    }
    answer.body["mail_writable"] = account.kind != kKindLdap;
    answer.body["codes_left"] = state.codesLeft;
    return answer;
}

Answer WizardDisable(Call& call)
{
    const Account& account = call.session->account;
    Step step;
    BeginLocked(step, call);
    if (step.refusal) {
        return std::move(*step.refusal);
    }
    if (CurrentRequest().facts->demanded) {
        return Refusal(403, "otp_enforced");
    }
    if (std::optional<Answer> refusal = RefuseCode(*call.session, call.Text("code"))) {
        return std::move(*refusal);
    }
    MarkSwitchingOff(account, AuditEvent::SwitchedOff); // the file goes when the account settles
    if (LearnFacts(account).enrolment != Enrolment::No) {
        return Unavailable();
    }
    DropWaiting(account.uid);
    const Grant grant = OpenSession(account);
    if (grant == Grant::Ended || grant == Grant::SecondStepMissing) { // the latter: demanded by now
        return Refusal(401, "not_signed_in");
    }
    if (grant != Grant::Opened) {
        return Unavailable();
    }
    Answer answer = Success();
    answer.body["TavrToken"] = TokenOf(CurrentRequest().newSid);
    HandOutSession(call, answer);
    return answer;
}

} // namespace tavr::web
