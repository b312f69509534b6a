// Lists of the local accounts and groups, for choosing among many: pages of those that hold a text.
//
// Name and description are searched, in any spelling of their letters (SearchText in names.h); every
// character of the text stands for itself. The order is that of the names. Functions throw DatabaseError when
// the store cannot be used.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace tavr
{

struct ListEntry { // its texts last for the call
    const char* name;
    uint32_t number; // uid or gid
    const char* description;
};

struct ListPage {
    int offset = 0;
    int limit = -1; // -1: no end
};

// Calls each(entry) for one page; gives the number of entries on all of them. An empty text is held by
// everything, one that is no UTF-8 or cannot be shown by nothing. What `each` throws passes through.
using EachEntry = std::function<void(const ListEntry&)>;
int64_t ListAccounts(std::string_view text, const ListPage& page, const EachEntry& each);
int64_t ListGroups(std::string_view text, const ListPage& page, const EachEntry& each);

} // namespace tavr
