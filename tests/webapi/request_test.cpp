// Requests as callers may send them: framed, in any pieces, and not at all as they should be.
#include "webapi/request.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavr::webapi
{
namespace
{

using State = IncomingMessage::State;

struct Arrival {
    const char* what;
    std::vector<std::string> pieces;
    State last;
    std::string text; // when it is whole
};

std::string Bytes(const char* text, size_t size)
{
    return {text, size};
}

TEST(IncomingMessage, IsPutTogetherFromAnyPieces)
{
    const Arrival rows[] = {
        {"at once", {Bytes("\0\0\0\x02{}", 6)}, State::Whole, "{}"},
        {"the length apart", {Bytes("\0\0\0\x02", 4), "{}"}, State::Whole, "{}"},
        {"byte by byte",
         {Bytes("\0", 1), Bytes("\0", 1), Bytes("\0", 1), "\x02", "{", "}"},
         State::Whole,
         "{}"},
        {"more behind it", {Bytes("\0\0\0\x02{}{}", 8)}, State::Whole, "{}"},
        {"half a length", {Bytes("\0\0", 2)}, State::Unfinished, ""},
        {"one byte missing", {Bytes("\0\0\0\x03{}", 6)}, State::Unfinished, ""},
        {"nothing announced", {Bytes("\0\0\0\0", 4)}, State::BadLength, ""},
        {"a byte above one mebibyte", {Bytes("\0\x10\0\x01", 4)}, State::BadLength, ""},
        {"the longest length", {"\xFF\xFF\xFF\xFF"}, State::BadLength, ""},
        {"text without a length", {"{\"params\":{}}"}, State::BadLength, ""},
    };
    for (const Arrival& row : rows) {
        SCOPED_TRACE(row.what);
        IncomingMessage message;
        State state = State::Unfinished;
        for (const std::string& piece : row.pieces) {
            ASSERT_EQ(State::Unfinished, state);
            state = message.Add(piece);
        }
        EXPECT_EQ(row.last, state);
        if (state == State::Whole) {
            EXPECT_EQ(row.text, message.Text());
        }
    }
}

TEST(IncomingMessage, MayHoldOneMebibyte)
{
    IncomingMessage message;
    ASSERT_EQ(State::Unfinished, message.Add(Bytes("\0\x10\0\0", 4)));
    const std::string half(1 << 19, 'x');
    EXPECT_EQ(State::Unfinished, message.Add(half));
    EXPECT_EQ(State::Whole, message.Add(half));
    EXPECT_EQ(half + half, message.Text());
}

struct Refused {
    const char* what;
    std::string text;
};

TEST(ParseRequest, TakesNothingButAStrictObjectWithACall)
{
    const std::string api = R"("api":"a","method":"m","version":1)";
    std::string manyValues = R"({"params":{)" + api + R"(,"list":[0)";
    for (int i = 0; i < 1000; ++i) {
        manyValues += ",0";
    }
    const Refused rows[] = {
        {"no JSON", "hello"},
        {"an array", "[]"},
        {"a text", "\"{}\""},
        {"nothing in it", "{}"},
        {"cut", R"({"params":{)" + api},
        {"something behind it", R"({"params":{)" + api + "}} {}"},
        {"a comment", R"({"params":{)" + api + "}} // x"},
        {"a name twice", R"({"params":{)" + api + R"(,"api":"b"}})"},
        {"no UTF-8", R"({"params":{)" + api + ",\"x\":\"\xC0\xAF\"}}"},
        {"nested deeply",
         R"({"params":{)" + api + R"(,"x":)" + std::string(20, '[') + std::string(20, ']') + "}}"},
        {"very deeply", std::string(100'000, '[')},
        {"too many values", manyValues + "]}}"},
        {"params no object", R"({"params":[1]})"},
        {"params a text", R"({"params":"api"})"},
        {"no api", R"({"params":{"method":"m","version":1}})"},
        {"an api that is no text", R"({"params":{"api":7,"method":"m","version":1}})"},
        {"an api with a NUL", R"({"params":{"api":"a\u0000","method":"m","version":1}})"},
        {"no method", R"({"params":{"api":"a","version":1}})"},
        {"a method that is no text", R"({"params":{"api":"a","method":null,"version":1}})"},
        {"no version", R"({"params":{"api":"a","method":"m"}})"},
        {"a version that is a text", R"({"params":{"api":"a","method":"m","version":"1"}})"},
        {"a version that is a boolean", R"({"params":{"api":"a","method":"m","version":true}})"},
        {"half a version", R"({"params":{"api":"a","method":"m","version":1.5}})"},
        {"a version beyond numbers", R"({"params":{"api":"a","method":"m","version":99999999999}})"},
    };
    for (const Refused& row : rows) {
        SCOPED_TRACE(row.what);
        Request request;
        request.text = row.text;
        EXPECT_EQ(Code::Malformed, ParseRequest(request));
    }
}

TEST(ParseRequest, GivesTheCallItsArgumentsAndTheRunner)
{
    Request request;
    request.text = R"({"params":{"api":"A.B","method":"m","version":2,"to":"[\"x\"]","n":5,"u":"\u00e9"},)"
                   R"("runner":{"username":"alice"}})";
    ASSERT_EQ(Code::None, ParseRequest(request));
    EXPECT_EQ("A.B", request.api);
    EXPECT_EQ("m", request.method);
    EXPECT_EQ(2, request.version);
    EXPECT_EQ("alice", request.runner);
    EXPECT_EQ("[\"x\"]", request.params.Text("to"));
    EXPECT_EQ("\xC3\xA9", request.params.Text("u"));
    EXPECT_EQ(5, request.params.Int("n"));
    EXPECT_FALSE(request.params.Text("n"));
    EXPECT_FALSE(request.params.Text("absent"));
}

TEST(ParseRequest, LeavesTheRunnerEmptyWhereNoneIsNamed)
{
    for (const char* runner : {"", R"(,"runner":{})", R"(,"runner":"alice")", R"(,"runner":["alice"])",
                               R"(,"runner":{"username":7})", R"(,"runner":{"username":"a\u0000b"})"}) {
        SCOPED_TRACE(runner);
        Request request;
        request.text = std::string(R"({"params":{"api":"a","method":"m","version":1})") + runner + "}";
        EXPECT_EQ(Code::None, ParseRequest(request));
        EXPECT_EQ("", request.runner);
    }
}

TEST(Answers, HaveTheirForms)
{
    EXPECT_EQ(Bytes("\0\0\0\x1a", 4) + R"({"data":{},"success":true})", ToMessage(Success("{}")));
    EXPECT_EQ(R"({"data":{"uid":7},"success":true})", Success(R"({"uid":7})"));
    EXPECT_EQ(Bytes("\0\0\0\x25", 4) + R"({"error":{"code":20},"success":false})",
              ToMessage(Refusal(Code::NoAccount)));
    EXPECT_EQ(R"({"error":{"code":31,"reply":550,"text":"no"},"success":false})",
              Refusal(Code::MailRefused, R"({"reply":550,"text":"no"})"));
}

} // namespace
} // namespace tavr::webapi
