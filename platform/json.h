// What the JSON library lacks. C++ linkage.
#pragma once

#include <string>

#include <json/json.h>

// Reads a whole file and parses it, comments allowed, straight into `value`. False on a read or parse error,
// with the error record set (core.h); `value` then holds what was parsed before it. Works with the caller's
// ids.
bool JsonFromFile(const std::string& path, Json::Value& value);

// `value` as compact JSON text.
std::string JsonToString(const Json::Value& value);
