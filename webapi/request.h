// A request as a caller sends it, taken apart, and the form of an answer. Callers are judged before anything
// of this is looked at; what they send is hostile all the same.
#pragma once

#include "linux/webapi_frame.h"
#include "webapi/strict_json.h"

#include <string>
#include <string_view>
#include <vector>

namespace tavr::webapi
{

// The numbers in an answer's "error"; doc/webapi.md lists them, and they stay.
enum class Code : int {
    None = 0,
    Internal = 1,    // a fault of the service; its log says more
    Busy = 2,        // too many connections or calls, or the service is ending: worth another try
    NotAllowed = 3,  // the caller is neither root nor the service's account
    BadLength = 4,   // nothing announced, or more than a request may have
    Malformed = 5,   // no strict JSON object, no call in it
    UnknownApi = 10, //
    UnknownMethod = 11,
    UnknownVersion = 12,
    BadArgument = 13,   // one is missing or not of its type
    NoAccount = 20,     // nobody of that name
    Unavailable = 21,   // accounts or settings could not be read
    NoMailAccount = 22, // the account has none that is called so
    NoMailServer = 23,  // no notification service is set up
    MailNotSent = 30,   // the server did not take it; another try may go well
    MailRefused = 31,   // it refused recipient or message for good
};

// One message as it comes in, piece by piece.
class IncomingMessage
{
public:
    enum class State { Unfinished, Whole, BadLength };

    // Nothing that follows a whole message is kept.
    State Add(std::string_view piece);

    std::string& Text() { return text_; } // of a whole one
    [[nodiscard]] size_t Held() const { return text_.size(); }

private:
    FrameHead head_{};
    size_t headBytes_ = 0;
    size_t size_ = 0; // as announced
    std::string text_;
};

// Stays where it is: everything else refers to its text.
struct Request {
    std::string_view api;
    std::string_view method;
    int version = 0;
    JsonObject params;
    std::string_view runner; // on whose behalf; empty when it was not said

    std::string text; // may hold a mail with a code in it
    std::vector<JsonValue> values;

    Request() = default;
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    ~Request(); // overwrites the text
};

// Of what stands in `request.text`. Code::None, or why there is no request in it.
Code ParseRequest(Request& request);

// Answers, as texts. `data` is the text of a JSON object, and so is `members`, if any: what the error says
// besides the code.
std::string Success(std::string_view data);
std::string Refusal(Code code, std::string_view members = "{}");

// Framed, ready to be sent.
std::string ToMessage(std::string_view answer);

} // namespace tavr::webapi
