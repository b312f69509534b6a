#include "platform/secrets.h"

#include "linux/error.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/settings.h"

#include <sodium.h>

#include <cstring>
#include <memory>
#include <new>

using tavr::Error;
using tavr::Fail;

namespace
{

constexpr size_t kHwidBytes = 16;

// Keeps what is told here apart from anything else that is ever derived of the machine's id.
constexpr char kHwidKey[] = "tavr-otp hardware id, version 1";

std::string MachineId()
{
    std::string text;
    if (tavr::ReadWholeFile(tavr::kMachineIdFile, text) != tavr::FileRead::Done) {
        return {};
    }
    const size_t end = text.find_first_not_of("0123456789abcdef");
    text.resize(std::min(end, text.size()));
    return text.size() == 32 ? text : std::string(); // machine-id(5); "uninitialized" is none
}

} // namespace

int TAVRGetSecretPathByUser(const char* user, char* path, int size)
{
    if (path == nullptr || size <= 0) {
        return Fail(Error::BadParameter);
    }
    path[0] = 0; // callers look at the path alone
    if (user == nullptr) {
        return Fail(Error::BadParameter);
    }
    const auto name = tavr::CanonicalName(user);
    if (!name) {
        return Fail(Error::BadName);
    }
    const std::string secretPath = tavr::SecretPath(*name);
    if (secretPath.size() >= static_cast<size_t>(size)) {
        return Fail(Error::BufferTooSmall);
    }
    std::memcpy(path, secretPath.c_str(), secretPath.size() + 1);
    return 0;
}

TavrHwid* tavrcrypto_hwid_init(void)
{
    auto* id = new (std::nothrow) TavrHwid{0, nullptr};
    if (id == nullptr) {
        Fail(Error::OutOfMemory);
    }
    return id;
}

// `size` counts the terminator; an id that does not fit whole is not given.
bool tavrcrypto_hwid_str(TavrHwid* id, int size)
{
    constexpr size_t kTextSize = 2 * kHwidBytes + 1;
    if (id == nullptr || size < 0) {
        Fail(Error::BadParameter);
        return false;
    }
    if (static_cast<size_t>(size) < kTextSize) {
        Fail(Error::BufferTooSmall);
        return false;
    }
    const std::string machine = MachineId();
    if (machine.empty()) {
        Fail(Error::NotFound);
        return false;
    }
    unsigned char hash[kHwidBytes];
    crypto_generichash(hash, sizeof hash, reinterpret_cast<const unsigned char*>(machine.data()),
                       machine.size(), reinterpret_cast<const unsigned char*>(kHwidKey), sizeof kHwidKey - 1);
    auto* text = new (std::nothrow) char[kTextSize];
    if (text == nullptr) {
        Fail(Error::OutOfMemory);
        return false;
    }
    sodium_bin2hex(text, kTextSize, hash, sizeof hash);
    delete[] id->text;
    *id = {static_cast<int>(kTextSize - 1), text};
    return true;
}

void tavrcrypto_hwid_free(TavrHwid* id)
{
    if (id != nullptr) {
        delete[] id->text;
        delete id;
    }
}
