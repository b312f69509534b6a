// platform/core.h, conf.h and json.h.
#include "platform/core.h"

#include "platform/conf.h"
#include "platform/json.h"
#include "platform/users.h"
#include "tests/contract/support.h"

#include <csignal>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace contract
{
namespace
{

// --- The error record ---

using CoreErrorRecord = Case;

TEST_F(CoreErrorRecord, TellsOfTheLastFailureAndStaysUntilTheNext)
{
    FailSomewhere();
    const Record first = LastError();
    EXPECT_NE(0, first.code);
    EXPECT_GT(first.line, 0);
    EXPECT_FALSE(first.file.empty());
    EXPECT_EQ(std::string::npos, first.file.find('/')) << "a bare name: " << first.file;

    EXPECT_EQ(first, LastError()) << "reading it changes nothing";
    EXPECT_EQ(0, KLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(first, LastError()) << "what succeeds leaves it alone";

    const char* const file = KLIBCErrorGetFile();
    FailSomewhereElse();
    const Record second = LastError();
    EXPECT_NE(first.code, second.code);
    EXPECT_NE(first.line, second.line);
    EXPECT_EQ(first.file, file) << "the text of an earlier failure is valid for ever";
    FailSomewhere();
    EXPECT_EQ(first, LastError());
}

TEST_F(CoreErrorRecord, BelongsToAThread)
{
    FailSomewhere();
    const Record ours = LastError();
    Record fresh;
    Record theirs;
    std::thread other([&] {
        fresh = LastError();
        FailSomewhereElse();
        theirs = LastError();
    });
    other.join();
    EXPECT_EQ(0, fresh.code) << "a thread begins without one";
    EXPECT_NE(ours, theirs);
    EXPECT_EQ(ours, LastError());
}

// --- Other programs ---

std::string Print(const char* script)
{
    return OutputOf("/bin/sh", "-c", script);
}

class CorePrograms : public Case
{
protected:
    const std::string folder_ = FreshFolder();
};

TEST_F(CorePrograms, GetTheirArgumentsWholeAndWithoutAShell)
{
    FILE* stream =
        KLIBCPopen("/usr/bin/printf", "r", "%s|", "a b", "$(id); `id`", "", "*", static_cast<char*>(nullptr));
    ASSERT_NE(nullptr, stream);
    char text[64] = {};
    EXPECT_EQ(19U, fread(text, 1, sizeof text - 1, stream));
    EXPECT_STREQ("a b|$(id); `id`||*|", text);
    EXPECT_EQ(0, KLIBCPclose(stream));

    EXPECT_EQ(0, KLIBCExec("/usr/bin/test", "a b$(id)", "=", "a b$(id)", nullptr));
    EXPECT_EQ(0, KLIBCExec("/bin/sh", "-c", "test $# = 1 && test \"$1\" = \"x y\"", "sh", "x y"));
    EXPECT_EQ(7, KLIBCExec("/bin/sh", "-c", "exit 7", nullptr, "not reached"));
}

TEST_F(CorePrograms, GetNothingOfTheCaller)
{
    const int leaked = open("/etc/passwd", O_RDONLY); // not close-on-exec
    const int high = fcntl(leaked, F_DUPFD, 200);
    setenv("CONTRACT_SECRET", "not for others", 1); // NOLINT(concurrency-mt-unsafe)
    const std::string descriptors = Print("exec ls /proc/self/fd");
    const std::string environment = Print("exec /usr/bin/env");
    const int exec = KLIBCExec("/bin/sh", "-c", "test -z \"$CONTRACT_SECRET\" && test ! -e /proc/self/fd/200",
                               nullptr, nullptr);
    unsetenv("CONTRACT_SECRET"); // NOLINT(concurrency-mt-unsafe)
    close(high);
    close(leaked);
    EXPECT_EQ("0\n1\n2\n3\n", descriptors) << "the fourth is the listing's own";
    EXPECT_EQ(std::string::npos, environment.find("CONTRACT_SECRET"));
    EXPECT_NE(std::string::npos, environment.find("PATH="));
    EXPECT_EQ(0, exec);
}

TEST_F(CorePrograms, RunWithTheRealIdsWhateverIsRaised)
{
    const AsRoot raised;
    EXPECT_EQ(std::to_string(getuid()) + "\n", Print("id -u"));
    EXPECT_EQ(std::to_string(getgid()) + "\n", Print("id -g"));
    const std::string test = "test $(id -u) = " + std::to_string(getuid());
    EXPECT_EQ(0, KLIBCExec("/bin/sh", "-c", test.c_str(), nullptr, nullptr));
}

TEST_F(CorePrograms, ThatCannotBeStartedAreFailures)
{
    for (const char* path : {"/usr/bin/no-such-program", "/etc/passwd", "/etc"}) {
        const auto start = [path] { return KLIBCPopen(path, "r", "x", static_cast<char*>(nullptr)); };
        EXPECT_TRUE(Fails(start)) << path;
        const auto run = [path] { return KLIBCExec(path, nullptr, nullptr, nullptr, nullptr); };
        EXPECT_TRUE(Fails(run)) << path;
    }
    EXPECT_TRUE(Fails([] { return KLIBCPopen(nullptr, "r", static_cast<char*>(nullptr)); }));
    EXPECT_TRUE(Fails([] { return KLIBCExec(nullptr, nullptr, nullptr, nullptr, nullptr); }));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child is left behind";
}

TEST_F(CorePrograms, AreNotWaitedForWhenTheyAreStarted)
{
    // It ends when this program makes the file: a start that waits never comes back.
    const std::string file = folder_ + "/go";
    const std::string script = "echo started; until [ -e " + file + " ]; do sleep 0.02; done";
    FILE* stream = KLIBCPopen("/bin/sh", "r", "-c", script.c_str(), static_cast<char*>(nullptr));
    ASSERT_NE(nullptr, stream);
    char text[9] = {};
    EXPECT_EQ(8U, fread(text, 1, 8, stream));
    EXPECT_STREQ("started\n", text);
    WriteText(file, "");
    EXPECT_EQ(0, KLIBCPclose(stream));
}

TEST_F(CorePrograms, AreWaitedForWhenTheyAreClosedOrRun)
{
    const std::string file = folder_ + "/done";
    const std::string script = "exec >&-; sleep 0.1; touch " + file;
    FILE* stream = KLIBCPopen("/bin/sh", "r", "-c", script.c_str(), static_cast<char*>(nullptr));
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(0, KLIBCPclose(stream));
    EXPECT_TRUE(Stands(file));
    unlink(file.c_str());
    EXPECT_EQ(0, KLIBCExec("/bin/sh", "-c", script.c_str(), nullptr, nullptr));
    EXPECT_TRUE(Stands(file));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child is left behind";
}

TEST_F(CorePrograms, TellHowTheyEnded)
{
    const auto end = [](const char* script) {
        FILE* stream = KLIBCPopen("/bin/sh", "r", "-c", script, static_cast<char*>(nullptr));
        return stream == nullptr ? -2 : KLIBCPclose(stream);
    };
    EXPECT_EQ(0, end("exit 0"));
    EXPECT_EQ(3, end("exit 3"));
    EXPECT_EQ(128 + SIGKILL, end("kill -KILL $$"));

    FILE* stream = KLIBCPopen("/usr/bin/yes", "r", static_cast<char*>(nullptr));
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(128 + SIGPIPE, KLIBCPclose(stream)) << "one that is still writing";

    EXPECT_EQ(0, KLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr));
    EXPECT_NE(0, KLIBCExec("/bin/false", nullptr, nullptr, nullptr, nullptr));
}

TEST_F(CorePrograms, LeaveNothingOpen)
{
    const size_t before = OpenDescriptors();
    for (int i = 0; i < 20; ++i) {
        Print("exit 0");
        KLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr);
        KLIBCPopen("/usr/bin/no-such-program", "r", static_cast<char*>(nullptr));
    }
    EXPECT_EQ(before, OpenDescriptors());
}

// --- Base-64 ---

using CoreBase64 = Case;

TEST_F(CoreBase64, IsThePublishedOne) // RFC 4648, section 10
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
        Out out;
        const int size = static_cast<int>(std::strlen(vector.plain));
        EXPECT_EQ(static_cast<int>(std::strlen(vector.encoded)),
                  KLIBCBase64SzEncodeFull(vector.plain, size, out.Get(), 16, 0));
        EXPECT_EQ(vector.encoded, out.Text());
    }
    Out out;
    EXPECT_EQ(8, KLIBCBase64SzEncodeFull("\0\xff\xfe\xfb\xef", 5, out.Get(), 9, 0)) << "bytes, not a text";
    EXPECT_EQ("AP/+++8=", out.Text());
    const std::string picture(3000, 'x');
    EXPECT_EQ(4000, KLIBCBase64SzEncodeFull(picture.data(), 3000, out.Get(), 4001, 0)) << "on one line";
    EXPECT_EQ(std::string::npos, out.Text().find('\n'));
}

TEST_F(CoreBase64, NeverWritesBeyondItsRoom)
{
    for (int size = 1; size <= 4; ++size) {
        Out out;
        EXPECT_TRUE(
            Fails([&] { return KLIBCBase64SzEncodeFull("foo", 3, out.Get(), size, 0); }, FailSomewhereElse))
            << size;
        EXPECT_EQ("", out.Text());
        EXPECT_TRUE(out.Untouched(1)) << size;
    }
    Out out;
    EXPECT_EQ(-1, KLIBCBase64SzEncodeFull("foo", 3, out.Get(), 0, 0));
    EXPECT_EQ(-1, KLIBCBase64SzEncodeFull("foo", -1, out.Get(), 8, 0));
    EXPECT_EQ(-1, KLIBCBase64SzEncodeFull(nullptr, 3, out.Get() + 1, 8, 0));
    EXPECT_EQ(-1, KLIBCBase64SzEncodeFull("foo", 3, nullptr, 8, 0));
}

// --- The text cipher, as far as it needs no secret (secrets.cpp has the rest) ---

using CoreCipher = Case;

TEST_F(CoreCipher, DeclinesWhatItDidNotMake)
{
    const std::string longText(5000, 'A');
    for (const char* stored : {"", "JBSWY3DPEHPK3PXP", "JBSWY3DPEHPK3PXPJBSWY3DPEHPK3PXP", "12345678",
                               "\xff\xfe", "x y\n", longText.c_str()}) {
        Out plain;
        EXPECT_EQ(0, KLIBCCryptSzDecrypt(stored, plain.Get(), 1024)) << stored;
        EXPECT_TRUE(plain.Untouched()) << stored;
    }
    Out plain;
    EXPECT_EQ(0, KLIBCCryptSzDecrypt(nullptr, plain.Get(), 1024));
    EXPECT_TRUE(plain.Untouched());
}

// --- Files ---

class CoreFiles : public Case
{
protected:
    const std::string folder_ = FreshFolder();
};

TEST_F(CoreFiles, AreThereOrNot)
{
    WriteText(folder_ + "/file", "");
    EXPECT_NE(0, KLIBCFileExist((folder_ + "/file").c_str()));
    EXPECT_NE(0, KLIBCFileExist(folder_.c_str()));
    EXPECT_EQ(0, KLIBCFileExist((folder_ + "/absent").c_str()));
    EXPECT_EQ(0, KLIBCFileExist((folder_ + "/file/below").c_str()));
    EXPECT_EQ(0, KLIBCFileExist(nullptr));
    EXPECT_FALSE(Stands(folder_ + "/absent"));
}

TEST_F(CoreFiles, AreLookedForWithTheEffectiveIds)
{
    std::string shut = folder_ + "/shut";
    {
        const AsRoot raised;
        ASSERT_EQ(0, mkdir(shut.c_str(), 0700));
        WriteText(shut + "/file", "");
        ASSERT_EQ(0, chown(shut.c_str(), 0, 0));
    }
    shut += "/file";
    if (geteuid() != 0) {
        EXPECT_EQ(0, KLIBCFileExist(shut.c_str()));
    }
    const AsRoot raised;
    EXPECT_NE(0, KLIBCFileExist(shut.c_str()));
    unlink(shut.c_str());
    rmdir((folder_ + "/shut").c_str());
}

TEST_F(CoreFiles, HoldKeysAndValues)
{
    const std::string path = folder_ + "/settings";
    WriteText(path, "# comment=\"no\"\n\nmaillang=\"ger\"\nspaced=\" a b \"\nbare=plain\nempty=\"\"\n"
                    "twice=\"1\"\nno equals sign\ntwice=\"2\"\nlast=\"end\"");
    const struct {
        const char* key;
        int result;
        const char* value;
    } cases[] = {{"maillang", 3, "ger"},
                 {"spaced", 5, " a b "},
                 {"bare", 5, "plain"},
                 {"twice", 1, "2"},
                 {"last", 3, "end"}};
    for (const auto& one : cases) {
        Out value;
        EXPECT_EQ(one.result, KLIBCFileGetKeyValue(path.c_str(), one.key, value.Get(), 8, 0)) << one.key;
        EXPECT_EQ(one.value, value.Text()) << one.key;
    }
    for (const char* none : {"empty", "mail", "maillangs", "comment", "# comment", "no equals sign", ""}) {
        Out value;
        FailSomewhere();
        const Record before = LastError();
        EXPECT_EQ(0, KLIBCFileGetKeyValue(path.c_str(), none, value.Get(), 8, 0)) << none;
        EXPECT_NE(before, LastError()) << "it is logged by its caller: " << none;
        EXPECT_TRUE(value.Untouched()) << none;
    }
    Out value;
    EXPECT_EQ(3, KLIBCFileGetKeyValue(path.c_str(), "maillang", value.Get(), 4, 0)) << "it just fits";
    EXPECT_TRUE(value.Untouched(4));
    WriteText(path, "maillang=\"rus\"\n");
    EXPECT_EQ(3, KLIBCFileGetKeyValue(path.c_str(), "maillang", value.Get(), 4, 0));
    EXPECT_EQ("rus", value.Text()) << "as it stands now";
}

TEST_F(CoreFiles, OfSettingsThatCannotBeReadAreFailures)
{
    const std::string path = folder_ + "/settings";
    WriteText(path, "maillang=\"ger\"\n");
    Out value;
    const auto get = [&](const char* file, const char* key, int size) {
        return Fails([&, file, key, size] { return KLIBCFileGetKeyValue(file, key, value.Get(), size, 0); });
    };
    EXPECT_TRUE(get((folder_ + "/absent").c_str(), "maillang", 8));
    EXPECT_TRUE(get(folder_.c_str(), "maillang", 8)) << "a folder";
    EXPECT_TRUE(get(path.c_str(), "maillang", 3)) << "it does not fit, and is not cut";
    EXPECT_TRUE(get(nullptr, "maillang", 8));
    EXPECT_TRUE(get(path.c_str(), nullptr, 8));
    EXPECT_TRUE(value.Untouched());
    EXPECT_FALSE(Stands(folder_ + "/absent"));
}

// --- Tables ---

using CoreTable = Case;

// What a table holds is seen in a mail (mail.cpp); here it is made, filled and given back.
TEST_F(CoreTable, TakesAsMuchAsIsPut)
{
    KLIBCSzHash* table = KLIBCSzHashAlloc(16);
    ASSERT_NE(nullptr, table);
    for (int i = 0; i < 1000; ++i) {
        const std::string key = "%KEY_" + std::to_string(i) + "%";
        ASSERT_EQ(0, KLIBCSzHashSetValue(&table, key.c_str(), std::string(100, 'v').c_str())) << i;
    }
    EXPECT_EQ(0, KLIBCSzHashSetValue(&table, "", "")) << "empty texts are texts";
    EXPECT_TRUE(Fails([&] { return KLIBCSzHashSetValue(&table, nullptr, "x"); }));
    EXPECT_TRUE(Fails([&] { return KLIBCSzHashSetValue(&table, "x", nullptr); }));
    KLIBCSzHash* none = nullptr;
    EXPECT_TRUE(Fails([&] { return KLIBCSzHashSetValue(&none, "x", "x"); }));
    EXPECT_TRUE(Fails([&] { return KLIBCSzHashSetValue(nullptr, "x", "x"); }));
    KLIBCSzHashFree(table);
    KLIBCSzHashFree(nullptr);
    EXPECT_TRUE(Fails([] { return KLIBCSzHashAlloc(-1); }));
}

TEST_F(CoreTable, IsGivenBackWhole)
{
    EXPECT_TRUE(GivesEverythingBack([] {
        KLIBCSzHash* table = KLIBCSzHashAlloc(1024);
        const std::string value(500, 'v');
        KLIBCSzHashSetValue(&table, "%USER_NAME%", value.c_str());
        KLIBCSzHashSetValue(&table, "%USER_NAME%", "again");
        KLIBCSzHashFree(table);
    }));
}

// --- The system's state ---

using CoreSafeMode = Case;

TEST_F(CoreSafeMode, IsOffUnlessTheSystemIsInIt)
{
    EXPECT_EQ(0, TAVRHAIsSafemode());
    if (!Has().safeMode) {
        GTEST_SKIP() << "the maker says that the system has no safe mode";
    }
    SetSafeMode(true);
    EXPECT_NE(0, TAVRHAIsSafemode());
    SetSafeMode(false);
    EXPECT_EQ(0, TAVRHAIsSafemode());
}

// --- Settings (conf.h) ---

using ConfSettings = Case;

TEST_F(ConfSettings, AreReadAnew)
{
    TavrConf conf;
    SetSetting("otp_enforce_option", "admin");
    EXPECT_STREQ("admin", conf.Info("otp_enforce_option", ""));
    SetSetting("otp_enforce_option", "custom");
    EXPECT_STREQ("custom", conf.Info("otp_enforce_option", ""));
    TavrConf other;
    EXPECT_STREQ("custom", other.Info("otp_enforce_option", "none"));
    SetSetting("otp_enforce_option", "none");
    EXPECT_STREQ("none", conf.Info("otp_enforce_option", ""));
}

TEST_F(ConfSettings, ThatAreAbsentAreTheFallback)
{
    TavrConf conf;
    EXPECT_STREQ("", conf.Info("contract_absent", ""));
    EXPECT_STREQ("fallback", conf.Info("contract_absent", "fallback"));
    const char* const former = conf.Info("contract_absent", "former text");
    EXPECT_STREQ("former text", conf.Info("contract_absent", former))
        << "the text of the last call is allowed";
    EXPECT_STREQ("fallback", conf.Info("", "fallback"));
}

// --- JSON (json.h) ---

class JsonTexts : public Case
{
protected:
    const std::string path_ = FreshFolder() + "/file.json";
};

TEST_F(JsonTexts, AreReadFromWholeFiles)
{
    Json::Value value;
    WriteText(path_, "// a comment\n{\"a\": [1, \"b\"], /* another */ \"c\": {\"d\": null}}\n");
    EXPECT_TRUE(JsonFromFile(path_, value));
    EXPECT_EQ("{\"a\":[1,\"b\"],\"c\":{\"d\":null}}", JsonToString(value));
    WriteText(path_, "{\"long\": \"" + std::string(300'000, 'x') + "\"}");
    EXPECT_TRUE(JsonFromFile(path_, value));
    EXPECT_EQ(300'000U, value["long"].asString().size());
    EXPECT_FALSE(value.isMember("a")) << "the former content is gone";
}

TEST_F(JsonTexts, ThatAreNoneAreFailures)
{
    Json::Value value;
    for (const char* text : {"", "{\"a\": ", "no json"}) {
        WriteText(path_, text);
        EXPECT_TRUE(Fails([&] { return JsonFromFile(path_, value); })) << text;
    }
    EXPECT_TRUE(Fails([&] { return JsonFromFile(path_ + ".absent", value); }));
    EXPECT_TRUE(Fails([&] { return JsonFromFile("/etc", value); })) << "a folder";
    EXPECT_FALSE(Stands(path_ + ".absent"));
}

TEST_F(JsonTexts, AreWrittenCompact)
{
    Json::Value value;
    value["b"] = "line\nfeed \"quoted\"";
    value["a"]["deep"] = true;
    EXPECT_EQ("{\"a\":{\"deep\":true},\"b\":\"line\\nfeed \\\"quoted\\\"\"}", JsonToString(value));
    EXPECT_EQ("null", JsonToString(Json::Value()));
}

} // namespace
} // namespace contract
