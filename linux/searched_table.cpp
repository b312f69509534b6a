#include "linux/searched_table.h"

#include "linux/accounts.h"
#include "linux/names.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

namespace tavr
{

namespace
{

// More rows of the index than this are not worth being collected: a page is then found sooner by going
// through the names in their order.
constexpr int64_t kFew = 1000;

void Take(const Statement& row, const EachEntry& each)
{
    each({row.Chars(0), static_cast<uint32_t>(row.Int(1)), row.Chars(2)});
}

int64_t TakeAll(Statement& find, const EachEntry& each)
{
    int64_t count = 0;
    for (; find.Step(); ++count) {
        Take(find, each);
    }
    return count;
}

int64_t OneNumber(Statement& find)
{
    return find.Step() ? find.Int(0) : 0;
}

// --- By index ----------------------------------------------------------------------------------------------

struct Range {
    std::string first;
    std::string end;
};

// The grams that begin with a text.
Range Beginning(std::string_view text)
{
    return {std::string(text),
            std::string(text) + "\xF4\x8F\xBF\xBF"}; // the last character, which no text has
}

// Where the characters of a text begin, and its end.
std::vector<size_t> Characters(std::string_view text)
{
    std::vector<size_t> starts;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            starts.push_back(i);
        }
    }
    starts.push_back(text.size());
    return starts;
}

// A range of few grams, one of which stands in every text that holds the sought one; empty when there is
// none.
std::optional<Range> FewGrams(Database& db, const SearchedTable& table, std::string_view sought)
{
    const std::vector<size_t> starts = Characters(sought);
    const size_t length = starts.size() - 1;
    const size_t width = std::min(length, kGramLength);
    // From the end on: beginnings are what names have in common.
    for (size_t end = length;; end = end > 2 * width ? end - width : width) {
        const size_t from = starts[end - width];
        Range range = Beginning(sought.substr(from, starts[end] - from));
        Statement find = db.Prepare(table.gramRows);
        find.Bind(1, kFew + 1).Bind(4, range.first).Bind(5, range.end);
        if (OneNumber(find) <= kFew) {
            return range;
        }
        if (end == width) {
            return std::nullopt;
        }
    }
}

// They come in order, and all of them, so nothing has to be counted apart.
int64_t ListFew(Statement& find, const ListPage& page, const EachEntry& each)
{
    int64_t count = 0;
    for (; find.Step(); ++count) {
        if (count >= page.offset && (page.limit < 0 || count - page.offset < page.limit)) {
            Take(find, each);
        }
    }
    return count;
}

// --- One list ----------------------------------------------------------------------------------------------

int64_t ListScanned(Database& db, const SearchedTable& table, std::string_view sought, const ListPage& page,
                    const EachEntry& each, const std::function<void(Statement&)>& bindMore)
{
    {
        Statement find = db.Prepare(table.scannedPage);
        bindMore(find);
        find.Bind(1, page.limit).Bind(2, page.offset).Bind(3, sought);
        const int64_t count = TakeAll(find, each);
        const bool atEnd = page.limit < 0 || count < page.limit;
        if (atEnd && (count > 0 || page.offset == 0)) {
            return page.offset + count;
        }
    }
    Statement find = db.Prepare(table.scannedCount);
    bindMore(find);
    find.Bind(3, sought);
    return OneNumber(find);
}

// --- The tables --------------------------------------------------------------------------------------------

// What lists are searched by (account_list.cpp), for both tables alike. `folded` is name and description as
// search_text() has them; a gram is what stands in it from one character on, eight characters or up to its
// end. Triggers, so that no way of changing a row leaves its grams behind.
constexpr char kListTables[] = R"(
CREATE TABLE text_position (at INTEGER PRIMARY KEY) STRICT;
WITH RECURSIVE every (at) AS (SELECT 1 UNION ALL SELECT at + 1 FROM every WHERE at < 4096)
    INSERT INTO text_position SELECT at FROM every;
CREATE TABLE list_size (list TEXT PRIMARY KEY, number INTEGER NOT NULL) STRICT, WITHOUT ROWID;
)";
constexpr char kSearchedTable[] = R"(
ALTER TABLE $table ADD COLUMN folded TEXT NOT NULL DEFAULT '';
UPDATE $table SET folded = search_text(name, description);
CREATE INDEX $table_listed ON $table (name, description);   -- all that a page shows
INSERT INTO list_size SELECT '$table', count(*) FROM $table;
CREATE TABLE $grams (
    gram TEXT NOT NULL,
    $number INTEGER NOT NULL,
    PRIMARY KEY (gram, $number)
) STRICT, WITHOUT ROWID;
INSERT OR IGNORE INTO $grams SELECT substr(folded, at, 8) AS gram, $number
    FROM $table JOIN text_position ON at <= length(folded) ORDER BY gram, $number;
CREATE TRIGGER $table_added AFTER INSERT ON $table BEGIN
    INSERT OR IGNORE INTO $grams
        SELECT substr(new.folded, at, 8), new.$number FROM text_position WHERE at <= length(new.folded);
    UPDATE list_size SET number = number + 1 WHERE list = '$table';
END;
CREATE TRIGGER $table_changed AFTER UPDATE OF folded ON $table WHEN new.folded <> old.folded BEGIN
    DELETE FROM $grams WHERE $number = old.$number AND gram IN
        (SELECT substr(old.folded, at, 8) FROM text_position WHERE at <= length(old.folded));
    INSERT OR IGNORE INTO $grams
        SELECT substr(new.folded, at, 8), new.$number FROM text_position WHERE at <= length(new.folded);
END;
CREATE TRIGGER $table_removed AFTER DELETE ON $table BEGIN
    DELETE FROM $grams WHERE $number = old.$number AND gram IN
        (SELECT substr(old.folded, at, 8) FROM text_position WHERE at <= length(old.folded));
    UPDATE list_size SET number = number - 1 WHERE list = '$table';
END;
)";

std::string SearchedTableOf(const char* table, const char* number, const char* grams)
{
    std::string sql = kSearchedTable;
    for (const auto& [place, name] : {std::pair("$table", table), {"$number", number}, {"$grams", grams}}) {
        for (size_t at = 0; (at = sql.find(place, at)) != std::string::npos;) {
            sql.replace(at, std::strlen(place), name);
        }
    }
    return sql;
}

// search_text(name, description) in SQL: what is looked through for a text. No text that is sought holds the
// line feed. For statements only, so that other programs can read and write the tables too.
void SearchTextInSql(sqlite3_context* context, int /*count*/, sqlite3_value** values)
{
    std::string text;
    for (int i = 0; i < 2; ++i) {
        const auto* bytes = reinterpret_cast<const char*>(sqlite3_value_text(values[i]));
        const auto size = static_cast<size_t>(sqlite3_value_bytes(values[i]));
        text += SearchText({bytes != nullptr ? bytes : "", size}).value_or("") + (i == 0 ? "\n" : "");
    }
    sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

} // namespace

std::string AccountListTables()
{
    return kListTables + SearchedTableOf("account", "uid", "account_gram") +
           SearchedTableOf("account_group", "gid", "group_gram");
}

void AddSearchText(sqlite3* db)
{
    if (sqlite3_create_function_v2(db, "search_text", 2,
                                   SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_DIRECTONLY, nullptr,
                                   SearchTextInSql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw DatabaseError(sqlite3_extended_errcode(db), sqlite3_errmsg(db));
    }
}

int64_t ListSearched(Database& db, const SearchedTable& table, std::string_view text, const ListPage& page,
                     const EachEntry& each, const std::function<void(Statement&)>& bindMore)
{
    if (text.empty()) {
        Statement size = db.Prepare(table.size); // open until the end: one view for both
        bindMore(size);
        const int64_t total = OneNumber(size);
        Statement find = db.Prepare(table.page);
        bindMore(find);
        find.Bind(1, page.limit).Bind(2, page.offset);
        TakeAll(find, each);
        return total;
    }
    const auto sought =
        text.size() <= kMaxName + kMaxDescription && IsPlainText(text) ? SearchText(text) : std::nullopt;
    if (!sought) {
        return 0;
    }
    if (const auto range = FewGrams(db, table, *sought)) {
        Statement find = db.Prepare(table.few);
        bindMore(find);
        find.Bind(3, *sought).Bind(4, range->first).Bind(5, range->end);
        return ListFew(find, page, each);
    }
    return ListScanned(db, table, *sought, page, each, bindMore);
}

} // namespace tavr
