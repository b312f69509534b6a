// list_codes NAME: prints the emergency codes of an account that are not spent, as whoever keeps them knows
// them. For flow tests; run as root in a view.
#include "linux/accounts.h"
#include "linux/vault.h"

#include <unistd.h>

#include <cstdio>

int main(int count, char** arguments)
{
    using namespace tavr;
    constexpr uid_t kServiceId = 64217;
    if (count != 2 || setresgid(kServiceId, kServiceId, 0) != 0 ||
        setresuid(kServiceId, kServiceId, 0) != 0) {
        return 2;
    }
    const std::optional<Account> account = FindAccount(arguments[1]);
    if (!account) {
        return 3;
    }
    for (const StoredSecret& secret : SecretsOf(account->uid)) {
        for (const CodeLine& line : secret.codes) {
            CodeDigits code;
            if (secret.state == SecretState::Active && OpenCode(account->uid, line.reference, code)) {
                std::puts(code.text);
            }
        }
    }
    return 0;
}
