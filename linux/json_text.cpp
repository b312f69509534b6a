#include "linux/json_text.h"

#include <json/reader.h>

#include <memory>

namespace tavr
{

namespace
{

// Kept: to make one takes longer than to parse a small file.
Json::CharReader& Reader()
{
    static const std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    return *reader;
}

} // namespace

bool ParseJson(std::string_view text, Json::Value& value)
{
    try {
        return Reader().parse(text.data(), text.data() + text.size(), &value, nullptr);
    } catch (const Json::Exception&) { // nested too deep
        return false;
    }
}

} // namespace tavr
