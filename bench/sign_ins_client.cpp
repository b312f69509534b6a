// What sign_ins.sh needs: many enrolled accounts, clients that sign them in with password and code, and the
// floor, hashes of a password.
//
//     sign_ins_client make ACCOUNTS              in a view that has been set up
//     sign_ins_client hashes PROCESSES SECONDS   prints hashes a second
//     sign_ins_client run PORT FROM SECONDS      prints sign-ins a second, from account number FROM on
#include "linux/accounts.h"
#include "linux/descriptor.h"
#include "linux/names.h"
#include "linux/vault.h"

#include "bench/enrolled.h"

#include <arpa/inet.h>
#include <crypt.h>
#include <liboath/oath.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <new>
#include <string_view>

using namespace tavr;
using namespace tavr::bench;

namespace
{

constexpr char kPassword[] = "a password 1";
constexpr int kClients = 16;
const SecretBytes kSecret; // everybody's

double Now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string NameOf(int number)
{
    return "user" + std::to_string(number);
}

// --- Accounts ---

void Enrol(const Account& account)
{
    Require(MakePreferenceDirectory(account), "preference directory");
    const SecretFileText references = MakeReferences();
    StoreWaiting(account.uid, references, kSecret);
    PutSecretFile(SecretPath(account.name), references);
}

// One hash for all of them, since making it is what takes long.
void Make(int accounts)
{
    TakeWorkerIds();
    Require(AddAccount({NameOf(0), "", "", false}, kPassword).has_value(), "account");
    Statement copy = AccountsDatabase().Prepare(
        "WITH RECURSIVE number (n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM number WHERE n < ?1)"
        " INSERT INTO account (name, gid, password) SELECT 'user' || n, gid, password FROM number, account"
        " WHERE account.name = 'user0'");
    copy.Bind(1, accounts).Run();
    SigninDatabase().Prepare("PRAGMA synchronous = OFF").Run();
    ForEachAccount(Enrol);
    SigninDatabase().Prepare("UPDATE secret SET state = 'active'").Run();
}

// --- Processes ---

// Calls `once` in so many processes until the time is over; how often a second it came back.
template<typename Once>
double RateOf(int processes, double seconds, Once once)
{
    void* memory =
        mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Require(memory != MAP_FAILED, "shared memory");
    auto* const count = new (memory) std::atomic<int>(0);
    const double start = Now();
    for (int i = 0; i < processes; ++i) {
        const pid_t child = fork();
        Require(child >= 0, "fork");
        if (child == 0) {
            while (Now() < start + seconds) {
                once(count->fetch_add(1));
            }
            _exit(0);
        }
    }
    int status = 0;
    while (wait(&status) > 0) {
        Require(status == 0, "a process");
    }
    return *count / (Now() - start);
}

void Hash()
{
    static const std::string setting = [] {
        char text[CRYPT_GENSALT_OUTPUT_SIZE] = {};
        return std::string(crypt_gensalt_rn("$y$", 5, nullptr, 0, text, sizeof text));
    }();
    static crypt_data data;
    Require(crypt_r(kPassword, setting.c_str(), &data) != nullptr, "crypt");
}

// --- Signing in ---

std::string Code()
{
    char code[7] = {};
    oath_totp_generate(reinterpret_cast<const char*>(kSecret.bytes.data()), kSecretBytes, std::time(nullptr),
                       30, 0, 6, code);
    return code;
}

// The whole answer to a request on a connection of its own, which has to be 200.
std::string Post(uint16_t port, const std::string& path, const std::string& headers, const std::string& body)
{
    const Descriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Require(connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
            "connect");
    const std::string request =
        "POST " + path +
        " HTTP/1.0\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\n" + headers + "\r\n" + body;
    Require(write(connection.Get(), request.data(), request.size()) == static_cast<ssize_t>(request.size()),
            "write");
    std::string answer;
    char block[4096];
    for (ssize_t got = 1; got > 0;) {
        got = read(connection.Get(), block, sizeof block);
        answer.append(block, static_cast<size_t>(std::max<ssize_t>(0, got)));
    }
    Require(answer.substr(0, 16).ends_with(" 200 OK\r"), answer.c_str());
    return answer;
}

std::string After(const std::string& text, std::string_view mark, size_t size)
{
    const size_t at = text.find(mark);
    Require(at != std::string::npos, text.c_str());
    return text.substr(at + mark.size(), size);
}

void SignIn(uint16_t port, int number)
{
    const std::string half = Post(port, "/api/signin", "",
                                  R"({"user":")" + NameOf(number) + R"(","password":")" + kPassword + "\"}");
    Post(port, "/api/signin/code",
         "Cookie: pending=" + After(half, "pending=", 32) +
             "\r\nX-Tavr-Token: " + After(half, R"("TavrToken":")", 64) + "\r\n",
         R"({"code":")" + Code() + "\"}");
}

} // namespace

int main(int argc, char** argv)
{
    const std::string_view mode = argc > 1 ? argv[1] : "";
    const auto number = [&](int at) { return at < argc ? std::atoi(argv[at]) : 0; }; // NOLINT(cert-err34-c)
    if (mode == "make") {
        Make(number(2));
    } else if (mode == "hashes") {
        std::printf("%.1f\n", RateOf(number(2), number(3), [](int) { Hash(); }));
    } else if (mode == "run") {
        std::printf("%.1f\n", RateOf(kClients, number(4), [&](int count) {
                        SignIn(static_cast<uint16_t>(number(2)), number(3) + count);
                    }));
    } else {
        return 2;
    }
    return 0;
}
