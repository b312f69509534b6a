#include "linux/cipher.h"

#include "linux/enrolment.h"
#include "linux/error.h"
#include "linux/ids.h"
#include "linux/vault.h"

#include "platform/core.h"

#include <liboath/oath.h>
#include <sodium.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace tavr
{

namespace
{

constexpr size_t kSecretTextSize = 32; // 20 bytes in base-32

struct FreeSecretText {
    void operator()(char* text) const noexcept
    {
        sodium_memzero(text, std::strlen(text));
        std::free(text); // NOLINT(cppcoreguidelines-no-malloc)
    }
};

bool IsOwnSecret(const std::vector<StoredSecret>& secrets, const std::string& reference)
{
    return std::any_of(secrets.begin(), secrets.end(),
                       [&](const StoredSecret& secret) { return secret.reference == reference; });
}

bool IsOwnCode(const std::vector<StoredSecret>& secrets, const std::string& reference)
{
    return std::any_of(secrets.begin(), secrets.end(), [&](const StoredSecret& secret) {
        return std::any_of(secret.codes.begin(), secret.codes.end(),
                           [&](const CodeLine& code) { return code.reference == reference; });
    });
}

// Throws VaultError unless every line of the account's file, if there is one, is a reference of its own.
void CheckFile(const Account& account)
{
    const FoundFile found = FindSecretFile(account);
    if (found.found == Found::Nothing) {
        return;
    }
    const std::optional<SecretFileText> file =
        found.found == Found::Text ? ParseSecretFile(found.text) : std::nullopt;
    const std::vector<StoredSecret> secrets = SecretsOf(account.uid);
    if (!file.has_value() || !IsOwnSecret(secrets, file->secret) ||
        !std::all_of(file->codes.begin(), file->codes.end(),
                     [&](const std::string& code) { return IsOwnCode(secrets, code); })) {
        throw VaultError(Fault::SecretFile);
    }
}

// The text behind a reference of the account; empty for everything else.
std::string Decipher(uint32_t account, std::string_view stored)
{
    const std::string_view reference = BareReference(stored);
    if (IsReference(reference, kSecretMarker)) {
        return SecretText(account, reference);
    }
    CodeDigits code;
    if (IsReference(reference, kCodeMarker) && OpenCode(account, reference, code)) {
        return code.text;
    }
    return {};
}

} // namespace

std::string SecretText(uint32_t account, std::string_view reference)
{
    SecretBytes secret;
    if (!OpenSecret(account, reference, secret)) {
        return {};
    }
    char* made = nullptr;
    size_t size = 0;
    if (oath_base32_encode(reinterpret_cast<const char*>(secret.bytes.data()), secret.bytes.size(), &made,
                           &size) != OATH_OK) {
        throw VaultError(Fault::StateUnavailable);
    }
    const std::unique_ptr<char, FreeSecretText> text(made);
    return size == kSecretTextSize ? std::string(text.get(), size) : std::string();
}

Fault NameAccountToCipher(const Account& account)
{
    CurrentRequest().cipherAccount.reset();
    const Fault fault = FaultIn([&] {
        CheckVault();
        CheckFile(account);
    });
    if (fault != Fault::None) {
        NoteFault(fault);
        return fault;
    }
    CurrentRequest().cipherAccount = account.uid;
    return Fault::None;
}

} // namespace tavr

int KLIBCCryptSzDecrypt(const char* stored, char* plain, int size)
{
    using namespace tavr;
    const std::optional<uint32_t> account = CurrentRequest().cipherAccount;
    if (stored == nullptr || plain == nullptr || size <= 0 || !account.has_value()) {
        Fail(Error::BadParameter);
        return 0;
    }
    std::string text;
    const Fault fault = FaultIn([&] {
        const EffectiveIds service = EffectiveIds::Service(); // the emergency reader calls while raised
        text = Decipher(*account, stored);
    });
    if (fault != Fault::None) {
        NoteFault(fault);
        Fail(Error::VaultUnavailable);
        return 0;
    }
    if (text.empty() || text.size() >= static_cast<size_t>(size)) {
        Fail(text.empty() ? Error::NotFound : Error::BufferTooSmall);
        return 0;
    }
    std::memcpy(plain, text.c_str(), text.size() + 1);
    sodium_memzero(text.data(), text.size());
    return 1;
}
