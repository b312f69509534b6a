#include "linux/audit.h"

#include "linux/clock.h"
#include "linux/database.h"
#include "linux/names.h"
#include "linux/request.h"
#include "linux/settings.h"

#include <syslog.h>
#include <utf8proc.h>

#include <algorithm>
#include <vector>

namespace tavr
{

namespace
{

constexpr size_t kLongestName = 256; // bytes, escaped: a whole line stays below 1,024
constexpr size_t kLongestAddress = 64;
constexpr char kCutMark[] = "\\+";
constexpr int64_t kDaySeconds = 24 * 60 * 60;
constexpr int64_t kDaysKept = 365;
constexpr int64_t kClearedAtOnce = 500; // rows in one transaction
constexpr int64_t kPageRows = 500;
constexpr int kBatches = 40;           // one after the other, so that others get in between
constexpr int64_t kMostRows = 250'000; // some 20 MiB; whoever has a password can fail as often as he likes

enum class Keep { LineAndRow, LineOnly };

struct EventWords {
    const char* event;
    const char* outcome;
    int priority;
    Keep keep = Keep::LineAndRow;
};

EventWords WordsOf(AuditEvent event)
{
    switch (event) {
    case AuditEvent::SignIn:
        return {"signin", "granted", LOG_INFO};
    case AuditEvent::PasswordRefused:
        return {"password", "refused", LOG_NOTICE};
    case AuditEvent::PasswordThrottled:
        return {"password", "throttled", LOG_NOTICE, Keep::LineOnly};
    case AuditEvent::CodeRefused:
        return {"code", "refused", LOG_NOTICE};
    case AuditEvent::CodeNotCompared:
        return {"code", "refused", LOG_NOTICE, Keep::LineOnly};
    case AuditEvent::CodeReplayed:
        return {"code", "replayed", LOG_NOTICE};
    case AuditEvent::CodeThrottled:
        return {"code", "throttled", LOG_NOTICE, Keep::LineOnly};
    case AuditEvent::CodeClosed:
        return {"code", "closed", LOG_NOTICE, Keep::LineOnly};
    case AuditEvent::SecondStepClosed:
        return {"second-step", "closed", LOG_WARNING};
    case AuditEvent::SecondStepOpened:
        return {"second-step", "opened", LOG_NOTICE};
    case AuditEvent::Enrolled:
        return {"enrolment", "done", LOG_INFO};
    case AuditEvent::Renewed:
        return {"renewal", "done", LOG_INFO};
    case AuditEvent::SwitchedOff:
        return {"switching-off", "done", LOG_NOTICE};
    case AuditEvent::Reset:
        return {"reset", "done", LOG_NOTICE};
    case AuditEvent::ScratchCodeSpent:
        return {"scratch-code", "spent", LOG_NOTICE};
    case AuditEvent::CodeMailed:
        return {"code-mail", "sent", LOG_NOTICE};
    case AuditEvent::CodeMailRefused:
        return {"code-mail", "refused", LOG_NOTICE};
    case AuditEvent::CodeMailThrottled:
        return {"code-mail", "throttled", LOG_NOTICE, Keep::LineOnly};
    case AuditEvent::CodeMailClosed:
        return {"code-mail", "closed", LOG_NOTICE, Keep::LineOnly};
    case AuditEvent::CodeMailBusy:
        return {"code-mail", "busy", LOG_NOTICE, Keep::LineOnly};
    case AuditEvent::TemporaryCodeMade:
        return {"temporary-code", "made", LOG_NOTICE};
    case AuditEvent::TemporaryCodeSpent:
        return {"temporary-code", "spent", LOG_NOTICE};
    case AuditEvent::AddressChanged:
        return {"recovery-address", "changed", LOG_NOTICE};
    case AuditEvent::SessionsEnded:
        return {"session", "ended", LOG_NOTICE};
    case AuditEvent::PrivilegeFailed:
        return {"privilege", "failed", LOG_CRIT};
    case AuditEvent::AccountAdded:
        return {"account", "added", LOG_INFO};
    case AuditEvent::AccountRemoved:
        return {"account", "removed", LOG_NOTICE};
    case AuditEvent::AccountDisabled:
        return {"account", "disabled", LOG_NOTICE};
    case AuditEvent::AccountEnabled:
        return {"account", "enabled", LOG_NOTICE};
    case AuditEvent::PasswordChanged:
        return {"account", "password-changed", LOG_NOTICE};
    case AuditEvent::PolicyOption:
        return {"policy", "option", LOG_NOTICE};
    case AuditEvent::PolicyPicked:
        return {"policy", "picked", LOG_NOTICE};
    case AuditEvent::PolicyUnpicked:
        return {"policy", "unpicked", LOG_NOTICE};
    case AuditEvent::PolicyRestored:
        return {"policy", "restored", LOG_WARNING};
    case AuditEvent::PolicyAdopted:
        return {"policy", "adopted", LOG_WARNING};
    }
    return {"unknown", "unknown", LOG_WARNING};
}

// The template of the mail by which the account's owner is told; null: not told.
const char* NoticeOf(AuditEvent event)
{
    switch (event) {
    case AuditEvent::Enrolled:
        return "OTP_notice_enrolled";
    case AuditEvent::Renewed:
        return "OTP_notice_renewed";
    case AuditEvent::SwitchedOff:
        return "OTP_notice_switched_off";
    case AuditEvent::Reset:
        return "OTP_notice_reset";
    case AuditEvent::ScratchCodeSpent:
        return "OTP_notice_code_spent";
    case AuditEvent::CodeMailed:
        return "OTP_notice_code_mailed";
    case AuditEvent::AddressChanged:
        return "OTP_notice_address_changed";
    case AuditEvent::SignIn:
    case AuditEvent::PasswordRefused:
    case AuditEvent::PasswordThrottled:
    case AuditEvent::CodeRefused: // the verifier tells of some in a row
    case AuditEvent::CodeNotCompared:
    case AuditEvent::CodeReplayed:
    case AuditEvent::CodeThrottled:
    case AuditEvent::CodeClosed:
    case AuditEvent::SecondStepClosed:
    case AuditEvent::SecondStepOpened:
    case AuditEvent::CodeMailRefused:
    case AuditEvent::CodeMailThrottled:
    case AuditEvent::CodeMailClosed:
    case AuditEvent::CodeMailBusy:
    case AuditEvent::TemporaryCodeMade:
    case AuditEvent::TemporaryCodeSpent:
    case AuditEvent::SessionsEnded:
    case AuditEvent::PrivilegeFailed:
    case AuditEvent::AccountAdded:
    case AuditEvent::AccountRemoved:
    case AuditEvent::AccountDisabled:
    case AuditEvent::AccountEnabled:
    case AuditEvent::PasswordChanged:
    case AuditEvent::PolicyOption:
    case AuditEvent::PolicyPicked:
    case AuditEvent::PolicyUnpicked:
    case AuditEvent::PolicyRestored:
    case AuditEvent::PolicyAdopted:
        break;
    }
    return nullptr;
}

void NoteNotice(AuditEvent event, uint32_t account, const std::optional<std::string>& address = std::nullopt)
{
    if (const char* tag = NoticeOf(event)) {
        CurrentRequest().notices.push_back({tag, account, WallSeconds(), address});
    }
}

// --- Escaping ---

// Blanks and "=" are escaped too: no name can hold a second field, quoted or not.
bool StandsAsItIs(std::string_view character)
{
    if (character.size() == 1) {
        const char c = character.front();
        return c > ' ' && c < '\x7f' && c != '"' && c != '\\' && c != '=';
    }
    utf8proc_int32_t point = 0;
    utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(character.data()),
                     static_cast<utf8proc_ssize_t>(character.size()), &point);
    const utf8proc_property_t* property = utf8proc_get_property(point);
    return IsPlainText(character) && !property->ignorable && property->category != UTF8PROC_CATEGORY_ZS;
}

// Takes one character off the front, or one byte of what is no UTF-8.
std::string_view NextCharacter(std::string_view& text)
{
    utf8proc_int32_t point = 0;
    const auto size = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                       static_cast<utf8proc_ssize_t>(text.size()), &point);
    const std::string_view character = text.substr(0, size > 0 ? static_cast<size_t>(size) : 1);
    text.remove_prefix(character.size());
    return character;
}

std::string Escape(std::string_view text)
{
    std::string escaped;
    while (!text.empty()) {
        const std::string_view character = NextCharacter(text);
        std::string piece;
        if (StandsAsItIs(character)) {
            piece = character;
        } else {
            constexpr char kDigits[] = "0123456789abcdef";
            for (const char c : character) {
                const auto byte = static_cast<unsigned char>(c);
                piece += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
            }
        }
        if (escaped.size() + piece.size() > kLongestName - (sizeof kCutMark - 1)) {
            return escaped + kCutMark;
        }
        escaped += piece;
    }
    return escaped;
}

// As the web server saw it. Anything that is no address by its characters is not repeated.
std::string ClientAddress()
{
    const std::string& address = CurrentRequest().clientAddress;
    const bool plain = std::all_of(address.begin(), address.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
               c == ':' || c == '%' || c == '-' || c == '_';
    });
    return address.empty() || address.size() > kLongestAddress || !plain ? "-" : address;
}

// --- Line and row ---

struct Entry {
    EventWords words;
    std::string address;
    std::optional<uint32_t> uid;
    std::string detail;
    std::string account;
};

Entry EntryOf(AuditEvent event, std::string_view name, std::optional<uint32_t> uid, std::string_view detail)
{
    return {WordsOf(event), ClientAddress(), uid, std::string(detail), AuditName(name)};
}

// What others may have chosen stands last.
std::string LineOf(const Entry& entry)
{
    return std::string("audit: event=") + entry.words.event + " outcome=" + entry.words.outcome +
           " address=" + entry.address + " uid=" + (entry.uid ? std::to_string(*entry.uid) : "-") +
           " detail=" + entry.detail + " account=\"" + entry.account + '"';
}

void StoreRow(const Entry& entry)
{
    Statement insert =
        SigninDatabase().Prepare("INSERT INTO audit (time, event, outcome, address, uid, detail, account)"
                                 " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    insert.Bind(1, WallSeconds()).Bind(2, entry.words.event).Bind(3, entry.words.outcome);
    insert.Bind(4, entry.address).Bind(6, entry.detail).Bind(7, entry.account);
    entry.uid ? insert.Bind(5, int64_t{*entry.uid}) : insert.BindNull(5);
    insert.Run();
}

void WriteLine(const Entry& entry)
{
    syslog(LOG_AUTHPRIV | entry.words.priority, "%s", LineOf(entry).c_str());
}

// Never fails its caller.
template<class Store>
void StoreIfPossible(Store store)
{
    // A database that has just failed must not be waited for again.
    if (CurrentRequest().fault != Fault::None) {
        return;
    }
    try {
        store();
    } catch (const DatabaseError& error) {
        syslog(LOG_ERR, "the audit's row could not be stored: %s", error.what());
    }
}

void Write(const Entry& entry)
{
    WriteLine(entry);
    if (entry.words.keep == Keep::LineAndRow) {
        StoreIfPossible([&] { StoreRow(entry); });
    }
}

// --- Reading ---

// A page at a time: whoever reads slowly (a pager) must not keep the database from tidying up.
std::vector<AuditRow> ReadPage(const AuditQuery& query)
{
    Statement list = SigninDatabase().Prepare(
        "SELECT id, time, event, outcome, address, uid, detail, account FROM audit"
        " WHERE id > ?1 AND time >= ?2 AND (?3 = '' OR account = ?3) ORDER BY id LIMIT ?4");
    list.Bind(1, query.after).Bind(2, query.since).Bind(3, query.account).Bind(4, kPageRows);
    std::vector<AuditRow> page;
    while (list.Step()) {
        AuditRow& row = page.emplace_back();
        row.id = list.Int(0);
        row.time = list.Int(1);
        row.event = list.Text(2);
        row.outcome = list.Text(3);
        row.address = list.Text(4);
        if (!list.IsNull(5)) {
            row.uid = static_cast<uint32_t>(list.Int(5));
        }
        row.detail = list.Text(6);
        row.account = list.Text(7);
    }
    return page;
}

} // namespace

void Audit(AuditEvent event, const Account& account, const char* detail)
{
    Write(EntryOf(event, account.name, account.uid, detail));
    // A changed address is told to the former one, which is the one that the caller has.
    NoteNotice(event, account.uid,
               event == AuditEvent::AddressChanged ? std::optional(account.mail) : std::nullopt);
}

void Audit(AuditEvent event, std::string_view typedName, const char* detail)
{
    Write(EntryOf(event, typedName, std::nullopt, detail));
}

void AuditPicks(const Account* who, const std::vector<PickChange>& changes)
{
    std::vector<Entry> entries;
    entries.reserve(changes.size());
    for (const PickChange& change : changes) {
        const AuditEvent event = change.picked ? AuditEvent::PolicyPicked : AuditEvent::PolicyUnpicked;
        entries.push_back(who != nullptr ? EntryOf(event, who->name, who->uid, change.what)
                                         : EntryOf(event, {}, std::nullopt, change.what));
    }
    std::for_each(entries.begin(), entries.end(), WriteLine);
    StoreIfPossible([&] {
        Transaction transaction(SigninDatabase());
        std::for_each(entries.begin(), entries.end(), StoreRow);
        transaction.Commit();
    });
}

AuditedGrant::AuditedGrant(AuditEvent event, const Account& account, const char* detail)
    : event_(event), account_(account.uid)
{
    const Entry entry = EntryOf(event, account.name, account.uid, detail);
    StoreRow(entry);
    line_ = LineOf(entry);
}

void AuditedGrant::Committed() const
{
    syslog(LOG_AUTHPRIV | WordsOf(event_).priority, "%s", line_.c_str());
    NoteNotice(event_, account_);
}

std::string AuditName(std::string_view name)
{
    const std::optional<std::string> canonical = CanonicalName(name);
    return Escape(canonical ? std::string_view(*canonical) : name);
}

void ForEachAuditRow(const AuditQuery& query, const std::function<void(const AuditRow&)>& each)
{
    AuditQuery rest = query;
    for (std::vector<AuditRow> page = ReadPage(rest); !page.empty(); page = ReadPage(rest)) {
        std::for_each(page.begin(), page.end(), each);
        rest.after = page.back().id;
    }
}

void ClearAudit()
{
    const int64_t days = NumberSetting("audit_days", kDaysKept, 1, 36500);
    Database& db = SigninDatabase();
    for (int i = 0; i < kBatches; ++i) {
        // The newest stays, so that no number comes again.
        db.Prepare("DELETE FROM audit WHERE id IN (SELECT id FROM audit ORDER BY id LIMIT ?2)"
                   " AND id < (SELECT max(id) FROM audit)"
                   " AND (time < ?1 OR id <= (SELECT max(id) FROM audit) - ?3)")
            .Bind(1, WallSeconds() - days * kDaySeconds)
            .Bind(2, kClearedAtOnce)
            .Bind(3, kMostRows)
            .Run();
        if (db.Changes() < kClearedAtOnce) {
            return;
        }
    }
}

} // namespace tavr
