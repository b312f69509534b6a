#include "linux/account_list.h"

#include "linux/searched_table.h"

namespace tavr
{

namespace
{

#define TABLE(NAME, NUMBER, GRAMS)                                                                           \
    SEARCHED_TABLE(NAME, NUMBER, NUMBER, GRAMS, "SELECT number FROM list_size WHERE list = '" NAME "'",      \
                   "TRUE", "TRUE", SEARCHED_HOLDS_TEXT)

constexpr SearchedTable kAccounts = TABLE("account", "uid", "account_gram");
constexpr SearchedTable kGroups = TABLE("account_group", "gid", "group_gram");

void BindNothing(Statement& /*statement*/) {}

} // namespace

int64_t ListAccounts(std::string_view text, const ListPage& page, const EachEntry& each)
{
    return ListSearched(LocalAccountsDatabase(), kAccounts, text, page, each, BindNothing);
}

int64_t ListGroups(std::string_view text, const ListPage& page, const EachEntry& each)
{
    return ListSearched(LocalAccountsDatabase(), kGroups, text, page, each, BindNothing);
}

} // namespace tavr
