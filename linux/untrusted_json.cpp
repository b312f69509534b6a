#include "linux/untrusted_json.h"

#include <json/reader.h>
#include <sodium.h>

#include <algorithm>
#include <memory>

namespace tavr
{

namespace
{

constexpr int kNesting = 16;

// Bytes of the character at the front: none for what is no UTF-8 (over-long, a surrogate, beyond U+10FFFF,
// cut).
size_t CharacterSize(std::string_view text)
{
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    const size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size) {
        return 0;
    }
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const unsigned char second = byte(1);
    const bool wrong = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                       (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
    return wrong ? 0 : size;
}

// Kept: making it costs more than using it. It keeps nothing of what it has read.
Json::CharReader& StrictReader()
{
    static const std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        builder["stackLimit"] = kNesting;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    return *reader;
}

} // namespace

bool IsUtf8(std::string_view text)
{
    const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    for (;;) {
        const auto* const other = std::find_if_not(text.begin(), text.end(), isAscii);
        if (other == text.end()) {
            return true;
        }
        text.remove_prefix(static_cast<size_t>(other - text.begin()));
        const size_t size = CharacterSize(text);
        if (size == 0) {
            return false;
        }
        text.remove_prefix(size);
    }
}

std::optional<Json::Value> ParseStrictObject(std::string_view text)
{
    if (!IsUtf8(text)) {
        return std::nullopt;
    }
    Json::Value value;
    try {
        if (!StrictReader().parse(text.data(), text.data() + text.size(), &value, nullptr) ||
            !value.isObject()) {
            Wipe(value);
            return std::nullopt;
        }
    } catch (const Json::Exception&) { // what jsoncpp says to a document that nests too deep
        Wipe(value);
        return std::nullopt;
    }
    return value;
}

std::optional<std::string_view> TextMember(const Json::Value& object, std::string_view name)
{
    const Json::Value* value = object.find(name.data(), name.data() + name.size());
    const char* begin = nullptr;
    const char* end = nullptr;
    if (value == nullptr || !value->isString() || !value->getString(&begin, &end)) {
        return std::nullopt;
    }
    const std::string_view text(begin, static_cast<size_t>(end - begin));
    return text.find('\0') == std::string_view::npos && IsUtf8(text) ? std::optional(text) : std::nullopt;
}

void Wipe(Json::Value& value)
{
    if (value.isString()) {
        const char* begin = nullptr;
        const char* end = nullptr;
        if (value.getString(&begin, &end)) {
            sodium_memzero(const_cast<char*>(begin), static_cast<size_t>(end - begin));
        }
        return;
    }
    if (value.isObject() || value.isArray()) {
        for (Json::Value& member : value) {
            Wipe(member);
        }
    }
}

} // namespace tavr
