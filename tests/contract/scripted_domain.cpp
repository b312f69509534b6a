// A domain of three users and a group, in place of one that our platform has joined: what the tests of the
// domain ask of one that works.
#include "platform/core.h"
#include "platform/directory.h"
#include "tests/contract/system.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace
{

struct Scripted {
    std::vector<std::string> fields;
    int start = 0;
    int limit = -1;
    bool groups = false;
    std::string text;
    std::string domain;
    std::string ou;
};

const contract::Domain& TheDomain()
{
    static const contract::Domain domain{"CORP",
                                         {{"CORP\\ada", "Ada from the lab", "", "", "", ""},
                                          {"CORP\\bea", "Bea", "", "", "", ""},
                                          {"CORP\\cleo", "", "", "", "", ""}},
                                         {{"CORP\\staff", "Everybody", "", "", "", ""}},
                                         "THE LAB",
                                         true};
    return domain;
}

int Fail()
{
    KLIBCFileExist(nullptr); // sets the error record
    return -1;
}

// Calls set(option), when there is one and the argument is one.
template<class Set>
int With(TAVRWinsDomainEnumOpt* option, bool valid, Set set)
{
    if (option == nullptr || !valid) {
        return Fail();
    }
    set(*reinterpret_cast<Scripted*>(option));
    return 0;
}

bool Holds(const std::string& text, const std::string& part)
{
    return strcasestr(text.c_str(), part.c_str()) != nullptr;
}

bool Matches(const Scripted& asked, const contract::Entry& entry)
{
    if ((!asked.domain.empty() && asked.domain != TheDomain().name) || !asked.ou.empty()) {
        return false;
    }
    return std::any_of(asked.fields.begin(), asked.fields.end(), [&](const std::string& field) {
        return Holds(field == "Name" ? entry.name : entry.description, asked.text);
    });
}

} // namespace

std::optional<contract::Domain> contract::SetUpDomain()
{
    return TheDomain();
}

extern "C" {

int Scripted_TAVRWinsDomainEnumOptAlloc(TAVRWinsDomainEnumOpt** option)
{
    if (option == nullptr) {
        return Fail();
    }
    *option = reinterpret_cast<TAVRWinsDomainEnumOpt*>(new Scripted);
    return 0;
}

int Scripted_TAVRWinsDomainEnumOptAddSearchFields(TAVRWinsDomainEnumOpt* option, const char* field)
{
    return With(option, field != nullptr, [&](Scripted& asked) { asked.fields.emplace_back(field); });
}

int Scripted_TAVRWinsDomainEnumOptSetStart(TAVRWinsDomainEnumOpt* option, int start)
{
    return With(option, start >= 0, [&](Scripted& asked) { asked.start = start; });
}

int Scripted_TAVRWinsDomainEnumOptSetLimit(TAVRWinsDomainEnumOpt* option, int limit)
{
    return With(option, limit >= -1, [&](Scripted& asked) { asked.limit = limit; });
}

int Scripted_TAVRWinsDomainEnumOptSetUGType(TAVRWinsDomainEnumOpt* option, int groups)
{
    return With(option, true, [&](Scripted& asked) { asked.groups = groups != 0; });
}

int Scripted_TAVRWinsDomainEnumOptSetSearchSubString(TAVRWinsDomainEnumOpt* option, const char* text)
{
    return With(option, text != nullptr, [&](Scripted& asked) { asked.text = text; });
}

int Scripted_TAVRWinsDomainEnumOptSetDomain(TAVRWinsDomainEnumOpt* option, const char* domain)
{
    return With(option, domain != nullptr, [&](Scripted& asked) { asked.domain = domain; });
}

int Scripted_TAVRWinsDomainEnumOptSetOU(TAVRWinsDomainEnumOpt* option, const char* ou)
{
    return With(option, ou != nullptr, [&](Scripted& asked) { asked.ou = ou; });
}

int Scripted_TAVRWinsDomainCoreFullDbEnum(TAVRWinsDomainEnumOpt* option, TAVRWinsDomainRow row,
                                          void* userData)
{
    if (option == nullptr || row == nullptr) {
        return Fail();
    }
    const Scripted& asked = *reinterpret_cast<Scripted*>(option);
    int total = 0;
    for (const contract::Entry& entry : asked.groups ? TheDomain().groups : TheDomain().users) {
        if (!Matches(asked, entry)) {
            continue;
        }
        const int index = total++ - asked.start;
        if (index >= 0 && (asked.limit == -1 || index < asked.limit)) {
            std::array<std::string, 4> texts = {"name", "DESCRIPTION", entry.name, entry.description};
            std::array<char*, 2> names = {texts[0].data(), texts[1].data()};
            std::array<char*, 2> values = {texts[2].data(),
                                           entry.description.empty() ? nullptr : texts[3].data()};
            row(2, values.data(), names.data(), userData);
        }
    }
    return total;
}

void Scripted_TAVRWinsDomainEnumOptFree(TAVRWinsDomainEnumOpt* option)
{
    delete reinterpret_cast<Scripted*>(option);
}

int Scripted_TAVRWinIsEnableTrustDomain(void)
{
    return TheDomain().trustedDomains ? 1 : 0;
}

} // extern "C"
