// How a page is found of a table that is searched by a text in its rows' names or descriptions. For lists of
// accounts and groups, whichever database keeps them.
//
// Such a table has the columns name, description and `folded`: both as SearchText (names.h) has them, with a
// line feed in between, which no text that is sought holds. Beside it stands a table of its *grams*: what
// stands in `folded` from one character on, kGramLength characters or up to its end.
#pragma once

#include "linux/account_list.h"
#include "linux/database.h"

#include <functional>
#include <string>
#include <string_view>

namespace tavr
{

inline constexpr size_t kGramLength = 8; // characters

// The statements of one list. ?1 limit, ?2 offset, ?3 the text, ?4 and ?5 the ends of a range of grams; those
// beyond are bound by the caller, in all but `gramRows`.
struct SearchedTable {
    const char* size;
    const char* page;
    const char* gramRows; // no more than ?1
    const char* few;      // all of them
    const char* scannedPage;
    const char* scannedCount;
};

// KEY is the table's key, by which its grams are kept, and NUMBER what the list shows of a row. LISTED holds
// for the rows of the list, and so does LISTED_FEW where they are found by their grams; SOUGHT holds for
// those that hold the text.
// clang-format off
#define SEARCHED_ROWS(TABLE, NUMBER, LISTED)                                                                 \
    "SELECT name, " NUMBER ", description FROM " TABLE " WHERE " LISTED
#define SEARCHED_RANGE(GRAMS) " FROM " GRAMS " WHERE gram >= ?4 AND gram < ?5"
#define SEARCHED_PAGE " ORDER BY name LIMIT ?1 OFFSET ?2"
#define SEARCHED_TABLE(TABLE, KEY, NUMBER, GRAMS, SIZE, LISTED, LISTED_FEW, SOUGHT)                          \
    {                                                                                                        \
        SIZE,                                                                                                \
        SEARCHED_ROWS(TABLE, NUMBER, LISTED) SEARCHED_PAGE,                                                  \
        "SELECT count(*) FROM (SELECT 1" SEARCHED_RANGE(GRAMS) " LIMIT ?1)",                                 \
        SEARCHED_ROWS(TABLE, NUMBER, LISTED_FEW)                                                             \
            " AND " KEY " IN (SELECT " KEY SEARCHED_RANGE(GRAMS) ") AND " SOUGHT " ORDER BY name",           \
        SEARCHED_ROWS(TABLE, NUMBER, LISTED) " AND " SOUGHT SEARCHED_PAGE,                                   \
        "SELECT count(*) FROM " TABLE " WHERE " LISTED " AND " SOUGHT                                        \
    }
// clang-format on
#define SEARCHED_HOLDS_TEXT "instr(folded, ?3) > 0"

// The migration that makes tables of local accounts (account, by uid) and groups (account_group, by gid) such
// ones, and counts their rows in list_size. It and whatever writes `folded` later call search_text(name,
// description), which the connection has from AddSearchText.
std::string AccountListTables();
void AddSearchText(sqlite3* db);

// As ListAccounts.
int64_t ListSearched(Database& db, const SearchedTable& table, std::string_view text, const ListPage& page,
                     const EachEntry& each, const std::function<void(Statement&)>& bindMore);

} // namespace tavr
