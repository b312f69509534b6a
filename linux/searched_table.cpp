#include "linux/searched_table.h"

#include "linux/accounts.h"
#include "linux/names.h"

#include <algorithm>
#include <optional>
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

} // namespace

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
