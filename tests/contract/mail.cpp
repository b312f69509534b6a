// platform/mail.h.
#include "platform/mail.h"

#include "tests/contract/support.h"

#include <cstring>

namespace contract
{
namespace
{

constexpr char kTag[] = "OTP_emergency_mail";
constexpr char kLastTag[] = "OTP_emergency_mail_warning";

class MailTexts : public Case
{
protected:
    void SetUp() override
    {
        Case::SetUp();
        table_ = KLIBCSzHashAlloc(1024);
        ASSERT_NE(nullptr, table_);
        ASSERT_EQ(0, KLIBCSzHashSetValue(&table_, "%USER_NAME%", "contract-former"));
        ASSERT_EQ(0, KLIBCSzHashSetValue(&table_, "%EMG_CODE%", "13572468"));
        ASSERT_EQ(0, KLIBCSzHashSetValue(&table_, "%USER_NAME%", "contract-mia"));
    }
    void TearDown() override
    {
        KLIBCSzHashFree(table_);
        Case::TearDown();
    }

    // The body; null with a message when it could not be had.
    Text Read(const char* language, const char* tag, char* subject, int size = 256)
    {
        char* content = nullptr;
        EXPECT_EQ(0, TAVRMailReadByTagAndConvertRealEx(language, tag, subject, size, &content, &table_, 0))
            << language << ' ' << tag;
        EXPECT_NE(nullptr, content);
        return Text(content);
    }

    KLIBCSzHash* table_ = nullptr;
};
using MailService = MailTexts;

bool Holds(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST_F(MailTexts, HaveTheValuesInPlaceOfTheKeys)
{
    std::string former;
    for (const char* tag : {kTag, kLastTag}) {
        Out subject;
        const Text body = Read("enu", tag, subject.Get());
        ASSERT_TRUE(body) << tag;
        EXPECT_TRUE(Holds(body.get(), "13572468")) << tag;
        EXPECT_TRUE(Holds(body.get(), "contract-mia")) << tag;
        EXPECT_FALSE(Holds(body.get(), "contract-former")) << "the last value of a key counts";
        EXPECT_FALSE(Holds(body.get(), "%EMG_CODE%")) << tag;
        EXPECT_FALSE(Holds(body.get(), "%USER_NAME%")) << tag;
        EXPECT_FALSE(subject.Text().empty()) << tag;
        EXPECT_FALSE(Holds(subject.Text(), "13572468")) << "a subject is shown on locked screens";
        EXPECT_NE(former, body.get()) << "the warning is another text";
        former = body.get();
    }
}

TEST_F(MailTexts, DoNotReplaceWithinValues)
{
    ASSERT_EQ(0, KLIBCSzHashSetValue(&table_, "%USER_NAME%", "%EMG_CODE%"));
    ASSERT_EQ(0, KLIBCSzHashSetValue(&table_, "%EMG_CODE%", "97531864"));
    Out subject;
    const Text body = Read("enu", kTag, subject.Get());
    ASSERT_TRUE(body);
    EXPECT_TRUE(Holds(body.get(), "%EMG_CODE%")) << "a name that looks like a key stays a name";
}

TEST_F(MailTexts, AreCutToFit)
{
    Out whole;
    ASSERT_TRUE(Read("enu", kTag, whole.Get()));
    for (int size = 1; size <= 8; ++size) {
        Out subject;
        ASSERT_TRUE(Read("enu", kTag, subject.Get(), size));
        EXPECT_LT(subject.Text().size(), static_cast<size_t>(size));
        EXPECT_TRUE(whole.Text().starts_with(subject.Text()));
        EXPECT_TRUE(subject.Untouched(static_cast<size_t>(size))) << size;
    }
}

TEST_F(MailTexts, ThatAreNotThereAreFailures)
{
    char kept = 0;
    char* content = &kept;
    Out subject;
    const auto read = [&](const char* language, const char* tag, char* out, int size, char** body,
                          KLIBCSzHash** table) {
        FailSomewhere();
        const Record before = LastError();
        const int status = TAVRMailReadByTagAndConvertRealEx(language, tag, out, size, body, table, 0);
        EXPECT_NE(before, LastError());
        return status;
    };
    EXPECT_NE(0, read("enu", "contract_no_such_tag", subject.Get(), 256, &content, &table_));
    EXPECT_NE(0, read("enu", "../enu/OTP_emergency_mail", subject.Get(), 256, &content, &table_));
    EXPECT_NE(0, read(nullptr, kTag, subject.Get(), 256, &content, &table_));
    EXPECT_NE(0, read("enu", nullptr, subject.Get(), 256, &content, &table_));
    EXPECT_NE(0, read("enu", kTag, nullptr, 256, &content, &table_));
    EXPECT_NE(0, read("enu", kTag, subject.Get(), 0, &content, &table_));
    EXPECT_NE(0, read("enu", kTag, subject.Get(), 256, nullptr, &table_));
    EXPECT_NE(0, read("enu", kTag, subject.Get(), 256, &content, nullptr));
    EXPECT_EQ(&kept, content);
    EXPECT_TRUE(subject.Untouched());
}

TEST_F(MailTexts, AreTheCallersToFree)
{
    EXPECT_TRUE(GivesEverythingBack([this] {
        Out subject;
        Read("enu", kTag, subject.Get());
    }));
}

TEST_F(MailService, IsSetUpOrNot)
{
    SetMailServer("");
    TAVRMail mail{};
    EXPECT_EQ(0, TAVRMailGet(&mail)) << "none is no failure";
    EXPECT_STREQ("", mail.server);
    TAVRMailFree(&mail);

    SetMailServer("mx.office.example");
    mail = {};
    EXPECT_EQ(0, TAVRMailGet(&mail));
    EXPECT_STREQ("mx.office.example", mail.server);
    TAVRMailFree(&mail);
    EXPECT_TRUE(GivesEverythingBack([] {
        TAVRMail filled{};
        TAVRMailGet(&filled);
        TAVRMailFree(&filled);
    }));

    mail = {};
    TAVRMailFree(&mail);
    EXPECT_TRUE(Fails([] { return TAVRMailGet(nullptr); }));
}

TEST_F(MailService, TakesAMailAndGoesOn)
{
    SetMailServer("mx.office.example");
    const size_t before = WaitingMails().size();
    EXPECT_EQ(0, TAVRMailSendMessageWithoutBlock(kTag, &table_, "mia@home.example", 0));
    const std::vector<Mail> mails = WaitingMails();
    ASSERT_EQ(before + 1, mails.size());
    EXPECT_EQ("mia@home.example", mails.back().to);
    EXPECT_TRUE(Holds(mails.back().body, "13572468"));
    EXPECT_TRUE(Holds(mails.back().body, "contract-mia"));
    EXPECT_FALSE(mails.back().subject.empty());
}

TEST_F(MailService, TakesNothingThatCannotBeSent)
{
    SetMailServer("mx.office.example");
    const size_t before = WaitingMails().size();
    const auto send = [&](const char* tag, KLIBCSzHash** table, const char* address) {
        return Fails([=] { return TAVRMailSendMessageWithoutBlock(tag, table, address, 0); });
    };
    for (const char* address : {"", "nobody", "a@b.example,c@d.example", "a@b.example\r\nBcc: c@d.example"}) {
        EXPECT_TRUE(send(kTag, &table_, address)) << address;
    }
    EXPECT_TRUE(send("contract_no_such_tag", &table_, "mia@home.example"));
    EXPECT_TRUE(send(nullptr, &table_, "mia@home.example"));
    EXPECT_TRUE(send(kTag, nullptr, "mia@home.example"));
    EXPECT_TRUE(send(kTag, &table_, nullptr));
    EXPECT_EQ(before, WaitingMails().size());
}

} // namespace
} // namespace contract
