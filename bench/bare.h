#pragma once

/* SQLite as a plain C program uses it: every call opens its file with SQLite's default settings,
   prepares one statement, steps it to its end and closes the file. It uses nothing of the library.
 */

#ifdef __cplusplus
extern "C" {
#endif

/* Runs `sql` on `file` with the texts bound to its parameters, in order; a null one is NULL. False
 * on failure. */
int bareRun(const char* file, const char* sql, const char* const* texts, int count);

/* Reads each column of each row that `sql` selects from `file`, the first one as an integer. The
 * number of rows. */
long bareRead(const char* file, const char* sql);

#ifdef __cplusplus
}
#endif
