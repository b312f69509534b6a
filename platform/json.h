#pragma once

#include <string>
#include <json/json.h>

bool        JsonFromFile(const std::string& path, Json::Value& value);   // parses straight into value; false on a read or parse error
std::string JsonToString(const Json::Value& value);                       // compact JSON text
