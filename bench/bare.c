#include "bench/bare.h"

#include <sqlite3.h>
#include <stddef.h>

int bareRun(const char* file, const char* sql, const char* const* texts, int count) {
  sqlite3* connection = NULL;
  sqlite3_stmt* statement = NULL;
  int result = sqlite3_open(file, &connection);
  if (result == SQLITE_OK) result = sqlite3_prepare_v2(connection, sql, -1, &statement, NULL);
  for (int i = 0; result == SQLITE_OK && i < count; ++i) {
    result = sqlite3_bind_text(statement, i + 1, texts[i], -1, SQLITE_TRANSIENT);
  }
  if (result == SQLITE_OK) result = sqlite3_step(statement);
  while (result == SQLITE_ROW) result = sqlite3_step(statement);
  sqlite3_finalize(statement);
  sqlite3_close(connection);
  return result == SQLITE_DONE;
}

long bareRead(const char* file, const char* sql) {
  sqlite3* connection = NULL;
  sqlite3_stmt* statement = NULL;
  long rows = 0;
  if (sqlite3_open(file, &connection) == SQLITE_OK &&
      sqlite3_prepare_v2(connection, sql, -1, &statement, NULL) == SQLITE_OK) {
    const int columns = sqlite3_column_count(statement);
    for (; sqlite3_step(statement) == SQLITE_ROW; ++rows) {
      (void)sqlite3_column_int(statement, 0);
      for (int i = 1; i < columns; ++i) (void)sqlite3_column_text(statement, i);
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close(connection);
  return rows;
}
