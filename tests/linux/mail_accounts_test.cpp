#include "linux/mail_accounts.h"

#include "linux/names.h"
#include "platform/db.h"
#include "tests/support/fresh_server.h"
#include "tests/support/mails.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>

using namespace tavr;
using namespace tavr::test;

namespace
{

class MailAccounts : public FreshServer
{
};

std::string FileOf(const Account& account)
{
    return PreferencePath(account.name) + "/emailaccount.db";
}

void Change(const Account& account, const std::string& sql)
{
    RunSql(FileOf(account), sql);
}

// Alias and whether it is the default, of all.
std::string Listed(const Account& account)
{
    std::string text;
    for (const MailAccount& one : MailAccountsOf(account)) {
        text += one.alias + (one.isDefault ? "* " : " ");
    }
    return text;
}

// What the library asks the file.
int64_t DefaultRows(const Account& account)
{
    TAVRDBResult* result = nullptr;
    const std::string sql = "SELECT * FROM emailaccountinfo WHERE is_default='true' and uid='" +
                            std::to_string(account.uid) + "';";
    TAVRDB* db = TAVRDBConnect(nullptr, nullptr, nullptr, FileOf(account).c_str());
    if (db == nullptr || TAVRDBExecute(db, sql.c_str(), &result) < 0) {
        return -1;
    }
    const int64_t rows = TAVRDBNumRows(result);
    TAVRDBFreeResult(result);
    return rows;
}

TEST_F(MailAccounts, AreReadBackAsTheyWereAdded)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        MailAccount added = OfficeAccount("büro", "pass \"wörd\"");
        added.server.security = MailSecurity::Tls;
        added.server.port = 465;
        EXPECT_EQ(AddedMailAccount::AddedAsDefault, AddMailAccount(alice, added));

        const auto opened = OpenMailAccount(alice, "smtp", "büro");
        ASSERT_TRUE(opened);
        EXPECT_TRUE(opened->isDefault);
        EXPECT_EQ("mail.office.example", opened->server.host);
        EXPECT_EQ(465, opened->server.port);
        EXPECT_EQ(MailSecurity::Tls, opened->server.security);
        EXPECT_EQ("alice@office.example", opened->server.user);
        EXPECT_EQ("pass \"wörd\"", opened->server.password);
        EXPECT_EQ("alice@office.example", opened->server.from);
        EXPECT_FALSE(opened->server.privateAddresses);
        EXPECT_EQ("", MailAccountsOf(alice).at(0).server.password);
        EXPECT_FALSE(OpenMailAccount(alice, "smtp", "home"));
        EXPECT_FALSE(OpenMailAccount(alice, "other", "büro"));
    });
}

TEST_F(MailAccounts, LieInAFileOfTheServicesOwnWithoutThePassword)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        AddMailAccount(alice, OfficeAccount("home"));
        struct stat entry {
        };
        ASSERT_EQ(0, stat(FileOf(alice).c_str(), &entry));
        EXPECT_EQ(kServiceId, entry.st_uid);
        EXPECT_EQ(0600U, entry.st_mode & 0777U);
        for (const auto& file : std::filesystem::directory_iterator(PreferencePath(alice.name))) {
            EXPECT_EQ(std::string::npos, ReadFile(file.path()).find("relay-pw")) << file.path();
        }
    });
}

TEST_F(MailAccounts, HaveOneDefaultAtMost)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        EXPECT_EQ("", Listed(alice));
        EXPECT_EQ(AddedMailAccount::AddedAsDefault, AddMailAccount(alice, OfficeAccount("one")));
        EXPECT_EQ(AddedMailAccount::Added, AddMailAccount(alice, OfficeAccount("two")));
        MailAccount third = OfficeAccount("three");
        third.isDefault = true;
        EXPECT_EQ(AddedMailAccount::AddedAsDefault, AddMailAccount(alice, third));
        EXPECT_EQ("one three* two ", Listed(alice));
        EXPECT_EQ(1, DefaultRows(alice));

        EXPECT_EQ(AddedMailAccount::No, AddMailAccount(alice, OfficeAccount("two", "another")));
        EXPECT_EQ("relay-pw", OpenMailAccount(alice, "smtp", "two")->server.password);

        EXPECT_TRUE(SetDefaultMailAccount(alice, "one"));
        EXPECT_FALSE(SetDefaultMailAccount(alice, "four"));
        EXPECT_EQ("one* three two ", Listed(alice));
        EXPECT_EQ(1, DefaultRows(alice));

        EXPECT_TRUE(RemoveMailAccount(alice, "one"));
        EXPECT_FALSE(RemoveMailAccount(alice, "one"));
        EXPECT_EQ("three two ", Listed(alice));
        EXPECT_EQ(0, DefaultRows(alice));
        EXPECT_EQ(AddedMailAccount::AddedAsDefault, AddMailAccount(alice, OfficeAccount("four")));
    });
}

TEST_F(MailAccounts, BelongToOnePersonAlone)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const Account bob = MakeAccount("bob");
        AddMailAccount(alice, OfficeAccount("home"));
        EXPECT_EQ("", Listed(bob));
        EXPECT_FALSE(SetDefaultMailAccount(bob, "home"));
        EXPECT_FALSE(RemoveMailAccount(bob, "home"));
        EXPECT_FALSE(std::filesystem::exists(FileOf(bob)));

        // The file of one put into the folder of the other, and its row made the other's.
        AddMailAccount(bob, OfficeAccount("own"));
        std::filesystem::copy_file(FileOf(alice), FileOf(bob),
                                   std::filesystem::copy_options::overwrite_existing);
        EXPECT_EQ("", Listed(bob));
        Change(bob, "UPDATE emailaccountinfo SET uid = '" + std::to_string(bob.uid) + "'");
        EXPECT_EQ("home* ", Listed(bob));
        EXPECT_THROW(OpenMailAccount(bob, "smtp", "home"), VaultError);
    });
}

TEST_F(MailAccounts, GiveThePasswordToNoOtherServerAndForNoOtherName)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        AddMailAccount(alice, OfficeAccount("home"));
        for (const char* change :
             {"server = 'evil.example'", "port = 25", "security = 'none'", "user_name = 'eve'",
              "alias = 'other'", "sealed_password = 'AAAA'", "sealed_password = 'no base-64'",
              "sealed_password = substr(sealed_password, 5)"}) {
            Change(alice, std::string("CREATE TABLE kept AS SELECT * FROM emailaccountinfo;"
                                      "UPDATE emailaccountinfo SET ") +
                              change);
            const std::string alias = MailAccountsOf(alice).at(0).alias;
            EXPECT_THROW(OpenMailAccount(alice, "smtp", alias), VaultError) << change;
            Change(alice, "DELETE FROM emailaccountinfo; INSERT INTO emailaccountinfo SELECT * FROM kept;"
                          "DROP TABLE kept");
        }
        EXPECT_EQ("relay-pw", OpenMailAccount(alice, "smtp", "home")->server.password);
    });
}

TEST_F(MailAccounts, AreNotOpenedWithoutTheMachineKey)
{
    std::filesystem::remove("/etc/tavr/otp.key");
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        EXPECT_THROW(AddMailAccount(alice, OfficeAccount("home")), VaultError);
        EXPECT_EQ("", Listed(alice));
        MailAccount open = OfficeAccount("open", "");
        open.server.user.clear();
        EXPECT_EQ(AddedMailAccount::AddedAsDefault, AddMailAccount(alice, open));
        EXPECT_EQ("", OpenMailAccount(alice, "smtp", "open")->server.password);
    });
}

TEST_F(MailAccounts, OfARemovedAccountAreGoneForTheNextOfTheName)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        AddMailAccount(alice, OfficeAccount("home"));
        EXPECT_TRUE(RemoveAccount(alice.uid).cleaned);
        const Account next = MakeAccount("alice");
        EXPECT_EQ("", Listed(next));
        EXPECT_FALSE(OpenMailAccount(next, "smtp", "home"));
    });
}

TEST_F(MailAccounts, ThatCannotBeReadAreAFaultAndNeverNone)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        AddMailAccount(alice, OfficeAccount("home"));
        WriteFile(FileOf(alice), "rubbish, and enough of it to be no database at all");
        EXPECT_THROW(MailAccountsOf(alice), DatabaseError);
        EXPECT_THROW(OpenMailAccount(alice, "smtp", "home"), DatabaseError);
        EXPECT_THROW(SetDefaultMailAccount(alice, "home"), DatabaseError);
        EXPECT_THROW(AddMailAccount(alice, OfficeAccount("two")), DatabaseError);
        std::filesystem::remove(FileOf(alice));
        std::filesystem::create_directory(FileOf(alice));
        EXPECT_THROW(MailAccountsOf(alice), DatabaseError);
        EXPECT_THROW(RemoveMailAccount(alice, "home"), DatabaseError);
    });
}

TEST_F(MailAccounts, AddedSideBySideHaveOneDefault)
{
    AsWorker([] { MakeAccount("alice"); });
    AsWorkers(6,
              [](int i) { AddMailAccount(*FindAccount("alice"), OfficeAccount("a" + std::to_string(i))); });
    AsWorker([] {
        const Account alice = *FindAccount("alice");
        EXPECT_EQ(6U, MailAccountsOf(alice).size());
        EXPECT_EQ(1, DefaultRows(alice));
    });
}

TEST(MailAccountRows, AreTakenOnlyWhenNothingIsWrongWithThem)
{
    const MailAccountRow good = {{"alias", "home"},       {"email_type", "smtp"},   {"is_default", "true"},
                                 {"server", "m.example"}, {"port", "587"},          {"security", "starttls"},
                                 {"user_name", "alice"},  {"sender", "a@b.example"}};
    ASSERT_TRUE(ParseMailAccount(good));
    EXPECT_FALSE(ParseMailAccount({}));
    const std::pair<const char*, std::string> changes[] = {
        {"alias", ""},
        {"alias", std::string(65, 'x')},
        {"alias", "a\nb"},
        {"email_type", ""},
        {"email_type", "SMTP"},
        {"email_type", std::string(33, 'x')},
        {"server", ""},
        {"server", "a b"},
        {"server", "m.example/x"},
        {"server", "eve@m.example"},
        {"server", "m.example:25"},
        {"server", "m.example\r\nX"},
        {"port", ""},
        {"port", "26"},
        {"port", "587x"},
        {"port", " 587"},
        {"port", "-587"},
        {"port", "99999999999999999999"},
        {"security", ""},
        {"security", "ssl"},
        {"security", "NONE"},
        {"user_name", "a\nb"},
        {"user_name", std::string(321, 'x')},
        {"sender", ""},
        {"sender", "a@b.example, c@d.example"},
        {"sender", "a@b.example>\r\nRCPT TO:<c@d.example"},
        {"sender", "jürgen@b.example"},
    };
    for (const auto& [column, text] : changes) {
        MailAccountRow row = good;
        row[column] = text;
        EXPECT_FALSE(ParseMailAccount(row)) << column << " = " << text;
    }
    MailAccountRow row = good;
    row["is_default"] = "TRUE";
    EXPECT_FALSE(ParseMailAccount(row)->isDefault);
}

TEST_F(MailAccounts, MayNameServersOnPrivateAddressesWhereTheSettingsAllowIt)
{
    std::filesystem::remove("/etc/tavrinfo.conf");
    WriteFile("/etc/tavrinfo.conf", "mail_private_servers=\"yes\"\nmail_ca_file=\"/etc/tavr/ca.pem\"\n");
    std::filesystem::permissions("/etc/tavrinfo.conf", std::filesystem::perms(0644));
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        AddMailAccount(alice, OfficeAccount("home"));
        const MailAccount home = MailAccountsOf(alice).at(0);
        EXPECT_TRUE(home.server.privateAddresses);
        EXPECT_EQ("/etc/tavr/ca.pem", home.server.caFile);
    });
    std::filesystem::remove("/etc/tavrinfo.conf");
}

} // namespace
