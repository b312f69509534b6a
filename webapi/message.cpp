#include "webapi/message.h"

#include "linux/mail_settings.h"
#include "linux/untrusted_json.h"

#include <sodium.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <optional>

namespace tavr::webapi
{

namespace
{

constexpr size_t kLongestLine = 76;  // of encoded text, without its end
constexpr size_t kUsualHead = 1'024; // bytes of a message besides its text
constexpr size_t kLongestMessageId = 200;
constexpr int64_t kLastDate = 253'402'300'799; // the end of the year 9999
constexpr char kEndOfLine[] = "\r\n";

// In an encoded text an equals sign is never followed by an underscore.
constexpr char kBoundary[] = "=_tavr_alternative";

bool IsPrintable(char c)
{
    return c >= ' ' && c <= '~';
}

bool IsAscii(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), IsPrintable);
}

bool IsLetterOrDigit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool IsMessageId(std::string_view text)
{
    if (text.size() < 5 || text.size() > kLongestMessageId || text.front() != '<' || text.back() != '>') {
        return false;
    }
    text = text.substr(1, text.size() - 2);
    return text.find('@') != 0 && text.back() != '@' && std::count(text.begin(), text.end(), '@') == 1 &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return IsLetterOrDigit(c) || c == '.' || c == '-' || c == '_' || c == '@';
           });
}

// --- Headers ---

// RFC 5322, in UTC.
std::string DateText(int64_t date)
{
    const time_t time = std::clamp<int64_t>(date, 0, kLastDate);
    tm parts{};
    gmtime_r(&time, &parts);
    char text[64] = {};
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S +0000", &parts);
    return text;
}

bool IsInsideCharacter(char c)
{
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

std::string Base64(std::string_view text)
{
    std::string encoded(sodium_base64_encoded_len(text.size(), sodium_base64_VARIANT_ORIGINAL), 0);
    sodium_bin2base64(encoded.data(), encoded.size(), reinterpret_cast<const unsigned char*>(text.data()),
                      text.size(), sodium_base64_VARIANT_ORIGINAL);
    encoded.pop_back(); // the terminator
    return encoded;
}

// As encoded words (RFC 2047), each of whole characters and on a line of its own.
std::string EncodedWords(std::string_view text)
{
    constexpr size_t kMostBytes = 42; // 56 in base-64, 68 as a word, 77 behind "Subject: "
    std::string words;
    while (!text.empty()) {
        size_t size = std::min(kMostBytes, text.size());
        while (size > 1 && size < text.size() && IsInsideCharacter(text[size])) {
            --size;
        }
        words += (words.empty() ? "=?UTF-8?B?" : "\r\n =?UTF-8?B?") + Base64(text.substr(0, size)) + "?=";
        text.remove_prefix(size);
    }
    return words;
}

// The value of the header, as it stands where that is possible.
std::string SubjectText(std::string subject)
{
    constexpr size_t kMostPlain = 64; // with "Subject: " on one line
    std::replace_if(
        subject.begin(), subject.end(),
        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, ' ');
    const bool plain = subject.size() <= kMostPlain && IsAscii(subject) &&
                       subject.find("=?") == std::string::npos && !subject.starts_with(' ') &&
                       !subject.ends_with(' ');
    return plain ? subject : EncodedWords(subject);
}

// --- Bodies ---

void AppendQuoted(std::string& out, char c)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    out.append({'=', kDigits[byte >> 4], kDigits[byte & 15]});
}

// How many characters at the beginning can stand as they are. A blank at the end of a line could be lost on
// the way.
size_t PlainPart(std::string_view text, size_t most)
{
    size_t size = 0;
    while (size < most && IsPrintable(text[size]) && text[size] != '=') {
        ++size;
    }
    return size == text.size() && text.ends_with(' ') ? size - 1 : size;
}

// Quoted-printable (RFC 2045) of one line.
void AppendEncodedLine(std::string& out, std::string_view text)
{
    constexpr char kGoesOn[] = "=\r\n";
    size_t room = kLongestLine;
    while (!text.empty()) {
        const size_t most =
            text.size() <= room ? text.size() : room - 1; // the sign that it goes on needs one
        const size_t plain = PlainPart(text, most);
        out.append(text.substr(0, plain));
        text.remove_prefix(plain);
        room -= plain;
        if (text.empty()) {
            break;
        }
        if (plain == most || room < (text.size() == 1 ? 3 : 4)) {
            out.append(kGoesOn);
            room = kLongestLine;
            continue;
        }
        AppendQuoted(out, text.front());
        text.remove_prefix(1);
        room -= 3;
    }
    out.append(kEndOfLine);
}

void AppendQuotedPrintable(std::string& out, std::string_view text)
{
    do {
        const auto* const found =
            std::find_if(text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n'; });
        const auto end = static_cast<size_t>(found - text.begin());
        AppendEncodedLine(out, text.substr(0, end));
        const bool both = text.substr(end).starts_with(kEndOfLine);
        text.remove_prefix(std::min(end + (both ? 2 : 1), text.size()));
    } while (!text.empty());
}

void AppendPart(std::string& out, const char* type, std::string_view text)
{
    out.append("--").append(kBoundary).append(kEndOfLine);
    out.append("Content-Type: ").append(type).append("; charset=utf-8").append(kEndOfLine);
    out.append("Content-Transfer-Encoding: quoted-printable").append(kEndOfLine).append(kEndOfLine);
    AppendQuotedPrintable(out, text);
}

// --- Plain text of HTML ---

std::string Lower(std::string_view name)
{
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; });
    return lower;
}

// Tags that begin a new line, and elements of which nothing is shown.
constexpr std::string_view kBreaks[] = {"br",  "p",   "/p",  "/div", "/li", "/tr",   "hr",
                                        "/h1", "/h2", "/h3", "/ul",  "/ol", "/table"};
constexpr std::string_view kUnseen[] = {"style", "script", "head", "title"};

struct Entity {
    std::string_view name;
    std::string_view text;
};
constexpr Entity kEntities[] = {{"amp", "&"},   {"lt", "<"},   {"gt", ">"},
                                {"quot", "\""}, {"apos", "'"}, {"nbsp", " "}};

std::string Utf8(uint32_t c)
{
    std::string text;
    if (c < 0x80) {
        text += static_cast<char>(c);
    } else if (c < 0x800) {
        text += static_cast<char>(0xc0 | c >> 6);
    } else if (c < 0x10000) {
        text += static_cast<char>(0xe0 | c >> 12);
        text += static_cast<char>(0x80 | (c >> 6 & 0x3f));
    } else {
        text += static_cast<char>(0xf0 | c >> 18);
        text += static_cast<char>(0x80 | (c >> 12 & 0x3f));
        text += static_cast<char>(0x80 | (c >> 6 & 0x3f));
    }
    if (c >= 0x80) {
        text += static_cast<char>(0x80 | (c & 0x3f));
    }
    return text;
}

// The character that "&name;" stands for; empty when it is none that is known.
std::optional<std::string> EntityText(std::string_view name)
{
    for (const Entity& entity : kEntities) {
        if (name == entity.name) {
            return std::string(entity.text);
        }
    }
    if (!name.starts_with('#')) {
        return std::nullopt;
    }
    name.remove_prefix(1);
    const bool hexadecimal = name.starts_with('x') || name.starts_with('X');
    name.remove_prefix(hexadecimal ? 1 : 0);
    uint32_t c = 0;
    const auto [end, error] =
        std::from_chars(name.data(), name.data() + name.size(), c, hexadecimal ? 16 : 10);
    const bool isCharacter = error == std::errc() && end == name.data() + name.size() && c >= ' ' &&
                             c != 0x7f && c <= 0x10ffff && (c < 0xd800 || c > 0xdfff);
    return isCharacter ? std::optional(Utf8(c)) : std::nullopt;
}

// Reads a fragment from front to end, taking off what it has read.
class HtmlReader
{
public:
    explicit HtmlReader(std::string_view html) : rest_(html) { text_.reserve(html.size()); }

    std::string Read()
    {
        while (!rest_.empty()) {
            if (IsTag()) {
                ReadTag();
            } else if (rest_.front() == '&') {
                ReadEntity();
            } else {
                ReadCharacter();
            }
        }
        while (text_.ends_with('\n') || text_.ends_with(' ')) {
            text_.pop_back();
        }
        return std::move(text_);
    }

private:
    [[nodiscard]] bool IsTag() const
    {
        return rest_.size() > 1 && rest_[0] == '<' &&
               (IsLetterOrDigit(rest_[1]) || rest_[1] == '/' || rest_[1] == '!');
    }

    void ReadTag()
    {
        if (rest_.starts_with("<!--")) {
            SkipBehind("-->");
            return;
        }
        const size_t end = std::min(rest_.find('>'), rest_.size());
        std::string_view tag = rest_.substr(1, end - 1);
        tag = tag.substr(0, std::min(tag.find_first_of(" \t\r\n/", 1), tag.size()));
        const std::string name = Lower(tag);
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        if (std::find(std::begin(kBreaks), std::end(kBreaks), name) != std::end(kBreaks)) {
            while (text_.ends_with(' ')) {
                text_.pop_back();
            }
            text_ += '\n';
        } else if (std::find(std::begin(kUnseen), std::end(kUnseen), name) != std::end(kUnseen)) {
            SkipElement(name);
        }
    }

    void ReadEntity()
    {
        constexpr size_t kLongest = 10;
        const size_t end = rest_.substr(0, kLongest).find(';');
        const auto text = end == std::string_view::npos ? std::nullopt : EntityText(rest_.substr(1, end - 1));
        text_ += text.value_or("&");
        rest_.remove_prefix(text ? end + 1 : 1);
    }

    void ReadCharacter()
    {
        const char c = rest_.front();
        rest_.remove_prefix(1);
        const bool blank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
        if (!blank) {
            text_ += c;
        } else if (!text_.empty() && !text_.ends_with(' ') && !text_.ends_with('\n')) {
            text_ += ' ';
        }
    }

    void SkipBehind(std::string_view end)
    {
        const size_t at = rest_.find(end);
        rest_.remove_prefix(at == std::string_view::npos ? rest_.size() : at + end.size());
    }

    void SkipElement(std::string_view name)
    {
        while (!rest_.empty()) {
            SkipBehind("</");
            if (Lower(rest_.substr(0, name.size())) == name) {
                SkipBehind(">");
                return;
            }
        }
    }

    std::string_view rest_;
    std::string text_;
};

} // namespace

const char* MailProblem(std::string_view from, const Mail& mail)
{
    if (!IsMailAddress(from) || !IsMailAddress(mail.to)) {
        return "not an address";
    }
    if (!IsMessageId(mail.messageId)) {
        return "no message identifier";
    }
    if (mail.subject.size() > kLongestSubject || mail.html.size() > kLargestHtml) {
        return "too large";
    }
    return IsUtf8(mail.subject) && IsUtf8(mail.html) ? nullptr : "not UTF-8";
}

std::string BuildMessage(std::string_view from, const Mail& mail)
{
    const std::pair<const char*, std::string> headers[] = {
        {"Date", DateText(mail.date)},
        {"From", '<' + std::string(from) + '>'},
        {"To", '<' + mail.to + '>'},
        {"Message-ID", mail.messageId},
        {"Subject", SubjectText(mail.subject)},
        {"Auto-Submitted", "auto-generated"},
        {"MIME-Version", "1.0"},
        {"Content-Type", std::string("multipart/alternative;\r\n boundary=\"") + kBoundary + '"'},
    };
    std::string message;
    message.reserve(kUsualHead + 3 * mail.html.size()); // so that few copies of the text are left behind
    for (const auto& [name, value] : headers) {
        message.append(name).append(": ").append(value).append(kEndOfLine);
    }
    message += kEndOfLine;
    AppendPart(message, "text/plain", TextOfHtml(mail.html));
    AppendPart(message, "text/html", mail.html);
    return message.append("--").append(kBoundary).append("--").append(kEndOfLine);
}

std::string TextOfHtml(std::string_view html)
{
    return HtmlReader(html).Read();
}

} // namespace tavr::webapi
