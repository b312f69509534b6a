#include "webapi/request.h"

#include <sodium.h>

#include <algorithm>

namespace tavr::webapi
{

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
    sodium_memzero(text.data(), text.size());
}

Code ParseRequest(Request& request)
{
    request.values = ReadStrictJson(request.text);
    if (request.values.empty()) {
        return Code::Malformed;
    }
    const JsonObject object(request.values.data());
    request.params = object.Object("params");
    const auto api = request.params.Text("api");
    const auto method = request.params.Text("method");
    const auto version = request.params.Int("version");
    if (!api || !method || !version) {
        return Code::Malformed;
    }
    request.api = *api;
    request.method = *method;
    request.version = *version;
    request.runner = object.Object("runner").Text("username").value_or("");
    return Code::None;
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
