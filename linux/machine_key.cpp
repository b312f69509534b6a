#include "linux/machine_key.h"

#include "linux/descriptor.h"
#include "linux/paths.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>

namespace tavr
{

namespace
{

constexpr size_t kHeadSize = sizeof kMachineKeyHead - 1;
constexpr size_t kDigits = 2 * MachineKey::kBytes;
constexpr size_t kTextSize = kHeadSize + kDigits + 1;

// Contexts of the keys that are derived from the machine key; each is used for one purpose.
constexpr char kContext[crypto_kdf_CONTEXTBYTES + 1] = "tavrotpv";
constexpr uint64_t kSealingKey = 1;
constexpr uint64_t kFingerprint = 2;

// Wiped on every way out, both.
struct KeyBytes {
    MachineKey::Bytes bytes{};
    KeyBytes() = default;
    KeyBytes(const KeyBytes&) = delete;
    KeyBytes& operator=(const KeyBytes&) = delete;
    ~KeyBytes() { sodium_memzero(bytes.data(), bytes.size()); }
};
struct KeyText {
    char bytes[kTextSize + 1] = {};
    KeyText() = default;
    KeyText(const KeyText&) = delete;
    KeyText& operator=(const KeyText&) = delete;
    ~KeyText() { sodium_memzero(bytes, sizeof bytes); }
};

bool IsGuarded(const struct stat& file)
{
    return S_ISREG(file.st_mode) && file.st_uid == 0 && file.st_nlink == 1 &&
           (file.st_mode & (S_IWGRP | S_IRWXO)) == 0;
}

bool ParseKey(const KeyText& text, MachineKey::Bytes& key)
{
    if (std::memcmp(text.bytes, kMachineKeyHead, kHeadSize) != 0 || text.bytes[kTextSize - 1] != '\n') {
        return false;
    }
    size_t size = 0;
    return sodium_hex2bin(key.data(), key.size(), text.bytes + kHeadSize, kDigits, nullptr, &size, nullptr) ==
               0 &&
           size == key.size();
}

} // namespace

MachineKey MachineKey::Read()
{
    const Descriptor file(open(kMachineKeyFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file) {
        syslog(LOG_AUTH | LOG_ERR, "cannot open %s: %m", kMachineKeyFile);
        throw VaultError(errno == ENOENT ? Fault::KeyMissing : Fault::KeyWrong);
    }
    struct stat what {
    };
    KeyText text;
    KeyBytes key;
    if (fstat(file.Get(), &what) != 0 || !IsGuarded(what) ||
        read(file.Get(), text.bytes, sizeof text.bytes) != static_cast<ssize_t>(kTextSize) ||
        !ParseKey(text, key.bytes) || sodium_init() < 0) {
        syslog(LOG_AUTH | LOG_ERR, "%s is no machine key, or its owner or mode is wrong", kMachineKeyFile);
        throw VaultError(Fault::KeyWrong);
    }
    return MachineKey(key.bytes);
}

MachineKey::MachineKey(const Bytes& key) : fingerprint_(kBytes / 2, 0)
{
    crypto_kdf_derive_from_key(sealing_.data(), sealing_.size(), kSealingKey, kContext, key.data());
    crypto_kdf_derive_from_key(reinterpret_cast<unsigned char*>(fingerprint_.data()), fingerprint_.size(),
                               kFingerprint, kContext, key.data());
}

MachineKey::~MachineKey()
{
    sodium_memzero(sealing_.data(), sealing_.size());
}

} // namespace tavr
