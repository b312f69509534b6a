#include "linux/domain_lists.h"

#include "linux/accounts.h"
#include "linux/domain_settings.h"
#include "linux/names.h"

namespace tavr
{

namespace
{

// What lists are calling back with.
const ListEntry* g_listedAccount = nullptr;
const ListEntry* g_listedGroup = nullptr;

// Calls each(entry) while it stands in `place`.
void Show(const ListEntry& entry, const ListEntry*& place, const EachEntry& each)
{
    struct Placed {
        const ListEntry*& place;
        ~Placed() { place = nullptr; }
    } const placed{place};
    place = &entry;
    each(entry);
}

uint32_t NumberOf(const ListEntry* listed, std::string_view name)
{
    return listed != nullptr && name == listed->name ? listed->number : 0;
}

// What was typed, as the copy has it. Empty: there is no such unit.
std::optional<CopyPart> Spelled(CopyPart part)
{
    for (const DomainName& domain : KnownDomains()) {
        if (IsCalled(domain, part.domain)) {
            part.domain = domain.name;
        }
    }
    if (!part.unit.empty()) {
        part.unit = UnitOf(part.unit);
        if (part.unit.empty()) {
            return std::nullopt;
        }
    }
    return part;
}

std::optional<int64_t> ListCopied(DomainList list, const ListEntry*& place, const CopyPart& part,
                                  std::string_view text, const ListPage& page, const EachEntry& each)
{
    const std::optional<CopyPart> spelled = Spelled(part);
    return spelled ? list(*spelled, text, page, [&](const ListEntry& entry) { Show(entry, place, each); })
                   : 0;
}

} // namespace

std::optional<int64_t> ListDomainAccounts(const CopyPart& part, std::string_view text, const ListPage& page,
                                          const EachEntry& each)
{
    return ListCopied(ListCopiedAccounts, g_listedAccount, part, text, page, each);
}

std::optional<int64_t> ListDomainGroups(const CopyPart& part, std::string_view text, const ListPage& page,
                                        const EachEntry& each)
{
    return ListCopied(ListCopiedGroups, g_listedGroup, part, text, page, each);
}

uint32_t NumberOfListedAccount(std::string_view name)
{
    return NumberOf(g_listedAccount, name);
}

uint32_t NumberOfListedGroup(std::string_view name)
{
    return NumberOf(g_listedGroup, name);
}

std::optional<int64_t> ListSeenDomainAccounts(const CopyPart& part, std::string_view text,
                                              const ListPage& page, const EachEntry& each)
{
    if (!part.unit.empty()) {
        return std::nullopt;
    }
    const std::optional<std::string> sought = SearchText(text);
    const std::string beginning = part.domain.empty() ? "" : Spelled(part)->domain + '\\';
    if (!sought) {
        return 0;
    }
    Statement find = AccountsDatabase().Prepare("SELECT name, uid FROM directory_account WHERE kind = 2 AND "
                                                "name IS NOT NULL ORDER BY name");
    int64_t count = 0;
    while (find.Step()) {
        const std::string name = find.Text(0);
        if (!name.starts_with(beginning) ||
            SearchText(name).value_or("").find(*sought) == std::string::npos) {
            continue;
        }
        if (count >= page.offset && (page.limit < 0 || count - page.offset < page.limit)) {
            each({name.c_str(), static_cast<uint32_t>(find.Int(1)), ""});
        }
        ++count;
    }
    return count;
}

} // namespace tavr
