// The vault: accounts' secrets and emergency codes as sealed rows of the sign-in database, looked up by the
// references that stand in the secret files. What a row says is bound to its reference, its account and its
// purpose, so that a row moved in the database does not open.
//
// Functions throw DatabaseError when the database cannot be used, VaultError when key or rows are not as they
// should be. Nothing here takes the account's lock; who changes something holds it (enrolment.h).
#pragma once

#include "linux/database.h"
#include "linux/machine_key.h"
#include "linux/secret_file.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavr
{

inline constexpr size_t kSecretBytes = 20; // 160 bits
inline constexpr int kCodesOfSecret = 10;  // emergency codes, kCodeDigits decimal digits each
inline constexpr size_t kCodeDigits = 8;

enum class SecretState {
    Waiting,   // made, no code seen yet
    Confirmed, // a code was accepted, its file is not in place yet
    Active,    // the account's secret
};

struct StoredSecret {
    std::string reference;
    uint32_t account = 0;
    SecretState state = SecretState::Waiting;
    std::string session;         // whose page asked for it; empty: nobody's yet
    std::string madeBoot;        // the BootId() it was made under
    int64_t made = 0;            // BootSeconds()
    std::vector<CodeLine> codes; // in the order of the file's lines
};

// The account's secrets, one of each state at most. `isSwitchingOff`: whether it has the mark of
// MarkAsSwitchingOff.
std::vector<StoredSecret> SecretsOf(uint32_t account, bool* isSwitchingOff = nullptr);

// Whether there is anything that the loss of the machine key would lose.
bool HoldsSealedRows();

// Throws VaultError unless there is a machine key and what is sealed is sealed with it.
void CheckVaultKey();

// --- Making ---

// 160 bits in the clear, wiped at the end of the scope.
struct SecretBytes {
    std::array<unsigned char, kSecretBytes> bytes{};
    SecretBytes() = default;
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    ~SecretBytes();
};

// References for a new secret and its codes; nothing is stored yet.
SecretFileText MakeReferences();
void DrawSecret(SecretBytes& secret);

// Seals the secret and freshly drawn codes under these references and stores them as the account's waiting
// secret, in place of the one that waited. Durable when it returns.
void StoreWaiting(uint32_t account, const SecretFileText& references, const SecretBytes& secret);

// --- Opening ---

// False when the account has no such live secret or code (a spent one is none).
bool OpenSecret(uint32_t account, std::string_view reference, SecretBytes& secret);

// Likewise the secret as `stored` has it, with the last time step of which it accepted a code; -1: none.
// Steps used with the account's earlier secrets count too, but for those further ahead than `newestStep`: a
// clock that was wrong once must not close a new secret. Throws VaultError when it does not stand any more as
// it was read.
int64_t OpenForCode(const StoredSecret& stored, int64_t newestStep, SecretBytes& secret);

struct CodeDigits {
    char text[kCodeDigits + 1] = {};
    CodeDigits() = default;
    CodeDigits(const CodeDigits&) = delete;
    CodeDigits& operator=(const CodeDigits&) = delete;
    ~CodeDigits();
};
bool OpenCode(uint32_t account, std::string_view reference, CodeDigits& code);

// Throws what opening a row would: for asking before anything depends on it.
void CheckVault();

// --- Changing; durable when it returns, or when the caller's transaction is committed ---

// Stores `step` as accepted, in the caller's transaction, in which OpenForCode gave an earlier one; the
// account's failures in a row end with it. A waiting secret is confirmed by it and replaces one confirmed
// earlier.
void AcceptStep(Transaction& inside, const StoredSecret& secret, int64_t step);

// Spends one of the secret's codes, in the caller's transaction. False: it was spent, or the secret is not
// there.
bool SpendCode(Transaction& inside, const StoredSecret& secret, std::string_view reference);

// In the caller's transaction; the former active one is retired with its codes.
void MakeActive(Transaction& inside, const StoredSecret& secret);
void RetireWaitingSecret(uint32_t account);
bool ClaimWaitingSecret(const StoredSecret& secret, std::string_view session); // false: it waits no more

void MarkAsSwitchingOff(uint32_t account);
void FinishSwitchingOff(uint32_t account); // retires every secret and takes the mark back

std::vector<uint32_t> AccountsWithWaiting();

// --- A code that an administrator gave out ---

// Eight digits, one an account, good once within its time and until the machine starts anew. Takes the place
// of one given out earlier; switching off takes it away.
void DrawCode(CodeDigits& code);
void StoreTemporaryCode(uint32_t account, const CodeDigits& code, int64_t seconds);
bool OpenTemporaryCode(uint32_t account, CodeDigits& code);     // false: there is none
bool SpendTemporaryCode(Transaction& inside, uint32_t account); // false: there was none

// --- Faults ---

Fault FaultOf(const DatabaseError& error);

// Runs `work`; what the vault or the database threw comes back as a fault, and is logged with its reason.
void LogFault(Fault fault, const char* reason);
template<typename Work>
Fault FaultIn(Work&& work)
{
    try {
        std::forward<Work>(work)();
    } catch (const VaultError& error) {
        LogFault(error.fault, "the machine key and the rows");
        return error.fault;
    } catch (const DatabaseError& error) {
        LogFault(FaultOf(error), error.what());
        return FaultOf(error);
    }
    return Fault::None;
}

} // namespace tavr
