// JSON that callers send: what is taken, what it says, and that nothing else is taken.
#include "webapi/strict_json.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavr::webapi
{
namespace
{

using Kind = JsonValue::Kind;

struct Text {
    const char* json;
    std::string says;
};

TEST(StrictJson, ResolvesEscapesWhereTheyStand)
{
    const Text rows[] = {
        {R"("")", ""},
        {R"("plain")", "plain"},
        {R"("\"\\\/\b\f\n\r\t")", "\"\\/\b\f\n\r\t"},
        {R"("\u0041\u00e9\u20ac\uD83D\ude00")", "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {R"("a\u0000b")", std::string("a\0b", 3)},
        {"\"\xC3\xA9\x7F\"", "\xC3\xA9\x7F"},
    };
    for (const Text& row : rows) {
        SCOPED_TRACE(row.json);
        std::string json = row.json;
        const std::vector<JsonValue> values = ReadStrictJson(json);
        ASSERT_EQ(1U, values.size());
        EXPECT_EQ(Kind::Text, values[0].kind);
        EXPECT_EQ(row.says, values[0].text);
        EXPECT_EQ(json.data() + 1, values[0].text.data());
    }
}

TEST(StrictJson, GivesNumbersAndWordsAsTheyAreWritten)
{
    for (const char* json : {"0", "-0", "10", "-1.50", "2e8", "2E-08", "0.0e+1", "true", "false", "null"}) {
        SCOPED_TRACE(json);
        std::string text = std::string(" \t\r\n") + json + " \t\r\n";
        const std::vector<JsonValue> values = ReadStrictJson(text);
        ASSERT_EQ(1U, values.size());
        EXPECT_EQ(json, values[0].text);
    }
}

TEST(StrictJson, PutsWhatIsInsideBehindIt)
{
    std::string json = R"( { "a" : [ 1 , [ ] , "x" ] , "b" : { "a" : { } } , "" : null } )";
    const std::vector<JsonValue> values = ReadStrictJson(json);
    ASSERT_EQ(8U, values.size());
    const size_t sizes[] = {8, 4, 1, 1, 1, 2, 1, 1};
    const char* const names[] = {"", "a", "", "", "", "b", "a", ""};
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(sizes[i], values[i].size) << i;
        EXPECT_EQ(names[i], values[i].name) << i;
    }
    const JsonObject object(values.data());
    EXPECT_EQ(&values[7], object.Find(""));
    EXPECT_EQ(&values[6], object.Object("b").Find("a"));
    EXPECT_EQ(nullptr, object.Object("a").Find(""));
    EXPECT_EQ(nullptr, object.Object("absent").Find("a"));
}

struct Refused {
    const char* what;
    std::string json;
};

TEST(StrictJson, TakesNothingElse)
{
    const Refused rows[] = {
        {"nothing", ""},
        {"blanks", "  "},
        {"two values", "1 2"},
        {"a comment", "1 // x"},
        {"a mark of byte order", "\xEF\xBB\xBF"
                                 "1"},
        {"another blank", "\v1"},
        {"a NUL behind it", std::string("1\0", 2)},
        {"a NUL in place of a value", std::string("[\0]", 3)},
        {"half a word", "tru"},
        {"a longer word", "nullx"},
        {"a word in capitals", "True"},
        {"no number of JSON", "NaN"},
        {"a zero in front", "01"},
        {"a plus in front", "+1"},
        {"a minus alone", "-"},
        {"no digit before the point", ".5"},
        {"no digit behind the point", "1."},
        {"no exponent", "1e"},
        {"no digit in the exponent", "1e+"},
        {"hexadecimal", "0x1"},
        {"single quotes", "'a'"},
        {"no end of the text", "\"a"},
        {"the end of the text escaped", R"("a\")"},
        {"a line feed in a text", "\"a\nb\""},
        {"a NUL in a text", std::string("\"a\0b\"", 5)},
        {"an unknown escape", R"("\x41")"},
        {"an escaped NUL byte", std::string("\"\\\0\"", 4)},
        {"an escape that is cut", R"("\u004)"},
        {"an escape of three digits", R"("\u004")"},
        {"an escape with a sign", R"("\u-041")"},
        {"an escape in capitals", R"("\U0041")"},
        {"the first half of a character", R"("\ud83d")"},
        {"the first half and another escape", R"("\ud83d\n")"},
        {"the first half twice", R"("\ud83d\ud83d")"},
        {"the second half of a character", R"("\ude00")"},
        {"no UTF-8", "\"\xC0\xAF\""},
        {"a surrogate in UTF-8", "\"\xED\xA0\x80\""},
        {"no end of the array", "[1"},
        {"no value in the array", "[1,]"},
        {"commas alone", "[,]"},
        {"no comma", "[1 2]"},
        {"another end", "[1}"},
        {"no end of the object", R"({"a":1)"},
        {"no member behind the comma", R"({"a":1,})"},
        {"no colon", R"({"a" 1})"},
        {"no value", R"({"a":})"},
        {"a name without quotes", "{a:1}"},
        {"a number as a name", "{1:1}"},
        {"a name twice", R"({"a":1,"b":{},"a":2})"},
        {"a name twice, once escaped", R"({"a":1,"\u0061":2})"},
        {"nested too deeply", std::string(17, '[') + std::string(17, ']')},
        {"nested very deeply", std::string(100'000, '[')},
    };
    for (const Refused& row : rows) {
        SCOPED_TRACE(row.what);
        std::string json = row.json;
        EXPECT_TRUE(ReadStrictJson(json).empty());
    }
}

TEST(StrictJson, TakesAsMuchAsIsAllowed)
{
    std::string deep = std::string(16, '[') + std::string(16, ']');
    EXPECT_EQ(16U, ReadStrictJson(deep).size());

    std::string many = "[0";
    for (int i = 2; i < 1000; ++i) {
        many += ",0";
    }
    std::string more = many + ",0]";
    many += ']';
    EXPECT_EQ(1000U, ReadStrictJson(many).size());
    EXPECT_TRUE(ReadStrictJson(more).empty());
}

TEST(StrictJson, GivesMembersOfTheKindThatIsAskedForAlone)
{
    std::string json =
        R"({"text":"x","nul":"\u0000","number":-7,"half":1.5,"whole":1.0,"exponent":1e2,"large":2147483648,)"
        R"("digits":"7","word":true,"list":["x"]})";
    const std::vector<JsonValue> values = ReadStrictJson(json);
    ASSERT_FALSE(values.empty());
    const JsonObject object(values.data());
    EXPECT_EQ("x", object.Text("text"));
    EXPECT_EQ(-7, object.Int("number"));
    for (const char* name : {"nul", "number", "word", "list", "absent"}) {
        EXPECT_FALSE(object.Text(name)) << name;
    }
    for (const char* name :
         {"text", "half", "whole", "exponent", "large", "digits", "word", "list", "absent"}) {
        EXPECT_FALSE(object.Int(name)) << name;
    }
    const JsonObject none;
    EXPECT_EQ(nullptr, none.Find("text"));
    EXPECT_EQ(nullptr, JsonObject(object.Find("list")).Find(""));
}

} // namespace
} // namespace tavr::webapi
