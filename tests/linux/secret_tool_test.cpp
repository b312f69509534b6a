// The platform's secret tool, as the library starts it.
#include "linux/paths.h"
#include "linux/secret_tool.h"
#include "linux/vault.h"

#include "tests/support/fresh_server.h"
#include "tests/support/stepper.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <regex>

namespace tavr::test
{
namespace
{

constexpr char kPath[] = "/tmp/OTP_1026";

class SecretTool : public FreshServer
{
};

Ran RunTool(const std::string& path)
{
    return RunProgram({kSecretToolPath, "-s", path});
}

mode_t ModeOf(const std::string& path)
{
    struct stat what {
    };
    return lstat(path.c_str(), &what) == 0 ? what.st_mode : 0;
}

// From here on this process lives on a system that does not know openat2().
void ForgetOpenat2()
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog filter = {std::size(program), program};
    ASSERT_EQ(0, prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
    ASSERT_EQ(0, prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter));
}

TEST_F(SecretTool, FindsItsDirectoryThroughNoLinkAtAll)
{
    AsWorker([] {
        ASSERT_EQ(0, mkdir("/tmp/real", 0700));
        ASSERT_EQ(0, mkdir("/tmp/real/inner", 0700));
        ASSERT_EQ(0, symlink("/tmp/real", "/tmp/link"));
        ASSERT_EQ(0, symlink("real/inner", "/tmp/last"));
        for (const bool old : {false, true}) {
            if (old) {
                ForgetOpenat2();
            }
            EXPECT_TRUE(OpenDirectoryNoLinks("/tmp/real/inner")) << old;
            EXPECT_TRUE(OpenDirectoryNoLinks("/tmp//real/../real/inner/")) << old;
            EXPECT_TRUE(OpenDirectoryNoLinks(".")) << old;
            EXPECT_FALSE(OpenDirectoryNoLinks("/tmp/link")) << old;
            EXPECT_FALSE(OpenDirectoryNoLinks("/tmp/link/inner")) << old;
            EXPECT_FALSE(OpenDirectoryNoLinks("/tmp/last")) << old;
            EXPECT_FALSE(OpenDirectoryNoLinks("/etc/passwd")) << old;
            EXPECT_FALSE(OpenDirectoryNoLinks("/tmp/none/inner")) << old;
            EXPECT_EQ(ENOENT, errno) << old;
        }
    });
}

TEST(ToolPathText, TakesNumbersOfAccountsAndNothingElse)
{
    struct Row {
        const char* path;
        const char* directory; // null: refused
        uint32_t account;
    };
    const Row rows[] = {
        {"/tmp/OTP_1026", "/tmp", 1026},
        {"/tmp/OTP_0", "/tmp", 0},
        {"/tmp/OTP_4294967295", "/tmp", 4294967295U},
        {"/OTP_7", "/", 7},
        {"OTP_7", ".", 7},
        {"a/b/OTP_7", "a/b", 7},
        {"/tmp/OTP_4294967296", nullptr, 0},
        {"/tmp/OTP_99999999999999999999", nullptr, 0},
        {"/tmp/OTP_01026", nullptr, 0},
        {"/tmp/OTP_", nullptr, 0},
        {"/tmp/OTP_+5", nullptr, 0},
        {"/tmp/OTP_-5", nullptr, 0},
        {"/tmp/OTP_ 5", nullptr, 0},
        {"/tmp/OTP_5 ", nullptr, 0},
        {"/tmp/OTP_5/", nullptr, 0},
        {"/tmp/OTP_0x5", nullptr, 0},
        {"/tmp/otp_5", nullptr, 0},
        {"/tmp/XOTP_5", nullptr, 0},
        {"/tmp/OTP_5.new", nullptr, 0},
        {"/tmp/OTP_5\n", nullptr, 0},
        {"/tmp", nullptr, 0},
        {"", nullptr, 0},
    };
    for (const Row& row : rows) {
        const auto parsed = ParseToolPath(row.path);
        ASSERT_EQ(row.directory != nullptr, parsed.has_value()) << row.path;
        if (parsed.has_value()) {
            EXPECT_EQ(row.directory, parsed->directory) << row.path;
            EXPECT_EQ(row.account, parsed->account) << row.path;
        }
    }
    EXPECT_FALSE(ParseToolPath(std::string(5000, 'a') + "/OTP_5").has_value());
    EXPECT_FALSE(ParseToolPath(std::string_view("/tmp\0/OTP_5", 11)).has_value());
}

TEST_F(SecretTool, PrintsThePaddedReferenceOfTheFileItMade)
{
    AsWorker([] {
        const Ran ran = RunTool(kPath);
        EXPECT_EQ(0, ran.status) << ran.complaint;
        EXPECT_TRUE(std::regex_match(ran.output, std::regex("@[A-Za-z0-9_-]{15}========\n"))) << ran.output;
        EXPECT_TRUE(std::regex_match(
            ReadFile(kPath), std::regex("@[A-Za-z0-9_-]{15}\n\" TOTP_AUTH\n(\\+[A-Za-z0-9_-]{15}\n){10}")))
            << ReadFile(kPath);
        EXPECT_EQ(ran.output.substr(0, 16), ReadFile(kPath).substr(0, 16));
        EXPECT_EQ(mode_t{S_IFREG | 0600}, ModeOf(kPath));

        const std::vector<StoredSecret> secrets = SecretsOf(1026);
        ASSERT_EQ(1u, secrets.size());
        EXPECT_EQ(SecretState::Waiting, secrets[0].state);
        EXPECT_EQ(10u, secrets[0].codes.size());
    });
}

TEST_F(SecretTool, ReplacesWhatItsOwnAbandonedTryLeft)
{
    AsWorker([] {
        umask(0777);
        const std::string first = RunTool(kPath).output;
        WriteFile("/tmp/.OTP_1026.new", "half a f");
        const std::string second = RunTool(kPath).output;
        EXPECT_NE(first, second);
        EXPECT_EQ(second.substr(0, 16), ReadFile(kPath).substr(0, 16));
        EXPECT_EQ(mode_t{S_IFREG | 0600}, ModeOf(kPath));
        EXPECT_EQ(1u, SecretsOf(1026).size());
        EXPECT_EQ(0u, ModeOf("/tmp/.OTP_1026.new"));
    });
}

TEST_F(SecretTool, RefusesWhateverElseStandsAtThePath)
{
    struct Row {
        const char* what;
        const char* make;
        const char* complaint;
    };
    const Row rows[] = {
        {"own link", "ln -s /tmp/target /tmp/OTP_1026; chown -h tavr-web /tmp/OTP_1026",
         "not a regular file"},
        {"root's link", "ln -s /tmp/target /tmp/OTP_1026", "not a regular file"},
        {"fifo", "mkfifo /tmp/OTP_1026; chown tavr-web /tmp/OTP_1026", "not a regular file"},
        {"directory", "mkdir /tmp/OTP_1026; chown tavr-web /tmp/OTP_1026", "not a regular file"},
        {"root's file", "echo kept >/tmp/OTP_1026", "belongs to somebody else"},
        {"www-data's file", "echo kept >/tmp/OTP_1026; chown www-data /tmp/OTP_1026",
         "belongs to somebody else"},
        {"file with two names",
         "echo kept >/tmp/OTP_1026; ln /tmp/OTP_1026 /tmp/OTP_1026.other;"
         " chown tavr-web /tmp/OTP_1026",
         "another name"},
        {"somebody's new file", "echo kept >/tmp/.OTP_1026.new", "cannot write"},
    };
    for (const Row& row : rows) {
        ASSERT_EQ(
            0, std::system((std::string("rm -rf /tmp/OTP_* /tmp/.OTP_* /tmp/target; ") + row.make).c_str()));
        AsWorker([&row] {
            const mode_t before = ModeOf(kPath);
            const Ran ran = RunTool(kPath);
            EXPECT_EQ(1, ran.status) << row.what;
            EXPECT_EQ("", ran.output) << row.what;
            EXPECT_NE(std::string::npos, ran.complaint.find(row.complaint))
                << row.what << ": " << ran.complaint;
            EXPECT_EQ(before, ModeOf(kPath)) << row.what;
            EXPECT_EQ(0u, ModeOf("/tmp/target")) << row.what;
            EXPECT_TRUE(SecretsOf(1026).empty()) << row.what;
        });
    }
}

TEST_F(SecretTool, RefusesDirectoriesThatCannotBeTrusted)
{
    struct Row {
        const char* what;
        const char* make;
        const char* path;
    };
    const Row rows[] = {
        {"link to /tmp", "ln -s /tmp /tmp/OTP_link", "/tmp/OTP_link/OTP_5"},
        {"writable for all, no sticky bit", "mkdir -m 777 /tmp/OTP_dir", "/tmp/OTP_dir/OTP_5"},
        {"somebody else's", "mkdir -m 1777 /tmp/OTP_dir; chown www-data /tmp/OTP_dir", "/tmp/OTP_dir/OTP_5"},
        {"not writable", "mkdir -m 755 /tmp/OTP_dir", "/tmp/OTP_dir/OTP_5"},
        {"a file", "echo >/tmp/OTP_dir", "/tmp/OTP_dir/OTP_5"},
        {"nothing", "true", "/tmp/OTP_dir/OTP_5"},
    };
    for (const Row& row : rows) {
        ASSERT_EQ(0, std::system((std::string("rm -rf /tmp/OTP_*; ") + row.make).c_str()));
        AsWorker([&row] {
            const Ran ran = RunTool(row.path);
            EXPECT_EQ(1, ran.status) << row.what;
            EXPECT_NE("", ran.complaint) << row.what;
            EXPECT_EQ(0u, ModeOf("/tmp/OTP_5")) << row.what;
        });
    }
}

TEST_F(SecretTool, RefusesRootAndWrongUse)
{
    const Ran asRoot = RunTool(kPath);
    EXPECT_EQ(1, asRoot.status);
    EXPECT_NE(std::string::npos, asRoot.complaint.find("root")) << asRoot.complaint;
    AsWorker([] {
        EXPECT_EQ(2, RunTool("/tmp/OTP_x").status);
        EXPECT_EQ(2, RunProgram({kSecretToolPath}).status);
        EXPECT_EQ(2, RunProgram({kSecretToolPath, "-s"}).status);
        EXPECT_EQ(2, RunProgram({kSecretToolPath, "-s", kPath, "more"}).status);
        EXPECT_EQ(2, RunProgram({kSecretToolPath, "--secret", kPath}).status);
        EXPECT_EQ(0u, ModeOf(kPath));
        EXPECT_EQ(0, RunProgram({kSecretToolPath, "--help"}).status);
        EXPECT_EQ(0, RunProgram({kSecretToolPath, "--version"}).status);
    });
}

TEST_F(SecretTool, FailsWithoutDatabaseKeyOrRoom)
{
    struct Row {
        const char* what;
        const char* make;
    };
    const Row rows[] = {
        {"no state folder", "rmdir /var/lib/tavr"},
        {"state folder of root's", "chown root /var/lib/tavr"},
        {"no database in the file", "echo no database, but long enough >/var/lib/tavr/signin.db;"
                                    " chown tavr-web /var/lib/tavr/signin.db"},
        {"no key", "rm /etc/tavr/otp.key"},
        {"a key that everybody may read", "chmod 444 /etc/tavr/otp.key"},
        {"a link to a key", "mv /etc/tavr/otp.key /etc/tavr/other; ln -s other /etc/tavr/otp.key"},
        {"half a key", "head -c 40 /etc/tavr/otp.key >/etc/tavr/k; cat /etc/tavr/k >/etc/tavr/otp.key"},
    };
    for (const Row& row : rows) {
        SetUp();
        ASSERT_EQ(0, std::system(row.make)) << row.what;
        AsWorker([&row] {
            const Ran ran = RunTool(kPath);
            EXPECT_EQ(1, ran.status) << row.what;
            EXPECT_EQ("", ran.output) << row.what;
            EXPECT_NE("", ran.complaint) << row.what;
            EXPECT_EQ(0u, ModeOf(kPath)) << row.what;
            EXPECT_EQ(0u, ModeOf("/tmp/.OTP_1026.new")) << row.what;
        });
    }
}

TEST_F(SecretTool, PrintsNothingWhenTheDiskIsFull)
{
    AsWorker([] { EXPECT_EQ(0, RunTool(kPath).status); });
    LimitFolder(kStateDir, 1024 * 1024);
    AsWorker([] {
        WriteFile(std::string(kStateDir) + "/filler", std::string(4 << 20, 'x'));
        const std::string before = ReadFile(kPath);
        const Ran ran = RunTool("/tmp/OTP_1027");
        EXPECT_EQ(1, ran.status);
        EXPECT_EQ("", ran.output);
        EXPECT_EQ(0u, ModeOf("/tmp/OTP_1027"));
        EXPECT_EQ(before, ReadFile(kPath));
        unlink((std::string(kStateDir) + "/filler").c_str());
        EXPECT_EQ(0, RunTool("/tmp/OTP_1027").status) << "recovers by itself";
        EXPECT_EQ(1u, SecretsOf(1026).size()) << "and has lost nothing";
    });
}

TEST_F(SecretTool, LeavesNothingHalfWhenTmpIsFull)
{
    ASSERT_EQ(0, std::system("mkdir -m 1777 -p /tmp/OTP_small"));
    LimitFolder("/tmp/OTP_small", 8192);
    AsWorker([] {
        WriteFile("/tmp/OTP_small/filler", std::string(1 << 20, 'x'));
        const Ran ran = RunTool("/tmp/OTP_small/OTP_5");
        EXPECT_EQ(1, ran.status);
        EXPECT_NE(std::string::npos, ran.complaint.find("No space")) << ran.complaint;
        EXPECT_EQ(0u, ModeOf("/tmp/OTP_small/OTP_5"));
        EXPECT_EQ(0u, ModeOf("/tmp/OTP_small/.OTP_5.new"));
    });
}

// Killed anywhere: the file at the path is whole or absent, and the next try works.
TEST_F(SecretTool, SurvivesAKillAtEverySystemCall)
{
    AsWorker([] { EXPECT_EQ(0, RunTool(kPath).status); }); // makes the database
    const std::regex whole("@[A-Za-z0-9_-]{15}\n\" TOTP_AUTH\n(\\+[A-Za-z0-9_-]{15}\n){10}");
    bool ended = false;
    for (long stop = 0; !ended; ++stop) {
        ASSERT_LT(stop, 2000);
        const Steps steps = RunKilledAt(stop, [] {
            if (setgroups(0, nullptr) != 0 || setresgid(kServiceId, kServiceId, kServiceId) != 0 ||
                setresuid(kServiceId, kServiceId, kServiceId) != 0) {
                return 99;
            }
            const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
            dup2(null, STDOUT_FILENO);
            MarkStart();
            execl(kSecretToolPath, kSecretToolPath, "-s", kPath, nullptr);
            return 99;
        });
        ended = !steps.killed;
        if (ended) {
            EXPECT_EQ(0, steps.exitStatus);
            EXPECT_GT(steps.stops, 100);
        }
        const std::string left = ReadFile(kPath);
        ASSERT_TRUE(std::regex_match(left, whole)) << "killed at " << stop << ": " << left;
        AsWorker([stop] {
            const Ran ran = RunTool(kPath);
            EXPECT_EQ(0, ran.status) << "after a kill at " << stop << ": " << ran.complaint;
            const std::vector<StoredSecret> secrets = SecretsOf(1026);
            ASSERT_EQ(1u, secrets.size()) << "killed at " << stop;
            EXPECT_EQ(ran.output, PaddedReference(secrets[0].reference) + "\n") << "killed at " << stop;
        });
    }
}

} // namespace
} // namespace tavr::test
