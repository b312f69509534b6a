// Mail servers and addresses: what a server is reached with, the one that the administrator has set up for
// the system's own mails (the notification service), and what can be an address.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavr
{

enum class MailSecurity { StartTls, Tls, None };

// As settings and rows spell it: "starttls", "tls", "none".
const char* MailSecurityText(MailSecurity security);
std::optional<MailSecurity> MailSecurityOf(std::string_view text);

struct MailServer {
    std::string host;
    int port = 0;
    MailSecurity security = MailSecurity::StartTls;
    std::string user; // empty: no authentication
    std::string password;
    std::string from;              // the sender's address
    std::string caFile;            // PEM, besides the system's certificates; may be empty
    bool privateAddresses = false; // may stand on a private or loopback address

    ~MailServer(); // overwrites the password
    bool operator==(const MailServer&) const = default;
};

// The port that is usual for it.
int UsualPort(MailSecurity security);

// From the settings mail_server, mail_port, mail_security, mail_user, mail_from, mail_ca_file, and the
// password mail_password of the secrets. Empty: none is set up, or what is set up names no server or no
// sender; the latter is logged.
std::optional<MailServer> NotificationServer();

// Whether a personal mail account may name a server on a private address (the setting mail_private_servers).
bool MayPersonalServersBePrivate();

// Whether a text is exactly one address, name@domain: ASCII without blanks, control characters and what has a
// meaning of its own in headers and commands; 254 bytes at most. Names in other letters need servers that
// know SMTPUTF8 all the way.
bool IsMailAddress(std::string_view text);

// Whether a text can name a server: letters, digits, dots, hyphens, or an IPv6 address.
bool IsHostName(std::string_view text);

// What this server is called, for texts and identifiers of mails: its host name, or "localhost".
std::string OwnHostName();

// For a new mail, with its angle brackets; never the same.
std::string NewMessageId();

} // namespace tavr
