// Mails through a person's own mail account: the running service, the console, and a real mail server on the
// ports that such accounts may use.
#include "linux/mail_accounts.h"

#include "platform/json.h"
#include "tests/support/mails.h"
#include "tests/support/running_service.h"
#include "tests/support/smtp_sink.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

namespace tavr::test
{

namespace
{

const std::vector<std::string> kSink = {"--port",     "587",     "--user", "alice@office.example",
                                        "--password", "relay-pw"};

std::vector<std::string> SinkWith(const std::vector<std::string>& more)
{
    std::vector<std::string> options = kSink;
    options.insert(options.end(), more.begin(), more.end());
    return options;
}

class MailCalls : public ServiceTest
{
protected:
    void StartSink(const std::vector<std::string>& options = kSink)
    {
        sink_.reset();
        sink_.emplace(options);
        std::filesystem::copy_file(sink_->CaFile(), "/etc/tavr/ca.pem",
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::permissions("/etc/tavr/ca.pem", std::filesystem::perms(0644));
    }
    void SetUp() override
    {
        ServiceTest::SetUp();
        StartSink();
        Settings("mail_private_servers=\"yes\"\nmail_ca_file=\"/etc/tavr/ca.pem\"\n");
        service_.emplace();
        service_->UntilServed();
    }
    void TearDown() override
    {
        service_.reset();
        sink_.reset();
        std::filesystem::remove("/etc/tavrinfo.conf");
        ServiceTest::TearDown();
    }
    static void Settings(const std::string& text)
    {
        std::filesystem::remove("/etc/tavrinfo.conf");
        WriteFile("/etc/tavrinfo.conf", text);
        std::filesystem::permissions("/etc/tavrinfo.conf", std::filesystem::perms(0644));
    }

    std::optional<SmtpSink> sink_;
    std::optional<Service> service_;
};

// A mail server of the kind that is in use: it takes what the sink takes, for the same name and password.
class Exim
{
public:
    explicit Exim(const SmtpSink& certificates)
    {
        namespace fs = std::filesystem;
        fs::create_directories("/etc/exim4");
        fs::copy_file(certificates.CertificateFile(), "/etc/exim4/server.pem",
                      fs::copy_options::overwrite_existing);
        fs::copy_file(certificates.KeyFile(), "/etc/exim4/server.key", fs::copy_options::overwrite_existing);
        fs::permissions("/etc/exim4/server.key", fs::perms(0644));
        fs::copy_file(TAVR_SUPPORT_DIR "/exim.conf", "/etc/exim4/exim4.conf",
                      fs::copy_options::overwrite_existing);
        MakeFolder("/var/spool/exim4", "Debian-exim");
        MakeFolder("/var/mail", "Debian-exim");
        pid_ = fork();
        if (pid_ == 0) {
            execl("/usr/sbin/exim4", "exim4", "-bdf", "-q1h", nullptr);
            _exit(127);
        }
    }
    ~Exim()
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    Exim(const Exim&) = delete;
    Exim& operator=(const Exim&) = delete;

    // What it has delivered, once there is something.
    static std::string Delivered()
    {
        for (int i = 0; i < 500 && !std::filesystem::exists("/var/mail/all"); ++i) {
            usleep(20'000);
        }
        return ReadFile("/var/mail/all");
    }

private:
    static void MakeFolder(const char* path, const char* owner)
    {
        std::filesystem::create_directories(path);
        const passwd* entry = getpwnam(owner);
        ASSERT_NE(nullptr, entry) << owner;
        ASSERT_EQ(0, chown(path, entry->pw_uid, entry->pw_gid)) << path;
    }

    pid_t pid_ = -1;
};

// At the sink.
MailAccount SinkAccount(const std::string& password = "relay-pw")
{
    MailAccount account = OfficeAccount("office", password);
    account.server.host = "localhost";
    return account;
}

Json::Value SendParams()
{
    Json::Value params;
    params["api"] = "TAVR.PersonMailAccount.Mail";
    params["method"] = "send";
    params["version"] = 1;
    params["to"] = "[\"alice@home.example\"]";
    params["email_type"] = "smtp";
    params["alias"] = "office";
    params["subject"] = "Your emergency code";
    params["body"] = "Hello alice,<br>12345678";
    params["app_name"] = "TAVR.Ombra.App.PersonalSettings.Instance";
    params["app_title"] = "personal_settings:otp_settings";
    return params;
}

Json::Value Call(const Json::Value& params, const std::string& runner = "alice")
{
    Json::Value request;
    request["params"] = params;
    request["runner"]["username"] = runner;
    return Ask(JsonToString(request));
}

// The console, with a password on standard input.
Ran Console(const std::string& words, const std::string& password = "relay-pw")
{
    return RunProgram({"/bin/bash", "-c", "printf '" + password + "\\n' | tavrctl " + words});
}

const std::string kAdd = "mail-account add alice office --host localhost --user alice@office.example "
                         "--from alice@office.example --password-stdin";

TEST_F(MailCalls, SendThroughTheMailAccountThatTheyName)
{
    AsWorker([] {
        AddMailAccount(*FindAccount("alice"), SinkAccount());
        const Json::Value answer = Call(SendParams());
        EXPECT_TRUE(answer["success"].asBool()) << answer.toStyledString();
        EXPECT_EQ(250, answer["data"]["reply"].asInt());
        EXPECT_TRUE(Call(SendParams(), " Alice ")["success"].asBool());
    });
    ASSERT_EQ(2, sink_->Count());
    const Json::Value envelope = sink_->Envelope(1);
    EXPECT_EQ("alice@office.example", envelope["from"].asString());
    ASSERT_EQ(1U, envelope["to"].size());
    EXPECT_EQ("alice@home.example", envelope["to"][0].asString());
    EXPECT_TRUE(envelope["tls"].asBool());
    EXPECT_TRUE(envelope["auth"].asBool());
    const Json::Value mail = ReadMail(sink_->Mail(1));
    EXPECT_EQ("Hello alice,\n12345678", mail["text"].asString());
    EXPECT_NE(sink_->Mail(1), sink_->Mail(2)); // the Message-ID
}

TEST_F(MailCalls, GoThroughAMailServerThatIsInUse)
{
    if (!std::filesystem::exists("/usr/sbin/exim4")) {
        GTEST_SKIP() << "there is no exim on this machine, but maybe another mail server in its place";
    }
    const SmtpSink certificates;
    sink_.reset(); // its port
    std::filesystem::copy_file(certificates.CaFile(), "/etc/tavr/ca.pem",
                               std::filesystem::copy_options::overwrite_existing);
    const Exim exim(certificates);
    AsWorker([] {
        AddMailAccount(*FindAccount("alice"), SinkAccount());
        Json::Value answer = Call(SendParams());
        for (int i = 0; i < 100 && answer["error"]["reply"] == 0; ++i) { // until it listens
            usleep(50'000);
            answer = Call(SendParams());
        }
        EXPECT_TRUE(answer["success"].asBool()) << answer.toStyledString();
        Json::Value params = SendParams();
        params["to"] = "[\"nobody@home.example\"]";
        answer = Call(params);
        EXPECT_EQ(31, CodeIn(answer));
        EXPECT_EQ(550, answer["error"]["reply"].asInt());
        EXPECT_EQ("nobody of that name", answer["error"]["text"].asString());
    });
    const std::string delivered = Exim::Delivered();
    const Json::Value mail = ReadMail(delivered.substr(delivered.find('\n') + 1)); // behind the "From " line
    EXPECT_EQ("Hello alice,\n12345678", mail["text"].asString()) << delivered;
    EXPECT_EQ(0U, mail["defects"].size());
}

TEST_F(MailCalls, TakeNoArgumentsThatAreNotAsTheyShouldBe)
{
    const std::pair<const char*, Json::Value> changes[] = {
        {"to", Json::Value()},
        {"to", "alice@home.example"},
        {"to", "[]"},
        {"to", R"(["a@b.example","c@d.example"])"},
        {"to", R"(["a@b.example"],"x":["c@d.example"])"},
        {"to", R"(["a@b.example, c@d.example"])"},
        {"to", R"(["a@b.example\r\nRCPT TO:<c@d.example>"])"},
        {"to", R"(["a@b.example> SIZE=1"])"},
        {"to", R"(["jürgen@b.example"])"},
        {"to", "[1]"},
        {"to", "[[\"a@b.example\"]]"},
        {"to", "[\"a@b.example\""},
        {"email_type", 1},
        {"alias", Json::Value()},
        {"subject", Json::Value()},
        {"subject", std::string(1001, 'x')},
        {"body", Json::Value(Json::arrayValue)},
        {"body", std::string(131'073, 'x')},
        {"app_name", Json::Value()},
        {"app_title", std::string(201, 'x')},
    };
    AsWorker([&] {
        AddMailAccount(*FindAccount("alice"), SinkAccount());
        for (const auto& [name, value] : changes) {
            Json::Value params = SendParams();
            params[name] = value;
            EXPECT_EQ(13, CodeIn(Call(params))) << name << value.toStyledString().substr(0, 100);
        }
        EXPECT_EQ(13, CodeIn(Call(SendParams(), "")));
        EXPECT_EQ(20, CodeIn(Call(SendParams(), "nobody")));
        EXPECT_EQ(20, CodeIn(Call(SendParams(), "a/b")));
        EXPECT_EQ(22, CodeIn(Call(SendParams(), "bob")));
        Json::Value params = SendParams();
        params["alias"] = "home";
        EXPECT_EQ(22, CodeIn(Call(params)));
    });
    EXPECT_TRUE(sink_->Commands().empty());
}

TEST_F(MailCalls, SayWhyAServerTookNoMail)
{
    struct Case {
        std::vector<std::string> options;
        int code;
        int reply;
        const char* text;
    };
    const Case cases[] = {
        {{"--fault", "rcpt-550"}, 31, 550, "5.1.1 there is nobody 5.1.1 of that name"},
        {{"--fault", "data-451"}, 30, 451, "4.3.0 try again"},
        {{"--fault", "no-starttls"}, 30, 0, "STARTTLS not supported."},
        {{"--certificate", "other-ca"},
         30,
         0,
         "SSL certificate problem: unable to get local issuer certificate"},
    };
    AsWorker([] { AddMailAccount(*FindAccount("alice"), SinkAccount()); });
    for (const Case& row : cases) {
        StartSink(SinkWith(row.options));
        AsWorker([&] {
            const Json::Value answer = Call(SendParams());
            EXPECT_EQ(row.code, CodeIn(answer)) << row.options[1];
            EXPECT_EQ(row.reply, answer["error"]["reply"].asInt()) << row.options[1];
            EXPECT_EQ(row.text, answer["error"]["text"].asString());
        });
        EXPECT_EQ(0, sink_->Count());
    }
}

TEST_F(MailCalls, UseNoRowThatSomebodyHasChanged)
{
    AsWorker([] {
        const Account alice = *FindAccount("alice");
        AddMailAccount(alice, SinkAccount());
        const std::string file = "/usr/tavr/etc/preference/alice/emailaccount.db";
        RunSql(file, "UPDATE emailaccountinfo SET server = '127.0.0.1'");
        EXPECT_EQ(21, CodeIn(Call(SendParams()))) << "another server";
        RunSql(file, "UPDATE emailaccountinfo SET server = 'localhost', port = 2525");
        EXPECT_EQ(22, CodeIn(Call(SendParams()))) << "a port of its own";
        WriteFile(file, "rubbish, and enough of it to be no database at all");
        EXPECT_EQ(21, CodeIn(Call(SendParams()))) << "no database";
    });
    EXPECT_TRUE(sink_->Commands().empty());
}

TEST_F(MailCalls, ReachNoPrivateAddressUnlessTheSettingsAllowIt)
{
    Settings("mail_ca_file=\"/etc/tavr/ca.pem\"\n");
    AsWorker([] {
        AddMailAccount(*FindAccount("alice"), SinkAccount());
        const Json::Value answer = Call(SendParams());
        EXPECT_EQ(30, CodeIn(answer));
        EXPECT_EQ("the server stands on a private address, which the setting mail_private_servers may allow",
                  answer["error"]["text"].asString());
    });
    EXPECT_TRUE(sink_->Commands().empty());
}

// Calls that wait for the mail server, or for a thread that does.
std::vector<Descriptor> StartSending(int count)
{
    Json::Value request;
    request["params"] = SendParams();
    request["runner"]["username"] = "alice";
    std::vector<Descriptor> calls;
    for (int i = 0; i < count; ++i) {
        calls.push_back(ConnectRaw());
        SendRaw(calls.back(), Frame(JsonToString(request)));
    }
    return calls;
}

TEST_F(MailCalls, OfAServerThatHangsDelayNobodyElse)
{
    StartSink(SinkWith({"--fault", "hang-data"}));
    AsWorker([] { AddMailAccount(*FindAccount("alice"), SinkAccount()); });
    const Descriptor hanging = std::move(StartSending(1)[0]);
    for (int i = 0; i < 500 && (sink_->Commands().empty() || sink_->Commands().back() != "DATA"); ++i) {
        usleep(10'000);
    }
    usleep(300'000); // the service waits for the reply by now
    EXPECT_TRUE(Ask(GetRequest("alice"))["success"].asBool());
    char byte = 0;
    EXPECT_EQ(-1, recv(hanging.Get(), &byte, 1, MSG_DONTWAIT)) << "the mail's answer was there before";
    EXPECT_EQ(30, CodeIn(AnswerIn(ReceiveAll(hanging))));
}

TEST_F(MailCalls, AreSixtyFourAtOnceForFifteenSecondsAtMost)
{
    StartSink(SinkWith({"--fault", "hang-data"}));
    AsWorker([] { AddMailAccount(*FindAccount("alice"), SinkAccount()); });
    const std::vector<Descriptor> calls = StartSending(64);
    // It may overtake one of them that was let in before it said anything.
    int code = 0;
    for (int i = 0; i < 100 && code == 0; ++i) {
        code = CodeIn(Ask(GetRequest("alice")));
    }
    EXPECT_EQ(2, code) << "one too many";

    AdvanceBootClock(16);
    Ask(GetRequest("alice")); // wakes the service up, as time would
    for (const Descriptor& call : calls) {
        EXPECT_EQ(1, CodeIn(AnswerIn(ReceiveAll(call))));
    }
    EXPECT_TRUE(Ask(GetRequest("alice"))["success"].asBool());
}

#ifndef TAVR_SANITIZED // sanitizers take descriptors themselves, and call anything wrong when they get none
TEST_F(MailCalls, ThatTakeAllDescriptorsDelayOthersAndNoMore)
{
    StartSink(SinkWith({"--fault", "hang-data"}));
    AsWorker([] { AddMailAccount(*FindAccount("alice"), SinkAccount()); });
    service_.reset();
    service_.emplace([] { LimitFiles(64); });
    service_->UntilServed();
    const std::vector<Descriptor> calls = StartSending(20);
    const Descriptor late = ConnectRaw();
    SendRaw(late, Frame(GetRequest("alice")));
    usleep(100'000); // there is no descriptor for him by now

    AdvanceBootClock(16);
    EXPECT_TRUE(AnswerIn(ReceiveAll(late)).isObject()) << "his data, or that it is too busy";
    for (const Descriptor& call : calls) {
        EXPECT_NE(0, CodeIn(AnswerIn(ReceiveAll(call))));
    }
    EXPECT_TRUE(Ask(GetRequest("alice"))["success"].asBool());
}
#endif

// --- The console ---

TEST_F(MailCalls, TryOutTheNotificationService)
{
    const char* const kSet =
        "mail server --host localhost --from nas@office.example --user alice@office.example "
        "--ca-file /etc/tavr/ca.pem --password-stdin";
    const auto test = [kSet](const std::string& password) {
        return Console(kSet, password).status == 0 ? Console("mail test bob@home.example") : Ran();
    };
    std::filesystem::remove("/etc/tavrinfo.conf");
    std::filesystem::create_symlink("tavr/tavrinfo.conf", "/etc/tavrinfo.conf");
    AsWorker([] {
        Json::Value params;
        params["api"] = "TAVR.Notification.Mail";
        params["method"] = "test";
        params["version"] = 1;
        EXPECT_EQ(13, CodeIn(Call(params, "")));
        params["to"] = "bob@home.example";
        EXPECT_EQ(23, CodeIn(Call(params, ""))) << "none is set up";
    });

    EXPECT_EQ("the mail server took a test mail to bob@home.example\n", test("relay-pw").output);
    ASSERT_EQ(1, sink_->Count());
    EXPECT_EQ("nas@office.example", sink_->Envelope(1)["from"].asString());
    EXPECT_EQ("bob@home.example", sink_->Envelope(1)["to"][0].asString());
    EXPECT_TRUE(sink_->Envelope(1)["tls"].asBool());

    const Ran wrongPassword = test("another-pw");
    EXPECT_EQ(1, wrongPassword.status);
    EXPECT_EQ("tavrctl: the mail was not sent: 535 5.7.8 Authentication credentials invalid\n",
              wrongPassword.complaint);

    StartSink(SinkWith({"--fault", "rcpt-550"}));
    EXPECT_EQ("tavrctl: the mail was not sent: 550 5.1.1 there is nobody 5.1.1 of that name\n",
              test("relay-pw").complaint);
    StartSink(SinkWith({"--certificate", "wrong-host"}));
    EXPECT_EQ(1, test("relay-pw").status);
    EXPECT_EQ(0, sink_->Count());
}

TEST_F(MailCalls, ProveAMailAccountBeforeItIsAdded)
{
    const Ran added = Console(kAdd);
    EXPECT_EQ(0, added.status) << added.complaint;
    EXPECT_EQ("added mail account office of alice, the default; its server took a test mail to "
              "alice@home.example\n",
              added.output);
    ASSERT_EQ(1, sink_->Count());
    EXPECT_EQ("alice@home.example", sink_->Envelope(1)["to"][0].asString());
    EXPECT_NE(std::string::npos, ReadMail(sink_->Mail(1))["text"].asString().find("a personal mail account"));

    const Ran tested = Console("mail-account test alice office --to eve@home.example --json");
    EXPECT_EQ(0, tested.status) << tested.complaint;
    EXPECT_NE(std::string::npos, tested.output.find("\"tested_to\":\"eve@home.example\"")) << tested.output;
    EXPECT_EQ("eve@home.example", sink_->Envelope(2)["to"][0].asString());

    const Ran bobs = Console("mail-account add bob own --host localhost --user alice@office.example "
                             "--from bob@office.example --password-stdin --json");
    EXPECT_EQ(0, bobs.status) << bobs.output;
    EXPECT_EQ("bob@office.example", sink_->Envelope(3)["to"][0].asString()); // has no recovery address
}

TEST_F(MailCalls, StoreNothingOfAMailAccountThatDoesNotWork)
{
    struct Case {
        const char* what;
        std::vector<std::string> options;
        std::string words;
        std::string password;
        std::string complaint;
    };
    const Case cases[] = {
        {"a wrong password",
         {},
         kAdd,
         "wrong-pw",
         "the mail was not sent: 535 5.7.8 Authentication credentials invalid"},
        {"a wrong certificate",
         {"--certificate", "wrong-host"},
         kAdd,
         "relay-pw",
         "the mail was not sent: SSL: no alternative certificate subject name matches target host name "
         "'localhost'"},
        {"a refused recipient",
         {"--fault", "rcpt-550"},
         kAdd,
         "relay-pw",
         "the mail was not sent: 550 5.1.1 there is nobody 5.1.1 of that name"},
        {"nobody there",
         {},
         kAdd + " --port 25",
         "relay-pw",
         "the mail was not sent: Failed to connect to localhost port 25"},
        {"no TLS", {}, kAdd + " --port 587 --security tls", "relay-pw", "the mail was not sent: "},
    };
    for (const Case& row : cases) {
        StartSink(SinkWith(row.options));
        const Ran ran = Console(row.words, row.password);
        EXPECT_EQ(1, ran.status) << row.what;
        EXPECT_EQ(0U, ran.complaint.find("tavrctl: " + row.complaint)) << row.what << ": " << ran.complaint;
        EXPECT_EQ("", Console("mail-account list alice").output) << row.what;
    }
    const Ran json = Console(kAdd + " --json", "wrong-pw");
    EXPECT_NE(std::string::npos, json.output.find("\"err\":\"not_sent\"")) << json.output;
    EXPECT_EQ(0, Console(kAdd + " --no-test", "wrong-pw").status);
    EXPECT_EQ(1, Console("mail-account test alice office").status);
}

} // namespace

} // namespace tavr::test
