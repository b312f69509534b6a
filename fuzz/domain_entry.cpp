// An entry of a domain's directory: whatever the server sends, its SID has one spelling, its name is one of
// the domain that is read, and the texts that are kept of it are bounded and can be shown.
#include "fuzz/ldap_answer.h"
#include "linux/domain_copy.h"
#include "linux/domain_entries.h"
#include "linux/names.h"

#include <algorithm>
#include <cstdint>
#include <regex>

namespace
{

void CheckSid(std::string_view value)
{
    static const std::regex form("S-1(-(0|[1-9][0-9]*))+");
    const std::string sid = tavr::SidOf(value);
    if (sid.empty()) {
        return;
    }
    Demand(sid.size() <= 184 && std::regex_match(sid, form), "a SID in its one spelling");
    Demand(tavr::SidOf(sid) == sid, "its text is the same SID");
    const size_t parts = static_cast<size_t>(std::count(sid.begin(), sid.end(), '-')) - 2;
    Demand(sid == value || value.size() == 8 + 4 * parts, "every part of the bytes is in it");
}

void CheckUnit(const std::string& unit)
{
    Demand(unit.empty() || unit.ends_with('/'), "each unit ends");
    Demand(unit.size() <= 3 * 4096 && tavr::IsPlainText(unit), "units that can be shown");
    const bool isPath =
        unit.find('=') == std::string::npos && !unit.starts_with('/') && !unit.ends_with("//");
    Demand(!isPath || tavr::UnitOf(unit) == unit, "a unit is found by its own name");
}

void CheckEntry(const tavr::LdapEntry::Texts& texts)
{
    const auto entry = tavr::DomainEntryOf("CORP", texts.values[1], texts.values[2], texts.dn);
    if (!entry) {
        return;
    }
    Demand(entry->name.size() <= tavr::kMaxName && entry->name.starts_with("CORP\\") &&
               entry->name.find('@') == std::string::npos,
           "a name of the domain");
    Demand(tavr::CanonicalName(entry->name) == entry->name, "the canonical name");
    Demand("CORP\\" + tavr::CanonicalName(texts.values[1]).value_or("") == entry->name,
           "the name that the entry has");
    Demand(entry->description.size() <= 1024 && tavr::IsPlainText(entry->description),
           "a description that can be shown");
    Demand(std::count(entry->folded.begin(), entry->folded.end(), '\n') == 1, "two lines to search");
    CheckUnit(entry->unit);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<AnsweredAttribute> letters = {
        {'i', "objectSid"}, {'n', "sAMAccountName"}, {'d', "displayName"}};
    WithAnswer({reinterpret_cast<const char*>(data), size}, letters, [](const tavr::LdapEntry& entry) {
        static const std::vector<std::string> attributes = {"objectSid", "sAMAccountName", "displayName"};
        const tavr::LdapEntry::Texts texts = entry.OnlyValues(attributes);
        CheckSid(texts.values[0]);
        CheckEntry(texts);
    });
    return 0;
}
