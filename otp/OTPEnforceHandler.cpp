#include "otp/OTPEnforceHandler.h"

#include "otp/OTPCommon.h"
#include "platform/conf.h"
#include "platform/core.h"
#include "platform/directory.h"
#include "platform/json.h"
#include "platform/users.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

constexpr char kSourceFile[] = "OTPEnforceHandler.cpp";
constexpr char kSettingFile[] = "/usr/tavr/etc/tavr_otp_enforce_custom_setting";

// The platform's codes of where an account comes from.
enum Source { kLocal = 1, kDomain = 2, kLdap = 8 };

// The types of the setting file.
struct SourceTypes {
    int source;
    const char* users;
    const char* groups;
};
constexpr SourceTypes kTypes[] = {
    {kLocal, "local_user", "local_group"},
    {kDomain, "domain_user", "domain_group"},
    {kLdap, "ldap_user", "ldap_group"},
};

// --- the setting file ---

// Null when the file is absent; what could be parsed of it when it is broken.
Json::Value LoadCustomSetting()
{
    Json::Value setting;
    if (KLIBCFileExist(kSettingFile) != 0 && !JsonFromFile(kSettingFile, setting)) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to load OTP enforce setting for %s", kSettingFile);
    }
    return setting;
}

// Null when there is no such list. Not copied: it may be long.
const Json::Value& ListOf(const Json::Value& setting, const std::string& type)
{
    return setting[type];
}

// As the file has them: in byte-wise order, each once.
std::vector<std::string> SortedIds(const Json::Value& list)
{
    std::vector<std::string> ids;
    ids.reserve(list.size());
    for (const Json::Value& entry : list) {
        ids.push_back(entry.asString());
    }
    if (!std::is_sorted(ids.begin(), ids.end())) {
        std::sort(ids.begin(), ids.end());
    }
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
}

std::vector<std::string> Merge(std::vector<std::string> ids, const Json::Value& settings)
{
    std::set<std::string> added;
    std::set<std::string> removed;
    for (const Json::Value& row : settings) {
        const std::string id = row.get("id", "").asString();
        const bool enforced = row.get("is_enforced", false).asBool();
        (enforced ? added : removed).insert(id);
        (enforced ? removed : added).erase(id);
    }
    std::vector<std::string> kept;
    kept.reserve(ids.size());
    std::set_difference(std::make_move_iterator(ids.begin()), std::make_move_iterator(ids.end()),
                        removed.begin(), removed.end(), std::back_inserter(kept));
    ids.clear();
    std::set_union(std::make_move_iterator(kept.begin()), std::make_move_iterator(kept.end()), added.begin(),
                   added.end(), std::back_inserter(ids));
    return ids;
}

// Entries that stand at their place already are left alone: a long list costs more to make than to look at.
void StoreIds(const std::vector<std::string>& ids, Json::Value& list)
{
    if (!list.isArray()) {
        list = Json::Value(Json::arrayValue);
    }
    list.resize(static_cast<Json::ArrayIndex>(ids.size()));
    auto id = ids.begin();
    for (Json::Value& entry : list) {
        if (!entry.isString() || entry.asString() != *id) {
            entry = *id;
        }
        ++id;
    }
}

// In place: the file keeps its owner and mode. False, and logged, when it could not be written whole.
bool StoreText(const std::string& text)
{
    const otp::File file(std::fopen(kSettingFile, "w"));
    if (!file) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to open file [%s]", kSettingFile);
        return false;
    }
    if (std::fwrite(text.data(), 1, text.size(), file.get()) < text.size() || std::fflush(file.get()) != 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to write settings to file [%s]", kSettingFile);
        return false;
    }
    return true;
}

// --- numbers ---

// Of decimal digits and nothing else; leading zeros do not count.
std::optional<uint32_t> NumberOf(std::string_view text)
{
    uint32_t number = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
    return problem == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// Those entries of a list that "%u" could have printed: no gid and no row has an id like one of the others.
std::vector<uint32_t> PrintedNumbers(const Json::Value& list)
{
    std::vector<uint32_t> numbers;
    numbers.reserve(list.size());
    for (const Json::Value& entry : list) {
        const std::string text = entry.asString();
        const auto number = NumberOf(text);
        if (number && (text == "0" || text.front() != '0')) {
            numbers.push_back(*number);
        }
    }
    return numbers;
}

// --- the decision ---

const SourceTypes& TypesOf(int kind)
{
    const auto* found = std::find_if(std::begin(kTypes), std::end(kTypes),
                                     [&](const SourceTypes& types) { return types.source == kind; });
    return found == std::end(kTypes) ? kTypes[0] : *found; // any other kind is local
}

bool HoldsNumber(const Json::Value& list, uint32_t wanted)
{
    return std::any_of(list.begin(), list.end(),
                       [&](const Json::Value& entry) { return NumberOf(entry.asString()) == wanted; });
}

// False, and logged, when the account's groups cannot be told.
bool IsInOneOf(const std::string& account, const std::vector<uint32_t>& listed)
{
    uint32_t* found = nullptr;
    int count = 0;
    const int result = KLIBGroupInfoGidGet(account.c_str(), 0, &found, &count);
    const std::unique_ptr<uint32_t[], otp::FreeMalloc> gids(found);
    if (result < 0) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get group gids for [%s]", account.c_str());
        return false;
    }
    if (count < 1) {
        return false;
    }
    // The short list is sorted, the long one is walked through.
    std::sort(found, found + count);
    return std::any_of(listed.begin(), listed.end(),
                       [&](uint32_t gid) { return std::binary_search(found, found + count, gid); });
}

bool IsPicked(const std::string& account)
{
    const Json::Value setting = LoadCustomSetting();
    const otp::UserRecord user = otp::FindUser(account.c_str());
    if (!user) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get uid for [%s]", account.c_str());
        return false;
    }
    const SourceTypes& types = TypesOf(user->kind);
    if (HoldsNumber(ListOf(setting, types.users), user->uid)) {
        return true;
    }
    const Json::Value& groups = ListOf(setting, types.groups);
    if (groups.size() == 0) { // empty() is false for a text, which holds no groups either
        return false;
    }
    return IsInOneOf(account, PrintedNumbers(groups));
}

// --- rows ---

const char* TextOrEmpty(const char* text)
{
    return text == nullptr ? "" : text;
}

// Takes every entry of an enumeration and keeps the rows of one page, so that a list of all accounts needs no
// more memory than a page of it.
class RowList
{
public:
    // `enforced` is sorted.
    RowList(std::vector<uint32_t> enforced, const std::string& filter, int offset, int limit)
        : enforced_(std::move(enforced)),
          takesEnforced_(filter == "all" || filter == "enforced"),
          takesUnenforced_(filter == "all" || filter == "unenforced"),
          offset_(offset),
          limit_(limit)
    {
    }

    // A null description makes a row without one.
    void Add(uint32_t number, const char* name, const char* description)
    {
        const bool enforced = std::binary_search(enforced_.begin(), enforced_.end(), number);
        if (!(enforced ? takesEnforced_ : takesUnenforced_)) {
            return;
        }
        const int64_t index = count_++;
        if (index < offset_ || (limit_ != -1 && index - offset_ >= limit_)) {
            return;
        }
        Json::Value& row = NextRow();
        auto member = row.begin(); // in the order of their names
        *member = TextOrEmpty(description);
        *++member = std::to_string(number);
        ++member;
        if (enforced) {
            *member = true;
        }
        *++member = name;
        if (description == nullptr) {
            row.removeMember("desc");
        }
    }

    // How many rows the filter has let through, those of other pages too.
    [[nodiscard]] int Count() const { return count_; }

    [[nodiscard]] Json::Value& Rows()
    {
        rows_.resize(kept_);
        return rows_;
    }

private:
    // After a few rows a page of them may come: its places are made together, which takes less than one by
    // one.
    Json::Value& NextRow()
    {
        if (kept_ == kFew) {
            MakePlaces();
        }
        const Json::ArrayIndex index = kept_++;
        if (index < kFew || index >= kPage) {
            return rows_.append(EmptyRow());
        }
        Json::Value& row = *place_;
        ++place_;
        return row;
    }

    void MakePlaces()
    {
        Json::Value page = EmptyPage();
        place_ = page.begin();
        for (Json::Value& row : rows_) {
            row.swap(*place_);
            ++place_;
        }
        rows_.swap(page);
    }

    // Both are copied, as looking for a place for each member takes longer than everything else about a row.
    // The names are literals, which the rows need not copy.
    static const Json::Value& EmptyRow()
    {
        static const Json::Value row = [] {
            Json::Value made(Json::objectValue);
            for (const char* name : {"desc", "id", "is_enforced", "name"}) {
                made[Json::StaticString(name)] = Json::Value();
            }
            made["is_enforced"] = false;
            return made;
        }();
        return row;
    }

    static const Json::Value& EmptyPage()
    {
        static const Json::Value page = [] {
            Json::Value made(Json::arrayValue);
            for (Json::ArrayIndex i = 0; i < kPage; ++i) {
                made.append(EmptyRow());
            }
            return made;
        }();
        return page;
    }

    static constexpr Json::ArrayIndex kFew = 4;
    static constexpr Json::ArrayIndex kPage = 50;

    std::vector<uint32_t> enforced_;
    bool takesEnforced_;
    bool takesUnenforced_;
    int64_t offset_; // wide: a difference of two of these may be wider than they are
    int64_t limit_;
    int count_ = 0;
    Json::Value rows_ = Json::Value(Json::arrayValue);
    Json::ArrayIndex kept_ = 0;   // rows that are filled
    Json::Value::iterator place_; // of the next one, from MakePlaces to the page's end
};

// Called back with the RowList as user data: 0 for an entry that is taken, -1 for one that is dropped.

int AppendUserRow(const KLIBUserInfo* entry, void* userData)
{
    auto& rows = *static_cast<RowList*>(userData);
    if (entry->name == nullptr) {
        return -1;
    }
    if (entry->source != kLdap) {
        rows.Add(entry->uid, entry->name, TextOrEmpty(entry->description));
        return 0;
    }
    const otp::UserRecord user = otp::FindUser(entry->name);
    if (!user) {
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get uid for [%s]", entry->name);
        return -1;
    }
    rows.Add(user->uid, entry->name, TextOrEmpty(user->description));
    return 0;
}

int AppendGroupRow(const KLIBGroupInfo* entry, void* userData)
{
    auto& rows = *static_cast<RowList*>(userData);
    if (entry->name == nullptr) {
        return -1;
    }
    uint32_t gid = entry->gid;
    char* description = nullptr;
    char* second = nullptr; // not looked at, and the platform's: it need not be malloc's
    if (entry->source == kLdap) {
        gid = 0; // and so it stays when the look-up fails
        TAVRLDAPGroupDescGet(entry->name, &description, &second);
        TAVRGroupGetGID(entry->name, &gid);
    } else {
        TAVRGroupDescGet(entry->name, &description, &second);
    }
    const otp::MallocText owned(description);
    rows.Add(gid, entry->name, TextOrEmpty(description));
    return 0;
}

// What the domain directory knows of an entry. Null: no such field.
struct DomainEntry {
    DomainEntry(int count, char** values, char** names)
    {
        for (int i = 0; i < count; ++i) {
            if (strcasecmp(names[i], "Name") == 0) {
                name = TextOrEmpty(values[i]);
            } else if (strcasecmp(names[i], "Description") == 0) {
                description = TextOrEmpty(values[i]);
            }
        }
    }
    const char* name = nullptr;
    const char* description = nullptr;
};

int AppendDomainUserRow(int count, char** values, char** names, void* userData)
{
    const DomainEntry entry(count, values, names);
    uint32_t uid = 0;
    if (entry.name == nullptr || TAVRUserGetUGID(entry.name, &uid, nullptr) != 0) {
        return -1;
    }
    static_cast<RowList*>(userData)->Add(uid, entry.name, entry.description);
    return 0;
}

int AppendDomainGroupRow(int count, char** values, char** names, void* userData)
{
    const DomainEntry entry(count, values, names);
    uint32_t gid = 0;
    if (entry.name == nullptr || TAVRGroupGetGID(entry.name, &gid) != 0) {
        return -1;
    }
    static_cast<RowList*>(userData)->Add(gid, entry.name, entry.description);
    return 0;
}

// --- enumerations: the number of matching entries, negative on failure ---

struct Listing {
    int source;
    bool groups;
};

Listing ListingOf(const std::string& type)
{
    for (const SourceTypes& types : kTypes) {
        if (type == types.users || type == types.groups) {
            return {types.source, type == types.groups};
        }
    }
    return {kLocal, false};
}

struct Search {
    int offset;
    int limit;
    const std::string& query;
    const std::string& domain;
};

int EnumCore(const Listing& listing, const Search& search, RowList& rows)
{
    const char* domain = search.domain.c_str();
    const char* query = search.query.c_str();
    return listing.groups ? KLIBGroupInfoEnumBySubstr(listing.source, domain, search.offset, search.limit,
                                                      query, 1, AppendGroupRow, &rows)
                          : KLIBUserInfoEnumBySubstr(listing.source, domain, search.offset, search.limit,
                                                     query, 1, AppendUserRow, &rows);
}

// The platform wants it back even when it could not be made.
struct DomainOption {
    TAVRWinsDomainEnumOpt* option = nullptr;
    DomainOption() = default;
    DomainOption(const DomainOption&) = delete;
    DomainOption& operator=(const DomainOption&) = delete;
    ~DomainOption() { TAVRWinsDomainEnumOptFree(option); }
};

int EnumDomainUserGroup(const Listing& listing, const Search& search, RowList& rows)
{
    DomainOption owner;
    if (TAVRWinsDomainEnumOptAlloc(&owner.option) < 0) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "TAVRWinsDomainEnumOptAlloc failed [0x%04X %s:%d]",
                error.code, error.file, error.line);
        return -1;
    }
    TAVRWinsDomainEnumOpt* option = owner.option;
    if (TAVRWinsDomainEnumOptAddSearchFields(option, "Name") < 0 ||
        TAVRWinsDomainEnumOptAddSearchFields(option, "Description") < 0) {
        return -1;
    }
    TAVRWinsDomainEnumOptSetStart(option, search.offset);
    TAVRWinsDomainEnumOptSetLimit(option, search.limit);
    TAVRWinsDomainEnumOptSetUGType(option, listing.groups ? 1 : 0);
    if (!search.query.empty()) {
        TAVRWinsDomainEnumOptSetSearchSubString(option, search.query.c_str());
    }
    if (TAVRWinIsEnableTrustDomain() != 0) {
        TAVRWinsDomainEnumOptSetDomain(option, search.domain.c_str());
    } else {
        TAVRWinsDomainEnumOptSetOU(option, search.domain.c_str());
    }
    const int count = TAVRWinsDomainCoreFullDbEnum(
        option, listing.groups ? AppendDomainGroupRow : AppendDomainUserRow, &rows);
    return count < 0 ? EnumCore(listing, search, rows) : count;
}

} // namespace

int OTPEnforceCustomSettingSet(const std::string& type, const Json::Value& settings)
{
    Json::Value setting = LoadCustomSetting();
    const std::vector<std::string> ids = Merge(SortedIds(ListOf(setting, type)), settings);
    StoreIds(ids, setting[type]);
    return StoreText(otp::CompactText(setting)) ? 0 : -1;
}

bool OTPEnforceIsEnabled(const std::string& account)
{
    TavrConf conf;
    const std::string option = conf.Info("otp_enforce_option", "");
    if (option == "user") {
        return true;
    }
    if (option == "admin") {
        return KLIBGroupIsAdminGroupMem(account.c_str(), 0) == 1;
    }
    return option == "custom" && IsPicked(account);
}

int OTPEnforceCustomSettingList(int offset, int limit, const std::string& type, const std::string& query,
                                const std::string& domain, const std::string& filter, int& total,
                                Json::Value& rows)
{
    std::vector<uint32_t> enforced = PrintedNumbers(ListOf(LoadCustomSetting(), type));
    std::sort(enforced.begin(), enforced.end());

    // One of the two pages: the platform does when nothing is filtered, this library when something is.
    const bool all = filter == "all";
    RowList list(std::move(enforced), filter, all ? 0 : offset, all ? -1 : limit);
    const Search search{all ? offset : 0, all ? limit : -1, query, domain};
    const Listing listing = ListingOf(type);
    total = listing.source == kDomain ? EnumDomainUserGroup(listing, search, list)
                                      : EnumCore(listing, search, list);
    if (total < 0) {
        const otp::PlatformError error;
        OTP_LOG(LOG_ERR, kSourceFile, __LINE__, "Failed to get user / group list for [%s] [0x%04X %s:%d]",
                type.c_str(), error.code, error.file, error.line);
        return -1;
    }
    if (!all) {
        total = list.Count();
    }
    rows.swap(list.Rows());
    return 0;
}
