#include "linux/mail_templates.h"

#include "linux/descriptor.h"
#include "linux/mail_settings.h"
#include "linux/paths.h"
#include "linux/settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <utf8proc.h>

#include <algorithm>
#include <cerrno>

namespace tavr
{

namespace
{

constexpr char kFallbackLanguage[] = "enu";
constexpr std::string_view kSubjectHead = "Subject: ";
constexpr size_t kLongestName = 64;
constexpr size_t kLongestSubject = 512; // bytes, in a template

bool IsName(std::string_view text)
{
    return !text.empty() && text.size() <= kLongestName && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
}

// --- Characters ---

struct Character {
    std::string_view bytes;
    bool isControl = false; // or breaks a line, or is no UTF-8
};

// Takes the first one off; one byte of what is no UTF-8.
Character NextCharacter(std::string_view& text)
{
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80) { // nearly all are, and need no look into tables
        const Character next{text.substr(0, 1), first < ' ' || first == 0x7f};
        text.remove_prefix(1);
        return next;
    }
    utf8proc_int32_t point = 0;
    const auto size = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                       static_cast<utf8proc_ssize_t>(text.size()), &point);
    Character next{text.substr(0, size > 0 ? static_cast<size_t>(size) : 1), true};
    if (size > 0) {
        const utf8proc_category_t category = utf8proc_category(point);
        next.isControl = category == UTF8PROC_CATEGORY_CC || category == UTF8PROC_CATEGORY_ZL ||
                         category == UTF8PROC_CATEGORY_ZP;
    }
    text.remove_prefix(next.bytes.size());
    return next;
}

bool IsTemplateText(std::string_view text)
{
    while (!text.empty()) {
        const Character next = NextCharacter(text);
        if (next.isControl && next.bytes != "\n" && next.bytes != "\t") {
            return false;
        }
    }
    return true;
}

std::string Cleaned(std::string_view value)
{
    std::string cleaned;
    while (!value.empty()) {
        const Character next = NextCharacter(value);
        cleaned += next.isControl ? std::string_view(" ") : next.bytes;
    }
    return cleaned;
}

std::string Escaped(std::string_view value)
{
    std::string escaped;
    for (const char c : value) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&#39;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

std::string Replaced(std::string_view text, std::string_view what, std::string_view by)
{
    std::string replaced;
    for (size_t at = text.find(what); at != std::string_view::npos; at = text.find(what)) {
        replaced.append(text.substr(0, at)).append(by);
        text.remove_prefix(at + what.size());
    }
    return replaced.append(text);
}

// --- Filling ---

// The longest key that `text` begins with; the end when there is none.
MailValues::const_iterator KeyAt(std::string_view text, const MailValues& values)
{
    auto longest = values.end();
    for (auto at = values.begin(); at != values.end(); ++at) {
        const bool longer = longest == values.end() || at->first.size() > longest->first.size();
        if (!at->first.empty() && longer && text.starts_with(at->first)) {
            longest = at;
        }
    }
    return longest;
}

std::string Fill(std::string_view text, const MailValues& values)
{
    std::string starts; // the characters that keys begin with
    for (const auto& [key, value] : values) {
        starts += key.substr(0, 1);
    }
    std::string filled;
    for (;;) {
        const size_t plain = std::min(text.find_first_of(starts), text.size());
        filled += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty()) {
            return filled;
        }
        const auto value = KeyAt(text, values);
        filled += value == values.end() ? text.substr(0, 1) : std::string_view(value->second);
        text.remove_prefix(value == values.end() ? 1 : value->first.size());
    }
}

// --- Files ---

// Empty when nothing stands there; what stands there and is no template is logged.
std::optional<MailText> ReadTemplate(const char* folder, const std::string& language, const std::string& tag)
{
    const Descriptor base(open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC));
    const Descriptor ofLanguage(
        base ? openat(base.Get(), language.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1);
    const Descriptor file(ofLanguage ? openat(ofLanguage.Get(), tag.c_str(),
                                              O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)
                                     : -1);
    if (!file && errno == ENOENT) {
        return std::nullopt;
    }
    struct stat what {
    };
    std::string text;
    std::optional<MailText> parsed;
    if (file && fstat(file.Get(), &what) == 0 && S_ISREG(what.st_mode) &&
        ReadAll(file, kMailTemplateLimit, text)) {
        parsed = ParseMailTemplate(text);
    }
    if (!parsed) {
        syslog(LOG_ERR, "%s/%s/%s is no mail template and is passed over", folder, language.c_str(),
               tag.c_str());
    }
    return parsed;
}

std::optional<MailText> FindTemplate(const std::string& language, const std::string& tag)
{
    for (const char* folder : {kOwnMailTemplateDir, kMailTemplateDir}) {
        if (std::optional<MailText> text = ReadTemplate(folder, language, tag)) {
            return text;
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<MailText> ParseMailTemplate(std::string_view text)
{
    const std::string lines = Replaced(text, "\r\n", "\n");
    const size_t end = lines.find("\n\n");
    if (lines.size() > kMailTemplateLimit || !lines.starts_with(kSubjectHead) || end == std::string::npos ||
        !IsTemplateText(lines)) {
        return std::nullopt;
    }
    MailText parsed{lines.substr(kSubjectHead.size(), end - kSubjectHead.size()), lines.substr(end + 2)};
    parsed.body.erase(parsed.body.find_last_not_of('\n') + 1);
    const bool oneSubject = parsed.subject.find_first_not_of(' ') != std::string::npos &&
                            parsed.subject.find_first_of("\n\t") == std::string::npos &&
                            parsed.subject.size() <= kLongestSubject;
    return oneSubject && !parsed.body.empty() ? std::optional(std::move(parsed)) : std::nullopt;
}

MailText FillMailTemplate(const MailText& text, const MailValues& values)
{
    MailValues cleaned;
    MailValues escaped;
    for (const auto& [key, value] : values) {
        const std::string clean = Cleaned(value);
        escaped[key] = Escaped(clean);
        cleaned[key] = clean;
    }
    return {Fill(text.subject, cleaned), Fill(text.body, escaped)};
}

std::optional<MailText> MakeMailText(std::string_view language, std::string_view tag,
                                     const MailValues& values)
{
    if (!IsName(tag)) {
        return std::nullopt;
    }
    std::optional<MailText> text;
    if (IsName(language)) {
        text = FindTemplate(std::string(language), std::string(tag));
    }
    if (!text && language != kFallbackLanguage) {
        text = FindTemplate(kFallbackLanguage, std::string(tag));
    }
    if (!text) {
        return std::nullopt;
    }
    MailValues all = values;
    all.emplace("%HOST_NAME%", OwnHostName());
    return FillMailTemplate(*text, all);
}

std::string MailLanguage()
{
    return Setting("maillang", kFallbackLanguage);
}

std::string HtmlOf(std::string_view body)
{
    return Replaced(body, "\n", "<br>");
}

} // namespace tavr
