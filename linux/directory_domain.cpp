// Lists of a domain's accounts and groups for the library (platform/directory.h): parts of the copy.
#include "linux/domain_lists.h"
#include "linux/domain_settings.h"
#include "linux/error.h"
#include "linux/guarded.h"
#include "platform/directory.h"

#include <strings.h>

#include <string>

using tavr::Error;
using tavr::Fail;
using tavr::Guarded;

struct TAVRWinsDomainEnumOpt {
    tavr::CopyPart part;
    tavr::ListPage page;
    bool groups = false;
    bool byName = false; // with neither, every field is searched
    bool byDescription = false;
    std::string text;
};

namespace
{

// Calls set() on an option and a text that are there.
template<class Set>
int WithText(TAVRWinsDomainEnumOpt* option, const char* text, Set set)
{
    if (option == nullptr || text == nullptr) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        set();
        return 0;
    });
}

} // namespace

int TAVRWinsDomainEnumOptAlloc(TAVRWinsDomainEnumOpt** option)
{
    if (option == nullptr) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        if (tavr::KnownDomains().empty()) {
            return Fail(Error::DirectoryNotConfigured);
        }
        *option = new TAVRWinsDomainEnumOpt;
        return 0;
    });
}

int TAVRWinsDomainEnumOptAddSearchFields(TAVRWinsDomainEnumOpt* option, const char* field)
{
    const bool isName = field != nullptr && strcasecmp(field, "Name") == 0;
    const bool isDescription = field != nullptr && strcasecmp(field, "Description") == 0;
    if (option == nullptr || (!isName && !isDescription)) {
        return Fail(Error::BadParameter);
    }
    option->byName |= isName;
    option->byDescription |= isDescription;
    return 0;
}

int TAVRWinsDomainEnumOptSetStart(TAVRWinsDomainEnumOpt* option, int start)
{
    if (option == nullptr || start < 0) {
        return Fail(Error::BadParameter);
    }
    option->page.offset = start;
    return 0;
}

int TAVRWinsDomainEnumOptSetLimit(TAVRWinsDomainEnumOpt* option, int limit)
{
    if (option == nullptr || limit < -1) {
        return Fail(Error::BadParameter);
    }
    option->page.limit = limit;
    return 0;
}

int TAVRWinsDomainEnumOptSetUGType(TAVRWinsDomainEnumOpt* option, int groups)
{
    if (option == nullptr || (groups != 0 && groups != 1)) {
        return Fail(Error::BadParameter);
    }
    option->groups = groups == 1;
    return 0;
}

int TAVRWinsDomainEnumOptSetSearchSubString(TAVRWinsDomainEnumOpt* option, const char* text)
{
    return WithText(option, text, [&] { option->text = text; });
}

int TAVRWinsDomainEnumOptSetDomain(TAVRWinsDomainEnumOpt* option, const char* domain)
{
    return WithText(option, domain, [&] { option->part.domain = domain; });
}

int TAVRWinsDomainEnumOptSetOU(TAVRWinsDomainEnumOpt* option, const char* ou)
{
    return WithText(option, ou, [&] { option->part.unit = ou; });
}

int TAVRWinsDomainCoreFullDbEnum(TAVRWinsDomainEnumOpt* option, TAVRWinsDomainRow row, void* userData)
{
    if (option == nullptr || row == nullptr) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        const tavr::DomainList list = option->groups ? tavr::ListDomainGroups : tavr::ListDomainAccounts;
        tavr::CopyPart part = option->part;
        part.byName = option->byName || !option->byDescription;
        part.byDescription = option->byDescription || !option->byName;
        const auto total = list(part, option->text, option->page, [&](const tavr::ListEntry& entry) {
            char nameField[] = "Name";
            char descriptionField[] = "Description";
            char* fields[] = {nameField, descriptionField};
            // For reading only, as all that is called back with.
            char* values[] = {const_cast<char*>(entry.name), const_cast<char*>(entry.description)};
            row(2, values, fields, userData);
        });
        return total ? static_cast<int>(*total) : Fail(Error::NotFound);
    });
}

void TAVRWinsDomainEnumOptFree(TAVRWinsDomainEnumOpt* option)
{
    delete option;
}

int TAVRWinIsEnableTrustDomain(void)
{
    return tavr::KnownDomains().size() > 1 ? 1 : 0;
}
