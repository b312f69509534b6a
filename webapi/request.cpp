#include "webapi/request.h"

#include "linux/untrusted_json.h"
#include <sodium.h>

#include <algorithm>

namespace tavr::webapi
{

namespace
{

constexpr size_t kMostValues = 1000; // of a request: what is parsed takes a hundred times its text's memory

// Counts what separates values, outside of texts.
size_t CountValues(std::string_view json)
{
    size_t count = 0;
    bool inText = false;
    for (size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (c == '"') {
            inText = !inText;
        } else if (inText && c == '\\') {
            ++i;
        } else if (!inText && (c == ',' || c == '[' || c == '{')) {
            ++count;
        }
    }
    return count;
}

// What the object asks for. False: it asks for nothing.
bool ReadCall(Json::Value& object, Request& request)
{
    Json::Value& params = object["params"];
    if (!params.isObject()) {
        return false;
    }
    const auto api = TextMember(params, "api");
    const auto method = TextMember(params, "method");
    const Json::Value& version = params["version"];
    if (!api || !method || !version.isInt()) {
        return false;
    }
    request.api = *api;
    request.method = *method;
    request.version = version.asInt();
    const Json::Value& runner = object["runner"];
    if (runner.isObject()) {
        request.runner = TextMember(runner, "username").value_or("");
    }
    request.params.swap(params);
    return true;
}

} // namespace

IncomingMessage::State IncomingMessage::Add(std::string_view piece)
{
    const size_t headPart = std::min(piece.size(), head_.size() - headBytes_);
    std::copy_n(piece.begin(), headPart, head_.begin() + static_cast<std::ptrdiff_t>(headBytes_));
    headBytes_ += headPart;
    piece.remove_prefix(headPart);
    if (headBytes_ < head_.size()) {
        return State::Unfinished;
    }
    size_ = SizeInFrameHead(head_);
    if (size_ == 0) {
        return State::BadLength;
    }
    piece = piece.substr(0, size_ - text_.size());
    if (text_.size() + piece.size() > text_.capacity()) {
        text_.reserve(size_); // at once, so that no copy is left behind
    }
    text_ += piece;
    return text_.size() == size_ ? State::Whole : State::Unfinished;
}

Request::~Request()
{
    Wipe(params);
}

Code ParseRequest(std::string_view text, Request& request)
{
    if (CountValues(text) > kMostValues) {
        return Code::Malformed;
    }
    std::optional<Json::Value> object = ParseStrictObject(text);
    if (!object) {
        return Code::Malformed;
    }
    const bool isCall = ReadCall(*object, request);
    Wipe(*object);
    return isCall ? Code::None : Code::Malformed;
}

std::string Success(std::string_view data)
{
    return std::string(R"({"data":)").append(data).append(R"(,"success":true})");
}

std::string Refusal(Code code, std::string_view members)
{
    members = members.substr(1); // behind its bracket
    return std::string(R"({"error":{"code":)")
        .append(std::to_string(static_cast<int>(code)))
        .append(members == "}" ? "" : ",")
        .append(members)
        .append(R"(,"success":false})");
}

std::string ToMessage(std::string_view answer)
{
    const FrameHead head = MakeFrameHead(answer.size());
    return std::string(head.data(), head.size()).append(answer);
}

} // namespace tavr::webapi
