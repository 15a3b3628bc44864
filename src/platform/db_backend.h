// Internals of the database access layer shared by orvodb.cpp, the two
// backends and the media and photo databases. Not for code outside
// src/platform/.
//
// One ORVODB per database (media, photo) lives for the whole process; its
// backend connection is opened on demand and dropped when it breaks, so a
// pointer handed out once stays valid and the next call reconnects.
//
// Writes are grouped: the first write opens a transaction, which is
// committed after kGroupMaxWrites writes, after kGroupMaxAge, by
// ORVODBFlush, before a vacuum and before ORVODBCloseAll. On PostgreSQL the
// hot writes of a group are pipelined; a failed one is reported (logged) when
// the pipeline is next synchronised, and the group's other writes are
// replayed one by one so that one bad row costs only itself. A transient
// failure (orvodb.h) instead loses the group: it is rolled back, not replayed,
// and recorded as the run's loss from the statement that opened the group.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/orvodb.h"

struct sqlite3;
struct sqlite3_stmt;
struct pg_conn;

enum class DbBackend { kSqlite, kPostgres };

// How the last failure failed (orvodb.h: transient or refused).
enum class DbFailure { kNone, kRefused, kTransient };

inline constexpr int kGroupMaxWrites = 1000;
inline constexpr std::chrono::milliseconds kGroupMaxAge{1000};

struct ORVODBResult {
  std::vector<std::string> columns;
  std::vector<std::vector<std::optional<std::string>>> rows;
  int cursor = -1;
};

// A write of the open group, kept so that it can be replayed when the group
// has to be rolled back on PostgreSQL.
struct DbGroupWrite {
  std::string sql;
  std::vector<std::optional<std::string>> params;  // empty for a raw statement
  bool parameterised = false;
  uint64_t number = 0;  // the statement's number (orvodb.h)
};

// What a queued pipeline entry is, so that its results can be accounted for.
struct DbPipelineEntry {
  enum Kind { kControl, kPrepare, kWrite, kSync } kind;
  int groupIndex = -1;  // kWrite: index into groupLog
  std::string prepareSql;  // kPrepare: statement text, forgotten when the prepare fails
};

// Lets the statement caches be searched by string_view without a copy.
struct DbTextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};
template <typename T>
using DbTextMap = std::unordered_map<std::string, T, DbTextHash, std::equal_to<>>;

struct ORVODB {
  OrvoDatabase which = OrvoDatabase::kMedia;
  DbBackend backend = DbBackend::kSqlite;
  std::string location;  // the URI the open connection came from
  std::string error;     // last failure, for ORVODBErrorGet
  DbFailure failure = DbFailure::kNone;  // and how it failed

  sqlite3* lite = nullptr;
  DbTextMap<sqlite3_stmt*> liteStatements;

  pg_conn* pg = nullptr;
  DbTextMap<std::string> pgStatements;  // text -> prepared name
  int pgNextStatement = 0;
  bool pipeline = false;
  std::deque<DbPipelineEntry> pipelineQueue;
  bool pipelineAborted = false;     // an error aborted the pipelined group
  bool pipelineLost = false;        // ... and it was transient: no replay
  std::vector<int> pipelineFailed;  // groupLog indices of the writes that failed

  bool inGroup = false;
  int groupWrites = 0;
  uint64_t groupFirst = 0;  // the number of the statement that opened the group
  std::chrono::steady_clock::time_point groupStart;
  std::vector<DbGroupWrite> groupLog;  // PostgreSQL only
  uint64_t unsyncedFrom = 0;  // SQLite: first group committed since the last sync; 0: none
};

// A statement parameter: text, or SQL NULL.
using DbParam = const char*;

// --- orvodb.cpp ---

// True while the backend connection is open.
bool DbIsOpen(const ORVODB* db);

// Records, during a run, that the work of statements numbered `from` on was
// lost to db's transient failure (db->error says which); holds later
// statements and the log. Call it before logging the failure.
void DbMarkLost(ORVODB* db, uint64_t from);

// Runs a parameterised statement ($1, $2, ... each first used in that order)
// whose rows are not wanted, as one write of the current group. Returns 0
// (PostgreSQL may report a failure only at the next synchronisation), or -1.
int DbGroupedWrite(ORVODB* db, std::string_view sql, std::span<const DbParam> params);

// Runs a parameterised statement now, inside the open group if any, and
// returns the rows changed (or returned), or -1. `result` may be null.
int DbRun(ORVODB* db, std::string_view sql, std::span<const DbParam> params,
          ORVODBResult** result);

// Opens the group (a transaction) unless one is open. 0 or -1.
int DbBeginGroup(ORVODB* db);

// Commits the open group of one database. 0, or -1 (logged).
int DbCommitGroup(ORVODB* db);

// Commits pending writes and vacuums. 0 or -1 (logged).
int DbVacuum(ORVODB* db);

// Where a database lives, reading `confFile` instead of /etc/orvoindex.conf.
std::string OrvoDBLocationFrom(OrvoDatabase which, const char* confFile);

// Checks that `sql` holds one statement (an optional trailing ';' and blanks
// or comments after it aside). Quotes, double-quoted names, E'' and
// dollar-quoted strings and comments are skipped whole. Returns the length of
// the statement without its terminator, or -1 when there is a second statement
// or a quote or comment is never closed.
long DbSingleStatementLength(std::string_view sql);

// --- db_schema.cpp ---

// Statements that make the schema of `which` for `backend`, in order; each
// is safe to run again.
std::vector<std::string> DbSchemaStatements(OrvoDatabase which, DbBackend backend);
inline constexpr int kSchemaVersion = 1;

// --- db_sqlite.cpp ---

// Opens (creating the folder and the file when needed) and prepares the
// connection: WAL, the PostgreSQL-compatible like(). 0 or -1 with db->error.
int SqliteOpen(ORVODB* db, const std::string& file);
void SqliteClose(ORVODB* db);
// Runs one statement. *changes receives the changed rows, or the returned
// rows for a query. 0 or -1 with db->error.
int SqliteRun(ORVODB* db, std::string_view sql, std::span<const DbParam> params,
              ORVODBResult* result, int* changes, bool* readOnly);
// Runs a control statement (begin, commit, pragma, ddl). 0 or -1.
int SqliteControl(ORVODB* db, const char* sql);
// Syncs the write-ahead log to stable storage. 0 or -1 with db->error.
int SqliteSyncLog(ORVODB* db);

// --- db_postgres.cpp ---

int PgOpen(ORVODB* db, const std::string& uri);
void PgClose(ORVODB* db);
// Runs one statement now, leaving pipeline mode first. When it fails inside
// a group, the group is rolled back and its logged writes are written again
// without it. 0 or -1 with db->error.
int PgRun(ORVODB* db, std::string_view sql, std::span<const DbParam> params,
          ORVODBResult* result, int* changes, bool* isWrite);
int PgControl(ORVODB* db, const char* sql);
// Queues a write of the group in pipeline mode (opening the group when
// needed). 0, or -1 when it could not even be sent.
int PgQueueWrite(ORVODB* db, int groupIndex);
// Sends COMMIT when `commit`, synchronises the pipeline, collects every
// queued result and leaves pipeline mode. A failed write is logged; when the
// group was aborted it is rolled back and its other writes replayed. 0 or -1.
int PgSyncPipeline(ORVODB* db, bool commit);
// True when the connection has gone (it is then closed; the next call
// reconnects).
bool PgConnectionLost(ORVODB* db);
