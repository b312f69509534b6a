// The vault and the cipher over it: what a reference gives, to whom, and what the machine key is worth.
#include "linux/vault.h"

#include "linux/attempts.h"
#include "linux/cipher.h"
#include "linux/enrolment.h"
#include "linux/ids.h"
#include "linux/mail_accounts.h"
#include "linux/mail_queue.h"
#include "linux/names.h"
#include "linux/paths.h"

#include "platform/core.h"

#include "tests/support/fresh_server.h"
#include "tests/support/mails.h"

#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace tavr::test
{
namespace
{

class Vault : public FreshServer
{
};

struct Deciphered {
    int result = 0;
    std::string text;
};

Deciphered Decipher(const std::string& stored, int size = 1024)
{
    std::string plain(1024, 0);
    const int result = KLIBCCryptSzDecrypt(stored.c_str(), plain.data(), size);
    return {result, plain.c_str()};
}

// A waiting secret of the account, made by the tool's own parts.
SecretFileText MakeSecret(const Account& account)
{
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(account.uid, references, secret);
    return references;
}

void Execute(const std::string& sql)
{
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(SigninDatabase().Handle(), sql.c_str(), nullptr, nullptr, nullptr))
        << sqlite3_errmsg(SigninDatabase().Handle());
}

bool IsBase32(const std::string& text)
{
    return text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ234567") == std::string::npos;
}

TEST_F(Vault, GivesTheTextOfBothSpellingsOfALiveReference)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeSecret(alice);
        ASSERT_EQ(Fault::None, NameAccountToCipher(alice));
        const Deciphered secret = Decipher(references.secret);
        EXPECT_EQ(1, secret.result);
        EXPECT_EQ(32u, secret.text.size());
        EXPECT_TRUE(IsBase32(secret.text));
        EXPECT_EQ(secret.text, Decipher(references.secret + "========").text);
        for (const std::string& reference : references.codes) {
            const Deciphered code = Decipher(reference);
            EXPECT_EQ(1, code.result);
            EXPECT_EQ(8u, code.text.size());
            EXPECT_EQ(std::string::npos, code.text.find_first_not_of("0123456789"));
            EXPECT_EQ(code.text, Decipher(reference + "========").text);
        }
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
    });
}

TEST_F(Vault, KeepsUsedStepsAndCountersOfAnEarlierVersion)
{
    AsWorker([] {
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(kSigninDatabase, &db));
        const char* const sql = R"(
CREATE TABLE secret (reference TEXT PRIMARY KEY, account INTEGER NOT NULL, sealed BLOB NOT NULL, state TEXT NOT NULL,
    last_step INTEGER NOT NULL DEFAULT -1, session BLOB, made_boot TEXT NOT NULL, made INTEGER NOT NULL)
    STRICT, WITHOUT ROWID;
CREATE TABLE code (reference TEXT PRIMARY KEY, secret TEXT NOT NULL REFERENCES secret (reference) ON DELETE CASCADE,
    position INTEGER NOT NULL, sealed BLOB NOT NULL, spent INTEGER NOT NULL DEFAULT 0) STRICT, WITHOUT ROWID;
CREATE TABLE account_mark (account INTEGER PRIMARY KEY, switching_off INTEGER NOT NULL DEFAULT 0,
    last_step INTEGER NOT NULL DEFAULT -1) STRICT;
CREATE TABLE second_step (account INTEGER PRIMARY KEY, failures INTEGER NOT NULL, boot TEXT NOT NULL,
    at INTEGER NOT NULL, told_step INTEGER NOT NULL DEFAULT -1) STRICT;
CREATE INDEX code_of_secret ON code (secret, position);
CREATE TABLE audit (id INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL, event TEXT NOT NULL,
    outcome TEXT NOT NULL, address TEXT NOT NULL, uid INTEGER, detail TEXT NOT NULL, account TEXT NOT NULL) STRICT;
CREATE TABLE code_mail (id INTEGER PRIMARY KEY AUTOINCREMENT, account INTEGER NOT NULL, boot TEXT NOT NULL,
    at INTEGER NOT NULL) STRICT;
CREATE INDEX code_mail_of_account ON code_mail (account);
INSERT INTO code_mail VALUES (1, 1026, 'boot', 11), (2, 1027, 'boot', 12), (3, 1026, 'boot', 13);
INSERT INTO audit VALUES (70, 1, 'signin', 'granted', '192.0.2.1', 1026, 'code', 'alice');
INSERT INTO secret VALUES ('a', 1026, x'00', 'active', 7, NULL, '', 0), ('c', 1026, x'00', 'confirmed', 9, NULL, '', 0),
    ('w', 1026, x'00', 'waiting', -1, NULL, '', 0), ('b', 1027, x'00', 'active', 5, NULL, '', 0);
INSERT INTO account_mark VALUES (1026, 0, 8), (1028, 1, 3);
INSERT INTO second_step VALUES (1027, 4, 'boot', 11, 12), (1029, 50, 'boot', 13, -1);
PRAGMA user_version = 6;)";
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql, nullptr, nullptr, nullptr)) << sqlite3_errmsg(db);
        sqlite3_close(db);

        const auto steps = [](int64_t account) { // of the account, its active and its confirmed secret
            Statement ask = SigninDatabase().Prepare(
                "SELECT last_step, active_step, confirmed_step FROM account_mark WHERE account = ?1");
            EXPECT_TRUE(ask.Bind(1, account).Step());
            return std::vector<int64_t>{ask.Int(0), ask.Int(1), ask.Int(2)};
        };
        EXPECT_EQ((std::vector<int64_t>{8, 7, 9}), steps(1026));
        EXPECT_EQ((std::vector<int64_t>{-1, 5, -1}), steps(1027));
        EXPECT_EQ(3U, SecretsOf(1026).size());
        EXPECT_EQ(4, SecondStepOf(1027).failures);
        EXPECT_EQ(12, SecondStepOf(1027).toldStep);
        EXPECT_TRUE(SecondStepOf(1029).closed);
        bool isSwitchingOff = false;
        EXPECT_TRUE(SecretsOf(1028, &isSwitchingOff).empty());
        EXPECT_TRUE(isSwitchingOff);
        EXPECT_EQ(0, SecondStepOf(1026).failures);
        std::vector<int64_t> audited;
        ForEachAuditRow({}, [&](const AuditRow& row) { audited.push_back(row.id); });
        EXPECT_EQ(std::vector<int64_t>{70}, audited);
        Statement mailed = SigninDatabase().Prepare("SELECT group_concat(account || ' ' || boot || ' ' || "
                                                    "at) FROM code_mail ORDER BY account, number");
        ASSERT_TRUE(mailed.Step());
        EXPECT_EQ("1026 boot 11,1026 boot 13,1027 boot 12", mailed.Text(0));
    });
}

TEST_F(Vault, DeclinesEveryChangedByteOfAReference)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeSecret(alice);
        ASSERT_EQ(Fault::None, NameAccountToCipher(alice));
        int declined = 0;
        for (const std::string& right : {references.secret, PaddedReference(references.secret),
                                         references.codes[0], PaddedReference(references.codes[9])}) {
            for (size_t at = 0; at < right.size(); ++at) {
                for (int byte = 0; byte < 256; ++byte) {
                    std::string changed = right;
                    changed[at] = static_cast<char>(byte);
                    const bool same = changed == right;
                    // A NUL ends the text: 16 characters and a NUL are a good reference.
                    const bool bare = byte == 0 && at == kReferenceSize;
                    EXPECT_EQ(same || bare ? 1 : 0, Decipher(changed).result) << at << ' ' << byte;
                    declined += same || bare ? 0 : 1;
                }
            }
            for (size_t size = 0; size < right.size(); ++size) {
                EXPECT_EQ(size == kReferenceSize ? 1 : 0, Decipher(right.substr(0, size)).result) << size;
            }
            EXPECT_EQ(0, Decipher(right + "=").result);
            EXPECT_EQ(0, Decipher(' ' + right).result);
            EXPECT_EQ(0, Decipher(right + "\n").result);
        }
        EXPECT_EQ(2 * (16 * 255 + 24 * 255) - 2, declined);
        EXPECT_EQ(Fault::None, CurrentRequest().fault) << "declined is no fault";
    });
}

TEST_F(Vault, AnswersForTheNamedAccountOnly)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const Account bob = MakeAccount("bob");
        const SecretFileText ofAlice = MakeSecret(alice);
        const SecretFileText ofBob = MakeSecret(bob);
        EXPECT_EQ(0, Decipher(ofAlice.secret).result) << "nobody is named yet";
        ASSERT_EQ(Fault::None, NameAccountToCipher(bob));
        EXPECT_EQ(0, Decipher(ofAlice.secret).result);
        EXPECT_EQ(0, Decipher(ofAlice.codes[0]).result);
        EXPECT_EQ(1, Decipher(ofBob.secret).result);
        StartRequest();
        EXPECT_EQ(0, Decipher(ofBob.secret).result) << "the next request names its own";
    });
}

TEST_F(Vault, DeclinesWhatIsNoReferenceOrHasNoRoom)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeSecret(alice);
        ASSERT_EQ(Fault::None, NameAccountToCipher(alice));
        const std::string plain = Decipher(references.secret).text;
        EXPECT_EQ(0, Decipher(plain).result);
        EXPECT_EQ(0, Decipher(plain.substr(0, 16)).result);
        EXPECT_EQ(0, Decipher("").result);
        EXPECT_EQ(0, Decipher("12345678").result);
        EXPECT_EQ(0, Decipher("@' OR 1=1 --1234").result);
        EXPECT_EQ(0, Decipher(references.secret, 32).result) << "no room for the terminator";
        EXPECT_EQ("", Decipher(references.secret, 32).text);
        EXPECT_EQ(1, Decipher(references.secret, 33).result);
        EXPECT_EQ(0, Decipher(references.codes[0], 8).result);
        EXPECT_EQ(1, Decipher(references.codes[0], 9).result);
        EXPECT_EQ(0, Decipher(references.secret, 0).result);
        EXPECT_EQ(0, Decipher(references.secret, -1).result);
        char room[64];
        EXPECT_EQ(0, KLIBCCryptSzDecrypt(nullptr, room, sizeof room));
        EXPECT_EQ(0, KLIBCCryptSzDecrypt("x", nullptr, 64));
    });
}

TEST_F(Vault, DeclinesSpentCodesAndRetiredSecrets)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText old = MakeSecret(alice);
        const SecretFileText references = MakeSecret(alice);
        ASSERT_EQ(Fault::None, NameAccountToCipher(alice));
        EXPECT_EQ(0, Decipher(old.secret).result);
        EXPECT_EQ(0, Decipher(old.codes[0]).result);
        Execute("UPDATE code SET spent = 1 WHERE reference = '" + references.codes[3] + "'");
        EXPECT_EQ(0, Decipher(references.codes[3]).result);
        EXPECT_EQ(1, Decipher(references.codes[4]).result);
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
    });
}

TEST_F(Vault, WorksFromRaisedIdsAsTheEmergencyReaderCalls)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeSecret(alice);
        ASSERT_EQ(Fault::None, NameAccountToCipher(alice));
        const EffectiveIds root = EffectiveIds::Root();
        ASSERT_TRUE(root.Changed());
        EXPECT_EQ(1, Decipher(references.codes[0]).result);
        EXPECT_EQ(0u, geteuid());
        EXPECT_EQ(0u, getegid());
    });
}

// --- The machine key ---

TEST_F(Vault, TellsAMissingKeyFromAnotherKeyAndFromDamage)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeSecret(alice);
        ASSERT_EQ(Fault::None, NameAccountToCipher(alice));
    });
    struct Row {
        const char* make;
        Fault fault;
    };
    const Row rows[] = {
        {"mv /etc/tavr/otp.key /etc/tavr/kept", Fault::KeyMissing},
        {"sed 's/0001/1000/' /etc/tavr/kept >/etc/tavr/otp.key", Fault::KeyWrong},
        {"chgrp tavr-web /etc/tavr/otp.key; chmod 440 /etc/tavr/otp.key", Fault::KeyWrong},
        {"rm /etc/tavr/otp.key; ln -s kept /etc/tavr/otp.key", Fault::KeyWrong},
        {"rm /etc/tavr/otp.key; mkfifo /etc/tavr/otp.key; chgrp tavr-web /etc/tavr/otp.key;"
         " chmod 440 /etc/tavr/otp.key",
         Fault::KeyWrong},
        {"rm /etc/tavr/otp.key; mkdir /etc/tavr/otp.key", Fault::KeyWrong},
        {"rmdir /etc/tavr/otp.key; cp -p /etc/tavr/kept /etc/tavr/otp.key; chmod 460 /etc/tavr/otp.key",
         Fault::KeyWrong},
        {"chmod 444 /etc/tavr/otp.key", Fault::KeyWrong},
        {"chmod 440 /etc/tavr/otp.key; chown tavr-web /etc/tavr/otp.key", Fault::KeyWrong},
        {"chown root /etc/tavr/otp.key", Fault::None},
    };
    for (const Row& row : rows) {
        ASSERT_EQ(0, std::system(row.make)) << row.make;
        AsWorker([&row] {
            const std::optional<Account> alice = FindAccount("alice");
            ASSERT_TRUE(alice.has_value());
            EXPECT_EQ(row.fault, NameAccountToCipher(*alice)) << row.make;
            EXPECT_EQ(row.fault, CurrentRequest().fault) << row.make;
        });
    }
}

TEST_F(Vault, NotesAFaultWhenAKeyGoesWhileTheRequestRuns)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeSecret(alice);
        ASSERT_EQ(Fault::None, NameAccountToCipher(alice));
        {
            const EffectiveIds root = EffectiveIds::Root();
            ASSERT_EQ(0, unlink(kMachineKeyFile));
        }
        EXPECT_EQ(0, Decipher(references.secret).result);
        EXPECT_EQ(Fault::KeyMissing, CurrentRequest().fault);
    });
}

TEST_F(Vault, TakesAMovedOrChangedRowForDamage)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"a changed byte",
         "UPDATE secret SET sealed = CAST(substr(sealed, 1, 30) ||"
         " CASE substr(sealed, 31, 1) WHEN x'00' THEN x'01' ELSE x'00' END || substr(sealed, 32) AS BLOB)"},
        {"cut short", "UPDATE secret SET sealed = substr(sealed, 1, 40)"},
        {"empty", "UPDATE secret SET sealed = x''"},
        {"bob's row given to alice",
         "UPDATE secret SET sealed = (SELECT sealed FROM secret WHERE account = 2000)"
         " WHERE account <> 2000"},
        {"no fingerprint", "DELETE FROM vault_key"},
    };
    for (const auto& [what, sql] : rows) {
        SetUp();
        AsWorker([&, what = what, sql = sql] {
            const Account alice = MakeAccount("alice");
            const SecretFileText references = MakeSecret(alice);
            Account bob;
            bob.uid = 2000;
            MakeSecret(bob);
            ASSERT_EQ(Fault::None, NameAccountToCipher(alice)) << what;
            Execute(sql);
            EXPECT_EQ(0, Decipher(references.secret).result) << what;
            EXPECT_EQ(Fault::VaultDamaged, CurrentRequest().fault) << what;
        });
    }
}

TEST_F(Vault, NotesADatabaseThatIsNoneOrCannotBeRead)
{
    AsWorker([] { MakeAccount("alice"); });
    ASSERT_EQ(0, std::system("echo no database, but long enough to be read as one >/var/lib/tavr/signin.db;"
                             " chown tavr-web /var/lib/tavr/signin.db"));
    AsWorker([] { EXPECT_EQ(Fault::VaultDamaged, NameAccountToCipher(*FindAccount("alice"))); });
    ASSERT_EQ(0, std::system("rm /var/lib/tavr/signin.db; mkdir /var/lib/tavr/signin.db"));
    AsWorker([] { EXPECT_EQ(Fault::StateUnavailable, NameAccountToCipher(*FindAccount("alice"))); });
}

TEST_F(Vault, MakesAKeyOnceAndNeverWhileRowsAreSealed)
{
    const auto create = [](MakeKey expected, const char* when) {
        const EffectiveIds root = EffectiveIds::Root();
        EXPECT_EQ(expected, CreateMachineKey()) << when;
    };
    ASSERT_EQ(0, unlink(kMachineKeyFile));
    AsWorker([&create] {
        EXPECT_EQ(MakeKey::NotRoot, CreateMachineKey());
        HoldsSealedRows(); // opens the database with lowered ids
        create(MakeKey::Made, "nothing there");
        struct stat what {
        };
        ASSERT_EQ(0, stat(kMachineKeyFile, &what));
        EXPECT_EQ(mode_t{S_IFREG | 0440}, what.st_mode);
        EXPECT_EQ(0u, what.st_uid);
        EXPECT_EQ(kServiceId, what.st_gid);
        const std::string key = ReadFile(kMachineKeyFile);
        create(MakeKey::Kept, "a key there");
        EXPECT_EQ(key, ReadFile(kMachineKeyFile));

        const EffectiveIds root = EffectiveIds::Root();
        unlink(kMachineKeyFile);
        create(MakeKey::Made, "gone, but nothing is sealed");
        EXPECT_NE(key, ReadFile(kMachineKeyFile));
    });
    AsWorker([&create] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeSecret(alice);
        const EffectiveIds root = EffectiveIds::Root();
        unlink(kMachineKeyFile);
        create(MakeKey::RowsSealed, "gone, with rows");
        EXPECT_NE(0, access(kMachineKeyFile, F_OK));
        ASSERT_EQ(0, symlink("/etc/tavr/elsewhere", kMachineKeyFile));
        create(MakeKey::NoKey, "a link");
        EXPECT_NE(0, access("/etc/tavr/elsewhere", F_OK));
    });
}

TEST_F(Vault, MakesNoKeyWhileMailsOrPasswordsAreSealed)
{
    const auto loseKey = [] {
        const EffectiveIds root = EffectiveIds::Root();
        unlink(kMachineKeyFile);
        return CreateMachineKey();
    };
    AsWorker([&] {
        const Account alice = MakeAccount("alice");
        QueueMail("alice@home.example", "S", "text");
        const std::string key = ReadFile(kMachineKeyFile);
        EXPECT_EQ(MakeKey::RowsSealed, loseKey()) << "a mail waits";
        ASSERT_TRUE(DropMail(1));
        EXPECT_EQ(MakeKey::Made, loseKey()) << "it is finished";

        AddMailAccount(alice, OfficeAccount("office", ""));
        EXPECT_EQ(MakeKey::Made, loseKey()) << "without a password";
        AddMailAccount(alice, OfficeAccount("home"));
        EXPECT_EQ(MakeKey::RowsSealed, loseKey()) << "with a password";
    });
}

// --- What stands on the disk ---

// Every file below a folder, one after the other.
std::string AllBytes(const std::vector<std::string>& folders)
{
    std::string all;
    for (const std::string& folder : folders) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
            if (entry.is_regular_file()) {
                all += ReadFile(entry.path()) + '\n';
            }
        }
    }
    return all;
}

std::string LowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// Base-64 of bytes that stand somewhere in a longer text: the characters that do not depend on neighbours.
std::vector<std::string> Base64Inside(const std::string& bytes)
{
    std::vector<std::string> texts;
    for (size_t before = 0; before < 3; ++before) {
        const std::string padded = std::string(before, '\0') + bytes;
        std::string text(sodium_base64_ENCODED_LEN(padded.size(), sodium_base64_VARIANT_ORIGINAL_NO_PADDING),
                         0);
        sodium_bin2base64(text.data(), text.size(), reinterpret_cast<const unsigned char*>(padded.data()),
                          padded.size(), sodium_base64_VARIANT_ORIGINAL_NO_PADDING);
        text = text.c_str();
        texts.push_back(text.substr(before == 0 ? 0 : before + 1, text.size() - before - 3));
    }
    return texts;
}

std::vector<std::string> SimpleCodings(const std::string& bytes)
{
    std::string hex(2 * bytes.size() + 1, 0);
    sodium_bin2hex(hex.data(), hex.size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                   bytes.size());
    hex.pop_back();
    std::vector<std::string> texts = Base64Inside(bytes);
    texts.push_back(bytes);
    texts.push_back(hex);
    texts.emplace_back(bytes.rbegin(), bytes.rend());
    return texts;
}

TEST_F(Vault, LeavesNothingOnTheDiskInTheClearOrInASimpleCoding)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string path = "/tmp/OTP_" + std::to_string(alice.uid);
        ASSERT_EQ(0, RunProgram({kSecretToolPath, "-s", path}).status);
        ASSERT_EQ(Fault::None, NameAccountToCipher(alice));
        const StoredSecret stored = SecretsOf(alice.uid).at(0);
        SecretBytes bytes;
        ASSERT_TRUE(OpenSecret(alice.uid, stored.reference, bytes));
        const std::string raw(reinterpret_cast<const char*>(bytes.bytes.data()), bytes.bytes.size());
        const std::string base32 = Decipher(stored.reference).text;

        const std::string all = AllBytes({kStateDir, kPreferenceDir}) + ReadFile(path);
        const std::string lower = LowerCase(all);
        ASSERT_NE(std::string::npos, all.find(stored.reference)) << "the search itself works";
        for (const std::string& secret : {raw, base32}) {
            for (const std::string& text : SimpleCodings(secret)) {
                EXPECT_EQ(std::string::npos, all.find(text));
                EXPECT_EQ(std::string::npos, lower.find(LowerCase(text)));
            }
        }
        for (const CodeLine& code : stored.codes) {
            for (const std::string& text : SimpleCodings(Decipher(code.reference).text)) {
                EXPECT_EQ(std::string::npos, all.find(text));
            }
        }
    });
}

} // namespace
} // namespace tavr::test
