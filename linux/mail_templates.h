// Templates of mails: files <language>/<tag> below kOwnMailTemplateDir, the administrator's, else below
// kMailTemplateDir, as installed; in the language asked for, else in "enu". doc/mail.md has the format.
//
//     Subject: Your emergency code for %HOST_NAME%
//     (an empty line)
//     a simple HTML fragment in UTF-8, in which a line feed means a line break
//
// A file that is not like this, too large, no regular file or a link is logged and passed over.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tavr
{

struct MailText {
    std::string subject; // one line of UTF-8, not empty
    std::string body;    // HTML; line feeds where the lines break, none at the end
};

// What stands in place of which placeholder, such as %USER_NAME%.
using MailValues = std::map<std::string, std::string, std::less<>>;

inline constexpr size_t kMailTemplateLimit = 65536; // bytes

// Empty when the text is none. CR LF counts as a line feed.
std::optional<MailText> ParseMailTemplate(std::string_view text);

// Puts the values in: HTML-escaped in the body, and control characters as blanks in both. What was put in is
// not looked at again; of keys that begin alike the longest counts.
MailText FillMailTemplate(const MailText& text, const MailValues& values);

// Looks the template up and fills it. %HOST_NAME% is the server's name unless `values` says another. Empty
// when there is no such template. A tag or a language that is not made of A-Z, a-z, 0-9 and "_" is none.
std::optional<MailText> MakeMailText(std::string_view language, std::string_view tag,
                                     const MailValues& values);

// The language of the system's mails, from the settings.
std::string MailLanguage();

// The body as it is sent: each line feed as <br>.
std::string HtmlOf(std::string_view body);

} // namespace tavr
