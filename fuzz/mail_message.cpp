// A mail of any values: it is refused, or its message has the headers that every one has, each with the value
// that was given, two parts, and lines that any mail server takes.
#include "fuzz/demand.h"
#include "linux/mail_settings.h"
#include "webapi/message.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using namespace tavr::webapi;

namespace
{

// What stands before the next NUL; the rest when there is none.
std::string NextText(std::string_view& input)
{
    const size_t end = std::min(input.find('\0'), input.size());
    std::string text(input.substr(0, end));
    input.remove_prefix(std::min(end + 1, input.size()));
    return text;
}

// Without their ends.
std::vector<std::string> Lines(const std::string& message)
{
    std::vector<std::string> lines;
    for (size_t start = 0; start < message.size();) {
        const size_t end = message.find("\r\n", start);
        Demand(end != std::string::npos, "the last line is ended");
        lines.push_back(message.substr(start, end - start));
        start = end + 2;
    }
    return lines;
}

void CheckLine(const std::string& line)
{
    const bool isWhole =
        line.starts_with("From: ") || line.starts_with("To: ") || line.starts_with("Message-ID: ");
    Demand(line.size() <= (isWhole ? 300 : 78), "lines are short");
    for (const char c : line) {
        Demand(c >= ' ' && c <= '~', "lines are printable ASCII");
    }
}

// The headers, folded ones on one line.
std::vector<std::string> Headers(const std::vector<std::string>& lines)
{
    std::vector<std::string> headers;
    for (const std::string& line : lines) {
        if (line.empty()) {
            break;
        }
        if (line.front() == ' ') {
            Demand(!headers.empty(), "a header begins in its first column");
            headers.back() += line;
        } else {
            headers.push_back(line);
        }
    }
    return headers;
}

void CheckMessage(const std::string& from, const Mail& mail)
{
    const std::vector<std::string> lines = Lines(BuildMessage(from, mail));
    int boundaries = 0;
    for (const std::string& line : lines) {
        CheckLine(line);
        boundaries += line == "--=_tavr_alternative" || line == "--=_tavr_alternative--" ? 1 : 0;
    }
    Demand(boundaries == 3 && lines.back() == "--=_tavr_alternative--", "there are two parts");

    const std::vector<std::string> headers = Headers(lines);
    const std::string starts[] = {"Date: ",
                                  "From: <" + from + ">",
                                  "To: <" + mail.to + ">",
                                  "Message-ID: " + mail.messageId,
                                  "Subject: ",
                                  "Auto-Submitted: auto-generated",
                                  "MIME-Version: 1.0",
                                  "Content-Type: multipart/alternative;"};
    Demand(headers.size() == std::size(starts), "no value adds a header");
    for (size_t i = 0; i < headers.size(); ++i) {
        Demand(headers[i].starts_with(starts[i]), "every header is where it belongs");
    }
    for (const size_t whole : {1, 2, 3, 5, 6}) {
        Demand(headers[whole] == starts[whole], "a header holds its value and no more");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string from = NextText(input);
    Mail mail;
    mail.to = NextText(input);
    mail.messageId = NextText(input);
    mail.subject = NextText(input);
    mail.html = input;
    mail.date = static_cast<int64_t>(size) << (size % 60);
    if (MailProblem(from, mail) == nullptr) {
        CheckMessage(from, mail);
    }
    // Subject and text of all inputs, whatever the addresses are.
    mail.to = "alice@home.example";
    mail.messageId = tavr::NewMessageId();
    if (MailProblem("nas@office.example", mail) == nullptr) {
        CheckMessage("nas@office.example", mail);
    }
    TextOfHtml(input);
    return 0;
}
