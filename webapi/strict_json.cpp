#include "webapi/strict_json.h"

#include "linux/untrusted_json.h"

#include <rapidjson/reader.h>

#include <charconv>
#include <cstdint>
#include <utility>

namespace tavr::webapi
{

namespace
{

using Kind = JsonValue::Kind;

const JsonValue* FindMember(const JsonValue* first, const JsonValue* end, std::string_view name)
{
    while (first != end && first->name != name) {
        first += first->size;
    }
    return first == end ? nullptr : first;
}

// Takes what RapidJSON finds, in the order of the text. A function that returns false ends the reading, so
// nesting cannot go deeper than what is taken here.
class Values
{
public:
    Values()
    {
        constexpr size_t kUsual = 16;
        values_.reserve(kUsual);
    }

    bool Null() { return Add(Kind::Word, "null"); }
    bool Bool(bool value) { return Add(Kind::Word, value ? "true" : "false"); }
    bool RawNumber(const char* text, size_t size, bool /*copy*/) { return Add(Kind::Number, {text, size}); }
    bool String(const char* text, size_t size, bool /*copy*/)
    {
        return IsUtf8({text, size}) && Add(Kind::Text, {text, size});
    }
    bool StartObject() { return Begin(Kind::Object); }
    bool StartArray() { return Begin(Kind::Array); }
    bool EndObject(size_t /*members*/) { return End(); }
    bool EndArray(size_t /*elements*/) { return End(); }
    bool Key(const char* text, size_t size, bool /*copy*/)
    {
        name_ = {text, size};
        const JsonValue* const end = values_.data() + values_.size();
        return IsUtf8(name_) && FindMember(values_.data() + begun_.back() + 1, end, name_) == nullptr;
    }

    // Numbers come as they are written.
    bool Int(int /*number*/) { return false; }
    bool Uint(unsigned /*number*/) { return false; }
    bool Int64(int64_t /*number*/) { return false; }
    bool Uint64(uint64_t /*number*/) { return false; }
    bool Double(double /*number*/) { return false; }

    std::vector<JsonValue> Give() { return std::move(values_); }

private:
    bool Add(Kind kind, std::string_view text)
    {
        if (values_.size() == kMostValues || begun_.size() == kDeepestNesting) {
            return false;
        }
        values_.push_back({kind, std::exchange(name_, {}), text, 1});
        return true;
    }

    bool Begin(Kind kind)
    {
        const bool added = Add(kind, {});
        begun_.push_back(values_.size() - 1);
        return added;
    }

    bool End()
    {
        values_[begun_.back()].size = values_.size() - begun_.back();
        begun_.pop_back();
        return true;
    }

    std::vector<JsonValue> values_;
    std::vector<size_t> begun_; // where the objects and arrays stand that have not ended
    std::string_view name_;
};

} // namespace

std::vector<JsonValue> ReadStrictJson(std::string& json)
{
    constexpr unsigned kFlags = rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag;
    Values values;
    rapidjson::InsituStringStream text(json.data());
    rapidjson::Reader reader;
    const bool whole = !reader.Parse<kFlags>(text, values).IsError() && text.Tell() == json.size();
    return whole ? values.Give() : std::vector<JsonValue>();
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
