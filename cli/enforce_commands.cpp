// Who must use two-step sign-in. The library decides, lists and writes; the scopes around its calls are those
// of linux/policy_file.h.
#include "cli/commands.h"
#include "cli/console.h"
#include "linux/error.h"
#include "linux/names.h"
#include "linux/paths.h"
#include "linux/picks.h"
#include "linux/policy_file.h"
#include "linux/request.h"
#include "otp/OTPEnforceHandler.h"
#include "platform/core.h"
#include "platform/json.h"
#include "platform/users.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <memory>

namespace tavr::console
{

namespace
{

constexpr int kTries = 5; // of an explanation, while somebody changes what it tells

[[noreturn]] void FailUnavailable(const std::string& what)
{
    throw Failure(Exit::Failed, "policy_unavailable", what + "; the system log says why");
}

const PickType& TypeOf(const std::string& name)
{
    const auto* found = std::find_if(std::begin(kPickTypes), std::end(kPickTypes),
                                     [&](const PickType& type) { return type.name == name; });
    if (found == std::end(kPickTypes)) {
        throw Failure(Exit::Usage, "bad_type", "there is no type " + name + " (see tavrctl(8))");
    }
    return *found;
}

const char* KindText(int kind)
{
    return kind == kKindDomain ? "domain" : kind == kKindLdap ? "LDAP" : "local";
}

// --- Names and numbers ---

struct FreeRecord {
    void operator()(TAVRUser* user) const noexcept { TAVRUserFree(user); }
};
using UserRecord = std::unique_ptr<TAVRUser, FreeRecord>;

std::string Canonical(const std::string& typed)
{
    std::optional<std::string> name = CanonicalName(typed);
    if (!name) {
        throw Failure(Exit::Usage, "bad_name", "this is no name of an account or a group");
    }
    return std::move(*name);
}

// Not there, or not known: the platform's calls do not say which, the request does.
[[noreturn]] void FailNotFound(const char* key, const std::string& what)
{
    if (CurrentRequest().fault != Fault::None) {
        throw Failure(Exit::Failed, "accounts",
                      what + " cannot be looked up: " + FaultText(CurrentRequest().fault));
    }
    throw Failure(Exit::NotFound, key, "there is no " + what);
}

UserRecord FindRecord(const std::string& name)
{
    TAVRUser* user = nullptr;
    if (TAVRUserGet(name.c_str(), &user) < 0) {
        FailNotFound("no_such_user", "user " + name);
    }
    return UserRecord(user);
}

uint32_t NumberOf(const PickType& type, const std::string& typed)
{
    const std::string name = Canonical(typed);
    if (type.groups) {
        uint32_t gid = 0;
        if (TAVRGroupGetGID(name.c_str(), &gid) < 0) {
            FailNotFound("no_such_group", "group " + name);
        }
        return gid;
    }
    const UserRecord user = FindRecord(name);
    if (user->kind != type.kind) {
        throw Failure(Exit::Usage, "bad_type",
                      name + " is " + KindText(user->kind) + ", not of the type " + type.name);
    }
    return user->uid;
}

// Of decimal digits; what the library reads out of a user entry.
std::optional<uint32_t> Decimal(const std::string& text)
{
    uint32_t number = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
    return problem == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// --- The picks ---

// The file's object; null when there is none yet.
Json::Value ReadPicks()
{
    Json::Value picks;
    const PolicyReading policy;
    if (!policy.Usable() || (KLIBCFileExist(kPolicyFile) != 0 && !JsonFromFile(kPolicyFile, picks))) {
        FailUnavailable("the picks cannot be used");
    }
    return picks;
}

Json::Value RowsOf(const PickType& type, const EnforceChoice& choice, bool enforced)
{
    Json::Value rows(Json::arrayValue);
    for (const std::string& typed : choice.names) {
        Json::Value row;
        if (choice.numbers && !Decimal(typed)) {
            throw Failure(Exit::Usage, "bad_number", typed + " is no number");
        }
        row["id"] = choice.numbers ? typed : std::to_string(NumberOf(type, typed));
        row["is_enforced"] = enforced;
        rows.append(std::move(row));
    }
    return rows;
}

void Save(const EnforceChoice& choice, bool enforced)
{
    const PickType& type = TypeOf(choice.type);
    const Json::Value rows = RowsOf(type, choice, enforced);
    {
        PolicyWriting policy;
        if (!policy.Usable()) {
            FailUnavailable("the picks cannot be changed");
        }
        if (OTPEnforceCustomSettingSet(type.name, rows) != 0 || !policy.Commit(nullptr)) {
            throw Failure(Exit::Failed, "write_failed", "the picks could not be stored and are as before");
        }
    }
    const std::string option = PolicyOption();
    Say(std::to_string(rows.size()) + (enforced ? " picked" : " not picked any more") + " as " + type.name +
        (option == "custom" ? "" : "; this counts with the option custom, and it is " + option));
    Json::Value answer;
    answer["type"] = type.name;
    answer["settings"] = rows;
    answer["option"] = option;
    Answer(std::move(answer));
}

// --- Why an account is asked ---

struct Facts {
    std::string name;
    UserRecord user;
    std::string option;
    bool isAdmin = false;
    bool userEntry = false;
    std::vector<uint32_t> groups;       // its own
    std::vector<uint32_t> groupEntries; // those of them that are picked
};

const char* TypeNameOf(int kind, bool groups)
{
    const auto* found = std::find_if(std::begin(kPickTypes), std::end(kPickTypes), [&](const PickType& type) {
        return type.kind == kind && type.groups == groups;
    });
    return found == std::end(kPickTypes) ? kPickTypes[groups ? 1 : 0].name : found->name;
}

struct FreeMalloc {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

std::vector<uint32_t> GroupsOfName(const std::string& name)
{
    uint32_t* found = nullptr;
    int count = 0;
    if (KLIBGroupInfoGidGet(name.c_str(), 0, &found, &count) < 0) {
        FailNotFound("no_such_user", "group list of " + name);
    }
    const std::unique_ptr<uint32_t[], FreeMalloc> gids(found);
    return {found, found + count};
}

bool HoldsNumber(const Json::Value& list, uint32_t number)
{
    return std::any_of(list.begin(), list.end(),
                       [&](const Json::Value& entry) { return Decimal(entry.asString()) == number; });
}

bool HoldsText(const Json::Value& list, const std::string& text)
{
    return std::any_of(list.begin(), list.end(),
                       [&](const Json::Value& entry) { return entry.asString() == text; });
}

Facts FactsOf(const std::string& name)
{
    Facts facts{name, FindRecord(name), PolicyOption(), false, false, GroupsOfName(name), {}};
    const int isAdmin = KLIBGroupIsAdminGroupMem(name.c_str(), 0);
    if (isAdmin < 0) {
        FailNotFound("no_such_user", "user " + name);
    }
    facts.isAdmin = isAdmin == 1;
    const Json::Value picks = ReadPicks();
    facts.userEntry = HoldsNumber(picks[TypeNameOf(facts.user->kind, false)], facts.user->uid);
    const Json::Value& groups = picks[TypeNameOf(facts.user->kind, true)];
    std::copy_if(facts.groups.begin(), facts.groups.end(), std::back_inserter(facts.groupEntries),
                 [&](uint32_t gid) { return HoldsText(groups, std::to_string(gid)); });
    return facts;
}

struct Reason {
    bool demanded;
    const char* key;
    const char* text;
};

// What the facts say, for the sentence beside the library's verdict.
Reason ReasonOf(const Facts& facts)
{
    if (facts.option == "user") {
        return {true, "everybody", "the option demands it of everybody"};
    }
    if (facts.option == "admin") {
        return facts.isAdmin
                   ? Reason{true, "administrator", "the option demands it of administrators, and this is one"}
                   : Reason{false, "no_administrator", "the option demands it of administrators alone"};
    }
    if (facts.option != "custom") {
        return {false, "nobody", "the option demands it of nobody"};
    }
    if (facts.userEntry) {
        return {true, "user_entry", "the account is picked"};
    }
    return facts.groupEntries.empty()
               ? Reason{false, "no_entry", "neither the account nor a group of it is picked"}
               : Reason{true, "group_entry", "a group of the account is picked"};
}

std::string Listed(const std::vector<uint32_t>& gids)
{
    std::string text;
    for (const uint32_t gid : gids) {
        text += (text.empty() ? "" : ", ") + std::to_string(gid);
    }
    return text.empty() ? "-" : text;
}

Json::Value ToJson(const std::vector<uint32_t>& gids)
{
    Json::Value list(Json::arrayValue);
    for (const uint32_t gid : gids) {
        list.append(gid);
    }
    return list;
}

void TellFacts(const Facts& facts, const Reason& reason)
{
    const int kind = facts.user->kind;
    Say(facts.name + ": two-step sign-in is " + (reason.demanded ? "demanded" : "not demanded") + ", as " +
        reason.text);
    Say("option\t" + facts.option);
    Say("account\t" + std::to_string(facts.user->uid) + ", " + KindText(kind) +
        (facts.isAdmin ? ", an administrator" : ", no administrator"));
    Say("groups\t" + Listed(facts.groups));
    Say(std::string("in ") + TypeNameOf(kind, false) + "\t" + (facts.userEntry ? "yes" : "no"));
    Say(std::string("in ") + TypeNameOf(kind, true) + "\t" + Listed(facts.groupEntries));
    Json::Value answer;
    answer["user"] = facts.name;
    answer["uid"] = facts.user->uid;
    answer["kind"] = kind;
    answer["option"] = facts.option;
    answer["is_admin"] = facts.isAdmin;
    answer["groups"] = ToJson(facts.groups);
    answer["user_entry"] = facts.userEntry;
    answer["group_entries"] = ToJson(facts.groupEntries);
    answer["demanded"] = reason.demanded;
    answer["because"] = reason.key;
    Answer(std::move(answer));
}

} // namespace

void ShowPolicy()
{
    const Json::Value picks = ReadPicks();
    const std::string option = PolicyOption();
    Json::Value answer;
    Say("option\t" + option);
    answer["option"] = option;
    for (const PickType& type : kPickTypes) {
        const Json::Value& list = picks[type.name];
        Say(std::string(type.name) + '\t' + std::to_string(list.size()));
        answer["picks"][type.name] = list.size();
    }
    Answer(std::move(answer));
}

void SetPolicyOption(const std::string& option)
{
    switch (ChangePolicyOption(option, nullptr)) {
    case OptionChange::PicksUnusable:
        FailUnavailable("the picks cannot be used");
    case OptionChange::NotWritten:
        throw Failure(Exit::Failed, "write_failed", "the option could not be stored and is as before");
    case OptionChange::Done:
        break;
    }
    Say("the option is " + option);
    Json::Value answer;
    answer["option"] = option;
    Answer(std::move(answer));
}

void AddPicks(const EnforceChoice& choice)
{
    Save(choice, true);
}

void RemovePicks(const EnforceChoice& choice)
{
    Save(choice, false);
}

[[noreturn]] void FailUnlistable(const PickType& type)
{
    if (KLIBCErrGet() == static_cast<int>(Error::DomainNotCopied)) {
        throw Failure(Exit::Failed, "domain_not_copied",
                      "there is no copy of the domain to be listed; make it with tavrctl domain sync");
    }
    if (KLIBCErrGet() == static_cast<int>(Error::DirectoryNotConfigured)) {
        throw Failure(Exit::Failed, "directory_not_configured",
                      type.kind == kKindDomain
                          ? "no domain is set up; see the settings domain_* in /etc/tavrinfo.conf"
                          : "no LDAP directory is set up; see the settings ldap_* in /etc/tavrinfo.conf");
    }
    throw Failure(Exit::Failed, "list_failed",
                  "the accounts or groups cannot be listed; the system log says why");
}

void ListPolicy(const EnforceList& asked)
{
    const PickType& type = TypeOf(asked.type);
    int total = 0;
    Json::Value rows;
    {
        const PolicyReading policy;
        if (!policy.Usable()) {
            FailUnavailable("the picks cannot be used");
        }
        if (OTPEnforceCustomSettingList(asked.offset, asked.limit, type.name, asked.query, asked.domain,
                                        asked.filter, total, rows) != 0) {
            FailUnlistable(type);
        }
    }
    for (const Json::Value& row : rows) {
        Say(row["id"].asString() + '\t' + row["name"].asString() + '\t' +
            (row["is_enforced"].asBool() ? "picked" : "-") + '\t' + row["desc"].asString());
    }
    Json::Value answer;
    answer["total"] = total;
    answer["rows"] = std::move(rows);
    Answer(std::move(answer));
}

// Facts and verdict are looked up one after the other, and somebody may change the policy in between.
void ExplainPolicy(const std::string& typedName)
{
    const std::string name = Canonical(typedName);
    for (int i = 0; i < kTries; ++i) {
        const Facts facts = FactsOf(name);
        const std::optional<bool> demanded = AskPolicy(OTPEnforceIsEnabled, name);
        if (!demanded) {
            FailUnavailable("it cannot be told whether two-step sign-in is demanded of " + name);
        }
        const Reason reason = ReasonOf(facts);
        if (reason.demanded == *demanded) {
            TellFacts(facts, reason);
            return;
        }
    }
    throw Failure(Exit::Failed, "policy_changing", "the policy is being changed; ask again");
}

} // namespace tavr::console
