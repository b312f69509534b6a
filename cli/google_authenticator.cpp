// The platform's secret tool. The library starts it to make a secret that waits for its first code.
#include "linux/secret_tool.h"
#include "linux/vault.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace
{

constexpr int kDone = 0;
constexpr int kNotMade = 1;
constexpr int kWrongUse = 2;

constexpr char kHelp[] = "Usage: google-authenticator -s PATH\n"
                         "Makes the secret file PATH of an account that sets up two-step sign-in.\n"
                         "\n"
                         "  -s PATH     the file to make; its last name is OTP_ and the account's number\n"
                         "  --help      show this help and exit\n"
                         "  --version   show the version and exit\n";

int Complain(int status, const std::string& text)
{
    std::fprintf(stderr, "google-authenticator: %s\n", text.c_str());
    return status;
}

int Say(const std::string& text)
{
    if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) != 0) {
        return Complain(kNotMade, "cannot write to standard output");
    }
    return kDone;
}

// No core file and no other process of the user sees the secret while it is in the clear here.
void HideMemory()
{
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

int MakeSecret(const char* path)
{
    const auto parsed = tavr::ParseToolPath(path);
    if (!parsed.has_value()) {
        return Complain(kWrongUse, "the last name of PATH must be OTP_ and an account's number");
    }
    if (getuid() == 0 || geteuid() == 0) {
        return Complain(kNotMade,
                        "not to be run by root: vault and file belong to the service's own account");
    }
    HideMemory();
    umask(S_IRWXG | S_IRWXO);
    try {
        return Say(tavr::PaddedReference(tavr::MakeWaitingSecret(*parsed)) + '\n');
    } catch (const tavr::ToolError& error) {
        return Complain(kNotMade, error.what());
    } catch (const tavr::VaultError& error) {
        return Complain(kNotMade, error.what());
    } catch (const tavr::DatabaseError& error) {
        return Complain(kNotMade, std::string("sign-in database: ") + error.what());
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::string_view option = argc > 1 ? argv[1] : "";
    if (argc == 2 && option == "--help") {
        return Say(kHelp);
    }
    if (argc == 2 && option == "--version") {
        return Say("google-authenticator " TAVR_VERSION "\n");
    }
    if (argc == 3 && option == "-s") {
        return MakeSecret(argv[2]);
    }
    std::fputs(kHelp, stderr);
    return kWrongUse;
}
