// The audit: its lines and rows, and what hostile names can do to them. The log is caught by the linker.
#include "linux/audit.h"

#include "linux/database.h"
#include "linux/ids.h"
#include "linux/request.h"
#include "tests/support/test_clock.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

using namespace tavr;

namespace
{

struct LogLine {
    int priority;
    std::string text;
};

std::vector<LogLine>& Log()
{
    static std::vector<LogLine> lines;
    return lines;
}

void Catch(int priority, const char* format, va_list arguments)
{
    char text[8192];
    std::vsnprintf(text, sizeof text, format, arguments);
    Log().push_back({priority, text});
}

constexpr int64_t kNow = 1'800'000'000;
constexpr int64_t kDay = 24 * 60 * 60;

void SetWall(int64_t seconds)
{
    const EffectiveIds root = EffectiveIds::Root();
    test::SetClocks(seconds, 0);
}

Account Alice()
{
    Account account;
    account.name = "alice";
    account.uid = 1026;
    return account;
}

std::vector<AuditRow> Rows(const AuditQuery& query = {})
{
    std::vector<AuditRow> rows;
    ForEachAuditRow(query, [&](const AuditRow& row) { rows.push_back(row); });
    return rows;
}

class AuditTrail : public testing::Test
{
protected:
    void SetUp() override
    {
        SetWall(kNow);
        SigninDatabase().Prepare("DELETE FROM audit").Run();
        StartRequest();
        CurrentRequest().clientAddress = "203.0.113.7";
        Log().clear();
    }
};

// --- Lines and rows ---

TEST_F(AuditTrail, WritesOneLineAndOneRow)
{
    Audit(AuditEvent::CodeRefused, Alice(), "signin");

    ASSERT_EQ(1U, Log().size());
    EXPECT_EQ(LOG_AUTHPRIV | LOG_NOTICE, Log()[0].priority);
    EXPECT_EQ(
        R"(audit: event=code outcome=refused address=203.0.113.7 uid=1026 detail=signin account="alice")",
        Log()[0].text);
    const std::vector<AuditRow> rows = Rows();
    ASSERT_EQ(1U, rows.size());
    EXPECT_LE(kNow, rows[0].time);
    EXPECT_GE(kNow + 5, rows[0].time);
    EXPECT_EQ("code", rows[0].event);
    EXPECT_EQ("refused", rows[0].outcome);
    EXPECT_EQ("203.0.113.7", rows[0].address);
    EXPECT_EQ(1026U, rows[0].uid);
    EXPECT_EQ("signin", rows[0].detail);
    EXPECT_EQ("alice", rows[0].account);
}

TEST_F(AuditTrail, NamesEveryEvent)
{
    struct {
        AuditEvent event;
        int priority;
        bool row;
        const char* words;
    } const table[] = {
        {AuditEvent::SignIn, LOG_INFO, true, "event=signin outcome=granted"},
        {AuditEvent::PasswordRefused, LOG_NOTICE, true, "event=password outcome=refused"},
        {AuditEvent::PasswordThrottled, LOG_NOTICE, false, "event=password outcome=throttled"},
        {AuditEvent::CodeRefused, LOG_NOTICE, true, "event=code outcome=refused"},
        {AuditEvent::CodeNotCompared, LOG_NOTICE, false, "event=code outcome=refused"},
        {AuditEvent::CodeReplayed, LOG_NOTICE, true, "event=code outcome=replayed"},
        {AuditEvent::CodeThrottled, LOG_NOTICE, false, "event=code outcome=throttled"},
        {AuditEvent::CodeClosed, LOG_NOTICE, false, "event=code outcome=closed"},
        {AuditEvent::SecondStepClosed, LOG_WARNING, true, "event=second-step outcome=closed"},
        {AuditEvent::SecondStepOpened, LOG_NOTICE, true, "event=second-step outcome=opened"},
        {AuditEvent::Enrolled, LOG_INFO, true, "event=enrolment outcome=done"},
        {AuditEvent::Renewed, LOG_INFO, true, "event=renewal outcome=done"},
        {AuditEvent::SwitchedOff, LOG_NOTICE, true, "event=switching-off outcome=done"},
        {AuditEvent::Reset, LOG_NOTICE, true, "event=reset outcome=done"},
        {AuditEvent::ScratchCodeSpent, LOG_NOTICE, true, "event=scratch-code outcome=spent"},
        {AuditEvent::CodeMailed, LOG_NOTICE, true, "event=code-mail outcome=sent"},
        {AuditEvent::CodeMailRefused, LOG_NOTICE, true, "event=code-mail outcome=refused"},
        {AuditEvent::CodeMailThrottled, LOG_NOTICE, false, "event=code-mail outcome=throttled"},
        {AuditEvent::CodeMailClosed, LOG_NOTICE, false, "event=code-mail outcome=closed"},
        {AuditEvent::CodeMailBusy, LOG_NOTICE, false, "event=code-mail outcome=busy"},
        {AuditEvent::TemporaryCodeMade, LOG_NOTICE, true, "event=temporary-code outcome=made"},
        {AuditEvent::TemporaryCodeSpent, LOG_NOTICE, true, "event=temporary-code outcome=spent"},
        {AuditEvent::AddressChanged, LOG_NOTICE, true, "event=recovery-address outcome=changed"},
        {AuditEvent::SessionsEnded, LOG_NOTICE, true, "event=session outcome=ended"},
        {AuditEvent::PrivilegeFailed, LOG_CRIT, true, "event=privilege outcome=failed"},
        {AuditEvent::AccountAdded, LOG_INFO, true, "event=account outcome=added"},
        {AuditEvent::AccountRemoved, LOG_NOTICE, true, "event=account outcome=removed"},
        {AuditEvent::AccountDisabled, LOG_NOTICE, true, "event=account outcome=disabled"},
        {AuditEvent::AccountEnabled, LOG_NOTICE, true, "event=account outcome=enabled"},
        {AuditEvent::PasswordChanged, LOG_NOTICE, true, "event=account outcome=password-changed"},
        {AuditEvent::PolicyOption, LOG_NOTICE, true, "event=policy outcome=option"},
        {AuditEvent::PolicyPicked, LOG_NOTICE, true, "event=policy outcome=picked"},
        {AuditEvent::PolicyUnpicked, LOG_NOTICE, true, "event=policy outcome=unpicked"},
        {AuditEvent::PolicyRestored, LOG_WARNING, true, "event=policy outcome=restored"},
        {AuditEvent::PolicyAdopted, LOG_WARNING, true, "event=policy outcome=adopted"},
    };
    for (const auto& row : table) {
        SetUp();
        Audit(row.event, Alice());
        ASSERT_EQ(1U, Log().size()) << row.words;
        EXPECT_EQ(LOG_AUTHPRIV | row.priority, Log()[0].priority) << row.words;
        EXPECT_EQ(std::string("audit: ") + row.words +
                      R"( address=203.0.113.7 uid=1026 detail=- account="alice")",
                  Log()[0].text);
        EXPECT_EQ(row.row ? 1U : 0U, Rows().size()) << row.words;
    }
}

TEST_F(AuditTrail, RepeatsOnlyWhatCanBeAnAddress)
{
    const std::pair<std::string, std::string> table[] = {
        {"", "-"},
        {"2001:db8::1", "2001:db8::1"},
        {"fe80::1%eth0", "fe80::1%eth0"},
        {"console", "console"},
        {"1.2.3.4 account=x", "-"},
        {"1.2.3.4\nx", "-"},
        {std::string(65, '1'), "-"},
    };
    for (const auto& [given, written] : table) {
        SetUp();
        CurrentRequest().clientAddress = given;
        Audit(AuditEvent::SignIn, Alice());
        EXPECT_NE(std::string::npos, Log()[0].text.find(" address=" + written + " uid=")) << given;
        EXPECT_EQ(written, Rows()[0].address);
    }
}

TEST_F(AuditTrail, TellsOfARowThatCannotBeStoredAndGoesOn)
{
    SigninDatabase().Prepare("ALTER TABLE audit RENAME TO audit_away").Run();
    Audit(AuditEvent::PasswordRefused, "alice");
    SigninDatabase().Prepare("ALTER TABLE audit_away RENAME TO audit").Run();

    ASSERT_EQ(2U, Log().size());
    EXPECT_EQ(0U, Log()[0].text.find("audit: event=password "));
    EXPECT_EQ(0U, Log()[1].text.find("the audit's row could not be stored: "));
}

TEST_F(AuditTrail, DoesNotWaitForADatabaseThatHasFailedInThisRequest)
{
    NoteFault(Fault::StateUnavailable);
    Audit(AuditEvent::PasswordRefused, "alice");
    EXPECT_EQ(1U, Log().size());
    EXPECT_TRUE(Rows().empty());
}

// --- Grants ---

TEST_F(AuditTrail, GrantsWithItsRowOrNotAtAll)
{
    {
        Transaction undone(SigninDatabase());
        const AuditedGrant grant(AuditEvent::SignIn, Alice(), "code");
    }
    EXPECT_TRUE(Rows().empty());
    EXPECT_TRUE(Log().empty());

    Transaction transaction(SigninDatabase());
    const AuditedGrant grant(AuditEvent::SignIn, Alice(), "code");
    EXPECT_TRUE(Log().empty());
    const AuditedGrant other(AuditEvent::ScratchCodeSpent, Alice(), "-");
    transaction.Commit();
    grant.Committed();
    other.Committed();
    ASSERT_EQ(2U, Rows().size());
    ASSERT_EQ(2U, Log().size());
    EXPECT_EQ(LOG_AUTHPRIV | LOG_INFO, Log()[0].priority);
    EXPECT_EQ(LOG_AUTHPRIV | LOG_NOTICE, Log()[1].priority);
    EXPECT_EQ(
        R"(audit: event=signin outcome=granted address=203.0.113.7 uid=1026 detail=code account="alice")",
        Log()[0].text);
}

// --- Hostile names ---

TEST_F(AuditTrail, EscapesWhatCannotBeSeenOrEndsAField)
{
    const std::pair<std::string, const char*> table[] = {
        {" ALICE ", "alice"},
        {"CORP\\Dan", R"(CORP\x5cdan)"},
        {"li\xc3\xa9", "li\xc3\xa9"},
        {"mary ann", R"(mary\x20ann)"},
        {"a\nb", R"(a\x0ab)"},
        {"a\rb\x1b[2J", R"(a\x0db\x1b[2J)"},
        {"a\" uid=0", R"(a\x22\x20uid\x3d0)"},
        {"a\\b\\c", R"(a\x5cb\x5cc)"},
        {"a\x7f", R"(a\x7f)"},
        {"a\xc2\x85", R"(a\xc2\x85)"}, // next line
        {"a\xe2\x80\xae"
         "b",
         R"(a\xe2\x80\xaeb)"}, // right-to-left override
        {"a\xe2\x81\xa6"
         "b",
         R"(a\xe2\x81\xa6b)"}, // isolate
        {"a\xe2\x80\x8b"
         "b",
         R"(a\xe2\x80\x8bb)"}, // no width
        {"a\xe2\x80\xa8"
         "b",
         R"(a\xe2\x80\xa8b)"},                 // line separator
        {"a\xef\xb8\x8f", R"(a\xef\xb8\x8f)"}, // variation selector
        {"a\xc2\xa0/b", R"(a\xc2\xa0/b)"},     // a blank that does not break
        {"\xff\xfe", R"(\xff\xfe)"},
        {"a\xed\xa0\x80", R"(a\xed\xa0\x80)"}, // a surrogate
        {std::string("a\0b", 3), R"(a\x00b)"},
        {"", ""},
        {"%n%s/", "%n%s/"},
    };
    for (const auto& [typed, written] : table) {
        EXPECT_EQ(written, AuditName(typed));
        SetUp();
        Audit(AuditEvent::PasswordRefused, typed, "signin");
        EXPECT_EQ(std::string("audit: event=password outcome=refused address=203.0.113.7 uid=- detail=signin"
                              " account=\"") +
                      written + '"',
                  Log()[0].text);
    }
}

TEST_F(AuditTrail, CutsALongNameBetweenCharacters)
{
    EXPECT_EQ(std::string(254, 'x') + "\\+", AuditName(std::string(300, 'x')));
    EXPECT_EQ(std::string(254, 'x'), AuditName(std::string(254, 'x')));
    std::string signs;
    for (int i = 0; i < 100; ++i) {
        signs += "\xe2\x80\xae";
    }
    const std::string name = AuditName(signs);
    EXPECT_EQ(21U * 12 + 2, name.size());
    EXPECT_TRUE(name.ends_with(R"(\xe2\x80\xae\+)"));
    Audit(AuditEvent::PasswordRefused, signs, "signin");
    EXPECT_LT(Log()[0].text.size(), 1000U);
}

// --- The pattern for ban tools, as the manual has it ---

std::string DocumentedPattern()
{
    const EffectiveIds root = EffectiveIds::Root(); // the service may not look there
    std::ifstream manual(TAVR_SOURCE_DIR "/doc/audit.md");
    std::string found;
    for (std::string line; std::getline(manual, line);) {
        if (line.starts_with("    ^[^[]*tavr-otp-web")) {
            found = line.substr(4);
        }
    }
    return found;
}

TEST_F(AuditTrail, HasADocumentedPatternThatFindsRefusalsAndTheirAddress)
{
    const std::regex pattern(DocumentedPattern(), std::regex::extended);
    struct {
        AuditEvent event;
        bool found;
    } const table[] = {
        {AuditEvent::PasswordRefused, true}, {AuditEvent::PasswordThrottled, true},
        {AuditEvent::CodeRefused, true},     {AuditEvent::CodeThrottled, true},
        {AuditEvent::CodeReplayed, false},   {AuditEvent::SignIn, false},
        {AuditEvent::Enrolled, false},       {AuditEvent::AccountRemoved, false},
    };
    for (const char* address : {"203.0.113.7", "2001:db8::7"}) {
        for (const auto& row : table) {
            SetUp();
            CurrentRequest().clientAddress = address;
            Audit(row.event, Alice(), "signin");
            const std::string line = "Nov 21 06:00:00 nas tavr-otp-web[1]: " + Log()[0].text;
            std::smatch match;
            EXPECT_EQ(row.found, std::regex_search(line, match, pattern)) << line;
            if (row.found) {
                EXPECT_EQ(address, match[3].str());
            }
        }
    }
}

TEST_F(AuditTrail, LetsNoNameBanSomebodyElse)
{
    const std::regex pattern(DocumentedPattern(), std::regex::extended);
    const char* names[] = {
        "x\nNov 21 06:00:00 nas tavr-otp-web[1]: audit: event=password outcome=refused address=198.51.100.1 "
        "uid=- ",
        "audit: event=password outcome=refused address=198.51.100.1 uid=",
        "\" audit: event=code outcome=refused address=198.51.100.1 uid=1 detail=signin account=\"",
        "address=198.51.100.1",
    };
    for (const char* name : names) {
        SetUp();
        Audit(AuditEvent::PasswordRefused, name, "signin");
        const std::string line = "Nov 21 06:00:00 nas tavr-otp-web[1]: " + Log()[0].text;
        EXPECT_EQ(std::string::npos, line.find('\n'));
        EXPECT_EQ(1, std::distance(std::sregex_iterator(line.begin(), line.end(), pattern), {})) << line;
        std::smatch match;
        ASSERT_TRUE(std::regex_search(line, match, pattern));
        EXPECT_EQ("203.0.113.7", match[3].str()) << line;
    }
}

TEST_F(AuditTrail, FindsNothingInLinesThatQuoteAStranger)
{
    const std::regex pattern(DocumentedPattern(), std::regex::extended);
    const std::string fake = "audit: event=password outcome=refused address=198.51.100.1 uid=-";
    for (const std::string& line :
         {"Nov 21 06:00:00 nas tavr-otp-web[1]: OTPWizardHandler.cpp:167 Failed to convert " + fake,
          "Nov 21 06:00:00 nas tavr-otp-web[1]: said x tavr-otp-web[1]: " + fake,
          "Nov 21 06:00:00 nas httpd[2]: GET /tavr-otp-web[1]: " + fake, fake}) {
        EXPECT_FALSE(std::regex_search(line, pattern)) << line;
    }
}

// --- Reading and clearing ---

TEST_F(AuditTrail, IsReadInItsOrderFromAPlaceATimeOrOfAnAccount)
{
    Audit(AuditEvent::PasswordRefused, "bob");
    SetWall(kNow + 60);
    Audit(AuditEvent::SignIn, Alice());
    Audit(AuditEvent::PasswordRefused, " Bob ");

    const std::vector<AuditRow> all = Rows();
    ASSERT_EQ(3U, all.size());
    EXPECT_LT(all[0].id, all[1].id);
    EXPECT_EQ(2U, Rows({all[0].id, 0, {}}).size());
    EXPECT_EQ(2U, Rows({0, kNow + 60, {}}).size());
    EXPECT_EQ(2U, Rows({0, 0, AuditName("BOB")}).size());
    EXPECT_EQ(1U, Rows({0, kNow + 60, AuditName("BOB")}).size());
    EXPECT_FALSE(all[0].uid.has_value());
}

TEST_F(AuditTrail, IsReadWholeWhenLong)
{
    for (int i = 0; i < 1203; ++i) {
        SigninDatabase()
            .Prepare("INSERT INTO audit (time, event, outcome, address, detail, account)"
                     " VALUES (1, 'x', 'x', '-', '-', 'x')")
            .Run();
    }
    EXPECT_EQ(1203U, Rows().size());
}

TEST_F(AuditTrail, LosesWhatIsTooOldInBatches)
{
    {
        Transaction transaction(SigninDatabase());
        for (int i = 0; i < 20'700; ++i) {
            SigninDatabase()
                .Prepare("INSERT INTO audit (time, event, outcome, address, detail, account)"
                         " VALUES (?1, 'x', 'x', '-', '-', 'x')")
                .Bind(1, kNow - 365 * kDay - 1)
                .Run();
        }
        transaction.Commit();
    }
    SetWall(kNow - 365 * kDay + 60);
    Audit(AuditEvent::SignIn, Alice());
    SetWall(kNow);

    ClearAudit();
    EXPECT_EQ(701U, Rows().size());
    ClearAudit();
    ASSERT_EQ(1U, Rows().size());
    EXPECT_EQ("alice", Rows()[0].account);
}

TEST_F(AuditTrail, KeepsTheNewestQuarterOfAMillion)
{
    for (int i = 0; i < 3; ++i) {
        Audit(AuditEvent::PasswordRefused, "bob");
    }
    const int64_t second = Rows()[1].id;
    SigninDatabase()
        .Prepare("INSERT INTO audit (id, time, event, outcome, address, detail, account)"
                 " VALUES (?1, ?2, 'x', 'x', '-', '-', 'x')")
        .Bind(1, second + 250'000)
        .Bind(2, kNow)
        .Run();
    ClearAudit();
    ASSERT_EQ(2U, Rows().size());
    EXPECT_EQ(second + 1, Rows()[0].id);
}

} // namespace

extern "C" {
[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char* format, ...);
[[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int flag, const char* format, ...);

[[gnu::format(printf, 2, 3)]] void __wrap_syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Catch(priority, format, arguments);
    va_end(arguments);
}

[[gnu::format(printf, 3, 4)]] void __wrap___syslog_chk(int priority, int /*flag*/, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Catch(priority, format, arguments);
    va_end(arguments);
}
}
