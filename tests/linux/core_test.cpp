#include "platform/core.h"

#include "linux/error.h"
#include "linux/ids.h"
#include "linux/request.h"
#include "linux/settings.h"
#include "linux/string_hash.h"
#include "platform/conf.h"
#include "platform/json.h"
#include "platform/secrets.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>

namespace
{

std::string ReadStream(FILE* stream)
{
    std::string text;
    char block[4096];
    size_t got = 0;
    while ((got = fread(block, 1, sizeof block, stream)) > 0) {
        text.append(block, got);
    }
    return text;
}

// What a shell command prints when it is started the way the library starts its tools.
std::string OutputOf(const char* script)
{
    FILE* stream = KLIBCPopen("/bin/sh", "r", "-c", script, static_cast<char*>(nullptr));
    if (stream == nullptr) {
        return "not started";
    }
    std::string text = ReadStream(stream);
    KLIBCPclose(stream);
    return text;
}

std::string ReadFile(const char* path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteAsRoot(const char* path, const std::string& text)
{
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    chmod(path, 0644);
}

std::string SettingsText()
{
    return ReadFile("/etc/tavr/tavrinfo.conf");
}

// Settings as they stand on a server: a link in /etc to the file in /etc/tavr.
class Settings : public testing::Test
{
protected:
    Settings()
    {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        unlink("/etc/tavrinfo.conf");
        EXPECT_EQ(0, symlink("tavr/tavrinfo.conf", "/etc/tavrinfo.conf"));
        unlink("/etc/tavr/tavrinfo.conf"); // a new file, not one that is written into
        WriteAsRoot("/etc/tavr/tavrinfo.conf", "");
        EXPECT_EQ("none", tavr::Setting("colour", "none"));
    }
};

} // namespace

// --- Error record ------------------------------------------------------------------------------------------

TEST(ErrorRecord, NamesTheLastFailureWithABareFileName)
{
    EXPECT_EQ(-1, KLIBCFileGetKeyValue("/nowhere", "key", nullptr, 8, 0));
    EXPECT_EQ(0x0D00, KLIBCErrGet());
    char value[8];
    EXPECT_EQ(-1, KLIBCFileGetKeyValue("/nowhere", "key", value, 8, 0));
    EXPECT_EQ(0x0700, KLIBCErrGet());
    EXPECT_STREQ("core.cpp", KLIBCErrorGetFile());
    EXPECT_GT(KLIBCErrorGetLine(), 0);
}

// --- Started commands --------------------------------------------------------------------------------------

TEST(Popen, HandsEveryArgumentOverWhole)
{
    FILE* stream =
        KLIBCPopen("/usr/bin/printf", "r", "%s|", "a b", "$(id); `id`", "", "*", static_cast<char*>(nullptr));
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ("a b|$(id); `id`||*|", ReadStream(stream));
    EXPECT_EQ(0, KLIBCPclose(stream));
}

TEST(Popen, LeavesOnlyTheStandardDescriptorsOpen)
{
    const int leaked = open("/etc/passwd", O_RDONLY); // not close-on-exec
    const int high = fcntl(leaked, F_DUPFD, 200);
    ASSERT_GE(high, 200);
    // The fourth is the listing's own.
    EXPECT_EQ("0\n1\n2\n3\n", OutputOf("exec ls /proc/self/fd"));
    EXPECT_EQ("/dev/null\n/dev/null\n", OutputOf("readlink /proc/$$/fd/0 /proc/$$/fd/2"));
    close(high);
    close(leaked);
}

TEST(Popen, GivesAFixedEnvironment)
{
    setenv("TAVR_SECRET", "not for others", 1);
    setenv("LD_PRELOAD", "/nowhere.so", 1);
    const std::string environment = OutputOf("exec /usr/bin/env");
    unsetenv("LD_PRELOAD");
    unsetenv("TAVR_SECRET");
    EXPECT_NE(std::string::npos, environment.find("PATH=/usr/sbin:/usr/bin:/sbin:/bin\n"));
    EXPECT_NE(std::string::npos, environment.find("LC_ALL=C\n"));
    EXPECT_EQ(std::string::npos, environment.find("TAVR_SECRET"));
    EXPECT_EQ(std::string::npos, environment.find("LD_PRELOAD"));
}

TEST(Popen, TakesEveryWayToRootFromTheCommand)
{
    const char* script = "grep -E '^(Uid|Gid|CapEff|Groups)' /proc/self/status | tr -s ' \\t' ' '";
    const char* expected = "Uid: 64217 64217 64217 64217\nGid: 64217 64217 64217 64217\nGroups: \n"
                           "CapEff: 0000000000000000\n";
    EXPECT_EQ(expected, OutputOf(script)) << "started lowered";
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    EXPECT_EQ(expected, OutputOf(script)) << "started raised";
    EXPECT_EQ(0U, geteuid()) << "the parent keeps its ids";
}

TEST(Popen, GivesDefaultSignalsAndAnEmptyMask)
{
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    const auto formerPipe = signal(SIGPIPE, SIG_IGN);
    const std::string state = OutputOf("grep -E '^Sig(Blk|Ign)' /proc/self/status | cut -f2");
    signal(SIGPIPE, formerPipe);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ("0000000000000000\n0000000180000000\n", state) << "32 and 33 are the C library's own";
}

TEST(Popen, WorksInAProcessWithoutStandardDescriptors)
{
    const pid_t child = fork();
    if (child == 0) {
        close(0);
        close(1);
        close(2);
        FILE* stream = KLIBCPopen("/usr/bin/printf", "r", "%s", "here", static_cast<char*>(nullptr));
        char text[8] = {};
        const bool right = stream != nullptr && fread(text, 1, 4, stream) == 4 &&
                           std::strcmp(text, "here") == 0 && KLIBCPclose(stream) == 0;
        _exit(right ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
}

TEST(Popen, RefusesWhatItCannotStart)
{
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    struct Case {
        const char* reason;
        const char* path;
        const char* mode;
        int code;
    };
    const Case cases[] = {
        {"no such program", "/usr/bin/no-such-program", "r", 0x0900},
        {"no program", "/etc/passwd", "r", 0x0900},
        {"a folder", "/etc", "r", 0x0900},
        {"looked for along PATH", "printf", "r", 0x0D00},
        {"no path", nullptr, "r", 0x0D00},
        {"to be written to", "/usr/bin/printf", "w", 0x0D00},
        {"no mode", "/usr/bin/printf", nullptr, 0x0D00},
    };
    const std::string before = OutputOf("ls /proc/$PPID/fd | wc -l");
    for (const Case& one : cases) {
        EXPECT_EQ(nullptr, KLIBCPopen(one.path, one.mode, "x", static_cast<char*>(nullptr))) << one.reason;
        EXPECT_EQ(one.code, KLIBCErrGet()) << one.reason;
        EXPECT_STREQ("process.cpp", KLIBCErrorGetFile()) << one.reason;
    }
    EXPECT_EQ(before, OutputOf("ls /proc/$PPID/fd | wc -l")) << "descriptors left open";
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "children left behind";
}

TEST(Popen, TakesThirtyTwoArgumentsAndRefusesMore)
{
    const char* x = "x";
    FILE* stream = KLIBCPopen("/bin/echo", "r", x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x,
                              x, x, x, x, x, x, x, x, x, x, x, static_cast<char*>(nullptr));
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(64U, ReadStream(stream).size());
    KLIBCPclose(stream);
    EXPECT_EQ(nullptr, KLIBCPopen("/bin/echo", "r", x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x, x,
                                  x, x, x, x, x, x, x, x, x, x, x, x, x, x, static_cast<char*>(nullptr)));
    EXPECT_EQ(0x0D00, KLIBCErrGet());
}

TEST(Pclose, TellsHowTheCommandEnded)
{
    const auto end = [](const char* script) {
        FILE* stream = KLIBCPopen("/bin/sh", "r", "-c", script, static_cast<char*>(nullptr));
        ReadStream(stream);
        return KLIBCPclose(stream);
    };
    EXPECT_EQ(0, end("exit 0"));
    EXPECT_EQ(3, end("exit 3"));
    EXPECT_EQ(128 + SIGKILL, end("kill -KILL $$"));
}

TEST(Pclose, DoesNotWaitForACommandThatKeepsWriting)
{
    FILE* stream = KLIBCPopen("/usr/bin/yes", "r", static_cast<char*>(nullptr));
    ASSERT_NE(nullptr, stream);
    char text[2];
    EXPECT_EQ(2U, fread(text, 1, 2, stream));
    EXPECT_EQ(128 + SIGPIPE, KLIBCPclose(stream));
}

TEST(Pclose, RefusesAStreamThatIsNotACommands)
{
    EXPECT_EQ(-1, KLIBCPclose(nullptr));
    EXPECT_EQ(-1, KLIBCPclose(stdin));
    EXPECT_EQ(0x0D00, KLIBCErrGet());
}

TEST(Exec, GivesTheExitStatus)
{
    EXPECT_EQ(0, KLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(1, KLIBCExec("/bin/false", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0x0900, KLIBCErrGet());
    EXPECT_EQ(0, KLIBCExec("/usr/bin/test", "a b", "=", "a b", nullptr));
    EXPECT_EQ(7, KLIBCExec("/bin/sh", "-c", "exit 7", nullptr, "not reached"));
    EXPECT_EQ(-1, KLIBCExec("/bin/no-such-program", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, KLIBCExec("true", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, KLIBCExec(nullptr, nullptr, nullptr, nullptr, nullptr));
}

TEST(Exec, GivesTheCommandNoTerminalAndNoOutput)
{
    EXPECT_EQ(0,
              KLIBCExec("/bin/sh", "-c", "test \"$(readlink /proc/$$/fd/1)\" = /dev/null", nullptr, nullptr));
    EXPECT_EQ(0, KLIBCExec("/bin/sh", "-c", "test \"$(id -u):$(id -g)\" = 64217:64217", nullptr, nullptr));
}

// --- Base-64 -----------------------------------------------------------------------------------------------

TEST(Base64, EncodesThePublishedVectors) // RFC 4648, section 10
{
    const struct {
        const char* plain;
        const char* encoded;
    } vectors[] = {{"", ""},
                   {"f", "Zg=="},
                   {"fo", "Zm8="},
                   {"foo", "Zm9v"},
                   {"foob", "Zm9vYg=="},
                   {"fooba", "Zm9vYmE="},
                   {"foobar", "Zm9vYmFy"}};
    for (const auto& vector : vectors) {
        char out[16];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(
            static_cast<int>(std::strlen(vector.encoded)),
            KLIBCBase64SzEncodeFull(vector.plain, static_cast<int>(std::strlen(vector.plain)), out, 16, 0));
        EXPECT_STREQ(vector.encoded, out);
    }
}

TEST(Base64, NeverWritesBeyondTheOutput)
{
    char out[8];
    for (int size = 1; size <= 4; ++size) {
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(-1, KLIBCBase64SzEncodeFull("foo", 3, out, size, 0)) << size;
        EXPECT_EQ(0x0300, KLIBCErrGet()) << size;
        EXPECT_EQ(std::string("\0#######", 8), std::string(out, 8)) << size;
    }
    EXPECT_EQ(4, KLIBCBase64SzEncodeFull("foo", 3, out, 5, 0));
    EXPECT_EQ(-1, KLIBCBase64SzEncodeFull("foo", 3, out, 0, 0));
    EXPECT_EQ(-1, KLIBCBase64SzEncodeFull("foo", -1, out, 8, 0));
    EXPECT_EQ(-1, KLIBCBase64SzEncodeFull(nullptr, 3, out, 8, 0));
    EXPECT_EQ(-1, KLIBCBase64SzEncodeFull("foo", 3, nullptr, 8, 0));
}

// --- Files and settings ------------------------------------------------------------------------------------

TEST(FileExist, TellsWhatIsThere)
{
    EXPECT_NE(0, KLIBCFileExist("/etc/passwd"));
    EXPECT_NE(0, KLIBCFileExist("/etc"));
    EXPECT_EQ(0, KLIBCFileExist("/etc/no-such-file"));
    EXPECT_EQ(0x0700, KLIBCErrGet());
    EXPECT_EQ(0, KLIBCFileExist("/etc/passwd/below"));
    EXPECT_EQ(0, KLIBCFileExist("/root/.profile")) << "a folder that this user may not enter";
    EXPECT_EQ(0x0400, KLIBCErrGet()) << "could not look is not the same as not there";
    EXPECT_EQ(0, KLIBCFileExist(nullptr));
}

TEST(GetKeyValue, ReadsLinesOfKeyAndValue)
{
    WriteAsRoot("/etc/tavr/sample.conf",
                "# comment=\"no\"\n\nmaillang=\"ger\"\n  spaced = \" a b \" \nbare=plain\r\n"
                "empty=\"\"\ntwice=\"1\"\nquoted=\"a\"b\"\nno equals sign\ntwice=\"2\"\n"
                "last=\"end\"");
    const struct {
        const char* key;
        int result;
        const char* value;
    } cases[] = {{"maillang", 3, "ger"}, {"spaced", 5, " a b "}, {"bare", 5, "plain"}, {"empty", 0, "-"},
                 {"twice", 1, "2"},      {"quoted", 3, "a\"b"},  {"last", 3, "end"},   {"mail", 0, "-"},
                 {"comment", 0, "-"},    {"# comment", 0, "-"},  {"", 0, "-"}};
    for (const auto& one : cases) {
        char value[8] = "-";
        EXPECT_EQ(one.result, KLIBCFileGetKeyValue("/etc/tavr/sample.conf", one.key, value, 8, 0)) << one.key;
        EXPECT_STREQ(one.value, value) << one.key;
        if (one.result == 0) {
            EXPECT_EQ(0x0800, KLIBCErrGet()) << one.key;
        }
    }
    char value[4] = "-";
    EXPECT_EQ(3, KLIBCFileGetKeyValue("/etc/tavr/sample.conf", "maillang", value, 4, 0));
    value[0] = '-';
    EXPECT_EQ(-1, KLIBCFileGetKeyValue("/etc/tavr/sample.conf", "maillang", value, 3, 0)) << "does not fit";
    EXPECT_EQ('-', value[0]);
    EXPECT_EQ(-1, KLIBCFileGetKeyValue("/etc/tavr", "maillang", value, 4, 0)) << "a folder";
    EXPECT_EQ(-1, KLIBCFileGetKeyValue(nullptr, "maillang", value, 4, 0));
}

TEST_F(Settings, AreReadAnewWhenTheFileHasChanged)
{
    EXPECT_EQ("fallback", tavr::Setting("colour", "fallback"));
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "colour=\"red\"\n");
    EXPECT_EQ("red", tavr::Setting("colour", "fallback"));
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "colour=\"tan\"\n"); // of the same length, within the same second
    EXPECT_EQ("tan", tavr::Setting("colour", "fallback"));
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    unlink("/etc/tavr/tavrinfo.conf");
    EXPECT_EQ("fallback", tavr::Setting("colour", "fallback"));
}

TEST_F(Settings, AreReadAnewAfterEveryChange)
{
    TavrConf conf;
    const auto write = [](const std::string& text) {
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        std::ofstream("/etc/tavr/tavrinfo.conf", std::ios::in | std::ios::out) << text; // never cut
    };
    for (int i = 100; i < 1000; ++i) { // faster than the file's times go on
        write("colour=\"" + std::to_string(i) + "\"\n");
        EXPECT_EQ(std::to_string(i), conf.Info("colour", ""));
        ASSERT_TRUE(tavr::WriteSetting("colour", std::to_string(1100 - i)));
        EXPECT_EQ(std::to_string(1100 - i), conf.Info("colour", ""));
    }
}

TEST_F(Settings, AreNotTakenHalfWritten)
{
    TavrConf conf;
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "colour=\"red\"\n");
    EXPECT_STREQ("red", conf.Info("colour", ""));
    for (const char* part : {"", "colour", "colour=\"bl", "colour=\"blue\""}) {
        WriteAsRoot("/etc/tavr/tavrinfo.conf", part);
        EXPECT_STREQ("red", conf.Info("colour", "")) << part;
    }
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "colour=\"blue\"\n");
    EXPECT_STREQ("blue", conf.Info("colour", ""));

    // Nobody is at it any more: the file is as its owner left it.
    for (const char* whole : {"colour=\"tan\"", ""}) {
        WriteAsRoot("/etc/tavr/tavrinfo.conf", whole);
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        const timespec earlier[2] = {{1, 0}, {1, 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, "/etc/tavr/tavrinfo.conf", earlier, 0));
        EXPECT_STREQ(*whole == '\0' ? "" : "tan", conf.Info("colour", ""));
    }

    // Put at its place whole, whatever it ends with.
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "colour=\"red\"\n");
    EXPECT_STREQ("red", conf.Info("colour", ""));
    WriteAsRoot("/etc/tavr/other.conf", "colour=\"green\"");
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    ASSERT_EQ(0, rename("/etc/tavr/other.conf", "/etc/tavr/tavrinfo.conf"));
    EXPECT_STREQ("green", conf.Info("colour", ""));
}

TEST_F(Settings, StayAsTheyWereWhileTheFileCannotBeRead)
{
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "colour=\"red\"\n");
    EXPECT_EQ("red", tavr::Setting("colour", "fallback"));
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    unlink("/etc/tavr/tavrinfo.conf");
    mkdir("/etc/tavr/tavrinfo.conf", 0755);
    EXPECT_EQ("red", tavr::Setting("colour", "fallback"));
    rmdir("/etc/tavr/tavrinfo.conf");
}

// What an option says is then not known, and the request notes it.
TEST_F(Settings, AreNotKnownWhileTheFileIsAbsentEmptyOrCannotBeRead)
{
    const auto known = [] {
        tavr::StartRequest();
        TavrConf().Info("colour", "");
        EXPECT_EQ(tavr::SettingsKnown() ? tavr::Fault::None : tavr::Fault::SettingsUnavailable,
                  tavr::CurrentRequest().fault);
        return tavr::SettingsKnown();
    };
    const auto left = [](const char* text) { // by somebody who is not at it any more
        WriteAsRoot("/etc/tavr/tavrinfo.conf", text);
        const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
        const timespec earlier[2] = {{1, 0}, {1, 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, "/etc/tavr/tavrinfo.conf", earlier, 0));
    };
    left("colour=\"red\"");
    EXPECT_TRUE(known());
    left("");
    EXPECT_FALSE(known());
    left("# nothing\n");
    EXPECT_TRUE(known());
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    unlink("/etc/tavr/tavrinfo.conf");
    EXPECT_FALSE(known());
    WriteAsRoot("/etc/tavr/other.conf", "colour=\"re"); // by a process that has read nothing before
    ASSERT_EQ(0, rename("/etc/tavr/other.conf", "/etc/tavr/tavrinfo.conf"));
    EXPECT_FALSE(known());
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "colour=\"red\"\n");
    EXPECT_TRUE(known());
    unlink("/etc/tavr/tavrinfo.conf");
    mkdir("/etc/tavr/tavrinfo.conf", 0755);
    EXPECT_FALSE(known());
    EXPECT_EQ("red", tavr::Setting("colour", "")) << "the value of before";
    rmdir("/etc/tavr/tavrinfo.conf");
}

TEST_F(Settings, NumbersOutsideTheirRangeAreNotTaken)
{
    WriteAsRoot("/etc/tavr/tavrinfo.conf",
                "good=\"15\"\nlow=\"0\"\nhigh=\"99999999999999999999\"\ntext=\"5 min\"\n");
    EXPECT_EQ(15, tavr::NumberSetting("good", 7, 1, 60));
    EXPECT_EQ(7, tavr::NumberSetting("low", 7, 1, 60));
    EXPECT_EQ(7, tavr::NumberSetting("high", 7, 1, 60));
    EXPECT_EQ(7, tavr::NumberSetting("text", 7, 1, 60));
    EXPECT_EQ(7, tavr::NumberSetting("absent", 7, 1, 60));
}

TEST_F(Settings, AreWrittenWithoutTouchingOtherLines)
{
    WriteAsRoot("/etc/tavr/tavrinfo.conf",
                "# ours\nmaillang=\"enu\"\n\nunknown line\nha_safemode = no\nend=\"1\"");
    EXPECT_TRUE(tavr::WriteSetting("ha_safemode", "yes"));
    EXPECT_TRUE(tavr::WriteSetting("added", "a = #b"));
    EXPECT_EQ("# ours\nmaillang=\"enu\"\n\nunknown line\nha_safemode=\"yes\"\nend=\"1\"\nadded=\"a = #b\"\n",
              SettingsText());
    EXPECT_EQ("a = #b", tavr::Setting("added", ""));
    EXPECT_EQ(1, TAVRHAIsSafemode());
    EXPECT_TRUE(tavr::WriteSetting("ha_safemode", "no"));
    EXPECT_EQ(0, TAVRHAIsSafemode());

    struct stat entry {
    };
    ASSERT_EQ(0, lstat("/etc/tavrinfo.conf", &entry));
    EXPECT_TRUE(S_ISLNK(entry.st_mode));
    ASSERT_EQ(0, stat("/etc/tavrinfo.conf", &entry));
    EXPECT_EQ(0U, entry.st_uid);
    EXPECT_EQ(0644U, entry.st_mode & 07777U);
    EXPECT_NE(0U, geteuid());
}

TEST_F(Settings, RefuseWhatWouldBreakTheFile)
{
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "a=\"1\"\n");
    EXPECT_FALSE(tavr::WriteSetting("a", "two\nb=\"3\""));
    EXPECT_FALSE(tavr::WriteSetting("a", "\""));
    EXPECT_FALSE(tavr::WriteSetting("a", std::string("x\0y", 3)));
    EXPECT_FALSE(tavr::WriteSetting("", "1"));
    EXPECT_FALSE(tavr::WriteSetting("A b", "1"));
    EXPECT_FALSE(tavr::WriteSetting("a\n", "1"));
    EXPECT_EQ("a=\"1\"\n", SettingsText());
}

TEST_F(Settings, StayWholeWhenTheDiskIsFull)
{
    const tavr::EffectiveIds root = tavr::EffectiveIds::Root();
    ASSERT_EQ(0, mount("small", "/etc/tavr", "tmpfs", 0, "size=64k,mode=0755"));
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "a=\"1\"\n");
    EXPECT_TRUE(tavr::WriteSetting("a", "2"));
    const int fill = open("/etc/tavr/fill", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(4096, 'x');
    while (write(fill, block.data(), block.size()) > 0) {
    }
    EXPECT_FALSE(tavr::WriteSetting("a", "3"));
    EXPECT_EQ(0x0600, KLIBCErrGet());
    EXPECT_EQ("a=\"2\"\n", SettingsText());
    EXPECT_EQ("2", tavr::Setting("a", ""));
    EXPECT_EQ(0, KLIBCFileExist("/etc/tavr/tavrinfo.conf.new"));
    close(fill);
    unlink("/etc/tavr/fill");
    EXPECT_TRUE(tavr::WriteSetting("a", "3")) << "recovers by itself";
    EXPECT_EQ("3", tavr::Setting("a", ""));
    umount2("/etc/tavr", MNT_DETACH);
}

TEST_F(Settings, LoseNothingToConcurrentWriters)
{
    constexpr int kWriters = 8;
    for (int i = 0; i < kWriters; ++i) {
        if (fork() == 0) {
            bool written = true;
            for (int round = 0; round < 20; ++round) {
                written = tavr::WriteSetting("key" + std::to_string(i), std::to_string(round)) && written;
            }
            _exit(written ? 0 : 1);
        }
    }
    for (int i = 0; i < kWriters; ++i) {
        int status = -1;
        wait(&status);
        EXPECT_EQ(0, status);
    }
    for (int i = 0; i < kWriters; ++i) {
        EXPECT_EQ("19", tavr::Setting("key" + std::to_string(i), "lost"));
    }
}

TEST_F(Settings, AreGivenByTheConfigurationCall)
{
    WriteAsRoot("/etc/tavr/tavrinfo.conf", "otp_enforce_option=\"admin\"\n");
    TavrConf conf;
    EXPECT_STREQ("admin", conf.Info("otp_enforce_option", ""));
    EXPECT_STREQ("", conf.Info("absent", ""));
    EXPECT_STREQ("", conf.Info("absent", nullptr));
    EXPECT_STREQ("x", conf.Info(nullptr, "x"));
    EXPECT_STREQ("admin", conf.Info("absent", conf.Info("otp_enforce_option", "")));
}

// --- String hash -------------------------------------------------------------------------------------------

TEST(StringHash, KeepsTheLastValueOfAKey)
{
    KLIBCSzHash* hash = KLIBCSzHashAlloc(1024);
    ASSERT_NE(nullptr, hash);
    EXPECT_EQ(0, KLIBCSzHashSetValue(&hash, "%USER_NAME%", "alice"));
    EXPECT_EQ(0, KLIBCSzHashSetValue(&hash, "%EMG_CODE%", ""));
    EXPECT_EQ(0, KLIBCSzHashSetValue(&hash, "%USER_NAME%", "bob"));
    EXPECT_EQ((std::map<std::string, std::string, std::less<>>{{"%EMG_CODE%", ""}, {"%USER_NAME%", "bob"}}),
              hash->values);
    EXPECT_EQ(-1, KLIBCSzHashSetValue(&hash, nullptr, "x"));
    EXPECT_EQ(-1, KLIBCSzHashSetValue(&hash, "x", nullptr));
    EXPECT_EQ(-1, KLIBCSzHashSetValue(nullptr, "x", "x"));
    KLIBCSzHashFree(hash);
    hash = nullptr;
    EXPECT_EQ(-1, KLIBCSzHashSetValue(&hash, "x", "x"));
    KLIBCSzHashFree(nullptr);
    EXPECT_EQ(nullptr, KLIBCSzHashAlloc(-1));
}

// --- JSON --------------------------------------------------------------------------------------------------

TEST(Json, ReadsWholeFilesAndRefusesTheRest)
{
    Json::Value value;
    WriteAsRoot("/etc/tavr/good.json", "// a comment\n{\"a\": [1, \"b\"]}\n");
    EXPECT_TRUE(JsonFromFile("/etc/tavr/good.json", value));
    EXPECT_EQ("{\"a\":[1,\"b\"]}", JsonToString(value));
    WriteAsRoot("/etc/tavr/bad.json", "{\"a\": ");
    EXPECT_FALSE(JsonFromFile("/etc/tavr/bad.json", value));
    WriteAsRoot("/etc/tavr/empty.json", "");
    EXPECT_FALSE(JsonFromFile("/etc/tavr/empty.json", value));
    WriteAsRoot("/etc/tavr/deep.json", std::string(2000, '[') + std::string(2000, ']'));
    EXPECT_FALSE(JsonFromFile("/etc/tavr/deep.json", value));
    EXPECT_EQ(0x0500, KLIBCErrGet());
    EXPECT_FALSE(JsonFromFile("/etc/tavr", value));
    EXPECT_FALSE(JsonFromFile("/etc/tavr/absent.json", value));
    EXPECT_EQ(0x0400, KLIBCErrGet());
}

TEST(Json, WritesOneLine)
{
    Json::Value value;
    value["b"] = "line\nfeed \"quoted\"";
    value["a"]["deep"] = true;
    EXPECT_EQ("{\"a\":{\"deep\":true},\"b\":\"line\\nfeed \\\"quoted\\\"\"}", JsonToString(value));
    EXPECT_EQ("null", JsonToString(Json::Value()));
}

// --- Hardware id -------------------------------------------------------------------------------------------

TEST(HardwareId, IsMadeOfTheMachineIdAndIsNotIt)
{
    const auto read = [] {
        TavrHwid* id = tavrcrypto_hwid_init();
        std::string text = tavrcrypto_hwid_str(id, 64) ? id->text : "none";
        tavrcrypto_hwid_free(id);
        return text;
    };
    WriteAsRoot("/etc/machine-id", "0123456789abcdef0123456789abcdef\n");
    const std::string first = read();
    EXPECT_EQ(32U, first.size());
    EXPECT_EQ(std::string::npos, first.find_first_not_of("0123456789abcdef"));
    EXPECT_NE("0123456789abcdef0123456789abcdef", first);
    EXPECT_EQ(first, read());
    WriteAsRoot("/etc/machine-id", "0123456789abcdef0123456789abcdee\n");
    EXPECT_NE(first, read());
    for (const char* none : {"", "uninitialized\n", "0123\n", "0123456789abcdef0123456789abcdefff\n"}) {
        WriteAsRoot("/etc/machine-id", none);
        EXPECT_EQ("none", read()) << none;
        EXPECT_EQ(0x0700, KLIBCErrGet());
    }
}

TEST(HardwareId, DoesNotComeCut)
{
    WriteAsRoot("/etc/machine-id", "0123456789abcdef0123456789abcdef\n");
    TavrHwid* id = tavrcrypto_hwid_init();
    ASSERT_NE(nullptr, id);
    EXPECT_EQ(nullptr, id->text);
    EXPECT_FALSE(tavrcrypto_hwid_str(id, 32));
    EXPECT_EQ(nullptr, id->text);
    EXPECT_TRUE(tavrcrypto_hwid_str(id, 33));
    EXPECT_EQ(32, id->size);
    EXPECT_TRUE(tavrcrypto_hwid_str(id, 64)) << "a second time";
    EXPECT_FALSE(tavrcrypto_hwid_str(nullptr, 64));
    tavrcrypto_hwid_free(id);
    tavrcrypto_hwid_free(nullptr);
}
