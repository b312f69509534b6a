#include "linux/picks.h"

#include "linux/json_text.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace tavr
{

namespace
{

// An array or object inside a list ends the library's calls in an exception, and a list that is none counts
// as an empty one.
bool IsList(const Json::Value& list)
{
    return list.isArray() && std::all_of(list.begin(), list.end(), [](const Json::Value& entry) {
               return entry.isString() || entry.isNumeric();
           });
}

// What a power cut leaves in a file that was being rewritten: blocks that never came to the disk.
bool HoldsControlCharacters(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < ' ' && c != '\n' && c != '\r' && c != '\t';
    });
}

std::vector<std::string> NumbersOf(const Json::Value& picks, const char* type)
{
    std::vector<std::string> numbers;
    for (const Json::Value& entry : picks[type]) {
        numbers.push_back(entry.asString());
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// As a detail of the audit: "local-user-1026".
std::string DetailOf(std::string_view type, const std::string& number)
{
    const bool decimal =
        !number.empty() && number.size() <= 10 && number.find_first_not_of("0123456789") == std::string::npos;
    std::string detail = std::string(type) + '-' + (decimal ? number : "other");
    std::replace(detail.begin(), detail.end(), '_', '-');
    return detail;
}

// Of sorted lists.
std::vector<std::string> Without(const std::vector<std::string>& numbers,
                                 const std::vector<std::string>& others)
{
    std::vector<std::string> left;
    std::set_difference(numbers.begin(), numbers.end(), others.begin(), others.end(),
                        std::back_inserter(left));
    return left;
}

} // namespace

std::optional<Json::Value> ParsePicks(std::string_view text)
{
    Json::Value picks;
    if (HoldsControlCharacters(text) || !ParseJson(text, picks) || !picks.isObject()) {
        return std::nullopt;
    }
    const bool lists = std::all_of(std::begin(kPickTypes), std::end(kPickTypes), [&](const PickType& type) {
        return !picks.isMember(type.name) || IsList(picks[type.name]);
    });
    return lists ? std::optional(std::move(picks)) : std::nullopt;
}

std::vector<PickChange> ChangesBetween(const Json::Value& before, const Json::Value& after)
{
    std::vector<PickChange> changes;
    for (const PickType& type : kPickTypes) {
        const std::vector<std::string> old = NumbersOf(before, type.name);
        const std::vector<std::string> now = NumbersOf(after, type.name);
        for (const std::string& number : Without(old, now)) {
            changes.push_back({false, DetailOf(type.name, number)});
        }
        for (const std::string& number : Without(now, old)) {
            changes.push_back({true, DetailOf(type.name, number)});
        }
    }
    return changes;
}

} // namespace tavr
