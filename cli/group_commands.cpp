#include "cli/commands.h"
#include "cli/console.h"
#include "linux/audit.h"
#include "linux/session.h"

namespace tavr::console
{

namespace
{

Json::Value ToJson(const Group& group)
{
    Json::Value entry;
    entry["name"] = group.name;
    entry["gid"] = group.gid;
    entry["description"] = group.description;
    return entry;
}

void AnswerGroup(const Group& group)
{
    Json::Value answer;
    answer["group"] = ToJson(group);
    Answer(std::move(answer));
}

void AnswerMembership(const Account& account, const Group& group)
{
    Json::Value answer;
    answer["group"] = group.name;
    answer["user"] = account.name;
    Answer(std::move(answer));
}

// Other rights want a new session.
void EndSessionsOfOtherRights(const Account& account, const Group& group)
{
    if (group.name == kAdministrators) {
        EndSessionsOf(account.uid);
        Audit(AuditEvent::SessionsEnded, account, "rights");
    }
}

std::string Joined(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text.empty() ? "-" : text;
}

} // namespace

void AddGroupCommand(const std::string& typedName, const std::string& description)
{
    RequireEmbeddedAccounts();
    const std::string name = LocalName(typedName);
    if (const char* problem = DescriptionProblem(description)) {
        throw Failure(Exit::Usage, "bad_description", std::string("the description is refused: ") + problem);
    }
    const auto added = AddGroup(name, description);
    if (!added) {
        throw Failure(Exit::Exists, "group_exists", "there is a group " + name + " already");
    }
    Say("added group " + added->name + " with number " + std::to_string(added->gid));
    AnswerGroup(*added);
}

void RemoveGroupCommand(const std::string& typedName)
{
    RequireEmbeddedAccounts();
    const Group group = ExistingGroup(typedName);
    if (IsBuiltIn(group)) {
        throw Failure(Exit::NotAllowed, "built_in",
                      "the group " + group.name + " belongs to the system and stays");
    }
    if (!RemoveGroup(group)) {
        throw Failure(Exit::NotFound, "no_such_group", group.name + " has just been removed");
    }
    Say("removed group " + group.name);
    AnswerGroup(group);
}

void ListGroups()
{
    if (!IsJson()) {
        ForEachGroup([](const Group& group) {
            // Everybody is in `users`; its list would say what `user list` says.
            const bool holdsAll = IsBuiltIn(group) && group.name == kUsers;
            const std::string members = holdsAll ? "all" : Joined(MembersOf(group));
            Say(std::to_string(group.gid) + '\t' + group.name + '\t' + members + '\t' + group.description);
        });
        return;
    }
    JsonList list("groups");
    ForEachGroup([&](const Group& group) {
        Json::Value entry = ToJson(group);
        entry["members"] = Json::Value(Json::arrayValue);
        for (const std::string& member : MembersOf(group)) {
            entry["members"].append(member);
        }
        list.Add(entry);
    });
    list.End();
}

void JoinGroupCommand(const std::string& typedGroup, const std::string& typedUser)
{
    RequireEmbeddedAccounts();
    const Group group = ExistingGroup(typedGroup);
    const Account account = ExistingAccount(typedUser);
    const bool joined = JoinGroup(account, group);
    if (joined) {
        EndSessionsOfOtherRights(account, group);
    }
    Say("user " + account.name + (joined ? " joined " + group.name : " is in " + group.name + " already"));
    AnswerMembership(account, group);
}

void LeaveGroupCommand(const std::string& typedGroup, const std::string& typedUser)
{
    RequireEmbeddedAccounts();
    const Group group = ExistingGroup(typedGroup);
    const Account account = ExistingAccount(typedUser);
    if (account.gid == group.gid) {
        throw Failure(Exit::NotAllowed, "primary_group",
                      group.name + " is the primary group of " + account.name + " and cannot be left");
    }
    if (!LeaveGroup(account, group)) {
        throw Failure(Exit::NotFound, "no_member", "user " + account.name + " is not in " + group.name);
    }
    EndSessionsOfOtherRights(account, group);
    Say("user " + account.name + " left " + group.name);
    AnswerMembership(account, group);
}

} // namespace tavr::console
