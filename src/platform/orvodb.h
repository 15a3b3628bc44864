// Database access shared by the media and the photo database: where each
// database lives, raw statements and results, escaping, and grouped writes.
//
// A database is named by a URI: "sqlite:<file>" (the embedded default) or a
// libpq connection URI ("postgresql://..."). The photo and media databases
// are two databases; see OrvoDBLocation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// One open database connection. Owned by the platform layer; callers never
// free it.
struct ORVODB;

// A fully fetched result of one statement, with its own row cursor.
struct ORVODBResult;

// Row cursor of a result: the index of the row last delivered by
// ORVODBFetchRow.
using ORVODBRow = int;

enum class OrvoDatabase { kMedia, kPhoto };

// Where a database lives: the environment (ORVO_MEDIA_DB / ORVO_PHOTO_DB)
// wins over the key media_db / photo_db in /etc/orvoindex.conf, which wins
// over the default sqlite:/var/lib/orvoindex/{mediaserver,photo}.db.
std::string OrvoDBLocation(OrvoDatabase which);

// The connection to a database, opened (and its schema made) on first use.
// Null, with the failure logged, when the database cannot be reached; the
// next call tries again.
ORVODB* OrvoDBConnect(OrvoDatabase which);

// Commits the pending grouped writes of both databases. The daemon calls it
// before it deletes a finished batch and before it signals the music server.
// Returns 0, or -1 when a commit failed (the failure is logged).
int ORVODBFlush();

// Makes what both databases committed durable: on SQLite one sync of the
// write-ahead log of each database written since the last sync (a commit
// alone does not sync it); on PostgreSQL a commit is durable already. Call it
// after ORVODBFlush, before anything that must not happen unless the writes
// are on disk. 0, or -1 when a sync failed (logged).
int ORVODBSync();

// Closes both connections (after a flush). The next call reconnects.
void ORVODBCloseAll();

// --- Work lost to a database that is not available, during a queue run ---
//
// A failure is transient when the database was busy, locked, unreachable,
// read-only or full: the same statement may succeed later. Otherwise it was
// refused (a constraint, bad text): it would be refused again.
//
// Every statement and every attempt to open a database gets the next number.
// Between ORVODBBeginRun and ORVODBEndRun a transient failure is recorded as
// the run's loss: the work of the statements numbered from `from` on may be
// missing (when a transaction was rolled back, `from` is the statement that
// opened it). From then until ORVODBEndRun every statement fails at once
// without reaching a database, and the log is held (orvo::HoldLog), so the
// rest of the caller's work costs neither waits nor log lines: the caller
// runs that work again later, and every handler is safe to repeat.
struct ORVODBLoss {
  uint64_t from = 0;  // 0 when nothing was lost
  OrvoDatabase database = OrvoDatabase::kMedia;
  std::string reason;  // the failure's message
};

// Starts a run: forgets the last loss.
void ORVODBBeginRun();
// Ends a run: statements reach the databases again and the log is released.
// The loss stays readable until the next ORVODBBeginRun.
void ORVODBEndRun();
const ORVODBLoss& ORVODBRunLoss();

// The number given last.
uint64_t ORVODBLastNumber();

// The number of the statement that opened the oldest group of writes not
// yet committed (either database), or ORVODBLastNumber() + 1 when none is
// open: statements numbered below it are committed, refused or lost.
uint64_t ORVODBFirstUncommitted();

// 0 when `which` can be written now (on SQLite its write lock can be taken;
// on PostgreSQL the server answers), -1 otherwise. Logs nothing. For use
// between runs.
int ORVODBProbe(OrvoDatabase which);

// Executes exactly one statement (a trailing ';' is allowed; text holding a
// second statement is refused and logged). For a query, *result receives the
// rows (free it with ORVODBFreeResult); `result` may be null for statements
// whose rows are not wanted. Returns the number of rows the statement
// changed (or returned, for a query), or -1 on failure.
int ORVODBExecute(ORVODB* db, const char* sql, ORVODBResult** result);

// Moves the cursor to the next row: 0 while a row is delivered (its index is
// stored in *row when `row` is not null), -1 after the last one.
int ORVODBFetchRow(ORVODBResult* result, ORVODBRow* row);

// The text of `column` in `row` ("" for NULL; booleans read back as "t"/"f").
// Null when there is no such row or column. Valid until the result is freed.
const char* ORVODBFetchField(ORVODBResult* result, ORVODBRow row, const char* column);

// Number of rows in the result.
int ORVODBRowCount(const ORVODBResult* result);

void ORVODBFreeResult(ORVODBResult* result);

// The message of the connection's last failure ("" when none).
const char* ORVODBErrorGet(ORVODB* db);

// Writes `in` (its first `length` bytes) into `out` with every single quote
// doubled, ready to stand inside '...'. `out` must hold 2 * length + 1 bytes.
// Returns the output length, or -1 on failure.
int ORVODBEscapeString(char* out, const char* in, size_t length);

// Puts a backslash before '\', '%' and '_' for a LIKE pattern, and makes
// every run of single quotes even in length, so that the output can never end
// a string literal whether `in` was quote-escaped already or not. Writes at
// most `outSize` bytes, NUL included (3 * strlen(in) + 1 always suffices).
// Returns the output length, or -1 when it does not fit.
int ORVODBEscapeBackslash(char* out, size_t outSize, const char* in);
