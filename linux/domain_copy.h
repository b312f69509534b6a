// The copy of the domains' directories: accounts and groups of the domain that this server has joined, and of
// those that it trusts, for lists. Refreshed by one process at a time, read by every one.
//
// What it says is as old as it is, so it decides nothing: who signs in and which groups he is in, the system
// is asked each time. Functions throw DatabaseError when the copy cannot be used.
#pragma once

#include "linux/account_list.h"
#include "linux/descriptor.h"
#include "linux/ldap.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tavr
{

// --- Refreshing --------------------------------------------------------------------------------------------

// A directory that is copied: what its accounts are called, how it is asked, and for what.
struct CopiedDomain {
    std::string name; // what stands before the backslash
    LdapSettings ldap;
    int pageSize = 0; // entries in one answer
};

// What is to be copied, as the settings say: the own domain first, then those that it trusts. None: there is
// to be no copy. Throws LdapError where the settings cannot be used.
struct CopyPlan {
    std::vector<CopiedDomain> domains;
    int64_t refreshSeconds = 0;
};
CopyPlan ReadCopyPlan();

struct CopyCounts {
    int64_t accounts = 0;
    int64_t groups = 0;
    int64_t leftOut = 0; // entries without one name and identifier, or with a name that others have too
    bool operator==(const CopyCounts&) const = default;
};

class Interrupted : public std::runtime_error
{
public:
    Interrupted() : std::runtime_error("interrupted") {}
};

// The right to refresh, which one process has at a time.
class CopyRunner
{
public:
    CopyRunner();                                                       // takes it, if it is free
    explicit operator bool() const { return static_cast<bool>(lock_); } // false: another one is at it

    // Reads a directory page by page, and changes the copy in one transaction at the end: readers see the
    // former one or the new one. `goOn` is asked after each page, with the number of entries by then; when it
    // says no, Interrupted is thrown. After any exception the copy is the former one, and says why.
    CopyCounts Refresh(const CopiedDomain& domain, const std::function<bool(int64_t)>& goOn);

    // Removes what is copied of other domains than these.
    void KeepOnly(std::span<const CopiedDomain> domains);

private:
    Descriptor lock_;
};

// How many entries the runner has read by now; empty while there is none.
std::optional<int64_t> CopyProgress();

// --- Asking ------------------------------------------------------------------------------------------------

struct CopyState {
    std::string domain;
    std::optional<int64_t> made; // WallSeconds at which the directory was as it says; empty: no copy yet
    CopyCounts counts;
    int64_t tried = 0;   // WallSeconds of the last try
    std::string failure; // why that one failed; empty: it did not
};
std::vector<CopyState> CopyStates();

// A part of the copy.
struct CopyPart {
    std::string domain; // empty: all of them
    std::string unit;   // an organisational unit and what is below it (UnitOf); empty: everything
    bool byName = true; // where a text is looked for
    bool byDescription = true;
};

// As ListAccounts and ListGroups; empty when there is no copy of the domain. Numbers are given when the copy
// is refreshed. 0: the account's name is another one's by now, and somebody has to ask whose.
std::optional<int64_t> ListCopiedAccounts(const CopyPart& part, std::string_view text, const ListPage& page,
                                          const EachEntry& each);
std::optional<int64_t> ListCopiedGroups(const CopyPart& part, std::string_view text, const ListPage& page,
                                        const EachEntry& each);

// The unit that a text means: names of units from the outermost on, with slashes between them
// ("Berlin/Sales"), or a DN. Each name ends in a slash, in search form. Empty: it means none.
std::string UnitOf(std::string_view text);

} // namespace tavr
