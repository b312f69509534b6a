// A mail as it goes over the wire: a fixed set of headers that no value can add to, and the text twice, plain
// and as HTML.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tavr::webapi
{

inline constexpr size_t kLargestHtml = 131'072; // bytes of a mail's text
inline constexpr size_t kLongestSubject = 1000;

struct Mail {
    std::string to;        // one address
    std::string subject;   // any UTF-8; what cannot stand in a line is shown as a blank
    std::string html;      // a fragment in UTF-8
    std::string messageId; // with its angle brackets
    int64_t date = 0;      // WallSeconds()
};

// Why the mail cannot be sent from this address, in a few words; null: it can. Addresses are ASCII: names in
// other letters need a server that knows SMTPUTF8, which nobody can tell before the mail is on its way.
const char* MailProblem(std::string_view from, const Mail& mail);

// The message, of a mail that has no problem: lines of at most 78 bytes (an address may be longer), all
// ASCII, each ended by CR LF.
std::string BuildMessage(std::string_view from, const Mail& mail);

// What a fragment says without its tags: entities as characters, breaks and ends of blocks as line feeds.
std::string TextOfHtml(std::string_view html);

} // namespace tavr::webapi
