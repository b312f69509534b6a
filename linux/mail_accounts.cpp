#include "linux/mail_accounts.h"

#include "linux/database.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/settings.h"
#include "platform/db.h"
#include "platform/json.h"

#include <fcntl.h>
#include <sodium.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <memory>

namespace tavr
{

namespace
{

constexpr char kFileName[] = "emailaccount.db"; // the library's name for it
constexpr size_t kLongestAlias = 64;
constexpr size_t kLongestType = 32;
constexpr size_t kLongestUser = 320;

constexpr const char* kMigrations[] = {
    R"(
CREATE TABLE emailaccountinfo (
    uid TEXT NOT NULL,
    alias TEXT NOT NULL,
    email_type TEXT NOT NULL,
    is_default TEXT NOT NULL CHECK (is_default IN ('true', 'false')),
    server TEXT NOT NULL,
    port INTEGER NOT NULL,
    security TEXT NOT NULL,
    user_name TEXT NOT NULL,
    sealed_password TEXT NOT NULL,         -- base-64; empty: none
    sender TEXT NOT NULL,
    PRIMARY KEY (uid, alias)
) STRICT;
CREATE UNIQUE INDEX one_default ON emailaccountinfo (uid) WHERE is_default = 'true';
)",
};
constexpr const char* kColumns[] = {"uid",  "alias",    "email_type", "is_default",      "server",
                                    "port", "security", "user_name",  "sealed_password", "sender"};

std::string FilePath(const Account& account)
{
    return PreferencePath(account.name) + '/' + kFileName;
}

// --- Reading ---

struct FreeResult {
    void operator()(TAVRDBResult* result) const noexcept { TAVRDBFreeResult(result); }
};

bool IsThere(const std::string& path)
{
    return faccessat(AT_FDCWD, path.c_str(), F_OK, AT_EACCESS) == 0 || errno != ENOENT;
}

// As the library reads it: nothing in the file can do harm, and nobody waits for long.
std::unique_ptr<TAVRDBResult, FreeResult> AskFile(const std::string& path, const std::string& sql)
{
    TAVRDB* db = TAVRDBConnect(nullptr, nullptr, nullptr, path.c_str());
    TAVRDBResult* found = nullptr;
    if (db == nullptr || TAVRDBExecute(db, sql.c_str(), &found) < 0) {
        throw DatabaseError(0, "cannot read " + path);
    }
    return std::unique_ptr<TAVRDBResult, FreeResult>(found);
}

std::vector<MailAccountRow> ReadRows(const Account& account)
{
    const std::string path = FilePath(account);
    if (!IsThere(path)) {
        return {};
    }
    const auto result =
        AskFile(path, "SELECT * FROM emailaccountinfo WHERE uid='" + std::to_string(account.uid) + "';");
    std::vector<MailAccountRow> rows;
    TAVRDBRow* row = nullptr;
    while (TAVRDBFetchRow(result.get(), &row) == 0) {
        MailAccountRow texts;
        for (const char* column : kColumns) {
            const char* text = TAVRDBFetchField(result.get(), row, column);
            texts[column] = text != nullptr ? text : "";
        }
        rows.push_back(std::move(texts));
    }
    return rows;
}

const std::string& Text(const MailAccountRow& row, std::string_view column)
{
    static const std::string empty;
    const auto found = row.find(column);
    return found == row.end() ? empty : found->second;
}

int Port(const std::string& text)
{
    int port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() ? port : 0;
}

// --- Passwords ---

// Whose password it is and where it goes.
std::string Bound(const Account& account, const MailAccount& mailAccount)
{
    Json::Value parts(Json::arrayValue);
    parts.append(account.uid);
    parts.append(mailAccount.type);
    parts.append(mailAccount.alias);
    parts.append(mailAccount.server.host);
    parts.append(mailAccount.server.port);
    parts.append(MailSecurityText(mailAccount.server.security));
    parts.append(mailAccount.server.user);
    return "tavr-mail-account-1 " + JsonToString(parts);
}

std::string SealPassword(const Account& account, const MailAccount& mailAccount)
{
    if (mailAccount.server.password.empty()) {
        return "";
    }
    const std::string sealed =
        MachineKey::Read().Seal(Bound(account, mailAccount), mailAccount.server.password);
    std::string text(sodium_base64_encoded_len(sealed.size(), sodium_base64_VARIANT_ORIGINAL), 0);
    sodium_bin2base64(text.data(), text.size(), reinterpret_cast<const unsigned char*>(sealed.data()),
                      sealed.size(), sodium_base64_VARIANT_ORIGINAL);
    text.pop_back(); // the terminator
    return text;
}

std::string OpenPassword(const Account& account, const MailAccount& mailAccount, const std::string& text)
{
    if (text.empty()) {
        return "";
    }
    std::string sealed(text.size(), 0);
    size_t size = 0;
    if (sodium_base642bin(reinterpret_cast<unsigned char*>(sealed.data()), sealed.size(), text.data(),
                          text.size(), nullptr, &size, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0) {
        throw VaultError(Fault::VaultDamaged);
    }
    sealed.resize(size);
    auto password = MachineKey::Read().UnsealText(Bound(account, mailAccount), sealed);
    if (!password) {
        throw VaultError(Fault::VaultDamaged);
    }
    return std::move(*password);
}

bool IsType(std::string_view type)
{
    return !type.empty() && type.size() <= kLongestType && std::all_of(type.begin(), type.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    });
}

bool IsText(std::string_view text, size_t least, size_t most)
{
    return text.size() >= least && text.size() <= most && IsPlainText(text);
}

} // namespace

const char* MailAccountProblem(const MailAccount& account)
{
    const MailServer& server = account.server;
    if (!IsText(account.alias, 1, kLongestAlias)) {
        return "the alias is empty, too long or cannot be shown";
    }
    if (!IsType(account.type)) {
        return "the type is none";
    }
    if (!IsHostName(server.host)) {
        return "the server is neither a name nor an address";
    }
    if (server.port != 25 && server.port != 465 && server.port != 587) {
        return "the port is none of 25, 465 and 587";
    }
    if (!IsText(server.user, 0, kLongestUser)) {
        return "the name to log in with is too long or cannot be shown";
    }
    const bool ascii = std::all_of(server.from.begin(), server.from.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    return IsMailAddress(server.from) && ascii ? nullptr : "the sender is no mail address in ASCII";
}

std::optional<MailAccount> ParseMailAccount(const MailAccountRow& row)
{
    const auto security = MailSecurityOf(Text(row, "security"));
    MailAccount account;
    account.type = Text(row, "email_type");
    account.alias = Text(row, "alias");
    account.isDefault = Text(row, "is_default") == "true";
    account.server.host = Text(row, "server");
    account.server.port = Port(Text(row, "port"));
    account.server.security = security.value_or(MailSecurity::StartTls);
    account.server.user = Text(row, "user_name");
    account.server.from = Text(row, "sender");
    account.server.caFile = Setting("mail_ca_file", "");
    account.server.privateAddresses = MayPersonalServersBePrivate();
    return security && MailAccountProblem(account) == nullptr ? std::optional(account) : std::nullopt;
}

std::vector<MailAccount> MailAccountsOf(const Account& account)
{
    std::vector<MailAccount> accounts;
    for (const MailAccountRow& row : ReadRows(account)) {
        if (auto parsed = ParseMailAccount(row)) {
            accounts.push_back(std::move(*parsed));
        } else {
            syslog(LOG_ERR, "a mail account of %s is not usable", account.name.c_str());
        }
    }
    std::sort(accounts.begin(), accounts.end(),
              [](const MailAccount& a, const MailAccount& b) { return a.alias < b.alias; });
    return accounts;
}

bool HasSealedPasswords()
{
    std::error_code error;
    for (const auto& folder : std::filesystem::directory_iterator(kPreferenceDir, error)) {
        const std::string path = folder.path() / kFileName;
        constexpr char kSealed[] = "SELECT * FROM emailaccountinfo WHERE sealed_password<>'' LIMIT 1;";
        if (IsThere(path) && TAVRDBNumRows(AskFile(path, kSealed).get()) > 0) {
            return true;
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        throw DatabaseError(0, std::string("cannot read ") + kPreferenceDir);
    }
    return false;
}

std::optional<MailAccount> OpenMailAccount(const Account& account, std::string_view type,
                                           std::string_view alias)
{
    const MailAccountRow* found = nullptr;
    const std::vector<MailAccountRow> rows = ReadRows(account);
    for (const MailAccountRow& row : rows) {
        if (Text(row, "email_type") != type || Text(row, "alias") != alias) {
            continue;
        }
        if (found != nullptr) {
            return std::nullopt;
        }
        found = &row;
    }
    auto opened = found != nullptr ? ParseMailAccount(*found) : std::nullopt;
    if (opened) {
        opened->server.password = OpenPassword(account, *opened, Text(*found, "sealed_password"));
    }
    return opened;
}

// --- Changing ---

namespace
{

void ClearDefault(Database& db, const std::string& uid)
{
    db.Prepare("UPDATE emailaccountinfo SET is_default = 'false' WHERE uid = ?1 AND is_default = 'true'")
        .Bind(1, uid)
        .Run();
}

bool HasOne(Database& db, const std::string& uid, std::string_view alias)
{
    return db.Prepare("SELECT 1 FROM emailaccountinfo WHERE uid = ?1 AND alias = ?2")
        .Bind(1, uid)
        .Bind(2, alias)
        .Step();
}

} // namespace

AddedMailAccount AddMailAccount(const Account& account, const MailAccount& added)
{
    const std::string sealed = SealPassword(account, added);
    if (!MakePreferenceDirectory(account)) {
        throw DatabaseError(0, "the preference directory of " + account.name + " cannot be made");
    }
    const std::string uid = std::to_string(account.uid);
    Database db(FilePath(account).c_str(), kMigrations);
    Transaction transaction(db);
    if (HasOne(db, uid, added.alias)) {
        return AddedMailAccount::No;
    }
    const bool isFirst = !db.Prepare("SELECT 1 FROM emailaccountinfo WHERE uid = ?1 AND is_default = 'true'")
                              .Bind(1, uid)
                              .Step();
    const bool isDefault = added.isDefault || isFirst;
    if (isDefault) {
        ClearDefault(db, uid);
    }
    db.Prepare("INSERT INTO emailaccountinfo (uid, alias, email_type, is_default, server, port, security,"
               " user_name, sealed_password, sender) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)")
        .Bind(1, uid)
        .Bind(2, added.alias)
        .Bind(3, added.type)
        .Bind(4, isDefault ? "true" : "false")
        .Bind(5, added.server.host)
        .Bind(6, added.server.port)
        .Bind(7, MailSecurityText(added.server.security))
        .Bind(8, added.server.user)
        .Bind(9, sealed)
        .Bind(10, added.server.from)
        .Run();
    transaction.Commit();
    return isDefault ? AddedMailAccount::AddedAsDefault : AddedMailAccount::Added;
}

bool SetDefaultMailAccount(const Account& account, std::string_view alias)
{
    const std::string path = FilePath(account);
    if (!IsThere(path)) {
        return false;
    }
    const std::string uid = std::to_string(account.uid);
    Database db(path.c_str(), kMigrations);
    Transaction transaction(db);
    if (!HasOne(db, uid, alias)) {
        return false;
    }
    ClearDefault(db, uid);
    db.Prepare("UPDATE emailaccountinfo SET is_default = 'true' WHERE uid = ?1 AND alias = ?2")
        .Bind(1, uid)
        .Bind(2, alias)
        .Run();
    transaction.Commit();
    return true;
}

bool RemoveMailAccount(const Account& account, std::string_view alias)
{
    const std::string path = FilePath(account);
    if (!IsThere(path)) {
        return false;
    }
    Database db(path.c_str(), kMigrations);
    db.Prepare("DELETE FROM emailaccountinfo WHERE uid = ?1 AND alias = ?2")
        .Bind(1, std::to_string(account.uid))
        .Bind(2, alias)
        .Run();
    return db.Changes() == 1;
}

} // namespace tavr
