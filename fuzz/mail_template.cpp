// Templates of mails, and the values that are put into them. The text is a template; what follows its first
// 0x01 byte is a value.
#include "linux/mail_templates.h"
#include "linux/names.h"

#include <algorithm>
#include <cstdlib>

using namespace tavr;

namespace
{

void Require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

void CheckParsed(std::string_view text, const std::string& value)
{
    const auto parsed = ParseMailTemplate(text);
    if (!parsed) {
        return;
    }
    Require(!parsed->subject.empty() && parsed->subject.find_first_of("\r\n") == std::string::npos);
    Require(!parsed->body.empty() && parsed->body.back() != '\n');

    const MailText same = FillMailTemplate(*parsed, {});
    Require(same.subject == parsed->subject && same.body == parsed->body);
    const auto again = ParseMailTemplate("Subject: " + parsed->subject + "\n\n" + parsed->body);
    Require(again && again->subject == parsed->subject && again->body == parsed->body);

    const MailText filled = FillMailTemplate(*parsed, {{"%USER_NAME%", value}, {"%EMG_CODE%", "12345678"}});
    Require(filled.subject.find_first_of("\r\n") == std::string::npos);
    Require(std::count(filled.body.begin(), filled.body.end(), '\n') ==
            std::count(parsed->body.begin(), parsed->body.end(), '\n'));
    Require(HtmlOf(filled.body).find('\n') == std::string::npos);
}

// A value alone: nothing of it is markup, ends a line, or is put in again.
void CheckValue(const std::string& value)
{
    const MailText filled = FillMailTemplate({"%V%", "%V%"}, {{"%V%", value}, {"%W%", "\n"}});
    Require(filled.body.find_first_of("<>\"'\n\r") == std::string::npos);
    for (size_t at = filled.body.find('&'); at != std::string::npos; at = filled.body.find('&', at + 1)) {
        const std::string_view rest = std::string_view(filled.body).substr(at);
        Require(rest.starts_with("&amp;") || rest.starts_with("&lt;") || rest.starts_with("&gt;") ||
                rest.starts_with("&quot;") || rest.starts_with("&#39;"));
    }
    for (const char c : filled.subject) {
        Require(static_cast<unsigned char>(c) >= ' ' && c != 0x7f);
    }
    Require(!IsPlainText(value) || filled.subject == value);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const size_t end = std::min(text.find('\x01'), size);
    const std::string value(text.substr(std::min(end + 1, size)));
    CheckParsed(text.substr(0, end), value);
    CheckValue(value);
    return 0;
}
