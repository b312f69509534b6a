// Accounts of the system: a view's own /etc/passwd, group and shadow, changed by the system's own programs,
// and passwords compared by PAM.
#include "linux/system_accounts.h"

#include "linux/account_list.h"
#include "linux/account_lock.h"
#include "linux/enrolment.h"
#include "linux/ids.h"
#include "linux/names.h"
#include "linux/not_enrolled.h"
#include "linux/paths.h"
#include "linux/request.h"
#include "linux/session.h"
#include "linux/vault.h"
#include "platform/cgi.h"
#include "platform/core.h"
#include "platform/users.h"
#include "tests/support/fresh_server.h"

#include <crypt.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

using namespace tavr;
using namespace tavr::test;

namespace
{

namespace fs = std::filesystem;

constexpr const char* kFiles[] = {"/etc/passwd",       "/etc/shadow",     "/etc/group",
                                  "/etc/gshadow",      "/etc/login.defs", "/etc/pam.d/tavr-otp",
                                  "/etc/nsswitch.conf"};
constexpr char kPassword[] = "anna's pässword";

void Shell(const std::string& command)
{
    ASSERT_EQ(0, std::system(command.c_str())) << command; // NOLINT(concurrency-mt-unsafe)
}

std::string Hash(const std::string& password)
{
    return crypt(password.c_str(), "$y$j75T$abcdefghijklmnop"); // as the system's own, at the least cost
}

void AddPerson(const std::string& name, const std::string& options = "")
{
    Shell("useradd --password '" + Hash(kPassword) + "' " + options + " -- " + name);
}

// What a worker found, for the test itself; and back.
void Tell(const std::string& path, int64_t number)
{
    const EffectiveIds root = EffectiveIds::Root();
    WriteFile(path, std::to_string(number));
}

int64_t Told(const std::string& path)
{
    return std::stoll(ReadFile(path));
}

// Each in a request of its own.
std::optional<Account> Find(const std::string& name)
{
    StartRequest();
    return FindAccount(name);
}

uint32_t NumberOf(const std::string& name)
{
    const auto account = Find(name);
    return account ? account->uid : 0;
}

bool IsAdmin(const std::string& name)
{
    StartRequest();
    return KLIBGroupIsAdminGroupMem(name.c_str(), 0) == 1;
}

// What the platform's login says: 1, 0, or -1 for what could not be told.
int LogIn(std::string name, const std::string& password)
{
    StartRequest();
    TavrLogin login{name.data(), password.c_str(), "", 0};
    const int result = TavrCgiTestLoginEx2(&login, nullptr, nullptr, 0);
    EXPECT_EQ(getuid(), geteuid()) << "no id is left raised";
    EXPECT_EQ(getgid(), getegid());
    EXPECT_EQ(result < 0, CurrentRequest().fault != Fault::None) << name;
    return result;
}

std::vector<std::string> ListedNames(int64_t (*list)(std::string_view, const ListPage&, const EachEntry&),
                                     const std::string& text, ListPage page = {})
{
    StartRequest();
    std::vector<std::string> names;
    list(text, page, [&](const ListEntry& entry) { names.emplace_back(entry.name); });
    return names;
}

class SystemAccounts : public FreshServer
{
protected:
    static void SetUpTestSuite()
    {
        fs::create_directory("/run/machine");
        for (const char* path : kFiles) {
            if (fs::exists(path)) { // all of them but for gshadow in an ordinary user's view
                fs::copy_file(path, "/run/machine/" + fs::path(path).filename().string());
            }
        }
    }
    void SetUp() override
    {
        FreshServer::SetUp();
        for (const char* path : kFiles) {
            PutBack(path);
        }
        ASSERT_EQ(0, chown("/etc/shadow", 0, 0));
        ASSERT_EQ(0, chmod("/etc/shadow", 0600));
        Shell("getent group sudo >/dev/null || groupadd --system sudo");
        Shell("groups=$(getent passwd | awk -F: '$3 >= 1000 && $3 <= 60000 { print $1 }'); "
              "for name in $groups; do userdel $name; done 2>/dev/null");
        WriteSettings("accounts=\"system\"\n");
        AddPerson("anna", "--uid 1500 --comment 'Anna, Room 7' --groups sudo");
        AddPerson("bob", "--uid 1501");
    }
    static void PutBack(const std::string& path)
    {
        const std::string kept = "/run/machine/" + fs::path(path).filename().string();
        fs::remove_all(path);
        if (fs::exists(kept)) {
            fs::copy_file(kept, path);
        }
    }
};

constexpr uint32_t kFirst = 1'000'000'000;

} // namespace

TEST_F(SystemAccounts, AreThoseThatPeopleHave)
{
    AddPerson("low", "--uid 999");
    AddPerson("high", "--uid 60001");
    AsWorker([] {
        StartRequest();
        TAVRUser* anna = nullptr;
        ASSERT_EQ(0, TAVRUserGet(" ANNA ", &anna)) << KLIBCErrGet();
        EXPECT_STREQ("anna", anna->name);
        EXPECT_EQ(1, anna->kind);
        EXPECT_STREQ("Anna", anna->description);
        EXPECT_STREQ("", anna->mail);
        TAVRUserFree(anna);
        EXPECT_NE(NumberOf("anna"), NumberOf("bob"));
        EXPECT_GE(NumberOf("anna"), kFirst);
        EXPECT_TRUE(IsAdmin("anna"));
        EXPECT_FALSE(IsAdmin("bob"));
        for (const char* name : {"root", "daemon", "nobody", "tavr-web", "low", "high", "", "eve", "sudo"}) {
            EXPECT_EQ(0U, NumberOf(name)) << name;
            EXPECT_EQ(Fault::None, CurrentRequest().fault) << name;
        }
    });
}

TEST_F(SystemAccounts, AreThoseOfTheRangeThatLoginDefsHas)
{
    Shell("sed -i '/^[UG]ID_M[AI][NX]/d' /etc/login.defs");
    Shell("printf '# UID_MIN 1\\n  UID_MIN\\t1501 # more\\nUID_MAX 1502\\n' >>/etc/login.defs");
    AsWorker([] {
        EXPECT_EQ(0U, NumberOf("anna"));
        EXPECT_NE(0U, NumberOf("bob"));
    });
    Shell("sed -i 's/1501/0/' /etc/login.defs");
    AsWorker([] {
        EXPECT_NE(0U, NumberOf("anna"));
        EXPECT_EQ(0U, NumberOf("root")) << "never";
    });
    fs::remove("/etc/login.defs");
    AsWorker([] { EXPECT_NE(0U, NumberOf("bob")) << "the usual range"; });
}

TEST_F(SystemAccounts, TakeTheirPasswordsFromPam)
{
    AddPerson("locked");
    Shell("usermod --lock locked");
    AddPerson("gone-by", "--expiredate 2020-01-01");
    AddPerson("old");
    Shell("chage --lastday 0 old");
    AddPerson("nologin", "--shell /usr/sbin/nologin");
    Shell("useradd -- none"); // no password at all
    Shell("useradd -p '' -- open");
    Shell("usermod -p '" + Hash("roots") + "' root");
    AsWorker([] {
        EXPECT_EQ(1, LogIn("anna", kPassword));
        EXPECT_EQ(1, LogIn("bob", kPassword));
        EXPECT_EQ(1, LogIn("nologin", kPassword)) << "PAM's service does not ask for a shell";
        for (const char* name : {"locked", "gone-by", "old", "none", "open", "root", "eve", "tavr-web", ""}) {
            EXPECT_EQ(0, LogIn(name, kPassword)) << name;
        }
        EXPECT_EQ(0, LogIn("root", "roots"));
        EXPECT_EQ(0, LogIn("open", ""));
        for (const std::string& wrong :
             {std::string("wrong"), std::string(), kPassword + std::string("x"), std::string(600, 'a')}) {
            EXPECT_EQ(0, LogIn("anna", wrong)) << wrong;
        }
    });
    Shell("usermod --unlock locked; chage --expiredate -1 gone-by; chage --lastday 10000 old");
    AsWorker([] {
        for (const char* name : {"locked", "gone-by", "old"}) {
            EXPECT_EQ(1, LogIn(name, kPassword)) << name;
        }
    });
}

// Which accounts there are, and which are locked, cannot be told from the time that a "no" takes.
TEST_F(SystemAccounts, AreRefusedNoSoonerThanUnknownOnes)
{
    Shell("usermod --lock bob");
    AsWorker([] {
        for (const char* name : {"anna", "bob", "eve", "root", ""}) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(0, LogIn(name, "wrong")) << name;
            EXPECT_LE(std::chrono::milliseconds(250), std::chrono::steady_clock::now() - start) << name;
        }
    });
}

TEST_F(SystemAccounts, FollowWhatPamsServiceSays)
{
    AddPerson("nologin", "--shell /usr/sbin/nologin");
    Shell("echo 'account required pam_shells.so' >>/etc/pam.d/tavr-otp");
    AsWorker([] {
        EXPECT_EQ(0, LogIn("nologin", kPassword));
        EXPECT_EQ(1, LogIn("bob", kPassword));
    });
}

TEST_F(SystemAccounts, AreNotLetInWherePamCannotTell)
{
    const std::pair<const char*, const char*> cases[] = {
        {"rm /etc/pam.d/tavr-otp", "no service"},
        {"echo 'auth required pam_no_such_module.so' >/etc/pam.d/tavr-otp", "no module"},
        {"echo 'passwd: systemd' >/etc/nsswitch.conf", "the C library does not know her"},
    };
    for (const auto& [command, what] : cases) {
        Shell(command);
        AsWorker([what = what] {
            EXPECT_EQ(-1, LogIn("anna", kPassword)) << what;
            EXPECT_EQ(-1, LogIn("anna", "wrong")) << what;
            EXPECT_EQ(Fault::AccountsUnavailable, CurrentRequest().fault) << what;
        });
        PutBack("/etc/pam.d/tavr-otp");
        PutBack("/etc/nsswitch.conf");
    }
    AsWorker([] { EXPECT_EQ(1, LogIn("anna", kPassword)); });
}

TEST_F(SystemAccounts, KeepWhatIsOurs)
{
    AsWorker([] {
        const uint32_t number = NumberOf("anna");
        TAVRUser* anna = nullptr;
        ASSERT_EQ(0, TAVRUserGet("anna", &anna));
        anna->mail = "anna@home.example";
        EXPECT_EQ(0, TAVRConfdUserUpdate("anna", anna, 0));
        anna->description = "somebody else";
        EXPECT_EQ(-1, TAVRConfdUserUpdate("anna", anna, 0)) << "the system's to say";
        TAVRUserFree(anna);
        EXPECT_EQ("anna@home.example", Find("anna")->mail);
        EXPECT_EQ("Anna", Find("anna")->description);
        EXPECT_EQ(number, NumberOf("anna"));
    });
    Shell("usermod --comment 'Anna Other' anna");
    AsWorker([] {
        EXPECT_EQ("Anna Other", Find("anna")->description);
        EXPECT_EQ("anna@home.example", Find("anna")->mail);
        EXPECT_EQ((std::vector<std::string>{"anna"}), ListedNames(ListAccounts, "other"));
    });
}

// Deleted and made anew, or with another uid: somebody else, who finds nothing of the former one.
TEST_F(SystemAccounts, AreSomebodyElseOnceTheyWereGone)
{
    const std::pair<const char*, const char*> cases[] = {
        {"userdel bob", "useradd --uid 1501 -p x bob"},
        {"usermod --uid 1777 bob", ":"},
        {"usermod --login robert bob", "usermod --login bob robert"},
    };
    for (const auto& [first, then] : cases) {
        AsWorker([] {
            Account bob = *Find("bob");
            ASSERT_TRUE(MakePreferenceDirectory(bob));
            AccountChange change;
            change.mail = "bob@home.example";
            ASSERT_TRUE(ChangeAccount(bob.uid, change));
            SecretBytes secret;
            DrawSecret(secret);
            StoreWaiting(bob.uid, MakeReferences(), secret);
            ASSERT_FALSE(AccountsWithWaiting().empty());
            Tell("/run/former", bob.uid);
        });
        const auto former = static_cast<uint32_t>(Told("/run/former"));
        Shell(first);
        AsWorker([&, what = first] {
            EXPECT_NE(former, NumberOf("bob")) << what;
            StartRequest();
            EXPECT_FALSE(FindAccount(former)) << what;
            EXPECT_TRUE(AccountsWithWaiting().empty()) << what;
            EXPECT_FALSE(fs::exists(PreferencePath("bob"))) << what;
        });
        Shell(then);
        AsWorker([&, what = first] {
            const auto bob = Find("bob");
            ASSERT_TRUE(bob) << what;
            EXPECT_NE(former, bob->uid) << what;
            EXPECT_EQ("", bob->mail) << what;
        });
        AsWorker([] { EXPECT_NE(0U, NumberOf("anna")); });
    }
}

TEST_F(SystemAccounts, AreNotClearedAwayWhileSomebodyWritesTheirFiles)
{
    AsWorker([] {
        const Account bob = *Find("bob");
        ASSERT_TRUE(MakePreferenceDirectory(bob));
        EXPECT_TRUE(AccountLock(bob).Held()); // makes the file
        Tell("/run/number", bob.uid);
    });
    Descriptor writer = LockAccount(static_cast<uint32_t>(Told("/run/number")), LockWait::Not);
    ASSERT_TRUE(writer);
    Shell("userdel bob");
    AsWorker([] {
        EXPECT_THROW(Find("bob"), DatabaseError);
        EXPECT_THROW(Find("anna"), DatabaseError) << "the store is not in step";
    });
    EXPECT_TRUE(fs::exists(std::string(kPreferenceDir) + "/bob"));
    writer = Descriptor();
    AsWorker([] {
        EXPECT_FALSE(Find("bob"));
        EXPECT_TRUE(Find("anna"));
    });
    EXPECT_FALSE(fs::exists(std::string(kPreferenceDir) + "/bob"));
}

TEST_F(SystemAccounts, LoseTheirSessionsWithTheirPasswordAndTheirRights)
{
    const std::string commands[] = {
        "usermod --password '" + Hash("another") + "' anna",
        "usermod --lock anna",
        "usermod --unlock anna",
        "chage --expiredate 2020-01-01 anna",
        "chage --expiredate -1 anna",
        "gpasswd --delete anna sudo >/dev/null",
        "usermod --append --groups sudo anna",
        "usermod --groups '' --gid sudo anna",
    };
    for (const std::string& command : commands) {
        AsWorker([] { Tell("/run/generation", Find("anna")->generation); });
        const int64_t before = Told("/run/generation");
        Shell("usermod --comment '" + std::string("x") + std::to_string(before) + "' bob"); // not hers
        AsWorker([&] { EXPECT_EQ(before, Find("anna")->generation) << "before " << command; });
        Shell(command);
        AsWorker([&] {
            EXPECT_EQ(!command.ends_with("--gid sudo anna"), before < Find("anna")->generation) << command;
            EXPECT_EQ(command.find("2020") != std::string::npos, Find("anna")->disabled) << command;
            EXPECT_EQ(command.find("--delete") == std::string::npos, IsAdmin("anna")) << command;
        });
    }
}

TEST_F(SystemAccounts, ExpireOnTheirDay)
{
    Shell("chage --expiredate 2030-01-02 anna");
    AsWorker([] {
        SetWallClock(1893455999 + 86400); // the last second before
        EXPECT_FALSE(Find("anna")->disabled);
        SetWallClock(1893456000 + 86400);
        EXPECT_TRUE(Find("anna")->disabled);
        EXPECT_EQ(0, LogIn("anna", kPassword));
        EXPECT_EQ(1, LogIn("bob", kPassword));
    });
}

TEST_F(SystemAccounts, ThatCannotBeReadWholeAreNotKnownAndNotGone)
{
    AsWorker([] { Tell("/run/number", NumberOf("anna")); });
    const auto number = static_cast<uint32_t>(Told("/run/number"));
    const char* const commands[] = {
        "rm /etc/passwd",
        ": >/etc/passwd",
        "echo 'bob:x:1501:1501::/:/bin/sh' >/etc/passwd",
        "truncate --size=-30 /etc/passwd",
        "sed -i '/^root:/d' /etc/passwd",
        "printf 'anna:x:1500:1500:\\0::\\n' >>/etc/passwd",
        "rm /etc/passwd; mkdir /etc/passwd",
        "rm /etc/passwd; mkfifo /etc/passwd",
        "rm /etc/shadow",
        "truncate --size=-3 /etc/shadow",
        "rm /etc/group",
        "truncate --size=-2 /etc/group",
        "echo 'UID_MIN many' >>/etc/login.defs",
        "echo 'UID_MAX' >>/etc/login.defs",
        "rm /etc/login.defs; mkdir /etc/login.defs",
        "echo 'accounts=\"systm\"' >>/etc/tavr/tavrinfo.conf",
    };
    Shell("mkdir -p /run/whole; cp -a /etc/passwd /etc/shadow /etc/group /etc/login.defs /run/whole/");
    for (const char* command : commands) {
        Shell(command);
        AsWorker([&] {
            EXPECT_EQ(-1, LogIn("anna", kPassword)) << command;
            EXPECT_EQ(Fault::AccountsUnavailable, CurrentRequest().fault) << command;
            StartRequest();
            EXPECT_THROW(FindAccount(number), DatabaseError) << command;
            StartRequest();
            EXPECT_THROW(ListAccounts("", {}, [](const ListEntry&) {}), DatabaseError) << command;
        });
        Shell("cd /etc; rm -rf passwd shadow group login.defs; cp -a /run/whole/. /etc/");
        WriteSettings("accounts=\"system\"\n");
        AsWorker([&] {
            EXPECT_EQ(number, NumberOf("anna")) << "after " << command;
            EXPECT_EQ(1, LogIn("anna", kPassword)) << "after " << command;
        });
    }
}

TEST_F(SystemAccounts, WithNamesThatMeanSomethingElseHereAreLeftOut)
{
    const std::string line = ":x:1600:1600:::\n";
    const std::string long500(500, 'a');
    std::string text = ReadFile("/etc/passwd");
    const std::string names[] = {
        "Eve",  "+eve",  "-eve",   "eve@home",       "HOME\\eve", "eve\xff", "e\xe2\x80\x8bve",
        "e/ve", long500, "..\x01", "\xef\xbd\x85ve", "+"};
    for (const std::string& name : names) {
        text += name + line;
    }
    text += "anna:x:1700:1700:second::\n\n:::\nnonsense\nx:y\n:x:1800:1800:::\n";
    text += "\xc3\xa9ve" + line; // small, composed
    Shell("cat /etc/passwd >/run/passwd");
    WriteFile("/run/passwd", text);
    Shell("chmod 644 /run/passwd; mv /run/passwd /etc/passwd");
    Shell("echo 'Group:x:2000:anna' >>/etc/group; echo '+gr:x:2001:' >>/etc/group");
    AsWorker([&] {
        EXPECT_EQ((std::vector<std::string>{"anna", "bob", "\xc3\xa9ve"}), ListedNames(ListAccounts, ""));
        EXPECT_EQ("Anna", Find("anna")->description) << "the first line counts";
        EXPECT_EQ((std::vector<std::string>{"anna", "bob", "sudo"}), ListedNames(ListGroups, ""));
    });
}

TEST_F(SystemAccounts, AreListedInPagesAndFoundByTheirTexts)
{
    std::string passwd = ReadFile("/etc/passwd");
    for (int i = 0; i < 500; ++i) {
        passwd += "user" + std::to_string(1000 + i) + ":x:" + std::to_string(2000 + i) + ":1501:Person " +
                  std::to_string(i) + ",,:/nonexistent:/bin/sh\n";
    }
    WriteFile("/etc/passwd", passwd);
    Shell("chmod 644 /etc/passwd");
    AsWorker([] {
        StartRequest();
        EXPECT_EQ(502, ListAccounts("", {0, 10}, [](const ListEntry&) {}));
        EXPECT_EQ((std::vector<std::string>{"anna", "bob", "user1000"}),
                  ListedNames(ListAccounts, "", {0, 3}));
        EXPECT_EQ((std::vector<std::string>{"user1499"}), ListedNames(ListAccounts, "", {501, 3}));
        EXPECT_EQ((std::vector<std::string>{"user1123"}), ListedNames(ListAccounts, "PERSON 123"));
        StartRequest();
        EXPECT_EQ(502, CountNotEnrolled("user", {}));
        EXPECT_EQ(1, CountNotEnrolled("admin", {}));
        Json::Value picks;
        picks["local_group"].append(std::to_string(FindGroup("bob")->gid));
        picks["local_user"].append(std::to_string(FindAccount("anna")->uid));
        EXPECT_EQ(502, CountNotEnrolled("custom", picks)) << "bob's group is the primary one of 501";
        const std::vector<std::string> members = MembersOf(*FindGroup("sudo"));
        EXPECT_EQ((std::vector<std::string>{"anna"}), members);
    });
}

TEST_F(SystemAccounts, AreInTheirGroups)
{
    Shell("groupadd --gid 3000 friends; groupadd --system media; groupadd --system empty");
    Shell("usermod --append --groups friends,media bob");
    AsWorker([&] {
        const Account bob = *Find("bob");
        EXPECT_EQ(FindGroup("bob")->gid, bob.gid);
        std::vector<uint32_t> groups = GroupsOf(bob);
        EXPECT_EQ((std::vector<uint32_t>{bob.gid, FindGroup("friends")->gid, FindGroup("media")->gid}),
                  groups);
        EXPECT_EQ(65536U, FindGroup("sudo")->gid);
        EXPECT_FALSE(FindGroup("empty")) << "nobody is in it";
        EXPECT_FALSE(FindGroup("root"));
        EXPECT_FALSE(FindGroup("administrators"));
        Tell("/run/media", FindGroup("media")->gid);
    });
    const auto media = static_cast<uint32_t>(Told("/run/media"));
    Shell("gpasswd --delete bob media >/dev/null; groupmod --gid 3001 friends");
    AsWorker([&] {
        StartRequest();
        EXPECT_EQ(media, FindGroup("media")->gid) << "a pick of it stays one, whoever is in it";
        EXPECT_TRUE(MembersOf(*FindGroup("media")).empty());
        EXPECT_EQ(2U, GroupsOf(*FindAccount("bob")).size()) << "friends has another number by now";
    });
    Shell("groupdel media; groupadd --system media; gpasswd --add bob media >/dev/null");
    AsWorker([&] {
        StartRequest();
        EXPECT_TRUE(FindGroup("media"));
    });
    Shell("groupdel media");
    AsWorker([] {
        StartRequest();
        EXPECT_FALSE(FindGroup("media"));
    });
    Shell("groupadd --system media; gpasswd --add bob media >/dev/null");
    AsWorker([&] {
        StartRequest();
        EXPECT_NE(media, FindGroup("media")->gid);
    });
    Shell("groupdel sudo");
    AsWorker([] {
        EXPECT_FALSE(IsAdmin("anna"));
        EXPECT_EQ(1, LogIn("anna", kPassword));
    });
    Shell("groupadd --gid 4000 sudo; usermod --gid sudo bob");
    AsWorker([] {
        EXPECT_TRUE(IsAdmin("bob")) << "the primary group counts";
        EXPECT_EQ(65536U, FindGroup("sudo")->gid);
    });
}

TEST_F(SystemAccounts, AndThoseOfTheEmbeddedStoreAreNeverBoth)
{
    WriteSettings("accounts=\"embedded\"\n");
    AsWorker([] {
        StartRequest();
        ASSERT_TRUE(AddAccount({"anna", "", "", false}, "embedded"));
        ASSERT_TRUE(AddAccount({"carol", "", "", true}, "embedded"));
        EXPECT_EQ(1026U, NumberOf("anna"));
        EXPECT_EQ(1, LogIn("anna", "embedded"));
        EXPECT_EQ(0, LogIn("anna", kPassword));
        EXPECT_EQ(0U, NumberOf("bob"));
        EXPECT_FALSE(fs::exists(kSystemAccountsDatabase));
    });
    WriteSettings("accounts=\"system\"\n");
    AsWorker([] {
        EXPECT_EQ(0, LogIn("anna", "embedded"));
        EXPECT_EQ(1, LogIn("anna", kPassword));
        EXPECT_EQ(0U, NumberOf("carol"));
        EXPECT_EQ(0, LogIn("carol", "embedded"));
        StartRequest();
        EXPECT_FALSE(FindAccount(1026U));
    });
    WriteSettings("accounts=\"embedded\"\n");
    AsWorker([] {
        EXPECT_EQ(1026U, NumberOf("anna"));
        EXPECT_EQ(1, LogIn("carol", "embedded"));
    });
}

TEST_F(SystemAccounts, AndThoseOfTheEmbeddedStoreHaveNoSessionsFromBeforeAChange)
{
    const auto use = [](const std::string& accounts) {
        const EffectiveIds root = EffectiveIds::Root();
        WriteSettings("accounts=\"" + accounts + "\"\n");
    };
    const auto open = [](const std::string& name) {
        return OpenPending(*Find(name), SessionState::CodeRequired);
    };
    const auto lives = [](const std::string& identifier) {
        StartRequest();
        return FindSession(identifier).has_value();
    };
    use("embedded");
    AsWorker([&] {
        StartRequest();
        const auto carol = AddAccount({"carol", "", "", false}, "embedded");
        ASSERT_TRUE(carol);
        AccountsDatabase()
            .Prepare("INSERT INTO directory_account (kind, id, name) VALUES (8, 'x', 'dan@office.example')")
            .Run();
        const std::string directorys = open("dan@office.example");
        // Somebody of the others signs in, or comes with a session; in this process and in another one.
        const std::string first = open("carol");
        use("system");
        const std::string other = open("anna");
        use("embedded");
        EXPECT_FALSE(lives(first));
        const std::string second = open("carol");
        EXPECT_TRUE(lives(second));
        EXPECT_FALSE(lives(other));
        use("system");
        EXPECT_FALSE(lives(second));
        use("embedded");
        EXPECT_FALSE(lives(second));
        EXPECT_TRUE(lives(directorys));
        const std::string third = open("carol");
        const EffectiveIds root = EffectiveIds::Root();
        WriteFile("/run/identifier", third);
    });
    use("system");
    AsWorker([&] { open("anna"); });
    use("embedded");
    AsWorker([&] { EXPECT_FALSE(lives(ReadFile("/run/identifier"))); });

    // A worker that has seen one setting only, while another one sees both.
    int toFirst[2];
    int toSecond[2];
    ASSERT_EQ(0, pipe(toFirst));
    ASSERT_EQ(0, pipe(toSecond));
    const auto pass = [](const int(&to)[2]) { ASSERT_EQ(1, write(to[1], "x", 1)); };
    const auto wait = [](const int(&at)[2]) {
        char turn = 0;
        ASSERT_EQ(1, read(at[0], &turn, 1));
    };
    use("system");
    AsWorkers(2, [&](int worker) {
        if (worker == 0) {
            open("anna");
            pass(toSecond);
            wait(toFirst);
            open("anna");
            pass(toSecond);
            return;
        }
        wait(toSecond);
        use("embedded");
        const std::string identifier = open("carol");
        EXPECT_TRUE(lives(identifier));
        use("system");
        pass(toFirst);
        wait(toSecond);
        use("embedded");
        EXPECT_FALSE(lives(identifier));
    });
    for (const int end : {toFirst[0], toFirst[1], toSecond[0], toSecond[1]}) {
        close(end);
    }
}

TEST_F(SystemAccounts, StayTheSystemsWhileTheSettingsAreGone)
{
    const auto remove = [] {
        const EffectiveIds root = EffectiveIds::Root();
        fs::remove(kSettingsFile);
        fs::remove(std::string(kConfigDir) + "/tavrinfo.conf");
    };
    AsWorker([&] {
        const uint32_t number = NumberOf("anna");
        const std::string identifier = OpenPending(*Find("anna"), SessionState::CodeRequired);
        remove();
        EXPECT_EQ(number, NumberOf("anna"));
        StartRequest();
        EXPECT_TRUE(FindSession(identifier));
    });
    AsWorker([] {
        EXPECT_THROW(Find("anna"), DatabaseError) << "who has never seen them cannot tell";
        EXPECT_EQ(-1, LogIn("anna", kPassword));
    });
}

TEST_F(SystemAccounts, AreAsOthersLeftThemForWhoCanNeverBeRoot)
{
    AsWorker([] { ASSERT_NE(0U, NumberOf("anna")); });
    Shell("userdel bob");
    AsWorker([] {
        ASSERT_EQ(0, setresuid(getuid(), getuid(), getuid()));
        EXPECT_NE(0U, NumberOf("anna"));
        EXPECT_NE(0U, NumberOf("bob")) << "nobody else has looked yet";
    });
    AsWorker([] { EXPECT_EQ(0U, NumberOf("bob")); });
}

TEST_F(SystemAccounts, AreOneAccountToManyWorkers)
{
    AsWorkers(4, [](int worker) { Tell("/run/number" + std::to_string(worker), NumberOf("bob")); });
    for (const char* other : {"/run/number1", "/run/number2", "/run/number3"}) {
        EXPECT_EQ(ReadFile("/run/number0"), ReadFile(other));
    }
}
