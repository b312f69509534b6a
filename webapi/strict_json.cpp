#include "webapi/strict_json.h"

#include "linux/untrusted_json.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>

namespace tavr::webapi
{

namespace
{

using Kind = JsonValue::Kind;

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

const JsonValue* FindMember(const JsonValue* first, const JsonValue* end, std::string_view name)
{
    while (first != end && first->name != name) {
        first += first->size;
    }
    return first == end ? nullptr : first;
}

// Reads from front to end. What a function returns is whether it found what it is called after.
class JsonReader
{
public:
    explicit JsonReader(std::span<char> json) : at_(json.data()), end_(json.data() + json.size())
    {
        constexpr size_t kUsual = 16;
        values_.reserve(kUsual);
    }

    std::vector<JsonValue> Read()
    {
        SkipBlanks();
        const bool whole = ReadValue({}, 1);
        SkipBlanks();
        return whole && at_ == end_ ? std::move(values_) : std::vector<JsonValue>();
    }

private:
    [[nodiscard]] char Front() const { return at_ == end_ ? '\0' : *at_; }

    bool Take(char c)
    {
        const bool found = at_ != end_ && *at_ == c;
        at_ += found ? 1 : 0;
        return found;
    }

    void SkipBlanks()
    {
        while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\r' || *at_ == '\n')) {
            ++at_;
        }
    }

    bool ReadValue(std::string_view name, int depth)
    {
        if (values_.size() == kMostValues || depth > kDeepestNesting) {
            return false;
        }
        const size_t index = values_.size();
        JsonValue& value = values_.emplace_back();
        value.name = name;
        switch (Front()) {
        case '{':
            value.kind = Kind::Object;
            return ReadItems(index, '}', depth);
        case '[':
            value.kind = Kind::Array;
            return ReadItems(index, ']', depth);
        case '"':
            value.kind = Kind::Text;
            return ReadText(value.text);
        default:
            value.kind = Front() == '-' || IsDigit(Front()) ? Kind::Number : Kind::Word;
            return value.kind == Kind::Number ? ReadNumber(value.text) : ReadWord(value.text);
        }
    }

    // Of the object or array that stands at `index`.
    bool ReadItems(size_t index, char closing, int depth)
    {
        ++at_;
        SkipBlanks();
        if (!Take(closing)) {
            do {
                SkipBlanks();
                std::string_view name;
                if ((closing == '}' && !ReadName(index, name)) || !ReadValue(name, depth + 1)) {
                    return false;
                }
                SkipBlanks();
            } while (Take(','));
            if (!Take(closing)) {
                return false;
            }
        }
        values_[index].size = values_.size() - index;
        return true;
    }

    bool ReadName(size_t object, std::string_view& name)
    {
        if (Front() != '"' || !ReadText(name)) {
            return false;
        }
        const JsonValue* const end = values_.data() + values_.size();
        SkipBlanks();
        const bool once = FindMember(values_.data() + object + 1, end, name) == nullptr;
        const bool named = once && Take(':');
        SkipBlanks();
        return named;
    }

    // What it says is written over what it was escaped as, which is never shorter.
    bool ReadText(std::string_view& text)
    {
        char* const begin = ++at_;
        for (char* out = begin; at_ != end_ && static_cast<unsigned char>(*at_) >= ' ';) {
            const char c = *at_++;
            if (c == '"') {
                text = {begin, static_cast<size_t>(out - begin)};
                return true;
            }
            if (c != '\\') {
                *out++ = c;
            } else if (!ReadEscape(out)) {
                return false;
            }
        }
        return false;
    }

    bool ReadEscape(char*& out)
    {
        constexpr std::string_view kLetters = "\"\\/bfnrt";
        constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
        const size_t letter = kLetters.find(Front());
        if (letter != std::string_view::npos) {
            ++at_;
            *out++ = kMeanings[letter];
            return true;
        }
        uint32_t character = 0;
        if (!ReadUnit(character)) {
            return false;
        }
        if (character >= 0xd800 && character < 0xdc00) { // the first half of one
            uint32_t second = 0;
            if (!Take('\\') || !ReadUnit(second) || second < 0xdc00 || second > 0xdfff) {
                return false;
            }
            character = 0x10000 + ((character - 0xd800) << 10) + (second - 0xdc00);
        } else if (character >= 0xdc00 && character <= 0xdfff) {
            return false;
        }
        const std::string bytes = Utf8(character);
        out = std::copy(bytes.begin(), bytes.end(), out);
        return true;
    }

    // "uXXXX".
    bool ReadUnit(uint32_t& unit)
    {
        constexpr std::ptrdiff_t kDigits = 4;
        if (!Take('u') || end_ - at_ < kDigits) {
            return false;
        }
        const auto [end, error] = std::from_chars(at_, at_ + kDigits, unit, 16);
        at_ += kDigits;
        return error == std::errc() && end == at_;
    }

    bool ReadNumber(std::string_view& text)
    {
        const char* const begin = at_;
        Take('-');
        if (!Take('0') && !ReadDigits()) {
            return false;
        }
        if (Take('.') && !ReadDigits()) {
            return false;
        }
        if (Take('e') || Take('E')) {
            if (!Take('+')) {
                Take('-');
            }
            if (!ReadDigits()) {
                return false;
            }
        }
        text = {begin, static_cast<size_t>(at_ - begin)};
        return true;
    }

    bool ReadDigits()
    {
        const char* const begin = at_;
        at_ = std::find_if_not(at_, end_, IsDigit);
        return at_ != begin;
    }

    bool ReadWord(std::string_view& text)
    {
        for (const std::string_view word : {"true", "false", "null"}) {
            if (std::string_view(at_, static_cast<size_t>(end_ - at_)).starts_with(word)) {
                text = word;
                at_ += word.size();
                return true;
            }
        }
        return false;
    }

    char* at_;
    char* const end_;
    std::vector<JsonValue> values_;
};

} // namespace

std::vector<JsonValue> ReadStrictJson(std::span<char> json)
{
    return IsUtf8({json.data(), json.size()}) ? JsonReader(json).Read() : std::vector<JsonValue>();
}

const JsonValue* JsonObject::Find(std::string_view name) const
{
    const bool isObject = object_ != nullptr && object_->kind == Kind::Object;
    return isObject ? FindMember(object_ + 1, object_ + object_->size, name) : nullptr;
}

std::optional<std::string_view> JsonObject::Text(std::string_view name) const
{
    const JsonValue* const found = Find(name);
    const bool usable =
        found != nullptr && found->kind == Kind::Text && found->text.find('\0') == std::string_view::npos;
    return usable ? std::optional(found->text) : std::nullopt;
}

std::optional<int> JsonObject::Int(std::string_view name) const
{
    const JsonValue* const found = Find(name);
    if (found == nullptr || found->kind != Kind::Number) {
        return std::nullopt;
    }
    const char* const end = found->text.data() + found->text.size();
    int number = 0;
    const auto [last, error] = std::from_chars(found->text.data(), end, number);
    return error == std::errc() && last == end ? std::optional(number) : std::nullopt;
}

} // namespace tavr::webapi
