// The running service: what it answers to whom, and what badly behaved callers can do to others.
#include "linux/paths.h"
#include "linux/unix_socket.h"
#include "tests/support/running_service.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace tavr::test
{
namespace
{

constexpr uid_t kNobody = 65534;

// What follows `name` in one of the process's files.
std::string LineOf(pid_t pid, const char* file, const std::string& name)
{
    std::ifstream lines("/proc/" + std::to_string(pid) + '/' + file);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(name)) {
            return line.substr(name.size());
        }
    }
    return "";
}

// Whoever has come before has been looked at by then.
void ExpectServed()
{
    EXPECT_EQ("alice@home.example", Ask(GetRequest("alice"))["data"]["email"].asString());
}

class Webapid : public ServiceTest
{
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        service_.emplace();
        service_->UntilServed();
    }

    std::optional<Service> service_;
};

// --- Answers ---

TEST_F(Webapid, TellsWhatItKnowsOfAnAccount)
{
    const Json::Value alice = Ask(GetRequest("alice"));
    EXPECT_TRUE(alice["success"].asBool());
    EXPECT_EQ(3U, alice["data"].size());
    EXPECT_EQ("alice@home.example", alice["data"]["email"].asString());
    EXPECT_EQ("alice", alice["data"]["name"].asString());
    EXPECT_EQ(1026, alice["data"]["uid"].asInt());

    const Json::Value bob = Ask(GetRequest(" BOB "));
    EXPECT_TRUE(bob["success"].asBool());
    EXPECT_EQ("", bob["data"]["email"].asString());
    EXPECT_EQ("bob", bob["data"]["name"].asString());
    EXPECT_EQ(1027, bob["data"]["uid"].asInt());
}

struct Row {
    const char* what;
    std::string bytes;
    int code; // of the refusal; 0: success
};

std::string Call(const std::string& params, const std::string& rest = R"(,"runner":{"username":"alice"})")
{
    return Frame(R"({"params":{)" + params + "}" + rest + "}");
}

TEST_F(Webapid, AnswersEveryRequestWithDataOrACode)
{
    const std::string get = R"("api":"TAVR.Core.NormalUser","method":"get","version":1)";
    const std::string large = Frame(R"({"params":{)" + get + R"(},"runner":{"username":"alice"}})");
    const Row rows[] = {
        {"as it should be", Call(get), 0},
        {"with a member more", Call(get + R"(,"additional":["email"])"), 0},
        {"one behind the other", Call(get) + Call("\"api\":\"x\""), 0},
        {"of one mebibyte",
         Frame(R"({"params":{)" + get + R"(},"runner":{"username":"alice"}})" +
               std::string((1 << 20) - large.size() + 4, ' ')),
         0},
        {"nothing announced", std::string(4, '\0'), 4},
        {"too much announced", std::string("\0\x10\0\x01", 4), 4},
        {"100 MB announced", std::string("\x05\xF5\xE1\0{", 5), 4},
        {"rubbish", "GET / HTTP/1.0\r\n\r\n", 4},
        {"no JSON", Frame("hello"), 5},
        {"no call", Frame("{}"), 5},
        {"very deep", Frame(std::string(1 << 20, '[')), 5},
        {"another api", Call(R"("api":"TAVR.Core.User","method":"get","version":1)"), 10},
        {"an api in small letters", Call(R"("api":"tavr.core.normaluser","method":"get","version":1)"), 10},
        {"another method", Call(R"("api":"TAVR.Core.NormalUser","method":"set","version":1)"), 11},
        {"a newer version", Call(R"("api":"TAVR.Core.NormalUser","method":"get","version":2)"), 12},
        {"a negative version", Call(R"("api":"TAVR.Core.NormalUser","method":"get","version":-1)"), 12},
        {"no runner", Call(get, ""), 13},
        {"a runner without name", Call(get, R"(,"runner":{})"), 13},
        {"a runner that is a text", Call(get, R"(,"runner":"alice")"), 13},
        {"a name that is no text", Call(get, R"(,"runner":{"username":1026})"), 13},
        {"an empty name", Call(get, R"(,"runner":{"username":""})"), 13},
        {"an unknown account", Call(get, R"(,"runner":{"username":"carol"})"), 20},
        {"an account of a directory", Call(get, R"(,"runner":{"username":"CORP\\dan"})"), 20},
        {"what can be no name", Call(get, R"(,"runner":{"username":"a/../b"})"), 20},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        const Descriptor caller = ConnectRaw();
        SendRaw(caller, row.bytes);
        const Json::Value answer = AnswerIn(ReceiveAll(caller));
        ASSERT_TRUE(answer.isObject());
        EXPECT_EQ(row.code == 0, answer["success"].asBool());
        EXPECT_EQ(row.code, CodeIn(answer));
    }
}

TEST_F(Webapid, SaysSoWhenAccountsCannotBeRead)
{
    ASSERT_EQ(0, rename("/var/lib/tavr/accounts.db", "/var/lib/tavr/away"));
    ASSERT_EQ(0, mkdir("/var/lib/tavr/accounts.db", 0700));

    EXPECT_EQ(21, CodeIn(Ask(GetRequest("alice"))));

    ASSERT_EQ(0, rmdir("/var/lib/tavr/accounts.db"));
    ASSERT_EQ(0, rename("/var/lib/tavr/away", "/var/lib/tavr/accounts.db"));
    ExpectServed();
}

// --- Who is let in ---

// The answer's code as another user sees it; -1: the socket did not let him in.
int CodeFor(uid_t uid)
{
    int code = -1;
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0) {
            _exit(99);
        }
        const Descriptor caller = ConnectRaw();
        SendRaw(caller, Frame(GetRequest("alice")));
        _exit(caller ? CodeIn(AnswerIn(ReceiveAll(caller))) : 98);
    }
    waitpid(child, &code, 0);
    return WEXITSTATUS(code) == 98 ? -1 : WEXITSTATUS(code);
}

TEST_F(Webapid, LetsRootAndItsOwnAccountIn)
{
    EXPECT_EQ(0, CodeFor(0));
    EXPECT_EQ(0, CodeFor(kServiceId));
    EXPECT_EQ(-1, CodeFor(kNobody));
}

TEST_F(Webapid, JudgesWhoConnectsAndNotWhatIsSaid)
{
    ASSERT_EQ(0, chmod(kWebApiSocket, 0666));

    EXPECT_EQ(3, CodeFor(kNobody));
    EXPECT_EQ(3, CodeFor(1026));
    ExpectServed();
}

TEST_F(Webapid, RunsWithoutAWayBackToRoot)
{
    const pid_t pid = service_->Pid();
    EXPECT_EQ("\t64217\t64217\t64217\t64217", LineOf(pid, "status", "Uid:"));
    EXPECT_EQ("\t64217\t64217\t64217\t64217", LineOf(pid, "status", "Gid:"));
    EXPECT_EQ("\t ", LineOf(pid, "status", "Groups:"));
    EXPECT_EQ("\t0000000000000000", LineOf(pid, "status", "CapPrm:"));
    EXPECT_EQ("\t0000000000000000", LineOf(pid, "status", "CapEff:"));
    EXPECT_EQ("\t0000000000000000", LineOf(pid, "status", "CapInh:"));
    EXPECT_EQ("\t1", LineOf(pid, "status", "NoNewPrivs:"));
    struct stat process {
    };
    ASSERT_EQ(0, stat(("/proc/" + std::to_string(pid) + "/mem").c_str(), &process));
    EXPECT_EQ(0U, process.st_uid) << "its memory is nobody's to read";
    EXPECT_TRUE(LineOf(pid, "limits", "Max core file size").starts_with("        0 "));
    struct stat socket {
    };
    ASSERT_EQ(0, stat(kWebApiSocket, &socket));
    EXPECT_EQ(0660U, socket.st_mode & 07777);
    EXPECT_EQ(kServiceId, socket.st_uid);
    EXPECT_EQ(kServiceId, socket.st_gid);
}

// --- Bad callers ---

TEST_F(Webapid, ServesOthersWhileCallersAreStuck)
{
    std::vector<Descriptor> stuck;
    for (int i = 0; i < 300; ++i) {
        stuck.push_back(ConnectRaw());
        const char* const parts[] = {"", "\0", "\x7F", "{"};
        SendRaw(stuck.back(), i % 4 == 1 ? std::string(3, '\0') : parts[i % 4]);
        if (i % 4 == 2) { // announces much, sends little
            SendRaw(stuck.back(), std::string("\0\x0F\xFF\xFF{\"params\":", 14).substr(1));
        }
        ExpectServed();
    }
}

TEST_F(Webapid, IsNotHeldUpByCallersThatNeverTakeTheirAnswers)
{
    std::vector<Descriptor> callers;
    for (int i = 0; i < 200; ++i) {
        callers.push_back(ConnectRaw());
        SendRaw(callers.back(), Frame(GetRequest("alice")));
        if (i % 2 == 0) {
            callers.back() = Descriptor(); // gone before the answer
        }
    }
    ExpectServed();
    EXPECT_EQ("alice", AnswerIn(ReceiveAll(callers[1]))["data"]["name"].asString());
}

TEST_F(Webapid, ClosesCallersWhoTakeTenSecondsForARequest)
{
    const Descriptor early = ConnectRaw();
    SendRaw(early, std::string(1, '\0'));
    ExpectServed();
    AdvanceBootClock(8);
    const Descriptor late = ConnectRaw();
    SendRaw(early, std::string(1, '\0')); // another byte buys no time
    ExpectServed();
    AdvanceBootClock(12);
    ExpectServed(); // wakes the service up, as time would

    EXPECT_EQ("", ReceiveAll(early));
    SendRaw(late, Frame(GetRequest("alice")));
    EXPECT_EQ("alice", AnswerIn(ReceiveAll(late))["data"]["name"].asString());
}

TEST_F(Webapid, LetsGoOfWhoWaitsLongestWhenThereAreTooMany)
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &files));
    if (files.rlim_max < 2300) {
        GTEST_SKIP() << "2,001 connections need more open files than this machine allows (" << files.rlim_max
                     << ")";
    }
    std::vector<Descriptor> idle;
    for (int i = 0; i < 2000; ++i) {
        idle.push_back(ConnectRaw());
    }
    ExpectServed();
    EXPECT_EQ("", ReceiveAll(idle[0]));
    SendRaw(idle[1], Frame(GetRequest("alice")));
    EXPECT_EQ("alice", AnswerIn(ReceiveAll(idle[1]))["data"]["name"].asString());
}

TEST_F(Webapid, KeepsNoMoreThanEightMebibytesOfWhatIsNotWhole)
{
    std::vector<Descriptor> halves;
    const std::string half = std::string("\0\x10\0\0", 4) + std::string((1 << 20) - 1, ' ');
    for (int i = 0; i < 9; ++i) {
        halves.push_back(ConnectRaw());
        SendRaw(halves.back(), half);
    }
    ExpectServed();
    EXPECT_EQ("", ReceiveAll(halves[0])); // who has waited longest
    SendRaw(halves[8], "}");
    EXPECT_EQ(5, CodeIn(AnswerIn(ReceiveAll(halves[8]))));
}

// Milliseconds for which the process is ready to sleep, as the kernel tells of the call that it waits in.
long SleepOf(pid_t pid)
{
    for (int i = 0; i < 1000; ++i) {
        std::ifstream file("/proc/" + std::to_string(pid) + "/syscall");
        long call = -1;
        std::string epoll;
        std::string events;
        std::string most;
        std::string timeout;
        if (file >> call >> epoll >> events >> most >> timeout && call == SYS_epoll_wait) {
            return std::stol(timeout, nullptr, 16);
        }
        usleep(1000);
    }
    return -1;
}

TEST_F(Webapid, SleepsWhileNothingIsDue)
{
    ExpectServed();
    const long sleep = SleepOf(service_->Pid());
    if (sleep < 0) {
        GTEST_SKIP() << "the kernel does not tell which call a process waits in";
    }
    EXPECT_GT(sleep, 3'500'000) << "woken up once an hour, to clear old rows";
}

// --- Start and end ---

TEST_F(Webapid, EndsOnSigterm)
{
    const Descriptor idle = ConnectRaw();
    ExpectServed();

    EXPECT_EQ(0, service_->Stop(SIGTERM));
    EXPECT_EQ("", ReceiveAll(idle));
    EXPECT_FALSE(ConnectRaw());
}

TEST_F(Webapid, AnswersWhatCameBeforeTheEnd)
{
    ASSERT_EQ(0, kill(service_->Pid(), SIGSTOP));
    const Descriptor caller = ConnectRaw();
    SendRaw(caller, Frame(GetRequest("alice")));
    ASSERT_EQ(0, kill(service_->Pid(), SIGTERM));

    EXPECT_EQ(0, service_->Stop(SIGCONT));
    EXPECT_EQ("alice", AnswerIn(ReceiveAll(caller))["data"]["name"].asString());
}

TEST_F(Webapid, TakesThePlaceOfOneThatWasKilled)
{
    EXPECT_EQ(-SIGKILL, service_->Stop(SIGKILL));
    EXPECT_TRUE(std::filesystem::is_socket(kWebApiSocket));

    service_.emplace();
    service_->UntilServed();
    ExpectServed();
}

TEST_F(Webapid, IsAloneOnItsState)
{
    EXPECT_EQ(1, Service().Wait());
    ExpectServed();
    ASSERT_EQ(0, unlink(kWebApiSocket)); // another socket makes no difference
    EXPECT_EQ(1, Service().Wait());
}

class Starting : public ServiceTest
{
};

TEST_F(Starting, WithFewDescriptorsItLetsGoOfWhoWaitsLongest)
{
    const Service service([] { LimitFiles(64); });
    service.UntilServed();
    std::vector<Descriptor> idle;
    for (int i = 0; i < 100; ++i) {
        idle.push_back(ConnectRaw());
    }
    ExpectServed();
    EXPECT_EQ("", ReceiveAll(idle[0]));
    SendRaw(idle[99], Frame(GetRequest("alice")));
    EXPECT_EQ("alice", AnswerIn(ReceiveAll(idle[99]))["data"]["name"].asString());
}

TEST_F(Starting, LeavesAFileAloneThatIsNoSocket)
{
    WriteFile(kWebApiSocket, "somebody's");

    EXPECT_EQ(1, Service().Wait());
    EXPECT_EQ("somebody's", ReadFile(kWebApiSocket));
}

TEST_F(Starting, DoesNotTakeASocketFromWhoListensThere)
{
    const Descriptor other = ListenAt(kWebApiSocket, 0, 0);

    EXPECT_EQ(1, Service().Wait());
    EXPECT_TRUE(ConnectRaw());
}

TEST_F(Starting, IsForRootAndItsAccount)
{
    const auto as = [](uid_t uid) {
        return [uid] {
            if (setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 ||
                setresuid(uid, uid, uid) != 0) {
                _exit(99);
            }
        };
    };
    EXPECT_EQ(1, Service(as(kNobody)).Wait());
    EXPECT_EQ(1, Service(as(kServiceId)).Wait()) << "cannot make a socket in /run";
}

// In the child that becomes the service: `descriptor` is what systemd would hand over.
void HandOver(int descriptor, const char* count = "1")
{
    if (dup2(descriptor, 3) != 3 || fcntl(3, F_SETFD, 0) != 0) {
        _exit(99);
    }
    setenv("LISTEN_FDS", count, 1);                            // NOLINT(concurrency-mt-unsafe)
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1); // NOLINT(concurrency-mt-unsafe)
}

TEST_F(Starting, TakesASocketThatIsHandedOver)
{
    const Descriptor listener = ListenAt(kWebApiSocket, kServiceId, kServiceId);
    const auto activated = [&] {
        HandOver(listener.Get());
        if (setgroups(0, nullptr) != 0 || setresgid(kServiceId, kServiceId, kServiceId) != 0 ||
            setresuid(kServiceId, kServiceId, kServiceId) != 0) {
            _exit(99);
        }
    };
    {
        Service service(activated);
        ExpectServed();
        EXPECT_EQ(0, service.Stop(SIGTERM));
    }
    const Descriptor early = ConnectRaw(); // nobody serves, and nobody is turned away
    SendRaw(early, Frame(GetRequest("bob")));
    Service next(activated);
    EXPECT_EQ("bob", AnswerIn(ReceiveAll(early))["data"]["name"].asString());
}

TEST_F(Starting, TakesNothingElseThatIsHandedOver)
{
    const Descriptor file(open("/dev/null", O_RDWR | O_CLOEXEC));
    const Descriptor plain(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Descriptor listener = ListenAt(kWebApiSocket, kServiceId, kServiceId);

    EXPECT_EQ(1, Service([&] { HandOver(file.Get()); }).Wait());
    EXPECT_EQ(1, Service([&] { HandOver(plain.Get()); }).Wait());
    EXPECT_EQ(1, Service([&] { HandOver(listener.Get(), "2"); }).Wait());
}

} // namespace
} // namespace tavr::test
