// Lists of the domain's accounts and groups, for choosing among many. As ListAccounts and ListGroups
// (account_list.h), from the copy (domain_copy.h): it is searched as local accounts are.
//
// Domain and unit of the part are as somebody has typed them. Empty: there is no copy of that domain.
#pragma once

#include "linux/domain_copy.h"

namespace tavr
{

using DomainList = std::optional<int64_t> (*)(const CopyPart& part, std::string_view text,
                                              const ListPage& page, const EachEntry& each);
std::optional<int64_t> ListDomainAccounts(const CopyPart& part, std::string_view text, const ListPage& page,
                                          const EachEntry& each);
std::optional<int64_t> ListDomainGroups(const CopyPart& part, std::string_view text, const ListPage& page,
                                        const EachEntry& each);

// The number of what a list is calling back with, by its name: whoever shows it asks for it next. 0: it is
// not known, or that is not what is being listed.
uint32_t NumberOfListedAccount(std::string_view name);
uint32_t NumberOfListedGroup(std::string_view name);

// In place of a copy: accounts of the domain that have been seen here, by name alone. Empty: it cannot be
// told which of them are in the part.
std::optional<int64_t> ListSeenDomainAccounts(const CopyPart& part, std::string_view text,
                                              const ListPage& page, const EachEntry& each);

} // namespace tavr
