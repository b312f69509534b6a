// The fact of being enrolled: what the vault says, settled against the file.
#include "linux/enrolment.h"

#include "linux/account_lock.h"
#include "linux/clock.h"
#include "linux/ids.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/session.h"
#include "linux/vault.h"

#include "tests/support/fresh_server.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <poll.h>

namespace tavr::test
{
namespace
{

class Settling : public FreshServer
{
};

SecretFileText Make(const Account& account)
{
    const SecretFileText references = MakeReferences();
    SecretBytes secret;
    DrawSecret(secret);
    StoreWaiting(account.uid, references, secret);
    return references;
}

StoredSecret Stored(const Account& account, SecretState state)
{
    for (const StoredSecret& secret : SecretsOf(account.uid)) {
        if (secret.state == state) {
            return secret;
        }
    }
    throw std::runtime_error("no such secret");
}

int64_t LastStep(const StoredSecret& secret, int64_t newestStep)
{
    SecretBytes bytes;
    return OpenForCode(secret, newestStep, bytes);
}

bool Accept(const StoredSecret& secret, int64_t step)
{
    Transaction transaction(SigninDatabase());
    if (step <= LastStep(secret, 1000)) {
        return false;
    }
    AcceptStep(transaction, secret, step);
    transaction.Commit();
    return true;
}

// As after an accepted code, before the file was moved.
SecretFileText MakeConfirmed(const Account& account)
{
    const SecretFileText references = Make(account);
    const int64_t step = LastStep(Stored(account, SecretState::Waiting), 1000) + 1;
    EXPECT_TRUE(Accept(Stored(account, SecretState::Waiting), step));
    return references;
}

SecretFileText MakeEnrolled(const Account& account)
{
    const SecretFileText references = MakeConfirmed(account);
    WriteFile(SecretPath(account.name), RenderSecretFile(references));
    EXPECT_EQ(Enrolment::Yes, Settle(account).enrolment);
    return references;
}

std::string FileOf(const Account& account)
{
    return ReadFile(SecretPath(account.name));
}

bool FileIsThere(const Account& account)
{
    struct stat what {
    };
    return lstat(SecretPath(account.name).c_str(), &what) == 0;
}

std::vector<SecretState> States(const Account& account)
{
    std::vector<SecretState> states;
    for (const StoredSecret& secret : SecretsOf(account.uid)) {
        states.push_back(secret.state);
    }
    return states;
}

void ExpectFault(const Account& account, Fault fault, const std::string& what)
{
    StartRequest();
    const EnrolmentState state = Settle(account);
    EXPECT_EQ(Enrolment::Fault, state.enrolment) << what;
    EXPECT_EQ(fault, state.fault) << what;
    EXPECT_EQ(fault, CurrentRequest().fault) << what;
}

void Spend(const std::string& reference)
{
    SigninDatabase().Prepare("UPDATE code SET spent = 1 WHERE reference = ?1").Bind(1, reference).Run();
}

// --- The five cases ---

TEST_F(Settling, TheFileCarriesTheActiveSecret)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeEnrolled(alice);
        const EnrolmentState state = Settle(alice);
        EXPECT_EQ(Enrolment::Yes, state.enrolment);
        EXPECT_EQ(10, state.codesLeft);
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
        EXPECT_EQ(RenderSecretFile(references), FileOf(alice));
    });
}

TEST_F(Settling, TheFileCarriesAConfirmedSecretWhichBecomesActive)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText first = MakeEnrolled(alice);
        const SecretFileText second = MakeConfirmed(alice);
        WriteFile(SecretPath(alice.name), RenderSecretFile(second));
        EXPECT_EQ(Enrolment::Yes, Settle(alice).enrolment);
        EXPECT_EQ(std::vector{SecretState::Active}, States(alice));
        EXPECT_EQ(second.secret, Stored(alice, SecretState::Active).reference);
        SecretBytes bytes;
        EXPECT_FALSE(OpenSecret(alice.uid, first.secret, bytes)) << "the former one is retired";
        CodeDigits code;
        EXPECT_FALSE(OpenCode(alice.uid, first.codes[0], code)) << "and its codes with it";
        WriteFile(SecretPath(alice.name), RenderSecretFile(first));
        ExpectFault(alice, Fault::SecretFile, "an older file put back");
    });
}

TEST_F(Settling, AFirstEnrolmentCutInTheMoveIsFinished)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeConfirmed(alice);
        const std::string whole = RenderSecretFile(references);
        for (int cut = -1; cut < static_cast<int>(whole.size()); ++cut) {
            SigninDatabase().Prepare("UPDATE secret SET state = 'confirmed'").Run();
            unlink(SecretPath(alice.name).c_str());
            if (cut >= 0) {
                WriteFile(SecretPath(alice.name), whole.substr(0, static_cast<size_t>(cut)));
            }
            EXPECT_EQ(Enrolment::Yes, Settle(alice).enrolment) << "cut at " << cut;
            EXPECT_EQ(std::vector{SecretState::Active}, States(alice)) << "cut at " << cut;
            EXPECT_EQ(whole, FileOf(alice)) << "cut at " << cut;
        }
    });
}

TEST_F(Settling, ARenewalCutInTheMoveGoesBackToTheActiveSecret)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText first = MakeEnrolled(alice);
        const SecretFileText second = MakeConfirmed(alice);
        for (const std::string& whole : {RenderSecretFile(first), RenderSecretFile(second)}) {
            for (int cut = -1; cut < static_cast<int>(whole.size()); ++cut) {
                unlink(SecretPath(alice.name).c_str());
                if (cut >= 0) {
                    WriteFile(SecretPath(alice.name), whole.substr(0, static_cast<size_t>(cut)));
                }
                EXPECT_EQ(Enrolment::Yes, Settle(alice).enrolment) << "cut at " << cut;
                EXPECT_EQ(RenderSecretFile(first), FileOf(alice)) << "cut at " << cut;
                EXPECT_EQ(first.secret, Stored(alice, SecretState::Active).reference);
                EXPECT_EQ(second.secret, Stored(alice, SecretState::Confirmed).reference) << "kept";
            }
        }
    });
}

TEST_F(Settling, TheMendedFileIsTheServicesOwn)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        MakeConfirmed(alice);
        const EffectiveIds root = EffectiveIds::Root(); // as a call from the library's raised stretch
        ASSERT_TRUE(root.Changed());
        EXPECT_EQ(Enrolment::Yes, Settle(alice).enrolment);
        EXPECT_EQ(0u, geteuid());
        struct stat what {
        };
        ASSERT_EQ(0, stat(SecretPath(alice.name).c_str(), &what));
        EXPECT_EQ(kServiceId, what.st_uid);
        EXPECT_EQ(kServiceId, what.st_gid);
        EXPECT_EQ(mode_t{S_IFREG | 0600}, what.st_mode);
    });
}

TEST_F(Settling, SwitchingOffRemovesFileAndSecretsHoweverOftenItWasCut)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText references = MakeEnrolled(alice);
        Make(alice);
        MarkSwitchingOff(alice, AuditEvent::Reset);
        EXPECT_TRUE(FileIsThere(alice)) << "marking does no more";
        EXPECT_EQ(Enrolment::No, Settle(alice).enrolment);
        EXPECT_FALSE(FileIsThere(alice));
        EXPECT_TRUE(SecretsOf(alice.uid).empty());
        EXPECT_EQ(Enrolment::No, Settle(alice).enrolment);

        WriteFile(SecretPath(alice.name), RenderSecretFile(references));
        ExpectFault(alice, Fault::SecretFile, "the old file put back is no enrolment, and not nothing");
        MarkSwitchingOff(alice, AuditEvent::Reset); // as after a kill between mark and removal, file or not
        EXPECT_EQ(Enrolment::No, Settle(alice).enrolment);
        MarkSwitchingOff(alice, AuditEvent::Reset);
        EXPECT_EQ(Enrolment::No, Settle(alice).enrolment);
    });
}

TEST_F(Settling, SwitchingOffEndsTheSessionsWithTheMark)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const Account bob = MakeAccount("bob");
        MakeEnrolled(alice);
        const std::string half = OpenPending(alice, SessionState::CodeRequired);
        const std::string others = OpenPending(bob, SessionState::CodeRequired);
        MarkSwitchingOff(alice, AuditEvent::Reset);
        EXPECT_FALSE(FindSession(half));
        EXPECT_TRUE(FindSession(others));
    });
}

TEST_F(Settling, SwitchingOffIsNotMarkedWhenTheSessionsCannotBeEnded)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        MakeEnrolled(alice);
        const std::string half = OpenPending(alice, SessionState::CodeRequired);
        SigninDatabase()
            .Prepare("CREATE TRIGGER kept BEFORE DELETE ON session BEGIN SELECT RAISE(FAIL, 'kept'); END")
            .Run();
        EXPECT_THROW(MarkSwitchingOff(alice, AuditEvent::Reset), DatabaseError);
        EXPECT_EQ(Enrolment::Yes, Settle(alice).enrolment);
        EXPECT_TRUE(FindSession(half));
    });
}

TEST_F(Settling, ACodeOfASecretThatWasSwitchedOffProvesNothing)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        MakeEnrolled(alice);
        StartRequest();
        CurrentRequest().codeOf = alice.uid;
        MarkSwitchingOff(alice, AuditEvent::Reset);
        EXPECT_EQ(Enrolment::No, Settle(alice).enrolment);
        EXPECT_FALSE(CurrentRequest().codeOf);
        EXPECT_EQ(Grant::SecondStepMissing, OpenSession(alice)) << "until its facts are learned anew";
        CurrentRequest().facts = Request::Facts{alice.uid, false, false};
        EXPECT_EQ(Grant::Opened, OpenSession(alice));
        EXPECT_FALSE(FindSession(CurrentRequest().newSid)->secondStep);
    });
}

TEST_F(Settling, AStepStaysUsedWhenTheSecretIsGone)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        MakeEnrolled(alice);
        const int64_t used = LastStep(Stored(alice, SecretState::Active), 1000);
        MarkSwitchingOff(alice, AuditEvent::Reset);
        Settle(alice);
        Make(alice);
        const StoredSecret next = Stored(alice, SecretState::Waiting);
        EXPECT_EQ(used, LastStep(next, 1000));
        EXPECT_FALSE(Accept(next, used));
        EXPECT_EQ(-1, LastStep(next, used - 1))
            << "but a clock that once ran ahead does not close it for good";
        EXPECT_TRUE(Accept(next, used + 1));
    });
}

TEST_F(Settling, NothingThereIsNotEnrolled)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        EXPECT_EQ(Enrolment::No, Settle(alice).enrolment);
        Make(alice);
        EXPECT_EQ(Enrolment::No, Settle(alice).enrolment) << "a secret that waits changes nothing";
        EXPECT_FALSE(FileIsThere(alice));
        Account nobody;
        nobody.name = "nobody.here";
        nobody.uid = 5000;
        EXPECT_EQ(Enrolment::No, Settle(nobody).enrolment) << "no preference directory yet";
        EXPECT_EQ(Fault::None, CurrentRequest().fault);
    });
}

// --- Everything else is a fault ---

TEST_F(Settling, WhateverElseStandsAtThePlaceIsAFault)
{
    struct Row {
        const char* what;
        const char* make; // $P: the place; $D: its folder
    };
    const Row rows[] = {
        {"a directory", "rm $P; mkdir $P; chown tavr-web $P"},
        {"a directory with the file in it, as mv leaves it", "mv $P $D/x; mkdir $P; mv $D/x $P/OTP_1026"},
        {"a link to the same text", "mv $P $D/other; ln -s other $P; chown -h tavr-web $P"},
        {"a link to nothing", "rm $P; ln -s nowhere $P"},
        {"a fifo", "rm $P; mkfifo $P; chown tavr-web $P"},
        {"root's file", "chown root $P"},
        {"a second name", "ln $P $D/second"},
        {"too large", "head -c 5000 /dev/zero >>$P"},
        {"a line more", "echo '+AAAAAAAAAAAAAAA' >>$P"},
        {"an empty line more", "echo >>$P"},
        {"a NUL more", "printf '\\0' >>$P"},
        {"a changed code line", "sed -i '5s/^+./++/' $P; chown tavr-web $P"},
        {"a code line missing in the middle", "sed -i 5d $P; chown tavr-web $P"},
        {"two lines exchanged", "sed -i '5{h;d};6G' $P; chown tavr-web $P"},
        {"another option line", "sed -i '2s/TOTP/HOTP/' $P; chown tavr-web $P"},
        {"an unknown secret", "sed -i '1s/.*/@AAAAAAAAAAAAAAA/' $P; chown tavr-web $P"},
        {"a plain secret", "sed -i '1s/.*/GEZDGNBVGY3TQOJQ/' $P; chown tavr-web $P"},
        {"CRLF lines", "sed -i 's/$/\\r/' $P; chown tavr-web $P"},
        {"a folder that others may write in", "chmod 777 $D"},
        {"a folder of root's", "chown root $D"},
        {"a link for a folder", "mv $D $D.real; ln -s $D.real $D"},
    };
    for (const Row& row : rows) {
        SetUp();
        AsWorker([] { MakeEnrolled(MakeAccount("alice")); });
        const std::string place = SecretPath("alice");
        const std::string set = "P=" + place + " D=" + PreferencePath("alice") + "; ";
        ASSERT_EQ(0, std::system((set + row.make).c_str())) << row.what;
        AsWorker([&row] {
            const Account alice = *FindAccount("alice");
            ExpectFault(alice, Fault::SecretFile, row.what);
            EXPECT_EQ(std::vector{SecretState::Active}, States(alice)) << row.what;
        });
    }
}

TEST_F(Settling, OtherSecretsReferencesAreAFault)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const Account bob = MakeAccount("bob");
        const SecretFileText ofBob = MakeEnrolled(bob);
        MakeEnrolled(alice);
        WriteFile(SecretPath(alice.name), RenderSecretFile(ofBob));
        ExpectFault(alice, Fault::SecretFile, "bob's file");
        WriteFile(SecretPath(alice.name), RenderSecretFile(Make(alice)));
        ExpectFault(alice, Fault::SecretFile, "a secret that nobody has confirmed");
        EXPECT_EQ(Enrolment::Yes, Settle(bob).enrolment);
    });
}

TEST_F(Settling, AFileWithoutASecretIsAFault)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        for (const std::string& text :
             {std::string(), std::string("@"), RenderSecretFile(MakeReferences())}) {
            WriteFile(SecretPath(alice.name), text);
            ExpectFault(alice, Fault::SecretFile, text);
            EXPECT_EQ(text, FileOf(alice)) << "left as it is";
        }
    });
}

TEST_F(Settling, AnOlderFileOfTheSameSecretLosesItsSpentCodes)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const SecretFileText all = MakeEnrolled(alice);
        SecretFileText left = all;
        for (const size_t spent : {0, 4, 9}) {
            Spend(all.codes[spent]);
        }
        for (const size_t spent : {9, 4, 0}) {
            left.codes.erase(left.codes.begin() + static_cast<std::ptrdiff_t>(spent));
        }
        const EnrolmentState state = Settle(alice);
        EXPECT_EQ(Enrolment::Yes, state.enrolment);
        EXPECT_EQ(7, state.codesLeft);
        EXPECT_EQ(RenderSecretFile(left), FileOf(alice));

        const std::string whole = RenderSecretFile(left);
        for (size_t cut = 0; cut < whole.size(); ++cut) {
            WriteFile(SecretPath(alice.name), whole.substr(0, cut));
            EXPECT_EQ(7, Settle(alice).codesLeft) << cut;
            EXPECT_EQ(whole, FileOf(alice)) << cut;
        }
        for (const std::string& code : left.codes) {
            Spend(code);
        }
        EXPECT_EQ(0, Settle(alice).codesLeft);
        EXPECT_EQ(RenderSecretFile({all.secret, {}}), FileOf(alice));
    });
}

TEST_F(Settling, AStateThatCannotBeReadIsAFault)
{
    AsWorker([] { MakeEnrolled(MakeAccount("alice")); });
    ASSERT_EQ(0, std::system("rm /var/lib/tavr/signin.db*; mkdir /var/lib/tavr/signin.db"));
    AsWorker([] { ExpectFault(*FindAccount("alice"), Fault::StateUnavailable, "no database to be had"); });
    ASSERT_EQ(0, std::system("rmdir /var/lib/tavr/signin.db; rm /var/lib/tavr/account.lock;"
                             " mkdir /var/lib/tavr/account.lock"));
    AsWorker([] { ExpectFault(*FindAccount("alice"), Fault::StateUnavailable, "no lock to be had"); });
}

TEST_F(Settling, AFullDiskIsAFaultAndMendsItself)
{
    AsWorker([] { MakeConfirmed(MakeAccount("alice")); });
    LimitFolder(kPreferenceDir, 16 * 1024);
    AsWorker([] {
        const Account alice = *FindAccount("alice");
        WriteFile(std::string(kPreferenceDir) + "/filler", std::string(1 << 20, 'x'));
        ExpectFault(alice, Fault::StateUnavailable, "no room for the file");
        EXPECT_FALSE(FileIsThere(alice));
        EXPECT_EQ(std::vector{SecretState::Confirmed}, States(alice));
        unlink((std::string(kPreferenceDir) + "/filler").c_str());
        EXPECT_EQ(Enrolment::Yes, Settle(alice).enrolment);
    });
    MakeReadOnly(kPreferenceDir);
    AsWorker([] { EXPECT_EQ(Enrolment::Yes, Settle(*FindAccount("alice")).enrolment); });
}

// --- Secrets that wait ---

TEST_F(Settling, AWaitingSecretIsClaimedForOneSession)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        EXPECT_FALSE(FindWaiting(alice.uid).has_value());
        EXPECT_FALSE(ClaimWaiting(alice.uid, "session"));
        const SecretFileText references = Make(alice);
        EXPECT_EQ("", FindWaiting(alice.uid)->session);
        EXPECT_FALSE(ClaimWaiting(alice.uid, "session", "ANOTHERKEY"));
        EXPECT_TRUE(ClaimWaiting(alice.uid, "session"));
        EXPECT_EQ("session", FindWaiting(alice.uid)->session);
        EXPECT_EQ(references.secret, FindWaiting(alice.uid)->reference);
        Make(alice);
        EXPECT_EQ("", FindWaiting(alice.uid)->session) << "a new secret is nobody's yet";
        RetireWaiting(alice.uid);
        EXPECT_FALSE(FindWaiting(alice.uid).has_value());
    });
}

TEST_F(Settling, AWaitingSecretGoesAfterHalfAnHourOrAnotherStart)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        Make(alice);
        AdvanceBootClock(kWaitingSeconds - 5);
        EXPECT_TRUE(FindWaiting(alice.uid).has_value());
        ClearWaiting(Clear::TooOld);
        EXPECT_EQ(1u, SecretsOf(alice.uid).size());
        AdvanceBootClock(kWaitingSeconds);
        EXPECT_FALSE(FindWaiting(alice.uid).has_value());
        EXPECT_FALSE(ClaimWaiting(alice.uid, "session"));
        ClearWaiting(Clear::TooOld);
        EXPECT_TRUE(SecretsOf(alice.uid).empty());
        AdvanceBootClock(0);
        Make(alice);
        SigninDatabase().Prepare("UPDATE secret SET made_boot = 'another'").Run();
        EXPECT_FALSE(FindWaiting(alice.uid).has_value());
        ClearWaiting(Clear::TooOld);
        EXPECT_TRUE(SecretsOf(alice.uid).empty());
    });
}

TEST_F(Settling, ClearingRemovesDeadFilesAndNeverAConfirmedSecret)
{
    ASSERT_EQ(0,
              std::system("echo root >/tmp/OTP_77; ln -s OTP_77 /tmp/OTP_78; chown -h tavr-web /tmp/OTP_78;"
                          " echo other >/tmp/OTP_079; chown tavr-web /tmp/OTP_079"));
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const Account bob = MakeAccount("bob");
        const Account carol = MakeAccount("carol");
        const auto waitingPath = [](const Account& account) {
            return "/tmp/OTP_" + std::to_string(account.uid);
        };
        WriteFile(waitingPath(alice), RenderSecretFile(Make(alice)));
        MakeEnrolled(bob);
        const SecretFileText confirmed = MakeConfirmed(bob);
        Make(bob);
        WriteFile(waitingPath(bob), RenderSecretFile(confirmed));
        WriteFile(waitingPath(carol), "dead");
        WriteFile("/tmp/OTP_999999", "dead");

        ClearWaiting(Clear::TooOld);
        EXPECT_EQ(0, access(waitingPath(alice).c_str(), F_OK)) << "still waits";
        EXPECT_NE(0, access(waitingPath(carol).c_str(), F_OK));
        EXPECT_NE(0, access("/tmp/OTP_999999", F_OK));

        ClearWaiting(Clear::All);
        EXPECT_NE(0, access(waitingPath(alice).c_str(), F_OK));
        EXPECT_TRUE(SecretsOf(alice.uid).empty());
        EXPECT_EQ(2u, SecretsOf(bob.uid).size()) << "active and confirmed";
        EXPECT_EQ(0, access("/tmp/OTP_77", F_OK)) << "not ours";
        struct stat what {
        };
        EXPECT_EQ(0, lstat("/tmp/OTP_78", &what)) << "no regular file";
        EXPECT_EQ(0, access("/tmp/OTP_079", F_OK)) << "not such a name";
    });
}

TEST_F(Settling, DroppingTakesTheFileRetiringDoesNot)
{
    AsWorker([] {
        const Account alice = MakeAccount("alice");
        const std::string path = "/tmp/OTP_" + std::to_string(alice.uid);
        WriteFile(path, RenderSecretFile(Make(alice)));
        RetireWaiting(alice.uid);
        EXPECT_TRUE(SecretsOf(alice.uid).empty());
        EXPECT_EQ(0, access(path.c_str(), F_OK));
        Make(alice);
        DropWaiting(alice.uid);
        EXPECT_TRUE(SecretsOf(alice.uid).empty());
        EXPECT_NE(0, access(path.c_str(), F_OK));
    });
}

// --- The lock ---

TEST_F(Settling, TheLockHoldsBetweenProcessesAndNestsWithinOne)
{
    int events[2];
    ASSERT_EQ(0, pipe(events));
    AsWorkers(2, [&events](int worker) {
        // The second worker starts when the first one holds the lock, and says so when it has it.
        char byte = 0;
        if (worker == 0) {
            const AccountLock outer(1026);
            EXPECT_TRUE(outer.Held());
            {
                const AccountLock inner(1026);
                EXPECT_TRUE(inner.Held());
            }
            ASSERT_EQ(1, write(events[1], "a", 1));
            usleep(100'000); // long enough for the other to come in, were the lock open
            ASSERT_EQ(1, write(events[1], "b", 1));
        } else {
            ASSERT_EQ(1, read(events[0], &byte, 1));
            EXPECT_EQ('a', byte);
            const AccountLock another(1027);
            EXPECT_TRUE(another.Held()) << "another account's is free";
            const AccountLock lock(1026);
            EXPECT_TRUE(lock.Held());
            pollfd ready{events[0], POLLIN, 0};
            ASSERT_EQ(1, poll(&ready, 1, 0)) << "the lock was had too early";
            ASSERT_EQ(1, read(events[0], &byte, 1));
            EXPECT_EQ('b', byte);
        }
    });
    close(events[0]);
    close(events[1]);
}

} // namespace
} // namespace tavr::test
