#include "webapi/smtp.h"

#include "tests/support/mails.h"
#include "tests/support/smtp_sink.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

using namespace tavr;
using namespace tavr::webapi;

namespace
{

Mail SomeMail()
{
    Mail mail = test::EasyMail();
    mail.subject = "Grüße";
    mail.html = "Code:<br>.12345678<br>.";
    return mail;
}

MailServer ServerOf(const SmtpSink& sink, MailSecurity security = MailSecurity::StartTls)
{
    MailServer server;
    server.host = "localhost";
    server.port = sink.Port();
    server.security = security;
    server.from = "storage@office.example";
    server.caFile = sink.CaFile();
    server.privateAddresses = true;
    return server;
}

MailServer LoggedIn(MailServer server, const char* password = "relay-pw")
{
    server.user = "relay@office.example";
    server.password = password;
    return server;
}

const std::vector<std::string> kLogin = {"--user", "relay@office.example", "--password", "relay-pw"};

std::vector<std::string> WithLogin(std::vector<std::string> options)
{
    options.insert(options.end(), kLogin.begin(), kLogin.end());
    return options;
}

bool Came(const SmtpSink& sink, const std::string& command)
{
    const auto commands = sink.Commands();
    return std::find(commands.begin(), commands.end(), command) != commands.end();
}

// How often a text stands in what this process may write; `masked` is the text with kMask over every byte, so
// that the question is no answer.
constexpr char kMask = 0x55;

constexpr unsigned long kMostMapped = 256UL << 20; // what sanitizers map is larger, and is theirs

size_t TimesInMemory(const std::string& masked)
{
    size_t times = 0;
    std::ifstream maps("/proc/self/maps");
    std::ifstream memory("/proc/self/mem", std::ios::binary);
    for (std::string line; std::getline(maps, line);) {
        unsigned long start = 0;
        unsigned long end = 0;
        char rights[5] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, rights) != 3 || rights[1] != 'w' ||
            end - start > kMostMapped) {
            continue;
        }
        std::vector<char> bytes(end - start);
        memory.clear();
        memory.seekg(static_cast<std::streamoff>(start));
        memory.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        bytes.resize(static_cast<size_t>(memory.gcount()));
        const auto same = [](char byte, char hidden) { return (byte ^ kMask) == hidden; };
        for (auto at = bytes.begin(); at != bytes.end(); times += at != bytes.end() ? 1 : 0) {
            at = std::search(at == bytes.begin() ? at : at + 1, bytes.end(), masked.begin(), masked.end(),
                             same);
        }
        explicit_bzero(bytes.data(), bytes.size());
    }
    return times;
}

class Environment : public testing::Environment
{
public:
    void SetUp() override { ASSERT_TRUE(StartMailTransfers()); }
};
[[maybe_unused]] const auto* const environment = testing::AddGlobalTestEnvironment(new Environment);

TEST(SendMail, LogsInOverStartTlsAndSendsOneMailToOneRecipient)
{
    const SmtpSink sink(kLogin);
    const MailOutcome outcome = SendMail(LoggedIn(ServerOf(sink)), SomeMail());
    EXPECT_EQ(Delivery::Sent, outcome.delivery) << outcome.text;
    EXPECT_EQ(250, outcome.reply);
    EXPECT_EQ("2.0.0 kept as 0001", outcome.text);
    ASSERT_EQ(1, sink.Count());

    const Json::Value envelope = sink.Envelope(1);
    EXPECT_EQ("storage@office.example", envelope["from"].asString());
    ASSERT_EQ(1U, envelope["to"].size());
    EXPECT_EQ("alice@home.example", envelope["to"][0].asString());
    EXPECT_TRUE(envelope["tls"].asBool());
    EXPECT_TRUE(envelope["auth"].asBool());
    EXPECT_EQ(OwnHostName(), envelope["helo"].asString());
    EXPECT_EQ(BuildMessage("storage@office.example", SomeMail()), sink.Mail(1));
    EXPECT_EQ("Code:\n.12345678\n.", ReadMail(sink.Mail(1))["text"].asString());
    auto commands = sink.Commands();
    std::erase(commands, "QUIT"); // which may come later
    EXPECT_EQ((std::vector<std::string>{"EHLO", "STARTTLS", "EHLO", "AUTH", "MAIL", "RCPT", "DATA"}),
              commands);
}

TEST(SendMail, SpeaksTlsFromTheFirstByte)
{
    const SmtpSink sink(WithLogin({"--tls"}));
    EXPECT_EQ(Delivery::Sent, SendMail(LoggedIn(ServerOf(sink, MailSecurity::Tls)), SomeMail()).delivery);
    EXPECT_TRUE(sink.Envelope(1)["tls"].asBool());
}

TEST(SendMail, SpeaksInTheClearOnlyWhenToldSo)
{
    const SmtpSink sink({"--fault", "no-starttls"});
    EXPECT_EQ(Delivery::Sent, SendMail(ServerOf(sink, MailSecurity::None), SomeMail()).delivery);
    EXPECT_FALSE(sink.Envelope(1)["tls"].asBool());
}

TEST(SendMail, SaysNothingToAServerThatCannotBeTrusted)
{
    struct Case {
        const char* what;
        std::vector<std::string> options;
        MailSecurity security;
        const char* text; // a part of it
    };
    const Case cases[] = {
        {"STARTTLS was stripped",
         {"--fault", "no-starttls"},
         MailSecurity::StartTls,
         "STARTTLS not supported"},
        {"another CA", {"--certificate", "other-ca"}, MailSecurity::StartTls, "certificate"},
        {"another host's certificate", {"--certificate", "wrong-host"}, MailSecurity::StartTls, "localhost"},
        {"an expired certificate", {"--certificate", "expired"}, MailSecurity::StartTls, "expired"},
        {"a reply in the clear behind STARTTLS",
         {"--fault", "inject-reply"},
         MailSecurity::StartTls,
         "Weird server reply"},
        {"another CA, TLS", {"--tls", "--certificate", "other-ca"}, MailSecurity::Tls, "certificate"},
        {"another host's, TLS", {"--tls", "--certificate", "wrong-host"}, MailSecurity::Tls, "localhost"},
        {"no TLS where it is demanded", {}, MailSecurity::Tls, ""},
    };
    for (const Case& row : cases) {
        const SmtpSink sink(WithLogin(row.options));
        const MailOutcome outcome = SendMail(LoggedIn(ServerOf(sink, row.security)), SomeMail());
        EXPECT_EQ(Delivery::Later, outcome.delivery) << row.what;
        EXPECT_EQ(0, outcome.reply) << row.what;
        EXPECT_NE(std::string::npos, outcome.text.find(row.text)) << row.what << ": " << outcome.text;
        EXPECT_FALSE(outcome.text.empty()) << row.what;
        EXPECT_FALSE(Came(sink, "AUTH")) << row.what;
        EXPECT_FALSE(Came(sink, "MAIL")) << row.what;
    }
}

TEST(SendMail, TrustsTheSystemsCertificatesAlone)
{
    const SmtpSink sink;
    MailServer server = ServerOf(sink);
    server.caFile.clear();
    const MailOutcome outcome = SendMail(server, SomeMail());
    EXPECT_EQ(Delivery::Later, outcome.delivery);
    EXPECT_NE(std::string::npos, outcome.text.find("certificate")) << outcome.text;
    server.caFile = "/nonexistent/ca.pem";
    EXPECT_EQ(Delivery::Later, SendMail(server, SomeMail()).delivery);
    EXPECT_EQ(0, sink.Count());
}

TEST(SendMail, TrustsTheSystemsCertificatesBesidesAPrivateCa)
{
    const SmtpSink system;
    const SmtpSink other;
    std::filesystem::copy_file(system.CaFile(), "/etc/ssl/certs/of-a-test.pem");
    ASSERT_EQ(0, std::system("openssl rehash /etc/ssl/certs"));
    MailServer server = ServerOf(system);
    server.caFile = other.CaFile();
    EXPECT_EQ(Delivery::Sent, SendMail(server, SomeMail()).delivery);
    EXPECT_EQ(Delivery::Sent, SendMail(ServerOf(other), SomeMail()).delivery);
    server.caFile.clear();
    EXPECT_EQ(Delivery::Sent, SendMail(server, SomeMail()).delivery);
    std::filesystem::remove("/etc/ssl/certs/of-a-test.pem");
    ASSERT_EQ(0, std::system("openssl rehash /etc/ssl/certs"));
}

TEST(SendMail, SortsTheServersRefusals)
{
    struct Case {
        std::vector<std::string> options;
        Delivery delivery;
        int reply;
        const char* text;
    };
    const Case cases[] = {
        {{"--fault", "rcpt-550"}, Delivery::Refused, 550, "5.1.1 there is nobody 5.1.1 of that name"},
        {{"--fault", "rcpt-450"}, Delivery::Later, 450, "4.2.0 come back later"},
        {{"--fault", "mail-550"}, Delivery::Later, 550, "5.7.1 not from you"},
        {{"--fault", "data-554"}, Delivery::Refused, 554, "5.7.1 looks like spam"},
        {{"--fault", "data-451"}, Delivery::Later, 451, "4.3.0 try again"},
        {{"--fault", "controls"}, Delivery::Refused, 550, "no [2J tabs and blanks"},
        {{"--user", "relay@office.example", "--password", "another"},
         Delivery::Later,
         535,
         "5.7.8 Authentication credentials invalid"},
        {{"--user", "x", "--password", "x", "--fault", "no-auth"}, Delivery::Sent, 250, "2.0.0 kept as 0001"},
    };
    for (const Case& row : cases) {
        const SmtpSink sink(row.options);
        const bool login = row.options[0] == "--user";
        const MailOutcome outcome = SendMail(login ? LoggedIn(ServerOf(sink)) : ServerOf(sink), SomeMail());
        EXPECT_EQ(row.delivery, outcome.delivery) << row.options[1];
        EXPECT_EQ(row.reply, outcome.reply) << row.options[1];
        EXPECT_EQ(row.text, outcome.text) << row.options[1];
        EXPECT_EQ(row.delivery == Delivery::Sent ? 1 : 0, sink.Count()) << row.options[1];
    }
}

TEST(SendMail, LeavesNoPasswordInMemory)
{
    const SmtpSink sink(kLogin);
    std::string masked;
    for (int i = 0; i < 40; ++i) {
        masked += static_cast<char>(('a' + rand() % 26) ^ kMask);
    }
    MailServer server = ServerOf(sink);
    server.user = "relay@office.example";
    server.password.reserve(masked.size());
    for (const char c : masked) {
        server.password += static_cast<char>(c ^ kMask);
    }
    // What is freed loses its first 16 bytes to the allocator in any case.
    const std::string end = masked.substr(16);
    EXPECT_EQ(1U, TimesInMemory(end)); // it can be found
    EXPECT_EQ(535, SendMail(server, SomeMail()).reply);
    explicit_bzero(server.password.data(), server.password.size());
    EXPECT_EQ(0U, TimesInMemory(end));
}

TEST(SendMail, IsToldWhenItHasToLogIn)
{
    const SmtpSink sink(kLogin);
    const MailOutcome outcome = SendMail(ServerOf(sink), SomeMail());
    EXPECT_EQ(Delivery::Later, outcome.delivery);
    EXPECT_EQ(530, outcome.reply);
}

TEST(SendMail, EndsWhateverTheServerDoes)
{
    struct Case {
        std::vector<std::string> options;
        Delivery delivery = Delivery::Later;
        MailOutcome outcome{};
    };
    Case cases[] = {{{"--fault", "hang-greeting"}},
                    {{"--fault", "hang-data"}},
                    {{"--fault", "drop-data"}},
                    {{"--fault", "slow"}},
                    {{"--fault", "flood"}},
                    {{"--fault", "rubbish"}},
                    {{"--fault", "hang-quit"}, Delivery::Sent},
                    {{"--fault", "hang-quit", "--fault", "rcpt-550"}, Delivery::Refused}};
    std::vector<std::thread> threads; // each waits for its end
    for (Case& row : cases) {
        threads.emplace_back([&row] {
            const SmtpSink sink(row.options);
            row.outcome = SendMail(ServerOf(sink), SomeMail());
        });
    }
    for (size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        EXPECT_EQ(cases[i].delivery, cases[i].outcome.delivery)
            << cases[i].options[1] << cases[i].outcome.text;
        EXPECT_FALSE(cases[i].outcome.text.empty()) << cases[i].options[1];
    }
}

TEST(MailSender, KeepsTheConnectionWhileTheServerTakesMails)
{
    struct Case {
        const char* fault;
        long connections; // for two mails
    };
    for (const Case& row :
         {Case{"none", 1}, Case{"data-451", 2}, Case{"rcpt-550", 2}, Case{"hang-quit", 1}}) {
        const SmtpSink sink({"--fault", row.fault});
        MailSender sender(ServerOf(sink));
        for (const char* to : {"alice@home.example", "bob@home.example"}) {
            Mail mail = SomeMail();
            mail.to = to;
            sender.Load(mail);
            sender.Send();
        }
        const auto commands = sink.Commands();
        EXPECT_EQ(row.connections, std::count(commands.begin(), commands.end(), "STARTTLS")) << row.fault;
        if (sink.Count() == 2) {
            EXPECT_EQ("bob@home.example", sink.Envelope(2)["to"][0].asString());
            EXPECT_NE(sink.Mail(1), sink.Mail(2));
        }
    }
}

TEST(MailSender, TellsOfEachMailByItself)
{
    SmtpSink sink({"--fault", "rcpt-bob"});
    MailSender sender(ServerOf(sink));
    const std::pair<const char*, int> mails[] = {
        {"alice@home.example", 250}, {"bob@home.example", 550}, {"carol@home.example", 250}};
    for (const auto& [to, reply] : mails) {
        Mail mail = SomeMail();
        mail.to = to;
        sender.Load(mail);
        EXPECT_EQ(reply, sender.Send().reply) << to;
    }
    EXPECT_EQ(2, sink.Count());
}

TEST(SendMail, SaysThatNobodyIsThere)
{
    MailServer server;
    {
        const SmtpSink sink;
        server = ServerOf(sink);
    }
    const MailOutcome outcome = SendMail(server, SomeMail());
    EXPECT_EQ(Delivery::Later, outcome.delivery);
    EXPECT_EQ(0, outcome.reply);
    server.host = "no-such-host.invalid";
    EXPECT_EQ(Delivery::Later, SendMail(server, SomeMail()).delivery);
}

TEST(SendMail, GoesToNoPrivateAddressOfAPersonalAccount)
{
    const SmtpSink sink;
    for (const char* host : {"localhost", "127.0.0.1", "::1", "::ffff:127.0.0.1", "0.0.0.0", "127.1"}) {
        MailServer server = ServerOf(sink);
        server.host = host;
        server.privateAddresses = false;
        const MailOutcome outcome = SendMail(server, SomeMail());
        EXPECT_EQ(Delivery::Later, outcome.delivery) << host;
        EXPECT_EQ("the server stands on a private address, which the setting mail_private_servers may allow",
                  outcome.text)
            << host;
    }
    EXPECT_TRUE(sink.Commands().empty());
}

TEST(SendMail, AsksTheEnvironmentForNothing)
{
    const SmtpSink sink;
    for (const char* name : {"all_proxy", "ALL_PROXY", "smtp_proxy", "SMTP_PROXY", "smtps_proxy"}) {
        setenv(name, "http://127.0.0.1:9", 1);
    }
    const TempDir home;
    home.Write(".netrc", "machine localhost login eve password x\n");
    setenv("HOME", home.Path().c_str(), 1);
    EXPECT_EQ(Delivery::Sent, SendMail(ServerOf(sink), SomeMail()).delivery);
    EXPECT_FALSE(Came(sink, "AUTH"));
}

TEST(MailSender, IsNotMadeForWhatIsNoServer)
{
    const SmtpSink sink;
    for (const char* host : {"", "a b", "a/b", "user@host", "host:25", "host\r\nX", "[::1]", "a?b", "a#b"}) {
        MailServer server = ServerOf(sink);
        server.host = host;
        EXPECT_THROW(MailSender{server}, std::invalid_argument) << host;
    }
    MailServer server = ServerOf(sink);
    server.port = 70'000;
    EXPECT_THROW(MailSender{server}, std::invalid_argument);
}

TEST(MailSender, TakesNothingThatCannotBeSent)
{
    const SmtpSink sink;
    MailServer server = ServerOf(sink);
    server.from = "a@b.example> BODY=8BITMIME";
    EXPECT_THROW(MailSender(server).Load(SomeMail()), std::invalid_argument);
    Mail mail = SomeMail();
    mail.to = "a@b.example,c@d.example";
    MailSender sender(ServerOf(sink));
    EXPECT_THROW(sender.Load(mail), std::invalid_argument);
    sender.Load(SomeMail());
    EXPECT_EQ(Delivery::Sent, sender.Send().delivery) << "the next one is not harmed";
}

TEST(IsPublicAddress, IsTrueOfTheInternetAtLargeAlone)
{
    const std::pair<const char*, bool> cases[] = {
        {"8.8.8.8", true},
        {"0.1.2.3", false},
        {"10.1.2.3", false},
        {"11.0.0.0", true},
        {"100.63.255.255", true},
        {"100.64.0.1", false},
        {"100.128.0.0", true},
        {"127.255.0.1", false},
        {"169.254.169.254", false},
        {"172.15.255.255", true},
        {"172.16.0.1", false},
        {"172.31.255.255", false},
        {"172.32.0.0", true},
        {"192.168.1.1", false},
        {"192.169.0.0", true},
        {"198.19.0.1", false},
        {"224.0.0.1", false},
        {"255.255.255.255", false},
        {"2606:4700::1", true},
        {"::", false},
        {"::1", false},
        {"::ffff:10.0.0.1", false},
        {"::ffff:8.8.8.8", true},
        {"::10.0.0.1", false},
        {"64:ff9b::10.0.0.1", false},
        {"64:ff9b::8.8.8.8", true},
        {"fc00::1", false},
        {"fd12:3456::1", false},
        {"fe80::1", false},
        {"fec0::1", false},
        {"ff02::1", false},
        {"2001::1", false},
        {"2001:db8::1", false},
        {"2002:7f00:1::1", false},
    };
    for (const auto& [text, isPublic] : cases) {
        sockaddr_storage address{};
        auto* fourth = reinterpret_cast<sockaddr_in*>(&address);
        auto* sixth = reinterpret_cast<sockaddr_in6*>(&address);
        address.ss_family = inet_pton(AF_INET, text, &fourth->sin_addr) == 1 ? AF_INET : AF_INET6;
        ASSERT_TRUE(address.ss_family == AF_INET || inet_pton(AF_INET6, text, &sixth->sin6_addr) == 1)
            << text;
        EXPECT_EQ(isPublic, IsPublicAddress(reinterpret_cast<const sockaddr&>(address))) << text;
    }
    sockaddr local{};
    local.sa_family = AF_UNIX;
    EXPECT_FALSE(IsPublicAddress(local));
}

} // namespace
