#include "webapi/message.h"

#include "linux/mail_settings.h"

#include "tests/support/mails.h"
#include "tests/support/smtp_sink.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace tavr::webapi;
using tavr::test::EasyMail;

namespace
{

constexpr char kFrom[] = "storage@office.example";

std::vector<std::string> HeaderNames(const Json::Value& read)
{
    std::vector<std::string> names;
    for (const Json::Value& header : read["headers"]) {
        names.push_back(header[0].asString());
    }
    return names;
}

std::string Header(const Json::Value& read, const std::string& name)
{
    for (const Json::Value& header : read["headers"]) {
        if (header[0].asString() == name) {
            return header[1].asString();
        }
    }
    return "(none)";
}

const std::vector<std::string> kNames = {"Date",    "From",           "To",           "Message-ID",
                                         "Subject", "Auto-Submitted", "MIME-Version", "Content-Type"};

TEST(BuildMessage, GivesTheWholeMessage)
{
    EXPECT_EQ("Date: Sat, 21 Nov 2026 17:59:59 +0000\r\n"
              "From: <storage@office.example>\r\n"
              "To: <alice@home.example>\r\n"
              "Message-ID: <1@nas.example>\r\n"
              "Subject: Your emergency code\r\n"
              "Auto-Submitted: auto-generated\r\n"
              "MIME-Version: 1.0\r\n"
              "Content-Type: multipart/alternative;\r\n"
              " boundary=\"=_tavr_alternative\"\r\n"
              "\r\n"
              "--=_tavr_alternative\r\n"
              "Content-Type: text/plain; charset=utf-8\r\n"
              "Content-Transfer-Encoding: quoted-printable\r\n"
              "\r\n"
              "Hello alice,\r\n"
              "\r\n"
              "12345678\r\n"
              "--=_tavr_alternative\r\n"
              "Content-Type: text/html; charset=utf-8\r\n"
              "Content-Transfer-Encoding: quoted-printable\r\n"
              "\r\n"
              "Hello alice,<br><br>12345678\r\n"
              "--=_tavr_alternative--\r\n",
              BuildMessage(kFrom, EasyMail()));
}

TEST(BuildMessage, CarriesAnySubjectAndTextThroughAnotherParser)
{
    const std::string cases[] = {
        "",
        "plain",
        "Grüße aus Köln ✓ 漢字 😀",
        "ends with blanks   ",
        " begins with one",
        "=?UTF-8?Q?no_word?=",
        "=C3=BC",
        std::string(64, 'x'),
        std::string(65, 'x'),
        std::string(900, 'x'),
        "ä" + std::string(300, 'b') + "ö" + std::string(90, ' ') + "ü",
        ".",
        "From the beginning",
        "--=_tavr_alternative--",
    };
    for (const std::string& text : cases) {
        Mail mail = EasyMail();
        mail.subject = text;
        mail.html = text + "<br>" + text;
        ASSERT_EQ(nullptr, MailProblem(kFrom, mail));
        const Json::Value read = ReadMail(BuildMessage(kFrom, mail));
        EXPECT_EQ(kNames, HeaderNames(read)) << text;
        EXPECT_EQ(text, Header(read, "Subject"));
        EXPECT_EQ(mail.html, read["html"].asString());
        EXPECT_EQ(0U, read["defects"].size()) << text << ": " << read["defects"].toStyledString();
    }
}

TEST(BuildMessage, KeepsItsLinesShortAndInAscii)
{
    Mail mail = EasyMail();
    mail.subject.clear();
    for (int i = 0; i < 240; ++i) {
        mail.subject += "ü漢";
    }
    mail.subject.resize(995); // 199 times both
    mail.html =
        std::string(5'000, ' ') + std::string(5'000, '=') + mail.subject + "\r\n\n\r" + std::string(77, '.');
    ASSERT_EQ(nullptr, MailProblem(kFrom, mail));
    std::istringstream message(BuildMessage(kFrom, mail));
    for (std::string line; std::getline(message, line);) {
        ASSERT_TRUE(line.ends_with('\r'));
        EXPECT_LE(line.size() - 1, 78U) << line;
        EXPECT_EQ(line.size() - 1,
                  line.find_first_not_of(" !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                         "[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~"))
            << line;
    }
}

TEST(BuildMessage, LetsNoSubjectBecomeAHeader)
{
    for (const char* subject : {"a\r\nBcc: eve@evil.example", "a\nX: y", "a\r\n\r\nbody", "a\r\n b", "\r\n",
                                "a\rb", "ü\r\nBcc: eve@evil.example"}) {
        Mail mail = EasyMail();
        mail.subject = subject;
        const Json::Value read = ReadMail(BuildMessage(kFrom, mail));
        EXPECT_EQ(kNames, HeaderNames(read)) << subject;
        EXPECT_EQ("alice@home.example", Header(read, "To"));
        EXPECT_EQ("Hello alice,\n\n12345678", read["text"].asString());
    }
}

TEST(BuildMessage, KnowsNoDateOutsideOfItsForm)
{
    Mail mail = EasyMail();
    for (const auto& [date, text] : {std::pair(int64_t{-5}, "Thu, 01 Jan 1970 00:00:00 +0000"),
                                     std::pair(INT64_MAX, "Fri, 31 Dec 9999 23:59:59 +0000")}) {
        mail.date = date;
        EXPECT_EQ(0U, BuildMessage(kFrom, mail).find(std::string("Date: ") + text + "\r\n")) << date;
    }
}

TEST(MailProblem, RefusesWhatIsNotExactlyOneAddress)
{
    const char* bad[] = {
        "",
        "alice",
        "@home.example",
        "alice@",
        "alice@home.example,bob@home.example",
        "alice@home.example bob@home.example",
        "Alice <alice@home.example>",
        "<alice@home.example>",
        "alice@home.example>",
        "alice@home.example\r\nBcc: eve@evil.example",
        "alice@home.example\n",
        "alice@home.example\r\nDATA",
        "al ice@home.example",
        "alice@home@example",
        "\"alice\"@home.example",
        "alice@[127.0.0.1]",
        "alice@home.example SIZE=1",
        "alice@home.example\tx",
        "alice;bob@home.example",
        "alice(x)@home.example",
        ".alice@home.example",
        "alice@home..example",
        "alice@home.example\x7f",
        "alice@home.example\xff",
    };
    for (const char* address : bad) {
        Mail mail = EasyMail();
        EXPECT_STREQ("not an address", MailProblem(address, mail)) << address;
        mail.to = address;
        EXPECT_STREQ("not an address", MailProblem(kFrom, mail)) << address;
    }
    Mail mail = EasyMail();
    mail.to = std::string("alice@home.example\0x", 20);
    EXPECT_NE(nullptr, MailProblem(kFrom, mail));
    mail.to = std::string(250, 'a') + "@home.example";
    EXPECT_NE(nullptr, MailProblem(kFrom, mail));
}

TEST(MailProblem, TakesNoOtherLettersThanThoseOfAscii)
{
    Mail mail = EasyMail();
    mail.to = "jürgen@home.example";
    EXPECT_STREQ("not an address", MailProblem(kFrom, mail));
    mail.to = "alice@höhle.example";
    EXPECT_STREQ("not an address", MailProblem(kFrom, mail));
    mail.to = "o'neil+nas%x!y@xn--hhle-5qa.example";
    EXPECT_EQ(nullptr, MailProblem(kFrom, mail));
}

TEST(MailProblem, RefusesWhatIsTooLargeOrNoText)
{
    Mail mail = EasyMail();
    mail.subject.assign(1001, 'x');
    EXPECT_STREQ("too large", MailProblem(kFrom, mail));
    mail = EasyMail();
    mail.html.assign(131'073, 'x');
    EXPECT_STREQ("too large", MailProblem(kFrom, mail));
    mail = EasyMail();
    mail.html = "\xff";
    EXPECT_STREQ("not UTF-8", MailProblem(kFrom, mail));
    for (const char* id : {"", "<>", "1@nas.example", "<1>", "<@nas>", "<1@>", "<1@a@b>",
                           "<1@nas>\r\nBcc: x@y.example", "<1 2@nas>", "<1@nas.example", "<<1@nas>"}) {
        mail = EasyMail();
        mail.messageId = id;
        EXPECT_STREQ("no message identifier", MailProblem(kFrom, mail)) << id;
    }
}

TEST(MessageIds, AreNeverTheSameAndAlwaysOfTheirForm)
{
    Mail mail = EasyMail();
    mail.messageId = tavr::NewMessageId();
    EXPECT_NE(tavr::NewMessageId(), mail.messageId);
    EXPECT_EQ(nullptr, MailProblem(kFrom, mail)) << mail.messageId;
}

TEST(TextOfHtml, SaysWhatAPersonWouldRead)
{
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"a<br>b<BR/>c<br />d", "a\nb\nc\nd"},
        {"<p>one</p><p>two</p>", "\none\n\ntwo"},
        {"<b>Code:</b>  <code>12345678</code>", "Code: 12345678"},
        {"a &lt;b&gt; &amp;amp; &quot;c&quot; &#39;d&#x27; &nbsp;e&#228;&#x6F22;",
         "a <b> &amp; \"c\" 'd'  eä漢"},
        {"&unknown; & &; &#0; &#x110000; &#xD800; &#10; &#99999999999;",
         "&unknown; & &; &#0; &#x110000; &#xD800; &#10; &#99999999999;"},
        {"<style>p { color: red }</style>x<script>1 < 2</script>y<!-- <b>no</b> -->z", "xyz"},
        {"<STYLE>a</style>b", "b"},
        {"<style>never ended", ""},
        {"1 < 2 and 3 > 2", "1 < 2 and 3 > 2"},
        {"cut <b", "cut"},
        {"<", "<"},
        {"a\r\n  b\tc \n<br> d", "a b c\nd"},
        {"<a href=\"https://nas.example/?a=1&amp;b=2\">here</a>", "here"},
    };
    for (const auto& [html, text] : cases) {
        EXPECT_EQ(text, TextOfHtml(html)) << html;
    }
}

} // namespace
