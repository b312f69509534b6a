// Reading a small database file that belongs to another part of the system, such as a person's mail accounts.
//
// Never writes and never creates. There is no call that closes a database: the platform keeps at most one
// open and closes it at the next connect. Works with the caller's ids. On failure the error record
// (platform/core.h) is set.
#pragma once

#include <cstdint>

extern "C" {

struct TAVRDB;
struct TAVRDBResult;
struct TAVRDBRow;

// Opens the SQLite file `path` for reading. The other three are null: no server. Null on failure; what is no
// database may be noticed by the first statement alone. The handle is the platform's, and is dead after the
// next connect; results of it live on.
TAVRDB* TAVRDBConnect(const char* host, const char* user, const char* password, const char* path);

// Runs one statement that reads. 0: *result is the caller's, to be given back by TAVRDBFreeResult. -1:
// failure, *result untouched. `sql` is taken as it is; callers put numbers of their own into it and never
// outside text.
int TAVRDBExecute(TAVRDB* db, const char* sql, TAVRDBResult** result);

// Number of rows of a result.
int64_t TAVRDBNumRows(TAVRDBResult* result);

// The next row, from the first on; it belongs to the result. 0 on success, -1 when there is none left.
int TAVRDBFetchRow(TAVRDBResult* result, TAVRDBRow** row);

// The text of a column, as long as the result lives; empty for an SQL null, null when there is no such
// column.
const char* TAVRDBFetchField(TAVRDBResult* result, TAVRDBRow* row, const char* column);

// Null is allowed.
void TAVRDBFreeResult(TAVRDBResult* result);

} // extern "C"
