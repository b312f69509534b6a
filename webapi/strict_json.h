// JSON from outside, taken strictly and read where it stands: nothing of it is copied, so whoever overwrites
// the text has overwritten every secret in it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavr::webapi
{

inline constexpr size_t kMostValues = 1000;
inline constexpr size_t kDeepestNesting = 16;

struct JsonValue {
    enum class Kind { Object, Array, Text, Number, Word }; // a word: true, false, null
    Kind kind = Kind::Word;
    std::string_view name; // of an object's member
    std::string_view text; // what a text says, in UTF-8; a number or a word as it is written
    size_t size = 1;       // in values: this one and all that are in it
};

// The value and all that are in it, in the order in which they begin. Escapes are resolved inside `json`,
// which the values refer to. Empty for what is not one value as RFC 8259 has it, a name that comes twice in
// an object, what is not UTF-8 (escapes of half a character too), more than kMostValues, or deeper nesting.
std::vector<JsonValue> ReadStrictJson(std::string& json);

// The members of an object, seen where they stand.
class JsonObject
{
public:
    JsonObject() = default;
    explicit JsonObject(const JsonValue* object)
        : object_(object) {} // null, or of another kind: without members

    [[nodiscard]] const JsonValue* Find(std::string_view name) const;
    [[nodiscard]] JsonObject Object(std::string_view name) const { return JsonObject(Find(name)); }

    // Empty when there is no such member, when it is of another kind, for a text with a NUL and for a number
    // that is not whole or does not fit.
    [[nodiscard]] std::optional<std::string_view> Text(std::string_view name) const;
    [[nodiscard]] std::optional<int> Int(std::string_view name) const;

private:
    const JsonValue* object_ = nullptr; // those that are in it come behind it
};

} // namespace tavr::webapi
