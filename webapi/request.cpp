#include "webapi/request.h"

#include "linux/untrusted_json.h"
#include "platform/json.h"

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

bool IsCall(const Json::Value& object)
{
    const Json::Value& params = object["params"];
    return params.isObject() && TextMember(params, "api") && TextMember(params, "method") &&
           params["version"].isInt();
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
    if (!IsCall(*object)) {
        Wipe(*object);
        return Code::Malformed;
    }
    request.params = std::move((*object)["params"]);
    request.api = *TextArgument(request.params, "api");
    request.method = *TextArgument(request.params, "method");
    request.version = request.params["version"].asInt();
    const Json::Value& runner = (*object)["runner"];
    request.runner = runner.isObject() ? TextArgument(runner, "username").value_or("") : "";
    Wipe(*object);
    return Code::None;
}

std::optional<std::string> TextArgument(const Json::Value& params, std::string_view name)
{
    const std::optional<std::string_view> text = TextMember(params, name);
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

Json::Value Success(Json::Value data)
{
    Json::Value answer;
    answer["success"] = true;
    answer["data"] = std::move(data);
    return answer;
}

Json::Value Refusal(Code code)
{
    Json::Value answer;
    answer["success"] = false;
    answer["error"]["code"] = static_cast<int>(code);
    return answer;
}

std::string ToMessage(const Json::Value& answer)
{
    const std::string text = JsonToString(answer);
    const FrameHead head = MakeFrameHead(text.size());
    return std::string(head.data(), head.size()) + text;
}

} // namespace tavr::webapi
