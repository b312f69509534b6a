#pragma once

#include <cstdint>

extern "C" {

struct TAVRDB; struct TAVRDBResult; struct TAVRDBRow;
TAVRDB* TAVRDBConnect(const char* host, const char* user, const char* password, const char* path);
int     TAVRDBExecute(TAVRDB* db, const char* sql, TAVRDBResult** result);
int64_t TAVRDBNumRows(TAVRDBResult* result);
int     TAVRDBFetchRow(TAVRDBResult* result, TAVRDBRow** row);
const char* TAVRDBFetchField(TAVRDBResult* result, TAVRDBRow* row, const char* column);
void    TAVRDBFreeResult(TAVRDBResult* result);

}  // extern "C"
