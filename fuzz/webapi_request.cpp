// Requests of the web API: the first byte says how the rest comes in pieces. However it comes, the same
// message is put together; what is accepted has a call, and jsoncpp reads the same texts in it.
#include "linux/untrusted_json.h"
#include "webapi/request.h"

#include <algorithm>
#include <cstdlib>

using namespace tavr::webapi;

namespace
{

void Require(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

IncomingMessage::State AddInPieces(IncomingMessage& message, std::string_view bytes, size_t piece)
{
    auto state = IncomingMessage::State::Unfinished;
    while (!bytes.empty() && state == IncomingMessage::State::Unfinished) {
        state = message.Add(bytes.substr(0, piece));
        bytes.remove_prefix(std::min(piece, bytes.size()));
    }
    return state;
}

void CheckRequest(std::string_view text)
{
    Request request;
    request.text = text;
    if (ParseRequest(request) != Code::None) {
        return;
    }
    Require(request.params.Text("api") == request.api && request.params.Int("version") == request.version);
    Require(request.runner.find('\0') == std::string::npos && tavr::IsUtf8(request.runner));
    const auto object = tavr::ParseStrictObject(text);
    if (!object) {
        return; // a number that is none for a computer
    }
    const Json::Value& params = (*object)["params"];
    for (const std::string& name : params.getMemberNames()) {
        Require(tavr::TextMember(params, name) == request.params.Text(name));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    IncomingMessage whole;
    IncomingMessage pieces;
    const auto state = AddInPieces(whole, bytes, bytes.size());
    Require(AddInPieces(pieces, bytes, size_t{1} + data[0]) == state);
    Require(whole.Text() == pieces.Text() && whole.Text().size() <= bytes.size());
    if (state == IncomingMessage::State::Whole) {
        CheckRequest(whole.Text());
    }
    CheckRequest(bytes); // a fuzzer that has no length right gets here all the same
    return 0;
}
