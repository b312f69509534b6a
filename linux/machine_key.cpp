#include "linux/machine_key.h"

#include "linux/descriptor.h"
#include "linux/paths.h"

#include <fcntl.h>
#include <sodium.h>
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

constexpr size_t kNonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
static_assert(MachineKey::kBytes == crypto_aead_xchacha20poly1305_ietf_KEYBYTES);
static_assert(MachineKey::kSealSize == kNonceSize + crypto_aead_xchacha20poly1305_ietf_ABYTES);

const unsigned char* Data(std::string_view text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

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
    KeyText text;
    KeyBytes key;
    if (!IsGuarded(file) ||
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

std::string MachineKey::Seal(std::string_view bound, std::string_view plain) const
{
    std::string sealed(plain.size() + kSealSize, 0);
    auto* bytes = reinterpret_cast<unsigned char*>(sealed.data());
    randombytes_buf(bytes, kNonceSize);
    crypto_aead_xchacha20poly1305_ietf_encrypt(bytes + kNonceSize, nullptr, Data(plain), plain.size(),
                                               Data(bound), bound.size(), nullptr, bytes, sealing_.data());
    return sealed;
}

bool MachineKey::Unseal(std::string_view bound, std::string_view sealed, std::span<unsigned char> plain) const
{
    return sealed.size() == plain.size() + kSealSize &&
           crypto_aead_xchacha20poly1305_ietf_decrypt(
               plain.data(), nullptr, nullptr, Data(sealed) + kNonceSize, sealed.size() - kNonceSize,
               Data(bound), bound.size(), Data(sealed), sealing_.data()) == 0;
}

std::optional<std::string> MachineKey::UnsealText(std::string_view bound, std::string_view sealed) const
{
    if (sealed.size() < kSealSize) {
        return std::nullopt;
    }
    std::string plain(sealed.size() - kSealSize, 0);
    const bool opened = Unseal(bound, sealed, {reinterpret_cast<unsigned char*>(plain.data()), plain.size()});
    return opened ? std::optional(std::move(plain)) : std::nullopt;
}

std::string MachineKey::Mark(std::string_view text) const
{
    std::string mark(crypto_generichash_BYTES_MIN, 0);
    crypto_generichash(reinterpret_cast<unsigned char*>(mark.data()), mark.size(), Data(text), text.size(),
                       sealing_.data(), sealing_.size());
    return mark;
}

} // namespace tavr
