// platform/db.h. The files are SQLite's, so SQLite makes them here.
#include "platform/db.h"

#include "tests/contract/support.h"

#include <sqlite3.h>
#include <sys/stat.h>

namespace contract
{
namespace
{

constexpr char kDefaultOf1026[] = "SELECT * FROM emailaccountinfo WHERE is_default='true' and uid='1026';";

class DbFile : public Case
{
protected:
    DbFile() : folder_(FreshFolder()), path_(folder_ + "/emailaccount.db")
    {
        sqlite3* db = nullptr;
        sqlite3_open(path_.c_str(), &db);
        EXPECT_EQ(
            SQLITE_OK,
            sqlite3_exec(db,
                         "CREATE TABLE emailaccountinfo (uid TEXT, alias TEXT, email_type TEXT,"
                         " is_default TEXT, port INTEGER, note TEXT);"
                         "INSERT INTO emailaccountinfo VALUES ('1026', 'home', 'smtp', 'true', 587, NULL),"
                         " ('1026', 'office', 'smtp', 'false', 25, 'x'),"
                         " ('1027', 'first', 'smtp', 'true', 25, ''),"
                         " ('1027', 'second', 'smtp', 'true', 25, '');",
                         nullptr, nullptr, nullptr));
        sqlite3_close(db);
    }
    [[nodiscard]] TAVRDB* Connect() const { return TAVRDBConnect(nullptr, nullptr, nullptr, path_.c_str()); }

    const std::string folder_;
    const std::string path_;
};

struct FreeResult {
    void operator()(TAVRDBResult* result) const noexcept { TAVRDBFreeResult(result); }
};
using Result = std::unique_ptr<TAVRDBResult, FreeResult>;

Result Ask(TAVRDB* db, const std::string& sql)
{
    TAVRDBResult* result = nullptr;
    const int status = TAVRDBExecute(db, sql.c_str(), &result);
    EXPECT_EQ(status == 0, result != nullptr) << sql;
    return Result(result);
}

TEST_F(DbFile, GivesTheRowsOfAQuestion)
{
    const Result result = Ask(Connect(), kDefaultOf1026);
    ASSERT_TRUE(result);
    EXPECT_EQ(1, TAVRDBNumRows(result.get()));
    TAVRDBRow* row = nullptr;
    ASSERT_EQ(0, TAVRDBFetchRow(result.get(), &row));
    ASSERT_NE(nullptr, row);
    EXPECT_STREQ("home", TAVRDBFetchField(result.get(), row, "alias"));
    EXPECT_STREQ("smtp", TAVRDBFetchField(result.get(), row, "email_type"));
    EXPECT_STREQ("587", TAVRDBFetchField(result.get(), row, "port")) << "a number's text";
    EXPECT_STREQ("", TAVRDBFetchField(result.get(), row, "note")) << "an SQL null";
    EXPECT_TRUE(Fails([&] { return TAVRDBFetchField(result.get(), row, "password") != nullptr; }));

    TAVRDBRow* second = row;
    EXPECT_TRUE(Fails([&] { return TAVRDBFetchRow(result.get(), &second); }));
    EXPECT_EQ(row, second) << "untouched";
}

TEST_F(DbFile, GivesEveryRowOnce)
{
    const Result result =
        Ask(Connect(), "SELECT alias FROM emailaccountinfo WHERE uid = '1027' ORDER BY alias;");
    ASSERT_TRUE(result);
    EXPECT_EQ(2, TAVRDBNumRows(result.get()));
    TAVRDBRow* first = nullptr;
    TAVRDBRow* second = nullptr;
    ASSERT_EQ(0, TAVRDBFetchRow(result.get(), &first));
    ASSERT_EQ(0, TAVRDBFetchRow(result.get(), &second));
    EXPECT_STREQ("first", TAVRDBFetchField(result.get(), first, "alias"));
    EXPECT_STREQ("second", TAVRDBFetchField(result.get(), second, "alias"));
    const Result none = Ask(Connect(), "SELECT * FROM emailaccountinfo WHERE uid='1';");
    ASSERT_TRUE(none) << "no row is no failure";
    EXPECT_EQ(0, TAVRDBNumRows(none.get()));
    EXPECT_STREQ("first", TAVRDBFetchField(result.get(), first, "alias")) << "a result outlives the handle";
}

TEST_F(DbFile, IsNeitherMadeNorWritten)
{
    const std::string absent = folder_ + "/absent.db";
    EXPECT_TRUE(Fails([&] { return TAVRDBConnect(nullptr, nullptr, nullptr, absent.c_str()) != nullptr; }));
    EXPECT_TRUE(Fails([&] { return TAVRDBConnect(nullptr, nullptr, nullptr, nullptr) != nullptr; }));
    EXPECT_FALSE(Stands(absent));

    const std::string before = ReadText(path_);
    TAVRDB* db = Connect();
    ASSERT_NE(nullptr, db);
    for (const char* sql : {"DELETE FROM emailaccountinfo;", "UPDATE emailaccountinfo SET alias='x';",
                            "CREATE TABLE more (a);", "no sql", "SELECT * FROM no_such_table;"}) {
        auto* untouched = reinterpret_cast<TAVRDBResult*>(this);
        TAVRDBResult* result = untouched;
        EXPECT_TRUE(Fails([&] { return TAVRDBExecute(db, sql, &result); })) << sql;
        EXPECT_EQ(untouched, result) << sql;
    }
    EXPECT_EQ(before, ReadText(path_));
}

TEST_F(DbFile, ThatIsNoneIsAFailure)
{
    WriteText(path_, "rubbish, and long enough to be taken for a header");
    TAVRDB* db = Connect(); // it may be noticed now or by the question
    EXPECT_FALSE(db != nullptr && Ask(db, kDefaultOf1026));
}

TEST_F(DbFile, IsReadWithTheCallersIds)
{
    {
        const AsRoot raised;
        ASSERT_EQ(0, chown(path_.c_str(), 0, 0));
        ASSERT_EQ(0, chmod(path_.c_str(), 0600));
    }
    if (geteuid() == 0) {
        GTEST_SKIP() << "the tests run as root";
    }
    TAVRDB* db = Connect();
    EXPECT_FALSE(db != nullptr && Ask(db, kDefaultOf1026));
}

TEST_F(DbFile, KeepsOneHandleAtMost)
{
    EXPECT_TRUE(GivesEverythingBack([&] { Ask(Connect(), kDefaultOf1026); }));
    TAVRDBFreeResult(nullptr);
}

} // namespace
} // namespace contract
