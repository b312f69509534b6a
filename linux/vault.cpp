#include "linux/vault.h"

#include "linux/clock.h"

#include <sodium.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>

namespace tavr
{

namespace
{

constexpr char kReferenceAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr char kForSecret[] = "secret";
constexpr char kForCode[] = "code";
constexpr char kForTemporaryCode[] = "temporary-code";

// Whose row it is and what for: what a sealed text is bound to. Both ends of it have a fixed form.
struct RowName {
    const char* purpose;
    uint32_t account;
    std::string_view reference;

    [[nodiscard]] std::string Text() const
    {
        return std::string("tavr-vault-1 ") + purpose + ' ' + std::to_string(account) + ' ' +
               std::string(reference);
    }
};

std::string MakeReference(char marker)
{
    unsigned char random[kReferenceSize];
    randombytes_buf(random, sizeof random);
    std::string reference(1, marker);
    for (size_t i = 1; i < kReferenceSize; ++i) {
        reference += kReferenceAlphabet[random[i] % 64]; // 256 is a multiple of 64
    }
    return reference;
}

std::string Seal(const MachineKey& key, const RowName& row, const void* plain, size_t size)
{
    return key.Seal(row.Text(), {static_cast<const char*>(plain), size});
}

void Open(const MachineKey& key, const RowName& row, const std::string& sealed, void* plain, size_t size)
{
    if (!key.Unseal(row.Text(), sealed, {static_cast<unsigned char*>(plain), size})) {
        throw VaultError(Fault::VaultDamaged);
    }
}

// --- The key that sealed the rows ---

using Fingerprint = std::optional<std::string>;

Fingerprint StoredFingerprint()
{
    Statement ask = SigninDatabase().Prepare("SELECT fingerprint FROM vault_key WHERE id = 1");
    return ask.Step() ? Fingerprint(ask.Text(0)) : std::nullopt;
}

void CheckKey(const MachineKey& key, const Fingerprint& stored)
{
    if (!stored.has_value() && HoldsSealedRows()) {
        throw VaultError(Fault::VaultDamaged);
    }
    if (stored.has_value() && *stored != key.Fingerprint() && HoldsSealedRows()) {
        throw VaultError(Fault::KeyWrong);
    }
}

// Inside a transaction, before the first row is sealed with `key`.
void EnterKey(const MachineKey& key)
{
    const Fingerprint stored = StoredFingerprint();
    CheckKey(key, stored);
    if (stored == key.Fingerprint()) {
        return;
    }
    SigninDatabase()
        .Prepare("INSERT INTO vault_key (id, fingerprint) VALUES (1, ?1)"
                 " ON CONFLICT (id) DO UPDATE SET fingerprint = excluded.fingerprint")
        .BindBlob(1, key.Fingerprint())
        .Run();
}

// --- Rows ---

const char* StateText(SecretState state)
{
    switch (state) {
    case SecretState::Waiting:
        return "waiting";
    case SecretState::Confirmed:
        return "confirmed";
    case SecretState::Active:
        return "active";
    }
    throw VaultError(Fault::VaultDamaged);
}

SecretState StateOf(const std::string& text)
{
    for (const SecretState state : {SecretState::Waiting, SecretState::Confirmed, SecretState::Active}) {
        if (text == StateText(state)) {
            return state;
        }
    }
    throw VaultError(Fault::VaultDamaged);
}

void DeleteSecret(uint32_t account, SecretState state)
{
    SigninDatabase()
        .Prepare("DELETE FROM secret WHERE account = ?1 AND state = ?2")
        .Bind(1, int64_t{account})
        .Bind(2, StateText(state))
        .Run();
}

void InsertSecret(const MachineKey& key, uint32_t account, const std::string& reference,
                  const SecretBytes& secret)
{
    SigninDatabase()
        .Prepare("INSERT INTO secret (reference, account, sealed, state, made_boot, made)"
                 " VALUES (?1, ?2, ?3, 'waiting', ?4, ?5)")
        .Bind(1, reference)
        .Bind(2, int64_t{account})
        .BindBlob(3, Seal(key, {kForSecret, account, reference}, secret.bytes.data(), secret.bytes.size()))
        .Bind(4, BootId())
        .Bind(5, BootSeconds())
        .Run();
}

void InsertCode(const MachineKey& key, uint32_t account, const SecretFileText& references, size_t position)
{
    const std::string& reference = references.codes[position];
    CodeDigits code;
    DrawCode(code);
    SigninDatabase()
        .Prepare("INSERT INTO code (reference, secret, position, sealed) VALUES (?1, ?2, ?3, ?4)")
        .Bind(1, reference)
        .Bind(2, references.secret)
        .Bind(3, static_cast<int64_t>(position))
        .BindBlob(4, Seal(key, {kForCode, account, reference}, code.text, kCodeDigits))
        .Run();
}

std::vector<CodeLine> CodesOf(const std::string& secret)
{
    std::vector<CodeLine> codes;
    codes.reserve(kCodesOfSecret);
    Statement ask =
        SigninDatabase().Prepare("SELECT reference, spent FROM code WHERE secret = ?1 ORDER BY position");
    ask.Bind(1, secret);
    while (ask.Step()) {
        codes.push_back({ask.Text(0), ask.Int(1) != 0});
    }
    return codes;
}

} // namespace

void CheckVaultKey()
{
    CheckKey(MachineKey::Read(), StoredFingerprint());
}

bool HoldsSealedRows()
{
    Statement ask =
        SigninDatabase().Prepare("SELECT EXISTS (SELECT 1 FROM secret) OR EXISTS (SELECT 1 FROM code)");
    return ask.Step() && ask.Int(0) != 0;
}

std::vector<StoredSecret> SecretsOf(uint32_t account, bool* isSwitchingOff)
{
    Database& db = SigninDatabase();
    // One row always, and open until the end: what the others read is of the same moment.
    Statement mark = db.Prepare("SELECT (SELECT switching_off FROM account_mark WHERE account = ?1)");
    if (mark.Bind(1, int64_t{account}).Step() && isSwitchingOff != nullptr) {
        *isSwitchingOff = mark.Int(0) != 0;
    }
    std::vector<StoredSecret> secrets;
    Statement ask = db.Prepare(
        "SELECT reference, state, session, made_boot, made FROM secret WHERE account = ?1 ORDER BY state");
    ask.Bind(1, int64_t{account});
    while (ask.Step()) {
        secrets.push_back(
            {ask.Text(0), account, StateOf(ask.Text(1)), ask.Text(2), ask.Text(3), ask.Int(4), {}});
        secrets.back().codes = CodesOf(secrets.back().reference);
    }
    return secrets;
}

// --- Making ---

SecretFileText MakeReferences()
{
    if (sodium_init() < 0) {
        throw VaultError(Fault::StateUnavailable);
    }
    SecretFileText references{MakeReference(kSecretMarker), {}};
    for (int i = 0; i < kCodesOfSecret; ++i) {
        references.codes.push_back(MakeReference(kCodeMarker));
    }
    return references;
}

void DrawSecret(SecretBytes& secret)
{
    randombytes_buf(secret.bytes.data(), secret.bytes.size());
}

SecretBytes::~SecretBytes()
{
    sodium_memzero(bytes.data(), bytes.size());
}

void StoreWaiting(uint32_t account, const SecretFileText& references, const SecretBytes& secret)
{
    const MachineKey key = MachineKey::Read();
    Transaction transaction(SigninDatabase());
    DeleteSecret(account, SecretState::Waiting);
    EnterKey(key);
    InsertSecret(key, account, references.secret, secret);
    for (size_t i = 0; i < references.codes.size(); ++i) {
        InsertCode(key, account, references, i);
    }
    transaction.Commit();
}

// --- Opening ---

CodeDigits::~CodeDigits()
{
    sodium_memzero(text, sizeof text);
}

bool OpenSecret(uint32_t account, std::string_view reference, SecretBytes& secret)
{
    Statement ask =
        SigninDatabase().Prepare("SELECT sealed FROM secret WHERE reference = ?1 AND account = ?2");
    ask.Bind(1, reference).Bind(2, int64_t{account});
    if (!ask.Step()) {
        return false;
    }
    const MachineKey key = MachineKey::Read();
    CheckKey(key, StoredFingerprint());
    Open(key, {kForSecret, account, reference}, ask.Text(0), secret.bytes.data(), secret.bytes.size());
    return true;
}

int64_t OpenForCode(const StoredSecret& stored, int64_t newestStep, SecretBytes& secret)
{
    Statement ask = SigninDatabase().Prepare(
        "SELECT sealed, fingerprint, last_step,"
        " CASE state WHEN 'active' THEN active_step WHEN 'confirmed' THEN confirmed_step END"
        " FROM secret LEFT JOIN account_mark USING (account) LEFT JOIN vault_key ON id = 1"
        " WHERE reference = ?1 AND account = ?2 AND state = ?3");
    ask.Bind(1, stored.reference).Bind(2, int64_t{stored.account}).Bind(3, StateText(stored.state));
    if (!ask.Step()) {
        throw VaultError(Fault::SecretFile); // another state since it was read
    }
    const MachineKey key = MachineKey::Read();
    CheckKey(key, ask.IsNull(1) ? std::nullopt : Fingerprint(ask.Text(1)));
    Open(key, {kForSecret, stored.account, stored.reference}, ask.Text(0), secret.bytes.data(),
         secret.bytes.size());
    const int64_t ofAccount = ask.IsNull(2) ? -1 : ask.Int(2);
    const int64_t ofSecret = ask.IsNull(3) ? -1 : ask.Int(3);
    return ofAccount > newestStep ? ofSecret : std::max(ofSecret, ofAccount);
}

bool OpenCode(uint32_t account, std::string_view reference, CodeDigits& code)
{
    Statement ask =
        SigninDatabase().Prepare("SELECT code.sealed FROM code JOIN secret ON secret.reference = code.secret"
                                 " WHERE code.reference = ?1 AND secret.account = ?2 AND code.spent = 0");
    ask.Bind(1, reference).Bind(2, int64_t{account});
    if (!ask.Step()) {
        return false;
    }
    const MachineKey key = MachineKey::Read();
    CheckKey(key, StoredFingerprint());
    Open(key, {kForCode, account, reference}, ask.Text(0), code.text, kCodeDigits);
    return true;
}

void CheckVault()
{
    CheckKey(MachineKey::Read(), StoredFingerprint());
}

// --- Changing ---

void AcceptStep(Transaction& /*inside*/, const StoredSecret& secret, int64_t step)
{
    Database& db = SigninDatabase();
    if (secret.state == SecretState::Waiting) {
        DeleteSecret(secret.account, SecretState::Confirmed);
        db.Prepare("UPDATE secret SET state = 'confirmed' WHERE reference = ?1")
            .Bind(1, secret.reference)
            .Run();
    }
    const char* const store =
        secret.state == SecretState::Active
            ? "INSERT INTO account_mark (account, last_step, active_step) VALUES (?1, ?2, ?2)"
              " ON CONFLICT (account) DO UPDATE SET last_step = ?2, active_step = ?2, failures = 0"
            : "INSERT INTO account_mark (account, last_step, confirmed_step) VALUES (?1, ?2, ?2)"
              " ON CONFLICT (account) DO UPDATE SET last_step = ?2, confirmed_step = ?2, failures = 0";
    db.Prepare(store).Bind(1, int64_t{secret.account}).Bind(2, step).Run();
}

bool SpendCode(Transaction& /*inside*/, const StoredSecret& secret, std::string_view reference)
{
    Database& db = SigninDatabase();
    db.Prepare("UPDATE code SET spent = 1 WHERE reference = ?1 AND secret = ?2 AND spent = 0")
        .Bind(1, reference)
        .Bind(2, secret.reference)
        .Run();
    return db.Changes() == 1;
}

void MakeActive(Transaction& /*inside*/, const StoredSecret& secret)
{
    Database& db = SigninDatabase();
    DeleteSecret(secret.account, SecretState::Active);
    db.Prepare(
          "UPDATE secret SET state = 'active' WHERE reference = ?1 AND account = ?2 AND state = 'confirmed'")
        .Bind(1, secret.reference)
        .Bind(2, int64_t{secret.account})
        .Run();
    if (db.Changes() != 1) {
        throw VaultError(Fault::VaultDamaged);
    }
    db.Prepare("UPDATE account_mark SET active_step = confirmed_step, confirmed_step = -1 WHERE account = ?1")
        .Bind(1, int64_t{secret.account})
        .Run();
}

void RetireWaitingSecret(uint32_t account)
{
    DeleteSecret(account, SecretState::Waiting);
}

bool ClaimWaitingSecret(const StoredSecret& secret, std::string_view session)
{
    Database& db = SigninDatabase();
    db.Prepare("UPDATE secret SET session = ?2 WHERE reference = ?1 AND state = 'waiting'")
        .Bind(1, secret.reference)
        .BindBlob(2, session)
        .Run();
    return db.Changes() == 1;
}

void MarkAsSwitchingOff(uint32_t account)
{
    SigninDatabase()
        .Prepare("INSERT INTO account_mark (account, switching_off) VALUES (?1, 1)"
                 " ON CONFLICT (account) DO UPDATE SET switching_off = 1")
        .Bind(1, int64_t{account})
        .Run();
}

void FinishSwitchingOff(uint32_t account)
{
    Database& db = SigninDatabase();
    Transaction transaction(db);
    db.Prepare("DELETE FROM secret WHERE account = ?1").Bind(1, int64_t{account}).Run();
    db.Prepare("DELETE FROM temporary_code WHERE account = ?1").Bind(1, int64_t{account}).Run();
    db.Prepare("UPDATE account_mark SET switching_off = 0, active_step = -1, confirmed_step = -1,"
               " told_step = -1, failures = 0 WHERE account = ?1")
        .Bind(1, int64_t{account})
        .Run();
    transaction.Commit();
}

std::vector<uint32_t> AccountsWithWaiting()
{
    std::vector<uint32_t> accounts;
    Statement ask = SigninDatabase().Prepare("SELECT account FROM secret WHERE state = 'waiting'");
    while (ask.Step()) {
        accounts.push_back(static_cast<uint32_t>(ask.Int(0)));
    }
    return accounts;
}

// --- A code that an administrator gave out ---

void DrawCode(CodeDigits& code)
{
    std::snprintf(code.text, sizeof code.text, "%08u", randombytes_uniform(100'000'000));
}

void StoreTemporaryCode(uint32_t account, const CodeDigits& code, int64_t seconds)
{
    const MachineKey key = MachineKey::Read();
    const int64_t until = BootSeconds() + seconds;
    const std::string bound = BootId() + ' ' + std::to_string(until);
    Database& db = SigninDatabase();
    Transaction transaction(db);
    EnterKey(key);
    db.Prepare("INSERT INTO temporary_code (account, sealed, boot, until) VALUES (?1, ?2, ?3, ?4)"
               " ON CONFLICT (account) DO UPDATE SET sealed = ?2, boot = ?3, until = ?4")
        .Bind(1, int64_t{account})
        .BindBlob(2, Seal(key, {kForTemporaryCode, account, bound}, code.text, kCodeDigits))
        .Bind(3, BootId())
        .Bind(4, until)
        .Run();
    transaction.Commit();
}

bool OpenTemporaryCode(uint32_t account, CodeDigits& code)
{
    Statement ask = SigninDatabase().Prepare(
        "SELECT sealed, until FROM temporary_code WHERE account = ?1 AND boot = ?2 AND until > ?3");
    ask.Bind(1, int64_t{account}).Bind(2, BootId()).Bind(3, BootSeconds());
    if (!ask.Step()) {
        return false;
    }
    const MachineKey key = MachineKey::Read();
    CheckKey(key, StoredFingerprint());
    const std::string bound = BootId() + ' ' + std::to_string(ask.Int(1));
    Open(key, {kForTemporaryCode, account, bound}, ask.Text(0), code.text, kCodeDigits);
    return true;
}

bool SpendTemporaryCode(Transaction& /*inside*/, uint32_t account)
{
    Database& db = SigninDatabase();
    db.Prepare("DELETE FROM temporary_code WHERE account = ?1").Bind(1, int64_t{account}).Run();
    return db.Changes() == 1;
}

// --- Faults ---

Fault FaultOf(const DatabaseError& error)
{
    switch (error.code & 0xff) {
    case SQLITE_ERROR: // no such table or column: not our tables
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_MISMATCH:
    case SQLITE_CONSTRAINT:
        return Fault::VaultDamaged;
    default:
        return Fault::StateUnavailable;
    }
}

void LogFault(Fault fault, const char* reason)
{
    syslog(LOG_AUTH | LOG_ERR, "vault: %s: %s", FaultText(fault), reason);
}

} // namespace tavr
