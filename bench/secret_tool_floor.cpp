// The floor for the secret tool: the least static program that does its file work and one durable insert.
//
//     secret_tool_floor PATH DATABASE
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

void Require(bool done)
{
    if (!done) {
        _exit(1);
    }
}

void MakeFile(const char* path)
{
    char folder[4096];
    std::snprintf(folder, sizeof folder, "%s", path);
    *std::strrchr(folder, '/') = 0;
    char text[199];
    std::memset(text, 'x', sizeof text);
    const int directory = open(folder, O_RDONLY | O_DIRECTORY);
    const int file = openat(directory, ".new", O_WRONLY | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
    Require(file >= 0 && write(file, text, sizeof text) == sizeof text && fsync(file) == 0 &&
            close(file) == 0);
    Require(renameat(directory, ".new", directory, path + std::strlen(folder) + 1) == 0 &&
            fsync(directory) == 0);
}

void InsertRow(const char* database)
{
    sqlite3* db = nullptr;
    Require(sqlite3_open_v2(database, &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK);
    sqlite3_busy_timeout(db, 10'000);
    Require(sqlite3_exec(db, "PRAGMA synchronous=FULL; INSERT INTO floor (bytes) VALUES (randomblob(600))",
                         nullptr, nullptr, nullptr) == SQLITE_OK);
    sqlite3_close(db);
}

} // namespace

int main(int argc, char** argv)
{
    Require(argc == 3);
    MakeFile(argv[1]);
    InsertRow(argv[2]);
    std::puts("xxxxxxxxxxxxxxxxxxxxxxxx");
    return 0;
}
