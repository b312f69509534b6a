#include "platform/db.h"

#include "platform/core.h"
#include "tests/support/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <vector>

namespace
{

constexpr char kDefaultOf1026[] = "SELECT * FROM emailaccountinfo WHERE is_default='true' and uid='1026';";
constexpr char kTable[] = "CREATE TABLE emailaccountinfo (uid TEXT, alias TEXT, email_type TEXT, "
                          "is_default TEXT, port INTEGER, note TEXT);";
constexpr char kOneDefault[] =
    "INSERT INTO emailaccountinfo VALUES ('1026', 'home', 'smtp', 'true', 587, NULL),"
    " ('1026', 'office', 'smtp', 'false', 25, 'x'), ('1027', 'home', 'smtp', 'true', 25, '');";

// A connection that writes, as another part of the system would.
class Writer
{
public:
    explicit Writer(const std::string& path)
    {
        sqlite3* db = nullptr;
        EXPECT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
        db_.reset(db);
    }
    void Run(const std::string& sql)
    {
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr))
            << sqlite3_errmsg(db_.get());
    }

private:
    struct Close {
        void operator()(sqlite3* db) const noexcept { sqlite3_close(db); }
    };
    std::unique_ptr<sqlite3, Close> db_;
};

struct FreeResult {
    void operator()(TAVRDBResult* result) const noexcept { TAVRDBFreeResult(result); }
};
using Result = std::unique_ptr<TAVRDBResult, FreeResult>;

// Empty when the statement failed.
Result Ask(TAVRDB* db, const std::string& sql)
{
    TAVRDBResult* result = nullptr;
    const int status = TAVRDBExecute(db, sql.c_str(), &result);
    EXPECT_EQ(status == 0, result != nullptr) << sql;
    return Result(result);
}

std::string TextOf(const Result& result, TAVRDBRow* row, const char* column)
{
    const char* text = TAVRDBFetchField(result.get(), row, column);
    return text == nullptr ? "(no such column)" : text;
}

class DatabaseFile : public testing::Test
{
protected:
    [[nodiscard]] std::string Path() const { return folder_.Path("emailaccount.db"); }
    [[nodiscard]] TAVRDB* Connect() const { return TAVRDBConnect(nullptr, nullptr, nullptr, Path().c_str()); }
    void Make(const std::string& sql) const { Writer(Path()).Run(sql); }
    [[nodiscard]] size_t FilesInFolder() const
    {
        const std::filesystem::directory_iterator files(folder_.Path());
        return static_cast<size_t>(std::distance(begin(files), end(files)));
    }

    const TempDir folder_;
};

TEST_F(DatabaseFile, GivesTheRowsThatMatch)
{
    Make(std::string(kTable) + kOneDefault);
    const Result result = Ask(Connect(), kDefaultOf1026);
    ASSERT_TRUE(result);
    EXPECT_EQ(1, TAVRDBNumRows(result.get()));

    TAVRDBRow* row = nullptr;
    ASSERT_EQ(0, TAVRDBFetchRow(result.get(), &row));
    EXPECT_EQ("home", TextOf(result, row, "alias"));
    EXPECT_EQ("smtp", TextOf(result, row, "email_type"));
    EXPECT_EQ("587", TextOf(result, row, "port"));
    EXPECT_EQ("", TextOf(result, row, "note"));
    EXPECT_EQ(nullptr, TAVRDBFetchField(result.get(), row, "password"));

    TAVRDBRow* second = nullptr;
    EXPECT_EQ(-1, TAVRDBFetchRow(result.get(), &second));
    EXPECT_EQ(nullptr, second);
}

TEST_F(DatabaseFile, TellsOfTwoDefaultRows)
{
    Make(std::string(kTable) + kOneDefault + "UPDATE emailaccountinfo SET is_default = 'true';");
    EXPECT_EQ(2, TAVRDBNumRows(Ask(Connect(), kDefaultOf1026).get()));
}

TEST_F(DatabaseFile, HasNoRowsForTheNextOwnerOfARemovedAccountsFolder)
{
    Make(std::string(kTable) + kOneDefault);
    const Result result =
        Ask(Connect(), "SELECT * FROM emailaccountinfo WHERE is_default='true' and uid='1044';");
    ASSERT_TRUE(result);
    EXPECT_EQ(0, TAVRDBNumRows(result.get()));
}

TEST_F(DatabaseFile, IsNeitherMadeNorChanged)
{
    EXPECT_EQ(nullptr, Connect());
    EXPECT_NE(0, KLIBCErrGet());
    EXPECT_EQ(0U, FilesInFolder());

    Make(std::string(kTable) + kOneDefault);
    const std::string before = folder_.Read("emailaccount.db");
    TAVRDB* db = Connect();
    const std::vector<std::string> refused = {
        "DELETE FROM emailaccountinfo;",
        "UPDATE emailaccountinfo SET is_default = 'false';",
        "CREATE TABLE more (a);",
        "CREATE TEMP TABLE more (a);",
        "PRAGMA user_version = 5;",
        "PRAGMA journal_mode = WAL;",
        "ATTACH '" + folder_.Path("other.db") + "' AS other;",
        "SELECT load_extension('x');",
        "SELECT * FROM emailaccountinfo; DELETE FROM emailaccountinfo;",
        "VACUUM INTO '" + folder_.Path("copy.db") + "';",
        "BEGIN IMMEDIATE;",
        "",
        "no sql",
    };
    for (const std::string& sql : refused) {
        EXPECT_FALSE(Ask(db, sql)) << sql;
    }
    EXPECT_EQ(before, folder_.Read("emailaccount.db"));
    EXPECT_EQ(1U, FilesInFolder());
}

TEST_F(DatabaseFile, OfWhichTheTableIsMissingFails)
{
    Make("CREATE TABLE other (a);");
    TAVRDB* db = Connect();
    ASSERT_NE(nullptr, db);
    EXPECT_FALSE(Ask(db, kDefaultOf1026));
    EXPECT_NE(0, KLIBCErrGet());
}

TEST_F(DatabaseFile, ThatIsLockedFailsSoonAndWorksAgainAfterwards)
{
    Make(std::string(kTable) + kOneDefault);
    TAVRDB* db = Connect();
    {
        Writer writer(Path());
        writer.Run("BEGIN EXCLUSIVE");
        EXPECT_FALSE(Ask(db, kDefaultOf1026));
    }
    EXPECT_TRUE(Ask(db, kDefaultOf1026));
}

TEST_F(DatabaseFile, ThatIsDamagedFails)
{
    Make(std::string(kTable) + kOneDefault);
    const std::string whole = folder_.Read("emailaccount.db");
    for (const std::string& damaged :
         {std::string("rubbish, and long enough to be a header"), whole.substr(0, 4096),
          whole.substr(0, 100) + std::string(whole.size() - 100, '\xff')}) {
        folder_.Write("emailaccount.db", damaged);
        TAVRDB* db = Connect();
        EXPECT_FALSE(db != nullptr && Ask(db, kDefaultOf1026)) << damaged.size();
    }
    folder_.Write("emailaccount.db", ""); // to SQLite a database without tables
    EXPECT_FALSE(Ask(Connect(), kDefaultOf1026));
}

TEST_F(DatabaseFile, IsReadWithWhatStandsInItsLog)
{
    Writer writer(Path());
    writer.Run(std::string("PRAGMA journal_mode = WAL; PRAGMA wal_autocheckpoint = 0;") + kTable);
    writer.Run(kOneDefault);
    ASSERT_GT(std::filesystem::file_size(Path() + "-wal"), 0U);
    const Result result = Ask(Connect(), kDefaultOf1026);
    ASSERT_TRUE(result);
    EXPECT_EQ(1, TAVRDBNumRows(result.get()));
}

TEST_F(DatabaseFile, ThatIsHugeIsNotOpened)
{
    Make(std::string(kTable) + kOneDefault);
    for (const char* file : {"", "-wal"}) {
        std::filesystem::resize_file(folder_.Write(std::string("emailaccount.db") + file, "x"), 17 << 20);
        EXPECT_EQ(nullptr, Connect());
        std::filesystem::remove(Path() + file);
        Make("CREATE TABLE IF NOT EXISTS more (a);");
    }
}

TEST_F(DatabaseFile, GivesNoAnswerThatIsHuge)
{
    Make(std::string(kTable) +
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1001)"
         " INSERT INTO emailaccountinfo SELECT '1026', i, 'smtp', 'true', 25, '' FROM n;");
    EXPECT_FALSE(Ask(Connect(), kDefaultOf1026));
    Make("DELETE FROM emailaccountinfo WHERE rowid = 1");
    EXPECT_EQ(1000, TAVRDBNumRows(Ask(Connect(), kDefaultOf1026).get()));

    Make("DELETE FROM emailaccountinfo WHERE rowid > 3;"
         "UPDATE emailaccountinfo SET note = zeroblob(600000);");
    EXPECT_FALSE(Ask(Connect(), kDefaultOf1026)) << "two fields of 600,000 bytes";
    Make("DELETE FROM emailaccountinfo WHERE rowid = 3; UPDATE emailaccountinfo SET note = "
         "zeroblob(1100000);");
    EXPECT_FALSE(Ask(Connect(), kDefaultOf1026)) << "one field of 1,100,000 bytes";
}

// A schema can hold questions that never end; the answer to one that asks for them does.
TEST_F(DatabaseFile, RunsNothingThatTheSchemaHolds)
{
    Make("CREATE VIEW emailaccountinfo AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n)"
         " SELECT 'true' AS is_default, '1026' AS uid, i AS alias, 'smtp' AS email_type FROM n WHERE i < 0;");
    EXPECT_FALSE(Ask(Connect(), kDefaultOf1026));
    EXPECT_FALSE(Ask(Connect(), "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n)"
                                " SELECT i FROM n WHERE i < 0;"));
}

TEST_F(DatabaseFile, WhosePlaceHoldsNoFileIsNotOpened)
{
    ASSERT_EQ(0, mkfifo(Path().c_str(), 0600));
    EXPECT_EQ(nullptr, Connect());
    std::filesystem::remove(Path());

    std::filesystem::create_directory(Path());
    EXPECT_EQ(nullptr, Connect());
    std::filesystem::remove(Path());

    Writer(folder_.Path("elsewhere.db")).Run(kTable);
    std::filesystem::create_symlink(folder_.Path("elsewhere.db"), Path());
    EXPECT_EQ(nullptr, Connect());
    std::filesystem::remove(Path());

    Make(kTable);
    ASSERT_EQ(0, mkfifo((Path() + "-journal").c_str(), 0600));
    EXPECT_EQ(nullptr, Connect());
}

TEST_F(DatabaseFile, IsClosedByTheNextConnectAndItsResultsStay)
{
    Make(std::string(kTable) + kOneDefault);
    TAVRDB* first = Connect();
    const Result result = Ask(first, kDefaultOf1026);
    TAVRDBRow* row = nullptr;
    ASSERT_EQ(0, TAVRDBFetchRow(result.get(), &row));

    const size_t open = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(Ask(Connect(), kDefaultOf1026));
    }
    EXPECT_EQ(open,
              static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})));

    std::filesystem::remove(Path());
    EXPECT_EQ(nullptr, Connect());
    EXPECT_FALSE(Ask(first, kDefaultOf1026));
    EXPECT_EQ("home", TextOf(result, row, "alias"));
}

TEST_F(DatabaseFile, AsksForArgumentsThatMakeSense)
{
    Make(kTable);
    EXPECT_EQ(nullptr, TAVRDBConnect(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(nullptr, TAVRDBConnect("server", nullptr, nullptr, Path().c_str()));
    EXPECT_EQ(-1, TAVRDBExecute(Connect(), "SELECT 1", nullptr));
    EXPECT_EQ(0, TAVRDBNumRows(nullptr));
    EXPECT_EQ(-1, TAVRDBFetchRow(nullptr, nullptr));
    EXPECT_EQ(nullptr, TAVRDBFetchField(nullptr, nullptr, "alias"));
    TAVRDBFreeResult(nullptr);
}

} // namespace
