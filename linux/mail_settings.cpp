#include "linux/mail_settings.h"

#include "linux/settings.h"

#include <sodium.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>

namespace tavr
{

namespace
{

constexpr size_t kLongestAddress = 254; // RFC 5321, less the angle brackets
constexpr size_t kLongestLocalPart = 64;
constexpr size_t kLongestHost = 253;
constexpr int kMostPort = 65535;

bool IsLetterOrDigit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool IsDomain(std::string_view text)
{
    return !text.empty() && text.size() <= kLongestHost && text.front() != '.' && text.front() != '-' &&
           text.back() != '-' && text.find("..") == std::string_view::npos &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return IsLetterOrDigit(c) || c == '-' || c == '.'; });
}

MailSecurity SecuritySetting()
{
    const std::string text = Setting("mail_security", "starttls");
    const std::optional<MailSecurity> security = MailSecurityOf(text);
    if (!security) {
        syslog(LOG_ERR, "setting mail_security is none of starttls, tls, none; using starttls");
    }
    return security.value_or(MailSecurity::StartTls);
}

} // namespace

const char* MailSecurityText(MailSecurity security)
{
    switch (security) {
    case MailSecurity::StartTls:
        return "starttls";
    case MailSecurity::Tls:
        return "tls";
    case MailSecurity::None:
        return "none";
    }
    return "";
}

std::optional<MailSecurity> MailSecurityOf(std::string_view text)
{
    for (const MailSecurity security : {MailSecurity::StartTls, MailSecurity::Tls, MailSecurity::None}) {
        if (text == MailSecurityText(security)) {
            return security;
        }
    }
    return std::nullopt;
}

MailServer::~MailServer()
{
    sodium_memzero(password.data(), password.size());
}

int UsualPort(MailSecurity security)
{
    switch (security) {
    case MailSecurity::StartTls:
        return 587;
    case MailSecurity::Tls:
        return 465;
    case MailSecurity::None:
        break;
    }
    return 25;
}

std::optional<MailServer> NotificationServer()
{
    MailServer server;
    server.host = Setting("mail_server", "");
    if (server.host.empty()) {
        return std::nullopt;
    }
    server.from = Setting("mail_from", "");
    if (!IsHostName(server.host) || !IsMailAddress(server.from)) {
        syslog(LOG_ERR, "setting %s is not usable: no mail is sent",
               IsHostName(server.host) ? "mail_from" : "mail_server");
        return std::nullopt;
    }
    server.security = SecuritySetting();
    server.port = static_cast<int>(NumberSetting("mail_port", UsualPort(server.security), 1, kMostPort));
    server.user = Setting("mail_user", "");
    server.password = SecretSetting("mail_password").value_or(KeptSecret()).text;
    server.caFile = Setting("mail_ca_file", "");
    server.privateAddresses = true;
    return server;
}

bool MayPersonalServersBePrivate()
{
    return Setting("mail_private_servers", "no") == "yes";
}

bool IsMailAddress(std::string_view text)
{
    const size_t at = text.find('@');
    if (at == std::string_view::npos || at == 0 || at > kLongestLocalPart || text.size() > kLongestAddress ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f'; })) {
        return false;
    }
    const std::string_view name = text.substr(0, at);
    return name.find_first_of("\"(),:;<>[\\]") == std::string_view::npos && name.front() != '.' &&
           name.back() != '.' && name.find("..") == std::string_view::npos && IsDomain(text.substr(at + 1)) &&
           text.back() != '.';
}

bool IsHostName(std::string_view text)
{
    if (text.find(':') != std::string_view::npos) {
        return text.size() < 46 && std::all_of(text.begin(), text.end(), [](char c) {
                   return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') ||
                          c == ':' || c == '.';
               });
    }
    return IsDomain(text);
}

std::string OwnHostName()
{
    char name[256] = {};
    const bool known = gethostname(name, sizeof name - 1) == 0 && IsDomain(name);
    return known ? name : "localhost";
}

std::string NewMessageId()
{
    unsigned char random[16];
    char digits[2 * sizeof random + 1];
    randombytes_buf(random, sizeof random);
    sodium_bin2hex(digits, sizeof digits, random, sizeof random);
    return '<' + std::string(digits) + '@' + OwnHostName() + '>';
}

} // namespace tavr
