// JSON from outside: taken strictly, and overwritten when it has been used.
#pragma once

#include <json/value.h>

#include <optional>
#include <string_view>

namespace tavr
{

bool IsUtf8(std::string_view text);

// Empty for what is no object, no strict JSON (comments, a name that comes twice, something behind the
// object), nested deeper than 16, or not UTF-8.
std::optional<Json::Value> ParseStrictObject(std::string_view text);

// The member's text, seen where it stands. Empty when there is no such member, when it is no text, and when
// it holds a NUL or is not UTF-8 (what an escape can bring in).
std::optional<std::string_view> TextMember(const Json::Value& object, std::string_view name);

// Overwrites every text in it.
void Wipe(Json::Value& value);

} // namespace tavr
