// The machine key: 32 random bytes in kMachineKeyFile that seal the vault's rows (vault.h), waiting mails and
// passwords of mail accounts. Read with the service's ids whenever it is needed and wiped after use, so that
// a new one counts at once.
//
// The file is one line of text: kMachineKeyHead, 64 lower-case hexadecimal digits, a line feed.
#pragma once

#include "linux/request.h"

#include <array>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tavr
{

inline constexpr char kMachineKeyHead[] = "tavr-machine-key-1 ";

// What was asked of the vault could not be had. Never "no" and never "wrong".
class VaultError : public std::runtime_error
{
public:
    explicit VaultError(Fault what) : std::runtime_error(FaultText(what)), fault(what) {}
    const Fault fault;
};

class MachineKey
{
public:
    // Throws VaultError: KeyMissing when there is no file; KeyWrong when it is no key, is not root's own
    // regular file, may be written by others than root or read by others than its group.
    static MachineKey Read();

    ~MachineKey();
    MachineKey(const MachineKey&) = delete;
    MachineKey& operator=(const MachineKey&) = delete;

    static constexpr size_t kBytes = 32;
    using Bytes = std::array<unsigned char, kBytes>;

    // Sealed texts (XChaCha20-Poly1305) open only with what they are bound to, a text that says whose they
    // are and what for; it begins with the name of its kind, so that no two kinds open as one another.
    static constexpr size_t kSealSize = 40; // bytes that sealing adds
    [[nodiscard]] std::string Seal(std::string_view bound, std::string_view plain) const;
    [[nodiscard]] bool Unseal(std::string_view bound, std::string_view sealed,
                              std::span<unsigned char> plain) const; // false: not this key's, or changed
    [[nodiscard]] std::optional<std::string> UnsealText(std::string_view bound,
                                                        std::string_view sealed) const;

    // 16 bytes by which a text can be found again, and which tell nothing of it without the key.
    [[nodiscard]] std::string Mark(std::string_view text) const;

    // Tells one key from another and nothing else about it. Stored in the vault.
    [[nodiscard]] const std::string& Fingerprint() const { return fingerprint_; }

private:
    explicit MachineKey(const Bytes& key);

    Bytes sealing_{};
    std::string fingerprint_;
};

// Makes the key for set-up. As root only, and only while nothing is sealed, in the vault, in the mail queue
// or as a password of a mail account: what a lost key has sealed stays lost, and a new key would hide that.
// Never through a link, never over anything; durable. The group and mode of one that is there are put right
// where none but root could write it.
enum class MakeKey {
    Made,
    Kept,   // there is one, and it can be read
    Mended, // likewise, now
    NotRoot,
    RowsSealed, // it is gone while something is sealed with it: bring the old one back
    NoKey,      // what is there is none, or others than root could write it
    Failed,     // errno says why
};
MakeKey CreateMachineKey(); // throws DatabaseError when that cannot be told

// Whether anything is, so that the key is not to be replaced; likewise.
bool IsAnythingSealed();

} // namespace tavr
