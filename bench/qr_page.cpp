// How much does the wizard's QR page cost beyond the two tools that it runs? The floor starts the same tools
// with posix_spawn and nothing else; it is measured again from a parent of 500 MiB, where fork would show.
#include "bench/measure.h"
#include "bench/service.h"
#include "linux/accounts.h"
#include "linux/cipher.h"
#include "linux/machine_key.h"
#include "linux/names.h"
#include "linux/request.h"
#include "otp/OTPWizardHandler.h"

#include <fcntl.h>
#include <json/value.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{

constexpr char kName[] = "alice";
constexpr char kPassword[] = "a password";
constexpr int kRounds = 301;

// Runs a tool to its end; what it printed.
std::string Run(const char* const* arguments)
{
    int ends[2];
    bench::Demand(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    pid_t child = 0;
    const int code =
        posix_spawn(&child, arguments[0], &actions, nullptr, const_cast<char* const*>(arguments), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    bench::Demand(code == 0, arguments[0]);
    char output[4096];
    std::string text;
    ssize_t count = 0;
    while ((count = read(ends[0], output, sizeof output)) > 0) {
        text.append(output, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    bench::Demand(status == 0, arguments[0]);
    return text;
}

void RunBothTools(const char* path, const char* uri)
{
    const char* const make[] = {"/usr/bin/google-authenticator", "-s", path, nullptr};
    const char* const draw[] = {"/usr/bin/qrencode", uri, "-s", "6", "-o", "-", nullptr};
    bench::Demand(Run(make).size() >= 24 && Run(draw).size() > 100, "the tools print something");
}

} // namespace

int main()
{
    bench::MakeFolders();
    bench::InChild("machine key", [] { return tavr::CreateMachineKey() == tavr::MakeKey::Made; });
    bench::BecomeWorker();
    bench::Demand(tavr::AddAccount({kName, "", "", false}, kPassword).has_value(), "account");
    const auto account = tavr::FindAccount(kName);
    bench::Demand(tavr::MakePreferenceDirectory(*account), "preference directory");

    tavr::StartRequest();
    tavr::CurrentRequest().facts = tavr::Request::Facts{account->uid, false, false};
    bench::Demand(tavr::NameAccountToCipher(*account) == tavr::Fault::None, "cipher");
    OTPWizardHandler wizard;
    bench::Demand(wizard.AuthUserAccount(kName, kPassword, false, true), "password");

    const std::string path = "/tmp/OTP_" + std::to_string(account->uid);
    const auto page = [&] { bench::Demand(wizard.GetQRcodePage(kName, account->uid), "QR page"); };
    page();
    const std::string key = wizard.GetResponse()["key"].asString();
    bench::Demand(key.size() == 32, "the key was deciphered");
    const std::string uri =
        "otpauth://totp/alice?secret=" + key +
        "&issuer=Morvane%20Orbis&hwid=0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
    const auto tools = [&] { RunBothTools(path.c_str(), uri.c_str()); };

    bench::Head();
    bool met = bench::Row("QR page against the bare tools", bench::InTurn(kRounds, tools, page), 1.05);

    std::vector<char> ballast(500U << 20);
    std::memset(ballast.data(), 1, ballast.size());
    met &= bench::Row("the same from a parent of 500 MiB", bench::InTurn(kRounds, tools, page), 1.05);
    bench::Demand(ballast[ballast.size() / 2] == 1, "ballast");
    return met ? 0 : 1;
}
