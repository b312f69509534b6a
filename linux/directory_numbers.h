// Numbers of what stands in directories: every account and every group gets one of the platform's own, by the
// identifier that the directory gives it once (entryUUID, SID), and never one that another has had. Renaming
// and moving change nothing about it; what was removed and made anew is somebody else.
//
// Of accounts the name is kept too, so that sessions, secrets and the console find them without the
// directory. Functions throw DatabaseError when the store cannot be used; a thread hands them its own
// connection to it.
#pragma once

#include "linux/database.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tavr
{

struct DirectoryEntry {
    std::string id;   // stable
    std::string name; // canonical
};

// The numbers of accounts, in their order. A name goes with one number, so an account whose name stands with
// another one gets none here: somebody has to ask the directory whose it is.
std::vector<std::optional<uint32_t>> NumbersOfAccounts(int kind, std::span<const DirectoryEntry> entries,
                                                       Database& store = AccountsDatabase());

// The number of an account whose name is its own and nobody else's, as the directory has just said. A former
// owner of the name loses it, and what its preference directory holds is deleted; an account that is called
// otherwise by now takes its own along.
uint32_t NumberOfAccount(int kind, const DirectoryEntry& entry);

// The numbers of groups, by their identifiers.
std::vector<uint32_t> NumbersOfGroups(int kind, std::span<const std::string> ids,
                                      Database& store = AccountsDatabase());

// For who keeps names together with numbers: how often accounts have got other names, or lost theirs, by now;
// and which of them have since that was the count.
int64_t RenamedUntilNow(Database& store = AccountsDatabase());
void ForEachRenamedSince(int64_t count, int kind,
                         const std::function<void(uint32_t uid, const std::string& id)>& each,
                         Database& store = AccountsDatabase());

} // namespace tavr
