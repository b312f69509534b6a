// One page of what is right, what is not and what to do. Looks and changes nothing, but for bringing
// databases up to date, as whatever opens them does.
#include "cli/certificate.h"
#include "cli/commands.h"
#include "cli/console.h"
#include "linux/clock.h"
#include "linux/database.h"
#include "linux/descriptor.h"
#include "linux/ids.h"
#include "linux/machine_key.h"
#include "linux/pam.h"
#include "linux/paths.h"
#include "linux/policy_file.h"
#include "linux/session.h"
#include "linux/settings.h"
#include "linux/system_accounts.h"
#include "linux/unix_socket.h"
#include "linux/vault.h"
#include "platform/json.h"
#include "platform/webapi.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace tavr::console
{

namespace
{

constexpr int64_t kDay = 86400;
constexpr int64_t kWarningDays = 14;       // before a certificate's end
constexpr int kMostOfOneKind = 20;         // files that are told by name
constexpr uint64_t kLittle = 256ULL << 20; // bytes of disk
constexpr uint64_t kTooLittle = 16ULL << 20;
constexpr uint64_t kFewFiles = 1000;
constexpr timeval kPatience{5, 0}; // for a service

// --- The page ---

enum class State { Ok, Warning, Broken };

struct Page {
    Json::Value checks{Json::arrayValue};
    int warnings = 0;
    int broken = 0;

    // `advice` says what to do where something is wrong.
    void Tell(State state, const std::string& area, const std::string& text, const std::string& advice = "")
    {
        static constexpr const char* kStates[] = {"ok", "warning", "broken"};
        const char* name = kStates[static_cast<int>(state)];
        warnings += state == State::Warning ? 1 : 0;
        broken += state == State::Broken ? 1 : 0;
        Say(std::string(name) + '\t' + area + '\t' + text + (advice.empty() ? "" : "; " + advice));
        Json::Value check;
        check["state"] = name;
        check["area"] = area;
        check["text"] = text;
        check["advice"] = advice;
        checks.append(std::move(check));
    }
};

// --- Files ---

enum class Owner { Root, Service, RootForService };

struct Place {
    const char* path;
    mode_t type;
    Owner owner;
    mode_t mode;
    bool needed = true;
};

constexpr Place kPlaces[] = {
    {kConfigDir, S_IFDIR, Owner::Root, 0755},
    {"/etc/tavr/tavrinfo.conf", S_IFREG, Owner::Root, 0644},
    {"/etc/tavr/settings.lock", S_IFREG, Owner::Root, 0600, false},
    {kSecretsFile, S_IFREG, Owner::RootForService, 0440, false},
    {kMachineKeyFile, S_IFREG, Owner::RootForService, 0440, false}, // missing: LookAtKey
    {kSelfSignedFile, S_IFREG, Owner::Root, 0400, false},
    {"/usr/tavr", S_IFDIR, Owner::Root, 0755},
    {kDataDir, S_IFDIR, Owner::Service, 0755},
    {kPolicyFile, S_IFREG, Owner::Service, 0644},
    {kPreferenceDir, S_IFDIR, Owner::Service, 0700},
    {kStateDir, S_IFDIR, Owner::Service, 0700},
    {kAccountsDatabase, S_IFREG, Owner::Service, 0600},
    {kSystemAccountsDatabase, S_IFREG, Owner::Service, 0600, false},
    {kSigninDatabase, S_IFREG, Owner::Service, 0600},
    {kMailDatabase, S_IFREG, Owner::Service, 0600},
    {kRunDir, S_IFDIR, Owner::Root, 0755},
};

struct Ids {
    uid_t uid = 0;
    gid_t gid = 0;
};

class Files
{
public:
    Files(Page& page, Ids service) : page_(page), service_(service) {}

    void Look(const Place& place)
    {
        const std::string path = place.path;
        struct stat entry {
        };
        if (lstat(place.path, &entry) != 0) {
            if (errno != ENOENT || place.needed) {
                Wrong(path + ": " + std::generic_category().message(errno), "run tavrctl setup");
            }
            return;
        }
        ++seen_;
        const Ids ids = IdsOf(place.owner);
        if ((entry.st_mode & S_IFMT) != place.type) {
            Wrong(path + (place.type == S_IFDIR ? " is no folder" : " is no regular file"),
                  "move it away and run tavrctl setup");
        } else if (entry.st_uid != ids.uid || entry.st_gid != ids.gid ||
                   (entry.st_mode & 07777) != place.mode) {
            Wrong(path + " is " + Text({entry.st_uid, entry.st_gid}, entry.st_mode & 07777),
                  "it should be " + Text(ids, place.mode) + ": chown " + NameText(ids) + " and chmod " +
                      ModeText(place.mode));
        }
    }

    // Everything else below a folder of the service's, which others have no business in.
    void LookBelow(const char* folder)
    {
        std::error_code error;
        std::filesystem::recursive_directory_iterator each(folder, error);
        for (; !error && each != std::filesystem::recursive_directory_iterator(); each.increment(error)) {
            const std::string path = each->path().string();
            if (std::any_of(std::begin(kPlaces), std::end(kPlaces),
                            [&](const Place& place) { return path == place.path; })) {
                continue;
            }
            const bool isFolder = each->symlink_status(error).type() == std::filesystem::file_type::directory;
            Look({path.c_str(), static_cast<mode_t>(isFolder ? S_IFDIR : S_IFREG), Owner::Service,
                  static_cast<mode_t>(isFolder ? 0700 : 0600), false});
        }
        if (error && error != std::errc::no_such_file_or_directory) {
            Wrong(std::string(folder) + ": " + error.message(), "look at the disk");
        }
    }

    void LinkOfSettings()
    {
        char target[64] = {};
        const ssize_t size = readlink(kSettingsFile, target, sizeof target - 1);
        const std::string_view text(target, size < 0 ? 0 : static_cast<size_t>(size));
        if (text != "tavr/tavrinfo.conf" && text != "/etc/tavr/tavrinfo.conf") {
            Wrong(std::string(kSettingsFile) + " is no link to /etc/tavr/tavrinfo.conf",
                  "move what is there to that place and run tavrctl setup");
        }
    }

    void Sum()
    {
        if (wrong_ > kMostOfOneKind) {
            page_.Tell(State::Broken, "files",
                       std::to_string(wrong_ - kMostOfOneKind) + " more are like those", "mend those first");
        }
        if (wrong_ == 0) {
            page_.Tell(State::Ok, "files",
                       std::to_string(seen_) + " files and folders have their owners and modes");
        }
    }

private:
    [[nodiscard]] Ids IdsOf(Owner owner) const
    {
        return {owner == Owner::Service ? service_.uid : 0, owner == Owner::Root ? 0 : service_.gid};
    }

    static std::string ModeText(mode_t mode)
    {
        char text[8] = {};
        std::snprintf(text, sizeof text, "%04o", mode);
        return text;
    }

    static std::string NameText(Ids ids)
    {
        const passwd* user = getpwuid(ids.uid);
        const std::string name = user != nullptr ? user->pw_name : std::to_string(ids.uid);
        const group* of = getgrgid(ids.gid);
        return name + ':' + (of != nullptr ? of->gr_name : std::to_string(ids.gid));
    }

    static std::string Text(Ids ids, mode_t mode) { return NameText(ids) + ' ' + ModeText(mode); }

    void Wrong(const std::string& text, const std::string& advice)
    {
        if (++wrong_ <= kMostOfOneKind) {
            page_.Tell(State::Broken, "files", text, advice);
        }
    }

    Page& page_;
    const Ids service_;
    int seen_ = 0;
    int wrong_ = 0;
};

void LookAtFiles(Page& page, Ids service)
{
    const EffectiveIds root = EffectiveIds::Root();
    Files files(page, service);
    for (const Place& place : kPlaces) {
        files.Look(place);
    }
    files.LinkOfSettings();
    files.LookBelow(kPreferenceDir);
    files.LookBelow(kStateDir);
    files.Sum();
}

void LookAtPrograms(Page& page)
{
    bool good = true;
    for (const char* path : {kSecretToolPath, kQrToolPath, "/usr/bin/mv"}) {
        struct stat entry {
        };
        if (stat(path, &entry) != 0 || !S_ISREG(entry.st_mode) || (entry.st_mode & 0111) == 0) {
            page.Tell(State::Broken, "programs", std::string(path) + " is missing or cannot be run",
                      "install its package again");
            good = false;
        } else if (entry.st_uid != 0 || (entry.st_mode & 022) != 0) {
            page.Tell(State::Broken, "programs", std::string(path) + " can be changed by others than root",
                      "install its package again");
            good = false;
        }
    }
    if (good) {
        page.Tell(State::Ok, "programs", "what the service starts is there");
    }
}

// --- Settings ---

struct KnownSetting {
    std::string_view key;
    int64_t least = 0; // a number from least to most, where there is a most
    int64_t most = 0;
    const char* words = nullptr; // one of these, with a blank before and behind each
};

constexpr KnownSetting kKnownSettings[] = {
    {"accounts", 0, 0, " embedded system "},
    {"audit_days", 1, 36500},
    {"domain_base"},
    {"domain_bind_dn"},
    {"domain_ca_file"},
    {"domain_client", 0, 0, " sssd winbind "},
    {"domain_name"},
    {"domain_page_size", 1, 1000},
    {"domain_realm"},
    {"domain_refresh", 60, 2592000},
    {"domain_separator"},
    {"domain_starttls", 0, 0, " yes no "},
    {"domain_trusted"},
    {"domain_uri"},
    {"ha_safemode", 0, 0, " yes no "},
    {"ldap_base"},
    {"ldap_bind_dn"},
    {"ldap_ca_file"},
    {"ldap_group_base"},
    {"ldap_group_description"},
    {"ldap_group_filter"},
    {"ldap_group_member"},
    {"ldap_group_name"},
    {"ldap_id"},
    {"ldap_realm"},
    {"ldap_starttls", 0, 0, " yes no "},
    {"ldap_uri"},
    {"ldap_user_base"},
    {"ldap_user_description"},
    {"ldap_user_filter"},
    {"ldap_user_mail"},
    {"ldap_user_name"},
    {"mail_ca_file"},
    {"mail_from"},
    {"mail_port", 1, 65535},
    {"mail_private_servers", 0, 0, " yes no "},
    {"mail_security", 0, 0, " starttls tls none "},
    {"mail_server"},
    {"mail_user"},
    {"maillang"},
    {"otp_enforce_option", 0, 0, " none user admin custom "},
    {"otp_strict_window", 0, 0, " yes no "},
    {"session_idle", 60, 86400},
    {"session_lifetime", 60, 2592000},
    {"tls_certificate"},
    {"tls_key"},
};

bool IsNumber(std::string_view text, int64_t least, int64_t most)
{
    int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= least && number <= most;
}

std::string Quoted(std::string_view text)
{
    std::string shown;
    for (const char c : text.substr(0, 60)) {
        shown += static_cast<unsigned char>(c) < ' ' || c == 0x7f ? '?' : c;
    }
    return '"' + shown + '"';
}

// The text of one line; true when there is nothing to complain of.
bool LookAtLine(Page& page, int number, std::string_view line)
{
    const std::string where = "line " + std::to_string(number) + " of " + kSettingsFile;
    const size_t start = line.find_first_not_of(" \t\r");
    if (start == std::string_view::npos || line[start] == '#') {
        return true;
    }
    const size_t equals = line.find('=');
    const size_t end = equals == std::string_view::npos ? equals : line.find_last_not_of(" \t", equals - 1);
    const std::string key(equals == std::string_view::npos || equals <= start
                              ? std::string_view()
                              : line.substr(start, end - start + 1));
    if (key.empty()) {
        page.Tell(State::Warning, "settings", where + " is no key=\"value\": " + Quoted(line.substr(start)),
                  "mend or remove it; it is ignored");
        return false;
    }
    const auto* known = std::find_if(std::begin(kKnownSettings), std::end(kKnownSettings),
                                     [&](const KnownSetting& one) { return one.key == key; });
    if (known == std::end(kKnownSettings)) {
        page.Tell(State::Warning, "settings", where + " sets " + Quoted(key) + ", which nothing here reads",
                  "look for a slip in it, or leave it to who does");
        return false;
    }
    const std::string value = FindKey(line, key).value_or("");
    const bool isRight = value.empty() || (known->most != 0 ? IsNumber(value, known->least, known->most)
                                           : known->words != nullptr
                                               ? std::string_view(known->words).find(' ' + value + ' ') !=
                                                     std::string_view::npos
                                               : true);
    if (!isRight) {
        const std::string wanted = known->most != 0 ? "a number from " + std::to_string(known->least) +
                                                          " to " + std::to_string(known->most)
                                                    : std::string("one of") + known->words;
        page.Tell(State::Broken, "settings", where + ": " + key + " is " + Quoted(value),
                  "it has to be " + wanted + (known->words != nullptr ? "" : "; the default is used"));
    }
    return isRight;
}

void LookAtSettings(Page& page)
{
    std::string text;
    switch (ReadWholeFile(kSettingsFile, text)) {
    case FileRead::Absent:
        page.Tell(State::Broken, "settings",
                  std::string(kSettingsFile) + " is missing: nobody gets a session",
                  "bring it back from a backup, or run tavrctl setup");
        return;
    case FileRead::Failed:
        page.Tell(State::Broken, "settings",
                  std::string(kSettingsFile) + " cannot be read: nobody gets a session",
                  "it has to be a regular file of at most 1 MiB");
        return;
    case FileRead::Done:
        break;
    }
    if (text.empty()) {
        page.Tell(State::Broken, "settings", std::string(kSettingsFile) + " is empty: nobody gets a session",
                  "bring it back from a backup, or write a comment into it");
        return;
    }
    bool good = true;
    int number = 0;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        good = LookAtLine(page, ++number, std::string_view(text).substr(start, end - start)) && good;
        start = end + 1;
    }
    if (good) {
        page.Tell(State::Ok, "settings", std::to_string(number) + " lines, all known");
    }
}

// --- Databases, key, policy ---

void LookAtDatabase(Page& page, const char* path, Database& (*open)())
{
    try {
        Statement version = open().Prepare("PRAGMA user_version");
        version.Step();
        page.Tell(State::Ok, "databases",
                  std::string(path) + " opens, version " + std::to_string(version.Int(0)));
    } catch (const DatabaseError& error) {
        page.Tell(State::Broken, "databases", std::string(path) + ": " + error.what(),
                  "mend owner and mode, install the version that made it, or bring it back from a backup");
    }
}

// What passwords of the system's accounts are compared with.
void LookAtPamService(Page& page)
{
    const std::string service = std::string(kSystemPamDir) + '/' + kPamService;
    struct stat entry {
    };
    if (stat(service.c_str(), &entry) != 0 || !S_ISREG(entry.st_mode)) {
        page.Tell(State::Broken, "accounts", service + " is missing: no password can be compared",
                  "install the package tavr-otp again, with dpkg --force-confmiss");
    } else if (entry.st_uid != 0 || (entry.st_mode & 022) != 0) {
        page.Tell(State::Broken, "accounts", service + " can be changed by others than root",
                  "chown root " + service + " and chmod 644");
    }
}

// Whether local accounts can be read, and somebody administers.
void LookAtAccounts(Page& page)
{
    bool areSystem = true; // or it is not known whose they are
    try {
        areSystem = AreSystemAccounts();
        int64_t accounts = 0;
        int64_t administrators = 0;
        ForEachAccount([&](const Account& account) {
            ++accounts;
            administrators += account.isAdmin ? 1 : 0;
        });
        const std::string found = std::to_string(accounts) +
                                  (areSystem ? " of the system, " : " of the embedded store, ") +
                                  std::to_string(administrators) + " of them in " +
                                  (areSystem ? kSystemAdministrators : kAdministrators);
        const std::string add =
            areSystem ? "usermod --append --groups sudo NAME" : "tavrctl user add NAME --admin";
        page.Tell(administrators > 0 ? State::Ok : State::Warning, "accounts", found,
                  administrators > 0 ? "" : "nobody administers: " + add);
    } catch (const DatabaseError& error) {
        if (areSystem) { // of the embedded store the line among the databases has told
            page.Tell(State::Broken, "accounts", std::string("nobody can sign in: ") + error.what(),
                      std::string("mend that file, or the setting accounts in ") + kSettingsFile);
        }
        return;
    }
    if (areSystem) {
        LookAtPamService(page);
    }
}

std::string KeyAdvice(Fault fault)
{
    if (fault == Fault::KeyMissing) {
        return IsAnythingSealed()
                   ? "bring it back from its backup; a new one would open nothing that is sealed"
                   : "nothing is sealed with it: tavrctl setup makes a new one";
    }
    return "mend its owner and mode, or bring the key back from its backup; a new one opens nothing";
}

void TellOfKey(Page& page)
{
    try {
        CheckVaultKey();
        page.Tell(State::Ok, "key",
                  std::string(kMachineKeyFile) + " is the key that the secrets are sealed with");
    } catch (const VaultError& error) {
        page.Tell(State::Broken, "key", std::string(kMachineKeyFile) + ": " + error.what(),
                  KeyAdvice(error.fault));
    }
}

void LookAtKey(Page& page)
{
    try {
        TellOfKey(page);
    } catch (const DatabaseError& error) {
        page.Tell(State::Broken, "key", std::string("not known: ") + error.what(), "mend the database first");
    }
}

void LookAtPolicy(Page& page)
{
    if (PolicyReading().Usable()) {
        page.Tell(State::Ok, "policy", std::string(kPolicyFile) + " holds picks");
    } else {
        page.Tell(State::Broken, "policy", std::string(kPolicyFile) + " cannot be used",
                  "put back one from a backup, or {} for no picks");
    }
}

// --- The certificate ---

bool IsReadByOthers(const std::string& path)
{
    struct stat entry {
    };
    return stat(path.c_str(), &entry) == 0 && (entry.st_mode & 07) != 0;
}

// What is served, as far as it can be read.
std::string ServedCertificate()
{
    try {
        return ReadCertificate({kServedCertificate, kServedCertificate, false}).pem;
    } catch (const CertificateError&) {
        return {};
    }
}

void LookAtCertificate(Page& page)
{
    try {
        const CertificateFiles files = NamedCertificate();
        const EffectiveIds root = EffectiveIds::Root();
        const Certificate certificate = ReadCertificate(files);
        const int64_t left = certificate.until - WallSeconds();
        const std::string which = files.certificate + ", good until " + TimeText(certificate.until);
        const std::string renew = files.own ? "renew it, then: systemctl reload tavr-otp-lighttpd"
                                            : "systemctl reload tavr-otp-lighttpd makes a new one";
        if (left <= 0 || certificate.from > WallSeconds()) {
            page.Tell(State::Broken, "certificate", which + ": not now", renew);
        } else if (left < kWarningDays * kDay) {
            page.Tell(State::Warning, "certificate", which, renew);
        } else {
            page.Tell(State::Ok, "certificate", which + (files.own ? "" : ", self-signed"));
        }
        if (IsReadByOthers(files.key)) {
            page.Tell(State::Warning, "certificate",
                      "everybody on this machine can read the key in " + files.key, "chmod o= " + files.key);
        }
        if (ServedCertificate() != certificate.pem) {
            page.Tell(State::Warning, "certificate", "another one is served",
                      "systemctl reload tavr-otp-lighttpd");
        }
    } catch (const CertificateError& error) {
        page.Tell(State::Broken, "certificate", error.what(),
                  "name a pair that fits: tavrctl certificate use CERTIFICATE KEY");
    }
}

// --- Services ---

Descriptor Connect(int family, const sockaddr* address, socklen_t size)
{
    Descriptor connection(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connection ||
        setsockopt(connection.Get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience) != 0 ||
        setsockopt(connection.Get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience) != 0 ||
        connect(connection.Get(), address, size) != 0) {
        return {};
    }
    return connection;
}

// A record of FastCGI, of request 1. Contents here are shorter than 256 bytes.
std::string Record(char type, const std::string& content)
{
    return std::string{1, type, 0, 1, 0, static_cast<char>(content.size()), 0, 0} + content;
}

std::string Parameter(const std::string& name, const std::string& value)
{
    return std::string{static_cast<char>(name.size()), static_cast<char>(value.size())} + name + value;
}

// Asks for /api/session as a web server does, with a cookie that is nobody's: it has to be looked up, and the
// answer is 401.
bool WebProgramAnswers()
{
    constexpr char kBegin = 1;
    constexpr char kParameters = 4;
    constexpr char kInput = 5;
    const std::string request =
        Record(kBegin, std::string{0, 1, 0, 0, 0, 0, 0, 0}) + // as responder, one request on the connection
        Record(kParameters, Parameter("REQUEST_METHOD", "GET") + Parameter("REQUEST_URI", "/api/session") +
                                Parameter("HTTP_COOKIE", "sid=" + std::string(kIdentifierSize, '0'))) +
        Record(kParameters, "") + Record(kInput, "");
    const auto address = UnixAddress(kWebSocket);
    const EffectiveIds root = EffectiveIds::Root(); // the socket is the web server's
    const Descriptor connection =
        Connect(AF_UNIX, reinterpret_cast<const sockaddr*>(&*address), sizeof *address);
    std::string answer;
    return connection && WriteAll(connection, request) && ReadAll(connection, 65536, answer) &&
           answer.find("Status: 401") != std::string::npos;
}

bool WebApiAnswers()
{
    tavrdaemon::DomainSockConnection connection(kWebApiSocket);
    std::string answer;
    return connection.Connect() && connection.Send("{}") && connection.Recv(answer);
}

// Where /etc/default/tavr-otp says, or the unit.
int WebServerPort()
{
    std::string text;
    int port = 8443;
    if (ReadWholeFile("/etc/default/tavr-otp", text) == FileRead::Done) {
        const std::string said = FindKey(text, "TAVR_PORT").value_or("");
        if (IsNumber(said, 1, 65535)) {
            port = std::stoi(said);
        }
    }
    return port;
}

bool WebServerListens(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return static_cast<bool>(Connect(AF_INET, reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

void LookAtService(Page& page, bool answers, const std::string& unit, const std::string& what)
{
    if (answers) {
        page.Tell(State::Ok, "services", unit + " answers");
    } else {
        page.Tell(State::Broken, "services", unit + " does not answer: " + what,
                  "systemctl status " + unit + " says why; systemctl restart " + unit);
    }
}

// --- Clock and disks ---

void LookAtClock(Page& page)
{
    struct stat newest {
    };
    timex state{};
    if (stat(kSigninDatabase, &newest) == 0 && newest.st_mtim.tv_sec > WallSeconds() + 60) {
        page.Tell(State::Broken, "clock", "it is before the last change of " + std::string(kSigninDatabase),
                  "set it right: codes are made of the time");
    } else if (adjtimex(&state) == TIME_ERROR && (state.status & STA_UNSYNC) != 0) {
        page.Tell(State::Warning, "clock", TimeText(WallSeconds()) + ", and no time server keeps it right",
                  "codes are made of the time: install systemd-timesyncd or chrony");
    } else {
        page.Tell(State::Ok, "clock", TimeText(WallSeconds()));
    }
}

void LookAtDisk(Page& page, const char* path)
{
    struct statvfs disk {
    };
    if (statvfs(path, &disk) != 0) {
        page.Tell(State::Broken, "disk", std::string(path) + ": " + std::generic_category().message(errno),
                  "run tavrctl setup");
        return;
    }
    const uint64_t free = static_cast<uint64_t>(disk.f_bavail) * disk.f_frsize;
    const bool isReadOnly = (disk.f_flag & ST_RDONLY) != 0;
    const bool fewFiles = disk.f_files != 0 && disk.f_favail < kFewFiles;
    const State state = isReadOnly || free < kTooLittle ? State::Broken
                        : free < kLittle || fewFiles    ? State::Warning
                                                        : State::Ok;
    page.Tell(state, "disk",
              std::string(path) +
                  (isReadOnly ? " cannot be written" : ": " + std::to_string(free >> 20) + " MiB free") +
                  (fewFiles ? ", and room for few files" : ""),
              state == State::Ok ? "" : "make room: nobody can sign in once nothing can be stored");
}

} // namespace

void Examine()
{
    Page page;
    const Ids service{geteuid(), getegid()};
    LookAtFiles(page, service);
    LookAtPrograms(page);
    LookAtSettings(page);
    LookAtDatabase(page, kAccountsDatabase, AccountsDatabase);
    LookAtDatabase(page, kSigninDatabase, SigninDatabase);
    LookAtDatabase(page, kMailDatabase, MailDatabase);
    LookAtAccounts(page);
    LookAtKey(page);
    LookAtPolicy(page);
    LookAtService(page, WebProgramAnswers(), "tavr-otp-web", kWebSocket);
    LookAtService(page, WebApiAnswers(), "tavr-webapid", kWebApiSocket);
    if (getgrnam(kWebServerUser) !=
        nullptr) { // the package's web server; another one may stand in front instead
        LookAtCertificate(page);
        const int port = WebServerPort();
        LookAtService(page, WebServerListens(port), "tavr-otp-lighttpd", "port " + std::to_string(port));
    }
    LookAtClock(page);
    LookAtDisk(page, kStateDir);
    LookAtDisk(page, kDataDir);
    LookAtDisk(page, kConfigDir);
    Json::Value answer;
    answer["checks"] = page.checks;
    answer["warnings"] = page.warnings;
    answer["broken"] = page.broken;
    Answer(std::move(answer));
    if (page.broken > 0) {
        EndWith(Exit::Failed);
    }
}

} // namespace tavr::console
