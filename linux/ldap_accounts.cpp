#include "linux/ldap_accounts.h"

#include "linux/directory_numbers.h"
#include "linux/ldap_entries.h"
#include "linux/names.h"
#include "linux/places.h"
#include "linux/policy_file.h"
#include "linux/request.h"

#include <syslog.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <set>
#include <utility>

namespace tavr
{

namespace
{

constexpr int kMostOfAName = 10; // entries that are asked for where one is expected
constexpr size_t kMostGroups = 5000;
constexpr int kMostNesting = 20;
constexpr size_t kGroupsAtOnce = 50; // in one filter

// What one request knows of the directory.
struct Asked {
    std::optional<LdapSettings> settings;
    std::unique_ptr<LdapConnection> connection;
    std::exception_ptr failure;
    std::optional<Person> person; // the last one, numbered
    std::optional<Account> shown; // by a list, at the moment: without its address
    std::optional<GroupEntry> group;
};

Asked& CurrentAsked()
{
    std::shared_ptr<void>& kept = CurrentRequest().directory;
    if (!kept) {
        auto made = std::make_shared<Asked>();
        made->settings = ReadLdapSettings();
        kept = std::move(made);
    }
    return *static_cast<Asked*>(kept.get());
}

// Calls ask(connection). One that failed stays until the request ends: a search that is under way further up
// may hold it.
template<class Ask>
void WithDirectory(Asked& asked, Ask ask)
{
    if (asked.failure) {
        std::rethrow_exception(asked.failure);
    }
    try {
        if (!asked.settings) {
            throw LdapError(LdapStep::Settings, "no directory is set up");
        }
        if (!asked.connection) {
            TakeDirectoryPlace();
            asked.connection = std::make_unique<LdapConnection>(*asked.settings);
        }
        ask(*asked.connection);
    } catch (const DirectoryError&) {
        asked.failure = std::current_exception();
        throw;
    }
}

// --- Searches ----------------------------------------------------------------------------------------------

std::string Equals(const std::string& attribute, std::string_view value)
{
    return '(' + attribute + '=' + FilterValue(value) + ')';
}

std::string Holds(const std::string& attribute, std::string_view text)
{
    return '(' + attribute + "=*" + FilterValue(text) + "*)";
}

std::string_view BareName(std::string_view canonicalName)
{
    return canonicalName.substr(0, canonicalName.find('@'));
}

LdapSearch UserSearch(const LdapSettings& settings, const std::string& narrower)
{
    return {settings.userBase,
            "(&" + settings.userFilter + narrower + ')',
            {settings.idAttribute, settings.userName, settings.userDescription, settings.userMail,
             "gidNumber", "memberOf"}};
}

// Asks for what tells accounts apart and what a list shows. Whatever else an entry holds, an address of any
// size, can then not take the other entries away.
LdapSearch UserRowSearch(const LdapSettings& settings, const std::string& narrower)
{
    return {settings.userBase,
            "(&" + settings.userFilter + narrower + ')',
            {settings.idAttribute, settings.userName, settings.userDescription}};
}

LdapSearch GroupSearch(const LdapSettings& settings, const std::string& narrower)
{
    return {settings.groupBase,
            "(&" + settings.groupFilter + narrower + ')',
            {settings.idAttribute, settings.groupName, settings.groupDescription}};
}

using MakeSearch = LdapSearch (*)(const LdapSettings& settings, const std::string& narrower);

// All entries of a bare name, but no more than it takes to know that there are several.
std::vector<Person> PersonsCalled(LdapConnection& connection, const LdapSettings& settings,
                                  std::string_view bare, MakeSearch make)
{
    std::vector<Person> found;
    LdapSearch search = make(settings, Equals(settings.userName, bare));
    search.most = kMostOfAName;
    const auto wanted = CanonicalName(std::string(bare) + '@' + settings.realm);
    connection.Search(search, [&](const LdapEntry& entry) {
        auto person = PersonOf(entry, settings);
        if (person && wanted == person->account.name) {
            found.push_back(std::move(*person));
        }
    });
    return found;
}

std::vector<Person> PersonsCalled(Asked& asked, std::string_view bare, MakeSearch make)
{
    std::vector<Person> found;
    WithDirectory(asked, [&](LdapConnection& connection) {
        found = PersonsCalled(connection, *asked.settings, bare, make);
    });
    return found;
}

std::optional<Person> OnlyOne(std::vector<Person> found, const std::string& name)
{
    if (found.size() > 1) {
        syslog(LOG_WARNING, "%s is the name of several entries, so of no account", name.c_str());
    }
    return found.size() == 1 ? std::optional(std::move(found.front())) : std::nullopt;
}

// Numbered, and kept for the request.
Person* FindPerson(const std::string& name)
{
    Asked& asked = CurrentAsked();
    if (asked.person && asked.person->account.name == name) {
        return &*asked.person;
    }
    std::optional<Person> person = OnlyOne(PersonsCalled(asked, BareName(name), UserSearch), name);
    if (!person) {
        return nullptr;
    }
    person->account.uid = NumberOfAccount(kKindLdap, {person->id, name});
    return &asked.person.emplace(std::move(*person));
}

const GroupEntry* FindGroupEntry(const std::string& name)
{
    Asked& asked = CurrentAsked();
    if (asked.group && asked.group->group.name == name) {
        return &*asked.group;
    }
    std::vector<GroupEntry> found;
    WithDirectory(asked, [&](LdapConnection& connection) {
        LdapSearch search = GroupSearch(*asked.settings, Equals(asked.settings->groupName, BareName(name)));
        search.most = kMostOfAName;
        connection.Search(search, [&](const LdapEntry& entry) {
            auto group = GroupOf(entry, *asked.settings);
            if (group && group->group.name == name) {
                found.push_back(std::move(*group));
            }
        });
    });
    if (found.size() != 1) {
        return nullptr;
    }
    const std::string ids[] = {found[0].id};
    found[0].group.gid = NumbersOfGroups(kKindLdap, ids)[0];
    return &asked.group.emplace(std::move(found.front()));
}

// --- Memberships -------------------------------------------------------------------------------------------

// Groups as they are found, each once: those whose own groups have still to be asked for stand in `open`.
struct FoundGroups {
    std::set<std::string> ids;
    std::set<std::string> dns;
    std::vector<std::string> open;

    void Add(const LdapEntry& entry, const LdapSettings& settings)
    {
        const std::string id = IdOf(entry, settings);
        if (id.empty()) {
            throw LdapError(LdapStep::Settings, "a group has no " + settings.idAttribute + ": " + entry.Dn());
        }
        if (ids.insert(id).second) {
            open.push_back(entry.Dn());
            dns.insert(entry.Dn());
        }
        if (ids.size() > kMostGroups) {
            throw LdapError(LdapStep::Search, "an account is in more groups than can be taken");
        }
    }
};

std::string HasMember(const LdapSettings& settings, const std::string& dn)
{
    return Equals(settings.groupMember, dn) + Equals("uniqueMember", dn);
}

std::vector<std::string> FindGroupsOf(LdapConnection& connection, const LdapSettings& settings,
                                      const Person& person)
{
    FoundGroups found;
    const auto take = [&](const LdapEntry& entry) { found.Add(entry, settings); };
    const auto groups = [&](const std::string& narrower) {
        LdapSearch search = GroupSearch(settings, narrower);
        search.attributes = {settings.idAttribute};
        return search;
    };
    std::string any = HasMember(settings, person.dn);
    for (const std::string& name : person.bareNames) {
        any += Equals("memberUid", name);
    }
    if (!person.primaryGroup.empty()) {
        any += Equals("gidNumber", person.primaryGroup);
    }
    connection.Search(groups("(|" + any + ')'), take);
    for (const std::string& dn : person.memberOf) {
        if (!found.dns.contains(dn)) {
            LdapSearch search = groups("");
            search.base = dn;
            search.baseOnly = true;
            connection.Search(search, take);
        }
    }
    for (int depth = 0; !found.open.empty(); ++depth) {
        if (depth == kMostNesting) {
            throw LdapError(LdapStep::Search, "groups are nested deeper than can be taken");
        }
        const std::vector<std::string> inner = std::exchange(found.open, {});
        for (size_t i = 0; i < inner.size(); i += kGroupsAtOnce) {
            std::string outer;
            for (size_t n = i; n < std::min(i + kGroupsAtOnce, inner.size()); ++n) {
                outer += HasMember(settings, inner[n]);
            }
            connection.Search(groups("(|" + outer + ')'), take);
        }
    }
    return {found.ids.begin(), found.ids.end()};
}

// --- Lists -------------------------------------------------------------------------------------------------

// Which entries of a list are on the page.
class Counter
{
public:
    explicit Counter(const ListPage& page) : page_(page) {}
    bool IsOnPage()
    {
        const int64_t index = count_++;
        return index >= page_.offset && (page_.limit < 0 || index - page_.offset < page_.limit);
    }
    [[nodiscard]] int64_t Count() const { return count_; }

private:
    const ListPage page_;
    int64_t count_ = 0;
};

// The decision is ours, so that a text is looked for as among local accounts; the server's is a sieve.
bool HoldsText(const std::string& name, const std::string& description, const std::string& sought)
{
    return SearchText(name).value_or("").find(sought) != std::string::npos ||
           SearchText(description).value_or("").find(sought) != std::string::npos;
}

bool HoldsText(const Person& person, const std::string& sought)
{
    return HoldsText(person.account.name, person.account.description, sought);
}

bool HoldsText(const GroupEntry& entry, const std::string& sought)
{
    return HoldsText(entry.group.name, entry.group.description, sought);
}

std::optional<std::string> Sought(std::string_view text)
{
    return text.size() <= kMaxName + kMaxDescription && IsPlainText(text) ? SearchText(text) : std::nullopt;
}

// What the server is asked for: entries that hold the text in their description, or in their name as far as
// that goes without "@" and realm.
std::string Sieve(const LdapSettings& settings, std::string_view text, const std::string& name,
                  const std::string& description)
{
    const bool inRealm = ('@' + settings.realm).find(SearchText(text).value_or("")) != std::string::npos;
    const std::string_view bare = BareName(text);
    return inRealm || bare.empty() ? '(' + name + "=*)"
                                   : "(|" + Holds(name, bare) + Holds(description, text) + ')';
}

// Whoever is called back asks for the account that he is shown.
class Shown
{
public:
    Shown(Asked& asked, const Account& account) : asked_(asked) { asked.shown = account; }
    ~Shown() { asked_.shown.reset(); }
    Shown(const Shown&) = delete;
    Shown& operator=(const Shown&) = delete;

private:
    Asked& asked_;
};

void ShowAccounts(Asked& asked, std::vector<Person>& batch, const EachEntry& each)
{
    std::vector<DirectoryEntry> entries;
    entries.reserve(batch.size());
    for (const Person& person : batch) {
        entries.push_back({person.id, person.account.name});
    }
    const auto numbers = NumbersOfAccounts(kKindLdap, entries);
    for (size_t i = 0; i < batch.size(); ++i) {
        Account& account = batch[i].account;
        if (numbers[i]) {
            account.uid = *numbers[i];
        } else {
            const std::string name = account.name;
            auto only = OnlyOne(PersonsCalled(asked, BareName(name), UserRowSearch), name);
            if (!only) {
                continue; // several have the name: counted, and not shown
            }
            account = std::move(only->account);
            account.uid = NumberOfAccount(kKindLdap, {only->id, name});
        }
        const Shown shown(asked, account);
        each({account.name.c_str(), account.uid, account.description.c_str()});
    }
    batch.clear();
}

void ShowGroups(Asked& asked, std::vector<GroupEntry>& batch, const EachEntry& each)
{
    std::vector<std::string> ids;
    ids.reserve(batch.size());
    for (const GroupEntry& entry : batch) {
        ids.push_back(entry.id);
    }
    const std::vector<uint32_t> numbers = NumbersOfGroups(kKindLdap, ids);
    for (size_t i = 0; i < batch.size(); ++i) {
        batch[i].group.gid = numbers[i];
        asked.group = batch[i];
        const Group group = batch[i].group;
        each({group.name.c_str(), group.gid, group.description.c_str()});
    }
    batch.clear();
}

// Entries are shown between two pages of the server, when nothing else is under way.
template<class Entry>
int64_t List(const LdapSearch& search, std::string_view text, const ListPage& page,
             std::optional<Entry> (*make)(const LdapEntry&, const LdapSettings&),
             void (*show)(Asked&, std::vector<Entry>&, const EachEntry&), const EachEntry& each)
{
    const std::optional<std::string> sought = Sought(text);
    if (!sought) {
        return 0;
    }
    Asked& asked = CurrentAsked();
    Counter counter(page);
    std::vector<Entry> batch;
    WithDirectory(asked, [&](LdapConnection& connection) {
        connection.Search(
            search,
            [&](const LdapEntry& entry) {
                auto made = make(entry, *asked.settings);
                if (made && HoldsText(*made, *sought) && counter.IsOnPage()) {
                    batch.push_back(std::move(*made));
                }
            },
            [&] { show(asked, batch, each); });
    });
    return counter.Count();
}

// The settings; throws where there are none.
const LdapSettings& Settings()
{
    const Asked& asked = CurrentAsked();
    if (!asked.settings) {
        throw LdapError(LdapStep::Settings, "no directory is set up");
    }
    return *asked.settings;
}

} // namespace

bool IsLdapSetUp()
{
    return CurrentAsked().settings.has_value();
}

bool IsLdapName(std::string_view canonicalName)
{
    const size_t at = canonicalName.find('@');
    if (at == std::string_view::npos || canonicalName.find('\\') != std::string_view::npos) {
        return false;
    }
    return IsLdapSetUp() && canonicalName.substr(at + 1) == Settings().realm;
}

std::optional<Account> FindLdapAccount(const std::string& canonicalName)
{
    const std::optional<Account>& shown = CurrentAsked().shown;
    if (shown && shown->name == canonicalName) {
        return shown;
    }
    const Person* person = FindPerson(canonicalName);
    return person != nullptr ? std::optional(person->account) : std::nullopt;
}

std::optional<Group> FindLdapGroup(const std::string& canonicalName)
{
    const GroupEntry* found = FindGroupEntry(canonicalName);
    return found != nullptr ? std::optional(found->group) : std::nullopt;
}

std::string MailOfLdapAccount(const Account& account)
{
    const Person* person = FindPerson(account.name);
    return person != nullptr && person->account.uid == account.uid ? person->account.mail : "";
}

std::optional<Account> CheckLdapPassword(const std::string& canonicalName, std::string_view password)
{
    if (PasswordProblem(password) != nullptr) {
        return std::nullopt;
    }
    Person* const person = FindPerson(canonicalName);
    Person nobody; // whose name costs the same questions
    nobody.dn = "cn=nobody," + Settings().userBase;
    Person& asked = person != nullptr ? *person : nobody;
    bool right = false;
    WithDirectory(CurrentAsked(), [&](LdapConnection& connection) {
        if (PolicyOption() == "custom") { // asks for them next, which after this bind would take a third one
            asked.groups = FindGroupsOf(connection, Settings(), asked);
        }
        right = connection.IsPassword(asked.dn, person != nullptr ? password : "-") && person != nullptr;
    });
    return right ? std::optional(person->account) : std::nullopt;
}

std::vector<uint32_t> GroupsOfLdapAccount(const std::string& canonicalName)
{
    Person* const person = FindPerson(canonicalName);
    if (person == nullptr) {
        return {};
    }
    if (!person->groups) {
        WithDirectory(CurrentAsked(), [&](LdapConnection& connection) {
            person->groups = FindGroupsOf(connection, Settings(), *person);
        });
    }
    return NumbersOfGroups(kKindLdap, *person->groups);
}

int64_t ListLdapAccounts(std::string_view text, const ListPage& page, const EachEntry& each)
{
    const LdapSettings& settings = Settings();
    return List<Person>(
        UserRowSearch(settings, Sieve(settings, text, settings.userName, settings.userDescription)), text,
        page, PersonOf, ShowAccounts, each);
}

int64_t ListLdapGroups(std::string_view text, const ListPage& page, const EachEntry& each)
{
    const LdapSettings& settings = Settings();
    return List<GroupEntry>(
        GroupSearch(settings, Sieve(settings, text, settings.groupName, settings.groupDescription)), text,
        page, GroupOf, ShowGroups, each);
}

std::optional<UnnumberedAccount> AskLdapAccount(const LdapSettings& settings,
                                                const std::string& canonicalName)
{
    LdapConnection connection(settings);
    auto person =
        OnlyOne(PersonsCalled(connection, settings, BareName(canonicalName), UserSearch), canonicalName);
    if (!person) {
        return std::nullopt;
    }
    return UnnumberedAccount{std::move(person->account), std::move(person->id)};
}

Account Numbered(UnnumberedAccount found)
{
    found.account.uid = NumberOfAccount(kKindLdap, {found.id, found.account.name});
    return std::move(found.account);
}

LdapMatches FindLdapEntries(std::string_view bareName)
{
    const std::vector<Person> found = PersonsCalled(CurrentAsked(), bareName, UserRowSearch);
    return {static_cast<int>(found.size()), found.empty() ? "" : found.front().dn};
}

std::optional<Account> ReadLdapEntry(const std::string& dn)
{
    Asked& asked = CurrentAsked();
    std::optional<Account> account;
    WithDirectory(asked, [&](LdapConnection& connection) {
        LdapSearch search = UserSearch(*asked.settings, "");
        search.base = dn;
        search.baseOnly = true;
        connection.Search(search, [&](const LdapEntry& entry) {
            if (auto person = PersonOf(entry, *asked.settings)) {
                account = std::move(person->account);
            }
        });
    });
    return account;
}

} // namespace tavr
