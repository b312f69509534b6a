// JSON as JsonFromFile (platform/json.h) reads it, from a text.
#pragma once

#include <json/value.h>

#include <string_view>

namespace tavr
{

// Comments are allowed. False on a parse error; `value` then holds what was parsed before it.
bool ParseJson(std::string_view text, Json::Value& value);

} // namespace tavr
