// Notices: who is told what, and that nothing fails where they cannot be told.
#include "linux/notices.h"

#include "linux/audit.h"
#include "linux/clock.h"
#include "linux/mail_queue.h"
#include "linux/mail_settings.h"
#include "linux/paths.h"
#include "linux/request.h"

#include "tests/support/fresh_server.h"

#include <sys/stat.h>
#include <unistd.h>

namespace tavr::test
{
namespace
{

constexpr int64_t kNow = 1'800'000'000; // 2027-01-15 08:00:00 UTC
constexpr char kService[] = "mail_server=\"mx.example\"\nmail_from=\"nas@example.org\"\n";

class Notices : public FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        WriteSettings(kService);
        SetClocks(kNow, 100'000, "first");
    }
};

Account AddAlice(const std::string& mail = "alice@home.example")
{
    StartRequest();
    return *AddAccount({"alice", "", mail, false}, "not to be used");
}

// What was queued for the events since the last call.
std::vector<QueuedMail> Queued()
{
    QueueNotices();
    EXPECT_TRUE(CurrentRequest().notices.empty());
    return DueMails(100);
}

bool Holds(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST_F(Notices, TellOfEachEventThatConcernsTheOwner)
{
    const struct {
        AuditEvent event;
        const char* subject;
        const char* body;
    } rows[] = {
        {AuditEvent::Enrolled, "Two-step sign-in is set up", "was set up for the account <b>alice</b>"},
        {AuditEvent::Renewed, "A new app", "was set up anew for the account <b>alice</b>"},
        {AuditEvent::SwitchedOff, "Two-step sign-in is switched off",
         "was switched off for the account <b>alice</b>"},
        {AuditEvent::Reset, "Two-step sign-in was reset", "An administrator has removed"},
        {AuditEvent::ScratchCodeSpent, "An emergency code was used", "code of the account <b>alice</b>"},
        {AuditEvent::CodeMailed, "An emergency code was mailed", "for the account <b>alice</b>"},
    };
    AsWorker([&rows] {
        const Account alice = AddAlice();
        for (const auto& row : rows) {
            SCOPED_TRACE(row.subject);
            Audit(row.event, alice);
            const std::vector<QueuedMail> mails = Queued();
            ASSERT_EQ(1U, mails.size());
            EXPECT_EQ("alice@home.example", mails[0].to);
            EXPECT_TRUE(mails[0].subject.starts_with(row.subject)) << mails[0].subject;
            EXPECT_TRUE(Holds(mails[0].subject, OwnHostName()));
            EXPECT_TRUE(Holds(mails[0].html, row.body)) << mails[0].html;
            EXPECT_TRUE(Holds(mails[0].html, OwnHostName()));
            EXPECT_TRUE(Holds(mails[0].html, "When: 2027-01-15 08:00:0")) << mails[0].html;
            EXPECT_TRUE(Holds(mails[0].html, " UTC (+0000)<br>")) << mails[0].html;
            EXPECT_FALSE(Holds(mails[0].subject + mails[0].html, "%"));
        }
    });
}

TEST_F(Notices, EveryTextIsThereInBothLanguages)
{
    for (const char* language : {"enu", "ger"}) {
        WriteSettings(std::string(kService) + "maillang=\"" + language + "\"\n");
        AsWorker([language] {
            DueMails(100); // of the language before
            StartRequest();
            const Account account = *AddAccount({language, "", "a@home.example", false}, "not to be used");
            for (const char* what : {"enrolled", "renewed", "switched_off", "reset", "address_changed",
                                     "code_mailed", "code_spent", "wrong_codes"}) {
                const std::string tag = std::string("OTP_notice_") + what;
                CurrentRequest().notices.push_back({tag.c_str(), account.uid, kNow, std::nullopt});
                const std::vector<QueuedMail> mails = Queued();
                ASSERT_EQ(1U, mails.size()) << tag;
                EXPECT_TRUE(Holds(mails[0].html, std::string("<b>") + language + "</b>")) << tag;
                EXPECT_TRUE(Holds(mails[0].html, "2027-01-15 08:00:00")) << tag;
                EXPECT_EQ(std::string(language) == "ger", Holds(mails[0].html, "Zeitpunkt: ")) << tag;
                EXPECT_FALSE(Holds(mails[0].subject + mails[0].html, "%")) << tag;
            }
        });
    }
}

TEST_F(Notices, SayNothingOfOtherEvents)
{
    AsWorker([] {
        const Account alice = AddAlice();
        for (const AuditEvent event :
             {AuditEvent::SignIn, AuditEvent::PasswordRefused, AuditEvent::CodeRefused,
              AuditEvent::CodeReplayed, AuditEvent::CodeMailRefused, AuditEvent::CodeMailThrottled,
              AuditEvent::CodeMailClosed, AuditEvent::CodeMailBusy, AuditEvent::SecondStepClosed,
              AuditEvent::SessionsEnded, AuditEvent::AccountDisabled}) {
            Audit(event, alice);
        }
        Audit(AuditEvent::Enrolled, std::string_view("alice")); // nobody's account, as far as is known
        EXPECT_TRUE(Queued().empty());
        EXPECT_FALSE(access(kMailDatabase, F_OK) == 0 && !ListMails().empty());
    });
}

TEST_F(Notices, AGrantIsToldOnceItIsDurable)
{
    AsWorker([] {
        const Account alice = AddAlice();
        {
            const AuditedGrant undone(AuditEvent::ScratchCodeSpent, alice, "-");
        }
        EXPECT_TRUE(Queued().empty());
        const AuditedGrant done(AuditEvent::ScratchCodeSpent, alice, "-");
        done.Committed();
        EXPECT_EQ(1U, Queued().size());
    });
}

TEST_F(Notices, AChangedAddressIsToldToTheFormerOne)
{
    AsWorker([] {
        const Account before = AddAlice();
        ASSERT_TRUE(ChangeAccount(before.uid, {std::nullopt, "eve@away.example"}));
        Audit(AuditEvent::AddressChanged, before);
        const std::vector<QueuedMail> mails = Queued();
        ASSERT_EQ(1U, mails.size());
        EXPECT_EQ("alice@home.example", mails[0].to);
        EXPECT_FALSE(Holds(mails[0].subject + mails[0].html, "eve"));
    });
}

TEST_F(Notices, AnAddressThatWasNoneOrStaysIsNotTold)
{
    AsWorker([] {
        const Account before = AddAlice("");
        ASSERT_TRUE(ChangeAccount(before.uid, {std::nullopt, "alice@home.example"}));
        Audit(AuditEvent::AddressChanged, before);
        EXPECT_TRUE(Queued().empty()) << "there was none";
        Audit(AuditEvent::AddressChanged, *FindAccount("alice"));
        EXPECT_TRUE(Queued().empty()) << "the same one was stored again";
    });
}

TEST_F(Notices, NeedAUsableAddressAnAccountAndAMailServer)
{
    AsWorker([] {
        Account alice = AddAlice("");
        Audit(AuditEvent::Reset, alice);
        EXPECT_TRUE(Queued().empty());
        for (const char* mail : {"nobody", "a@b,c@d", "a b@c"}) {
            ASSERT_TRUE(ChangeAccount(alice.uid, {std::nullopt, mail}));
            Audit(AuditEvent::Reset, alice);
            EXPECT_TRUE(Queued().empty()) << mail;
        }
        Account gone = alice;
        gone.uid = 5000;
        Audit(AuditEvent::Reset, gone);
        EXPECT_TRUE(Queued().empty());
    });
    WriteSettings("");
    AsWorker([] {
        Audit(AuditEvent::Reset, *FindAccount("alice"));
        EXPECT_TRUE(Queued().empty());
    });
}

TEST_F(Notices, WhatKeepsThemFromBeingQueuedFailsNobody)
{
    AsWorker([] { AddAlice(); });
    const auto reset = [this](const char* why) {
        AsWorker([why] {
            StartRequest();
            Audit(AuditEvent::Reset, *FindAccount("alice"));
            EXPECT_NO_THROW(QueueNotices()) << why;
            EXPECT_TRUE(CurrentRequest().notices.empty()) << why;
            EXPECT_EQ(Fault::None, CurrentRequest().fault) << why;
        });
    };
    ASSERT_EQ(0, rename(kMachineKeyFile, "/etc/tavr/otp.key.away"));
    reset("no machine key");
    ASSERT_EQ(0, rename("/etc/tavr/otp.key.away", kMachineKeyFile));
    ASSERT_EQ(0, mkdir(kMailDatabase, 0700));
    reset("a folder in the database's place");
    ASSERT_EQ(0, rmdir(kMailDatabase));
    WriteFile(kMailDatabase, "no database, but long enough to be taken for one if nobody looked");
    ASSERT_EQ(0, chown(kMailDatabase, kServiceId, kServiceId));
    reset("no database");
    ASSERT_EQ(0, unlink(kMailDatabase));
    AsWorker([] {
        for (int i = 0; i < 200; ++i) {
            QueueMail("alice@home.example", "S", "body");
        }
    });
    reset("a full queue");
    AsWorker([] { EXPECT_EQ(200U, ListMails().size()); });
}

} // namespace
} // namespace tavr::test
