#include "linux/not_enrolled.h"

#include "linux/database.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace tavr
{

namespace
{

using Numbers = std::vector<uint32_t>;

// So many are looked up one by one; more of them are sooner met by going through all that there are.
constexpr size_t kFew = 1000;

// Where numbers of accounts stand.
struct Store {
    const char* all; // in no order
    const char* one; // ?1: the number
};

constexpr Store kAccounts = {"SELECT uid FROM account", "SELECT 1 FROM account WHERE uid = ?1"};

#define ENROLLED "SELECT account FROM secret WHERE state IN ('active', 'confirmed')"
constexpr Store kEnrolled = {
    ENROLLED " AND account NOT IN (SELECT account FROM account_mark WHERE switching_off = 1)",
    ENROLLED " AND account = ?1 AND NOT EXISTS"
             " (SELECT 1 FROM account_mark WHERE account = ?1 AND switching_off = 1)"};

void Append(Numbers& numbers, Statement& list)
{
    while (list.Step()) {
        numbers.push_back(static_cast<uint32_t>(list.Int(0)));
    }
}

Numbers Sorted(Numbers numbers)
{
    if (!std::is_sorted(numbers.begin(), numbers.end())) {
        std::sort(numbers.begin(), numbers.end());
    }
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers;
}

Numbers All(Database& db, const Store& store)
{
    Numbers numbers;
    Statement list = db.Prepare(store.all);
    Append(numbers, list);
    return Sorted(std::move(numbers));
}

// Those of `wanted`, which is sorted, that stand in the store.
Numbers Found(Database& db, const Store& store, const Numbers& wanted)
{
    Numbers found;
    if (wanted.size() > kFew) {
        const Numbers all = All(db, store);
        std::set_intersection(wanted.begin(), wanted.end(), all.begin(), all.end(),
                              std::back_inserter(found));
        return found;
    }
    Statement view =
        db.Prepare("SELECT name FROM sqlite_schema"); // open until the end, so that nothing else locks
    view.Step();
    std::copy_if(wanted.begin(), wanted.end(), std::back_inserter(found), [&](uint32_t number) {
        Statement find = db.Prepare(store.one);
        return find.Bind(1, number).Step();
    });
    return found;
}

// The decimal numbers of one list. In a list of users leading zeros do not count, in one of groups there are
// none.
Numbers Picked(const Json::Value& picks, const char* type, bool leadingZeros)
{
    Numbers numbers;
    for (const Json::Value& entry : picks[type]) {
        const std::string text = entry.asString();
        uint32_t number = 0;
        const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (problem == std::errc() && end == text.data() + text.size() &&
            (leadingZeros || text == "0" || text.front() != '0')) {
            numbers.push_back(number);
        }
    }
    return Sorted(std::move(numbers));
}

Numbers Administrators(Database& accounts)
{
    Numbers numbers;
    Statement list = accounts.Prepare("SELECT uid FROM membership WHERE gid = 65536");
    Append(numbers, list);
    return Sorted(std::move(numbers));
}

Numbers PickedAccounts(Database& accounts, const Json::Value& picks)
{
    Numbers numbers = Found(accounts, kAccounts, Picked(picks, "local_user", true));
    for (const uint32_t gid : Picked(picks, "local_group", false)) {
        Statement list = accounts.Prepare(
            "SELECT uid FROM account WHERE gid = ?1 UNION ALL SELECT uid FROM membership WHERE gid = ?1");
        list.Bind(1, gid);
        Append(numbers, list);
    }
    return Sorted(std::move(numbers));
}

int64_t CountWithout(const Numbers& demanded)
{
    return static_cast<int64_t>(demanded.size() - Found(SigninDatabase(), kEnrolled, demanded).size());
}

} // namespace

int64_t CountNotEnrolled(std::string_view option, const Json::Value& picks)
{
    Database& accounts = LocalAccountsDatabase();
    if (option == "user") {
        // From the other side: everybody need not be looked at while few are enrolled.
        const Numbers enrolled = Found(accounts, kAccounts, All(SigninDatabase(), kEnrolled));
        Statement size = accounts.Prepare("SELECT number FROM list_size WHERE list = 'account'");
        return (size.Step() ? size.Int(0) : 0) - static_cast<int64_t>(enrolled.size());
    }
    if (option == "admin") {
        return CountWithout(Administrators(accounts));
    }
    return option == "custom" ? CountWithout(PickedAccounts(accounts, picks)) : 0;
}

} // namespace tavr
