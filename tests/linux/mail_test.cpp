// Mails of the system up to the queue: templates, the notification service's settings, and the calls of
// platform/mail.h.
#include "platform/mail.h"

#include "linux/mail_queue.h"
#include "linux/mail_settings.h"
#include "linux/mail_templates.h"
#include "linux/request.h"
#include "linux/settings.h"

#include "tests/support/fresh_server.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace tavr::test
{
namespace
{

namespace fs = std::filesystem;

constexpr char kOwnDir[] = "/etc/tavr/mail/enu";
constexpr char kOwnFile[] = "/etc/tavr/mail/enu/OTP_emergency_mail";

class Mails : public FreshServer
{
protected:
    void SetUp() override
    {
        FreshServer::SetUp();
        WriteSettings("maillang=\"enu\"\n");
        fs::create_directories(kOwnDir);
    }

    static void WriteOpen(const std::string& path, const std::string& text)
    {
        WriteFile(path, text);
        ASSERT_EQ(0, chmod(path.c_str(), 0644));
    }

    static void WriteOwn(const std::string& text) { WriteOpen(kOwnFile, text); }
};

using Table = std::unique_ptr<KLIBCSzHash, decltype(&KLIBCSzHashFree)>;

// The table of an emergency mail, as the library fills it.
KLIBCSzHash* NewTable(const char* user, const char* code)
{
    KLIBCSzHash* hash = KLIBCSzHashAlloc(1024);
    EXPECT_EQ(0, KLIBCSzHashSetValue(&hash, "%USER_NAME%", user));
    EXPECT_EQ(0, KLIBCSzHashSetValue(&hash, "%EMG_CODE%", code));
    return hash;
}

struct ReadMail {
    int result = -1;
    std::string subject;
    std::string body;
};

ReadMail Read(const char* language, const char* tag, int size = 256)
{
    const Table table(NewTable("alice", "12345678"), KLIBCSzHashFree);
    KLIBCSzHash* hash = table.get();
    std::string subject(static_cast<size_t>(size), '#');
    char* content = nullptr;
    ReadMail mail;
    mail.result = TAVRMailReadByTagAndConvertRealEx(language, tag, subject.data(), size, &content, &hash, 0);
    if (mail.result == 0) {
        mail.subject = subject.c_str();
        mail.body = content;
    }
    std::free(content);
    return mail;
}

bool Holds(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// --- Templates as installed ---

TEST_F(Mails, TheInstalledTemplatesNameServerAccountAndCode)
{
    AsWorker([] {
        for (const char* language : {"enu", "ger"}) {
            for (const char* tag : {"OTP_emergency_mail", "OTP_emergency_mail_warning"}) {
                SCOPED_TRACE(std::string(language) + ' ' + tag);
                const ReadMail mail = Read(language, tag);
                ASSERT_EQ(0, mail.result);
                EXPECT_TRUE(Holds(mail.subject, OwnHostName()));
                EXPECT_TRUE(Holds(mail.body, "<b>12345678</b>"));
                EXPECT_TRUE(Holds(mail.body, "alice"));
                EXPECT_TRUE(Holds(mail.body, OwnHostName()));
                EXPECT_FALSE(Holds(mail.body, "%"));
                EXPECT_FALSE(Holds(mail.subject, "12345678"));
            }
        }
        EXPECT_TRUE(Holds(Read("ger", "OTP_emergency_mail").subject, "Notfallcode"));
        EXPECT_FALSE(Holds(Read("enu", "OTP_emergency_mail").body, "last emergency code"));
        EXPECT_TRUE(Holds(Read("enu", "OTP_emergency_mail_warning").body, "last emergency code"));
    });
}

TEST_F(Mails, AnUnknownLanguageIsEnglish)
{
    AsWorker([] {
        const std::string english = Read("enu", "OTP_emergency_mail").body;
        for (const char* language : {"fre", "", "../ger", "ger/", "de-DE", "enu\n"}) {
            EXPECT_EQ(english, Read(language, "OTP_emergency_mail").body) << language;
        }
    });
}

TEST_F(Mails, ATagThatIsNoneIsAFailure)
{
    AsWorker([] {
        for (const char* tag : {"OTP_other", "", ".", "..", "../enu/OTP_emergency_mail",
                                "OTP_emergency_mail/", "/etc/passwd"}) {
            EXPECT_EQ(-1, Read("enu", tag).result) << tag;
            EXPECT_EQ(0x0700, KLIBCErrGet()) << tag;
        }
        EXPECT_EQ(-1, Read("enu", std::string(300, 'x').c_str()).result);
    });
}

// --- The administrator's templates ---

TEST_F(Mails, TheAdministratorsTemplateCounts)
{
    WriteOwn("Subject: Code for %USER_NAME%\n\nfirst\n\nIt is %EMG_CODE%, %EMG_CODE%.\n\n\n");
    AsWorker([] {
        const ReadMail mail = Read("enu", "OTP_emergency_mail");
        EXPECT_EQ("Code for alice", mail.subject);
        EXPECT_EQ("first\n\nIt is 12345678, 12345678.", mail.body);
        EXPECT_TRUE(Holds(Read("ger", "OTP_emergency_mail").subject, "Notfallcode"))
            << "of one language alone";
    });
}

TEST_F(Mails, OnesOwnTemplateMayHaveNoPlaceholdersAndForeignLineEnds)
{
    WriteOwn("Subject: Hello\r\n\r\none\r\ntwo\r\n");
    AsWorker([] {
        const ReadMail mail = Read("enu", "OTP_emergency_mail");
        EXPECT_EQ("Hello", mail.subject);
        EXPECT_EQ("one\ntwo", mail.body);
    });
}

TEST_F(Mails, WhatIsNoTemplateIsPassedOver)
{
    const std::string head = "Subject: own\n\n";
    const struct {
        const char* what;
        std::string text;
    } rows[] = {
        {"empty", ""},
        {"no subject", "own\n\nbody\n"},
        {"an empty subject", "Subject: \n\nbody\n"},
        {"a subject of blanks", "Subject:   \n\nbody\n"},
        {"a subject of two lines", "Subject: own\nBcc: eve@example.org\n\nbody\n"},
        {"a subject too long", "Subject: " + std::string(600, 'x') + "\n\nbody\n"},
        {"no empty line", "Subject: own\nbody\n"},
        {"no body", head},
        {"a body of line feeds", head + "\n\n\n"},
        {"not UTF-8", head + "caf\xe9\n"},
        {"an overlong form", head + "\xc0\xaf\n"},
        {"a NUL", head + std::string("a\0b\n", 4)},
        {"a control character", head + "\x1b[31m\n"},
        {"too large", head + std::string(70'000, 'x')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        WriteOwn(row.text);
        AsWorker([] {
            const ReadMail mail = Read("enu", "OTP_emergency_mail");
            EXPECT_EQ(0, mail.result);
            EXPECT_TRUE(Holds(mail.subject, "Your emergency code"));
        });
    }
}

TEST_F(Mails, LinksAndFoldersAreNoTemplates)
{
    WriteOpen("/etc/tavr/elsewhere", "Subject: own\n\nbody\n");
    const auto isInstalled = [this] {
        AsWorker(
            [] { EXPECT_TRUE(Holds(Read("enu", "OTP_emergency_mail").subject, "Your emergency code")); });
    };
    ASSERT_EQ(0, symlink("/etc/tavr/elsewhere", kOwnFile));
    isInstalled();
    unlink(kOwnFile);
    fs::create_directory(kOwnFile);
    isInstalled();
    fs::remove(kOwnFile);
    ASSERT_EQ(0, mkfifo(kOwnFile, 0644));
    isInstalled();

    fs::remove_all(kOwnDir);
    fs::create_directory("/etc/tavr/other");
    WriteOpen("/etc/tavr/other/OTP_emergency_mail", "Subject: own\n\nbody\n");
    ASSERT_EQ(0, symlink("../other", kOwnDir));
    isInstalled();
}

// --- Filling ---

TEST_F(Mails, ValuesAreEscapedCleanedAndNotLookedAtAgain)
{
    const MailText text{"%A% %B%", "%A%|%B%|%A\n%"};
    const MailText filled =
        FillMailTemplate(text, {{"%A%", "<b>&\"'%B%</b>"}, {"%B%", "one\r\nBcc: two\xe2\x80\xa8\x7f\xff"}});
    EXPECT_EQ("<b>&\"'%B%</b> one  Bcc: two   ", filled.subject);
    EXPECT_EQ("&lt;b&gt;&amp;&quot;&#39;%B%&lt;/b&gt;|one  Bcc: two   |%A\n%", filled.body);
}

TEST_F(Mails, TheLongestKeyCountsAndAnEmptyOneIsNone)
{
    const MailText filled =
        FillMailTemplate({"abc ab a", "abcd"}, {{"ab", "2"}, {"abc", "3"}, {"", "never"}, {"a", "1"}});
    EXPECT_EQ("3 2 1", filled.subject);
    EXPECT_EQ("3d", filled.body);
}

TEST_F(Mails, ASubjectIsCutBetweenCharacters)
{
    WriteOwn("Subject: \xc3\xa4\xc3\xb6\xc3\xbc\n\nbody\n");
    AsWorker([] {
        EXPECT_EQ("\xc3\xa4\xc3\xb6\xc3\xbc", Read("enu", "OTP_emergency_mail", 7).subject);
        EXPECT_EQ("\xc3\xa4\xc3\xb6", Read("enu", "OTP_emergency_mail", 6).subject);
        EXPECT_EQ("\xc3\xa4\xc3\xb6", Read("enu", "OTP_emergency_mail", 5).subject);
        EXPECT_EQ("", Read("enu", "OTP_emergency_mail", 1).subject);
    });
}

TEST_F(Mails, LineFeedsAreSentAsBreaks)
{
    EXPECT_EQ("one<br><br>two", HtmlOf("one\n\ntwo"));
    EXPECT_EQ("", HtmlOf(""));
}

TEST_F(Mails, CallsWithoutArgumentsFail)
{
    const Table table(NewTable("alice", "1"), KLIBCSzHashFree);
    KLIBCSzHash* hash = table.get();
    KLIBCSzHash* none = nullptr;
    char subject[8] = "before";
    char* content = nullptr;
    const auto read = [&](const char* lang, const char* tag, char* out, int size, char** body,
                          KLIBCSzHash** values) {
        const int result = TAVRMailReadByTagAndConvertRealEx(lang, tag, out, size, body, values, 0);
        EXPECT_EQ(0x0D00, KLIBCErrGet());
        EXPECT_STREQ("before", subject);
        EXPECT_EQ(nullptr, content);
        return result;
    };
    EXPECT_EQ(-1, read(nullptr, "OTP_emergency_mail", subject, 8, &content, &hash));
    EXPECT_EQ(-1, read("enu", nullptr, subject, 8, &content, &hash));
    EXPECT_EQ(-1, read("enu", "OTP_emergency_mail", nullptr, 8, &content, &hash));
    EXPECT_EQ(-1, read("enu", "OTP_emergency_mail", subject, 0, &content, &hash));
    EXPECT_EQ(-1, read("enu", "OTP_emergency_mail", subject, 8, nullptr, &hash));
    EXPECT_EQ(-1, read("enu", "OTP_emergency_mail", subject, 8, &content, nullptr));
    EXPECT_EQ(-1, read("enu", "OTP_emergency_mail", subject, 8, &content, &none));
    EXPECT_EQ(-1, TAVRMailGet(nullptr));
    TAVRMailFree(nullptr);
    EXPECT_EQ(-1, TAVRMailSendMessageWithoutBlock(nullptr, &hash, "a@b.example", 0));
    EXPECT_EQ(-1, TAVRMailSendMessageWithoutBlock("OTP_emergency_mail", nullptr, "a@b.example", 0));
    EXPECT_EQ(-1, TAVRMailSendMessageWithoutBlock("OTP_emergency_mail", &hash, nullptr, 0));
}

// --- The notification service ---

constexpr char kService[] = "mail_server=\"mx.example\"\nmail_from=\"nas@example.org\"\n";

TEST_F(Mails, WithoutSettingsThereIsNoService)
{
    AsWorker([] {
        TAVRMail mail{};
        EXPECT_EQ(0, TAVRMailGet(&mail));
        EXPECT_STREQ("", mail.server);
        TAVRMailFree(&mail);
        EXPECT_FALSE(NotificationServer());
        EXPECT_FALSE(MayPersonalServersBePrivate());
    });
}

TEST_F(Mails, TheServiceIsWhatTheSettingsSay)
{
    WriteSettings(std::string(kService) +
                  "mail_port=\"2525\"\nmail_security=\"tls\"\nmail_user=\"nas\"\n"
                  "mail_ca_file=\"/etc/tavr/ca.pem\"\nmail_private_servers=\"yes\"\n");
    AsWorker([] {
        ASSERT_TRUE(WriteSecretSetting("mail_password", "a \"b\" c"));
        const auto server = NotificationServer();
        ASSERT_TRUE(server);
        EXPECT_EQ("mx.example", server->host);
        EXPECT_EQ(2525, server->port);
        EXPECT_EQ(MailSecurity::Tls, server->security);
        EXPECT_EQ("nas", server->user);
        EXPECT_EQ("a \"b\" c", server->password);
        EXPECT_EQ("nas@example.org", server->from);
        EXPECT_EQ("/etc/tavr/ca.pem", server->caFile);
        EXPECT_TRUE(server->privateAddresses);
        EXPECT_TRUE(MayPersonalServersBePrivate());
        TAVRMail mail{};
        EXPECT_EQ(0, TAVRMailGet(&mail));
        EXPECT_STREQ("mx.example", mail.server);
        TAVRMailFree(&mail);
        EXPECT_STREQ("", mail.server);
    });
}

TEST_F(Mails, WhatIsNotSaidIsUsualAndSafe)
{
    const struct {
        const char* lines;
        MailSecurity security;
        int port;
    } rows[] = {
        {"", MailSecurity::StartTls, 587},
        {"mail_security=\"starttls\"\n", MailSecurity::StartTls, 587},
        {"mail_security=\"tls\"\n", MailSecurity::Tls, 465},
        {"mail_security=\"none\"\n", MailSecurity::None, 25},
        {"mail_security=\"None\"\n", MailSecurity::StartTls, 587},
        {"mail_security=\"\"\n", MailSecurity::StartTls, 587},
        {"mail_port=\"0\"\n", MailSecurity::StartTls, 587},
        {"mail_port=\"65536\"\n", MailSecurity::StartTls, 587},
        {"mail_port=\"25 \"\n", MailSecurity::StartTls, 587},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lines);
        WriteSettings(std::string(kService) + row.lines);
        AsWorker([&row] {
            const auto server = NotificationServer();
            ASSERT_TRUE(server);
            EXPECT_EQ(row.security, server->security);
            EXPECT_EQ(row.port, server->port);
            EXPECT_EQ("", server->user);
            EXPECT_EQ("", server->password);
            EXPECT_EQ("", server->caFile);
        });
    }
}

TEST_F(Mails, AServiceWithoutUsableServerOrSenderIsNone)
{
    for (const char* lines : {"mail_server=\"\"\nmail_from=\"a@b.example\"\n", "mail_server=\"mx.example\"\n",
                              "mail_server=\"mx.example\"\nmail_from=\"nobody\"\n",
                              "mail_server=\"mx.example/x\"\nmail_from=\"a@b.example\"\n",
                              "mail_server=\"user@mx.example\"\nmail_from=\"a@b.example\"\n"}) {
        WriteSettings(lines);
        AsWorker([lines] {
            TAVRMail mail{};
            EXPECT_FALSE(NotificationServer()) << lines;
            EXPECT_EQ(0, TAVRMailGet(&mail));
            EXPECT_STREQ("", mail.server) << lines;
        });
    }
}

TEST_F(Mails, SecretsAreRootsAndTheServicesAlone)
{
    AsWorker([] {
        EXPECT_FALSE(SecretSetting("mail_password")) << "no file";
        EXPECT_TRUE(WriteSecretSetting("mail_password", "one"));
        EXPECT_TRUE(WriteSecretSetting("other", "two"));
        EXPECT_TRUE(WriteSecretSetting("mail_password", "three"));
        EXPECT_EQ("three", SecretSetting("mail_password")->text);
        EXPECT_EQ("two", SecretSetting("other")->text);
        EXPECT_FALSE(WriteSecretSetting("mail_password", "a\nb"));
        EXPECT_FALSE(WriteSecretSetting("Mail", "a"));
    });
    struct stat what {
    };
    ASSERT_EQ(0, stat("/etc/tavr/secrets", &what));
    EXPECT_EQ(0U, what.st_uid);
    EXPECT_EQ(kServiceId, what.st_gid);
    EXPECT_EQ(0440U, what.st_mode & 07777U);
    EXPECT_EQ("mail_password=\"three\"\nother=\"two\"\n", ReadFile("/etc/tavr/secrets"));

    const auto isRefused = [this](const char* why) {
        AsWorker([why] { EXPECT_FALSE(SecretSetting("mail_password")) << why; });
    };
    ASSERT_EQ(0, chmod("/etc/tavr/secrets", 0444));
    isRefused("everybody reads it");
    ASSERT_EQ(0, chmod("/etc/tavr/secrets", 0460));
    isRefused("its group writes it");
    ASSERT_EQ(0, chmod("/etc/tavr/secrets", 0440));
    ASSERT_EQ(0, chown("/etc/tavr/secrets", kServiceId, kServiceId));
    isRefused("it is not root's");
    ASSERT_EQ(0, rename("/etc/tavr/secrets", "/etc/tavr/secrets.real"));
    ASSERT_EQ(0, chown("/etc/tavr/secrets.real", 0, kServiceId));
    ASSERT_EQ(0, symlink("secrets.real", "/etc/tavr/secrets"));
    isRefused("it is a link");
}

// --- Addresses ---

TEST(MailAddress, IsOneAddress)
{
    for (const char* good : {"a@b", "alice@example.org", "alice+nas@mail.example.org", "o'neill@example.org",
                             "a!#$%&*/=?^_`{|}~-@b.example"}) {
        EXPECT_TRUE(IsMailAddress(good)) << good;
    }
    for (const char* bad : {"",
                            "@",
                            "a@",
                            "@b",
                            "alice",
                            "a@b@c",
                            "a b@c",
                            "a@b c",
                            "a@b,c@d",
                            "a@b;c@d",
                            "<a@b>",
                            "a@b>",
                            "\"a\"@b",
                            "a@b\r\nRCPT TO:<c@d>",
                            "a\n@b",
                            "a@b\n",
                            "a@[127.0.0.1]",
                            "a(x)@b",
                            "a:b@c",
                            "a\\b@c",
                            ".a@b",
                            "a.@b",
                            "a..b@c",
                            "a@.b",
                            "a@b.",
                            "a@b..c",
                            "a@-b",
                            "a@b-",
                            "a@b_c",
                            "\xff@b",
                            "a@\xff",
                            "a\xe2\x80\xae@b",
                            "a@b\x7f",
                            "j\xc3\xbcrgen@home.example",
                            "a@m\xc3\xbcller.example"}) {
        EXPECT_FALSE(IsMailAddress(bad)) << bad;
    }
    EXPECT_TRUE(IsMailAddress(std::string(64, 'a') + "@b"));
    EXPECT_FALSE(IsMailAddress(std::string(65, 'a') + "@b"));
    EXPECT_FALSE(IsMailAddress("a@" + std::string(253, 'b')));
    EXPECT_FALSE(IsMailAddress(std::string("a@b\0c", 5)));
}

TEST(MailAddress, AHostIsANameOrANumber)
{
    for (const char* good :
         {"localhost", "mx.example.org", "127.0.0.1", "::1", "2001:db8::25", "mx-1.example"}) {
        EXPECT_TRUE(IsHostName(good)) << good;
    }
    for (const char* bad :
         {"", "a b", "a/b", "a@b", "mx.example:25", "[::1]", "-a", "a-", ".a", "a\nb", "a#b"}) {
        EXPECT_FALSE(IsHostName(bad)) << bad;
    }
    EXPECT_TRUE(IsHostName(OwnHostName()));
}

// --- Queueing by the platform's call ---

TEST_F(Mails, TheCallQueuesInTheSystemsLanguage)
{
    WriteSettings("maillang=\"ger\"\n");
    AsWorker([] {
        const Table table(NewTable("al<ice", "12345678"), KLIBCSzHashFree);
        KLIBCSzHash* hash = table.get();
        ASSERT_EQ(0, TAVRMailSendMessageWithoutBlock("OTP_emergency_mail", &hash, "alice@example.org", 0));
        const std::vector<QueuedMail> mails = DueMails(10);
        ASSERT_EQ(1U, mails.size());
        EXPECT_EQ("alice@example.org", mails[0].to);
        EXPECT_TRUE(Holds(mails[0].subject, "Notfallcode"));
        EXPECT_TRUE(Holds(mails[0].html, "al&lt;ice"));
        EXPECT_TRUE(Holds(mails[0].html, "<br><br><b>12345678</b><br>"));
        EXPECT_FALSE(Holds(mails[0].html, "\n"));
    });
}

TEST_F(Mails, WhatCannotBeQueuedIsTold)
{
    AsWorker([] {
        const Table table(NewTable("alice", "1"), KLIBCSzHashFree);
        KLIBCSzHash* hash = table.get();
        for (const char* address : {"", "nobody", "a@b,c@d", "a@b\r\nBcc: c@d"}) {
            EXPECT_EQ(-1, TAVRMailSendMessageWithoutBlock("OTP_emergency_mail", &hash, address, 0))
                << address;
            EXPECT_EQ(0x0D00, KLIBCErrGet());
        }
        EXPECT_EQ(Fault::MailNotQueued, CurrentRequest().fault) << "for callers who do not look";
        EXPECT_EQ(-1, TAVRMailSendMessageWithoutBlock("OTP_other", &hash, "a@b.example", 0));
        EXPECT_EQ(0x0700, KLIBCErrGet());
        EXPECT_TRUE(ListMails().empty());
    });
    unlink("/etc/tavr/otp.key");
    AsWorker([] {
        const Table table(NewTable("alice", "1"), KLIBCSzHashFree);
        KLIBCSzHash* hash = table.get();
        EXPECT_EQ(-1, TAVRMailSendMessageWithoutBlock("OTP_emergency_mail", &hash, "a@b.example", 0));
        EXPECT_EQ(0x2800, KLIBCErrGet()) << "no machine key";
    });
}

} // namespace
} // namespace tavr::test
