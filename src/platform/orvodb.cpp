// Database access: where each database lives, the connection of each,
// raw statements and their results, escaping and grouped writes. The two
// backends live in db_sqlite.cpp and db_postgres.cpp.
#include "platform/orvodb.h"

#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/db_backend.h"
#include "platform/log.h"

namespace {

constexpr const char* kConfFile = "/etc/orvoindex.conf";

// The two connections of the process. They are never freed, so a pointer
// handed out stays valid across reconnects.
ORVODB gDatabases[2];

// A queue run's account of lost work (orvodb.h).
uint64_t gLastNumber = 0;
bool gInRun = false;
ORVODBLoss gLoss;

uint64_t NextNumber() { return ++gLastNumber; }

ORVODB* Slot(OrvoDatabase which) {
  ORVODB* db = &gDatabases[which == OrvoDatabase::kMedia ? 0 : 1];
  db->which = which;
  return db;
}

const char* DatabaseName(OrvoDatabase which) {
  return which == OrvoDatabase::kMedia ? "media" : "photo";
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

bool IsLocation(std::string_view value) {
  return (value.starts_with("sqlite:") && value.size() > 7) ||
         value.starts_with("postgresql://") || value.starts_with("postgres://");
}

// "key=value" lines, '#' comments, optional double quotes; the last valid
// occurrence wins. Only the first 64 KiB of the file are read.
std::string ReadConfLocation(const char* file, std::string_view key) {
  std::string found;
  std::unique_ptr<FILE, int (*)(FILE*)> f(fopen(file, "re"), fclose);
  if (!f) return found;
  std::string text(64 * 1024, '\0');
  text.resize(fread(text.data(), 1, text.size(), f.get()));
  std::string_view rest = text;
  while (!rest.empty()) {
    size_t eol = rest.find('\n');
    std::string_view line = Trim(rest.substr(0, eol));
    rest = eol == std::string_view::npos ? std::string_view() : rest.substr(eol + 1);
    if (line.empty() || line.front() == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string_view::npos || Trim(line.substr(0, eq)) != key) continue;
    std::string_view value = Trim(line.substr(eq + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
      value = value.substr(1, value.size() - 2);
    if (IsLocation(value)) found.assign(value);
  }
  return found;
}

// True, with the reason in db->error, while a run's loss holds every
// statement: the rest of the work is run again later anyway.
bool Held(ORVODB* db) {
  if (!gInRun || gLoss.from == 0) return false;
  db->error = "not run: the " + std::string(DatabaseName(gLoss.database)) +
              " database was not available (" + gLoss.reason + ")";
  db->failure = DbFailure::kTransient;
  return true;
}

int EnsureOpen(ORVODB* db) {
  if (db == nullptr) return -1;
  if (DbIsOpen(db)) return 0;
  if (Held(db)) return -1;
  std::string location = OrvoDBLocation(db->which);
  db->error.clear();
  db->failure = DbFailure::kNone;
  db->inGroup = false;
  db->groupLog.clear();
  int rc;
  if (location.starts_with("sqlite:")) {
    db->backend = DbBackend::kSqlite;
    rc = SqliteOpen(db, location.substr(7));
  } else {
    db->backend = DbBackend::kPostgres;
    rc = PgOpen(db, location);
  }
  if (rc == 0) {
    db->location = location;
    // The schema is made once; an existing database costs one query.
    ORVODBResult version;
    int n = db->backend == DbBackend::kSqlite
                ? SqliteRun(db, "select version from schema_version", {}, &version, nullptr, nullptr)
                : PgRun(db, "select version from schema_version", {}, &version, nullptr, nullptr);
    if (n != 0 || version.rows.empty()) {
      auto control = db->backend == DbBackend::kSqlite ? SqliteControl : PgControl;
      rc = control(db, "begin");
      for (const auto& sql : DbSchemaStatements(db->which, db->backend)) {
        if (rc == 0) rc = control(db, sql.c_str());
      }
      if (rc == 0) rc = control(db, "commit");
    }
  }
  if (rc != 0) {
    if (db->failure == DbFailure::kTransient) DbMarkLost(db, NextNumber());
    ORVO_LOG("%s (%d) Failed to open the %s database (%s)", DatabaseName(db->which),
             db->error.c_str());
    if (db->backend == DbBackend::kSqlite) SqliteClose(db);
    else PgClose(db);
    return -1;
  }
  return 0;
}

int BeginGroup(ORVODB* db) {
  if (db->inGroup) return 0;
  db->groupLog.clear();
  db->groupWrites = 0;
  db->groupFirst = gLastNumber;
  db->groupStart = std::chrono::steady_clock::now();
  // On PostgreSQL the pipelined path queues its own BEGIN.
  if (db->backend == DbBackend::kSqlite ? SqliteControl(db, "begin") : PgControl(db, "begin"))
    return -1;
  db->inGroup = true;
  return 0;
}

// A group commits at the latest 1 s after it opened: checked at every call,
// since the daemon has no timer of its own.
void CommitIfAged(ORVODB* db) {
  if (db->inGroup && std::chrono::steady_clock::now() - db->groupStart >= kGroupMaxAge)
    DbCommitGroup(db);
}

void CountGroupWrite(ORVODB* db) {
  if (!db->inGroup) return;
  ++db->groupWrites;
  if (db->groupWrites >= kGroupMaxWrites ||
      std::chrono::steady_clock::now() - db->groupStart >= kGroupMaxAge)
    DbCommitGroup(db);
}

bool IsIdentChar(char c) {
  return isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$' ||
         static_cast<unsigned char>(c) >= 0x80;
}

}  // namespace

// --- configuration ---

std::string OrvoDBLocationFrom(OrvoDatabase which, const char* confFile) {
  const bool media = which == OrvoDatabase::kMedia;
  const char* env = getenv(media ? "ORVO_MEDIA_DB" : "ORVO_PHOTO_DB");
  if (env != nullptr && IsLocation(Trim(env))) return std::string(Trim(env));
  std::string fromFile = ReadConfLocation(confFile, media ? "media_db" : "photo_db");
  if (!fromFile.empty()) return fromFile;
  return media ? "sqlite:/var/lib/orvoindex/mediaserver.db" : "sqlite:/var/lib/orvoindex/photo.db";
}

std::string OrvoDBLocation(OrvoDatabase which) { return OrvoDBLocationFrom(which, kConfFile); }

// --- connections and groups ---

bool DbIsOpen(const ORVODB* db) { return db->lite != nullptr || db->pg != nullptr; }

ORVODB* OrvoDBConnect(OrvoDatabase which) {
  ORVODB* db = Slot(which);
  if (Held(db) || EnsureOpen(db) != 0) return nullptr;
  CommitIfAged(db);
  return db;
}

int DbCommitGroup(ORVODB* db) {
  if (!DbIsOpen(db) || !db->inGroup) return 0;
  const bool wrote = db->groupWrites > 0;
  int rc;
  if (db->backend == DbBackend::kSqlite) {
    rc = SqliteControl(db, "commit");
    if (rc != 0) SqliteControl(db, "rollback");
  } else if (db->pipeline) {
    rc = PgSyncPipeline(db, true);
  } else {
    rc = PgControl(db, "commit");
  }
  db->inGroup = false;
  db->groupLog.clear();
  if (rc != 0) {
    if (db->failure == DbFailure::kTransient) DbMarkLost(db, db->groupFirst);
    orvo::LogSubject aboutTheGroup(nullptr);  // not about the file handled at the time
    ORVO_LOG("%s (%d) Failed to commit the %s database (%s)", DatabaseName(db->which),
             db->error.c_str());
    return -1;
  }
  if (wrote && db->backend == DbBackend::kSqlite && db->unsyncedFrom == 0)
    db->unsyncedFrom = db->groupFirst;
  return 0;
}

int DbGroupedWrite(ORVODB* db, std::string_view sql, std::span<const DbParam> params) {
  if (db == nullptr) return -1;
  const uint64_t number = NextNumber();
  if (Held(db) || EnsureOpen(db) != 0) return -1;
  auto failed = [&] {
    if (db->failure == DbFailure::kTransient) DbMarkLost(db, number);
    return -1;
  };
  if (db->backend == DbBackend::kSqlite) {
    if (BeginGroup(db) != 0 || SqliteRun(db, sql, params, nullptr, nullptr, nullptr) != 0)
      return failed();
  } else {
    if (!db->inGroup) {
      db->groupLog.clear();
      db->groupWrites = 0;
      db->groupFirst = number;
      db->groupStart = std::chrono::steady_clock::now();
    }
    DbGroupWrite write{std::string(sql), {}, true, number};
    write.params.reserve(params.size());
    for (DbParam p : params) write.params.push_back(p ? std::optional<std::string>(p) : std::nullopt);
    db->groupLog.push_back(std::move(write));
    if (PgQueueWrite(db, static_cast<int>(db->groupLog.size()) - 1) != 0) return failed();
  }
  CountGroupWrite(db);
  return 0;
}

int DbBeginGroup(ORVODB* db) { return BeginGroup(db); }

int DbRun(ORVODB* db, std::string_view sql, std::span<const DbParam> params,
          ORVODBResult** result) {
  if (result != nullptr) *result = nullptr;
  if (db == nullptr) return -1;
  const uint64_t number = NextNumber();
  if (Held(db) || EnsureOpen(db) != 0) return -1;
  auto rows = std::make_unique<ORVODBResult>();
  int changes = 0;
  bool isWrite = false;
  int rc = db->backend == DbBackend::kSqlite
               ? SqliteRun(db, sql, params, rows.get(), &changes, &isWrite)
               : PgRun(db, sql, params, rows.get(), &changes, &isWrite);
  if (rc != 0) {
    // A failed read loses work too: what the caller would have done with it.
    if (db->failure == DbFailure::kTransient) DbMarkLost(db, number);
    return -1;
  }
  if (isWrite) {
    if (db->backend == DbBackend::kPostgres && db->inGroup) {
      DbGroupWrite write{std::string(sql), {}, !params.empty(), number};
      for (DbParam p : params) write.params.push_back(p ? std::optional<std::string>(p) : std::nullopt);
      db->groupLog.push_back(std::move(write));
    }
    CountGroupWrite(db);
  }
  if (result != nullptr) *result = rows.release();
  return changes;
}

int DbVacuum(ORVODB* db) {
  if (Held(db) || EnsureOpen(db) != 0) return -1;
  if (DbCommitGroup(db) != 0) return -1;
  int rc = db->backend == DbBackend::kSqlite ? SqliteControl(db, "vacuum") : PgControl(db, "vacuum");
  if (rc != 0) {
    ORVO_LOG("%s (%d) Failed to vacuum the %s database (%s)", DatabaseName(db->which),
             db->error.c_str());
    return -1;
  }
  return 0;
}

int ORVODBFlush() {
  int rc = 0;
  for (ORVODB& db : gDatabases) {
    if (DbCommitGroup(&db) != 0) rc = -1;
  }
  return rc;
}

int ORVODBSync() {
  int rc = 0;
  for (ORVODB& db : gDatabases) {
    if (db.lite == nullptr || db.unsyncedFrom == 0) continue;
    if (SqliteSyncLog(&db) != 0) {
      DbMarkLost(&db, db.unsyncedFrom);
      ORVO_LOG("%s (%d) Failed to sync the %s database (%s)", DatabaseName(db.which),
               db.error.c_str());
      rc = -1;
    }
    db.unsyncedFrom = 0;
  }
  return rc;
}

void ORVODBCloseAll() {
  ORVODBFlush();
  for (ORVODB& db : gDatabases) {
    if (db.lite != nullptr) SqliteClose(&db);
    if (db.pg != nullptr) PgClose(&db);
    db.inGroup = false;
    db.groupLog.clear();
    db.location.clear();
  }
}

// --- a queue run's losses ---

void DbMarkLost(ORVODB* db, uint64_t from) {
  if (!gInRun || from == 0) return;
  if (gLoss.from == 0) {
    gLoss.database = db->which;
    gLoss.reason = db->error.substr(0, db->error.find('\n'));  // the server adds the statement
    orvo::HoldLog(true);
  }
  if (gLoss.from == 0 || from < gLoss.from) gLoss.from = from;
}

void ORVODBBeginRun() {
  gLoss = ORVODBLoss();
  gInRun = true;
}

void ORVODBEndRun() {
  gInRun = false;
  orvo::HoldLog(false);
}

const ORVODBLoss& ORVODBRunLoss() { return gLoss; }

uint64_t ORVODBLastNumber() { return gLastNumber; }

uint64_t ORVODBFirstUncommitted() {
  uint64_t first = gLastNumber + 1;
  for (const ORVODB& db : gDatabases) {
    if (DbIsOpen(&db) && db.inGroup && db.groupFirst < first) first = db.groupFirst;
  }
  return first;
}

int ORVODBProbe(OrvoDatabase which) {
  ORVODB* db = Slot(which);
  orvo::HoldLog(true);  // a probe that fails says nothing; its caller does
  int rc = EnsureOpen(db);
  if (rc == 0 && !db->inGroup) {
    if (db->backend == DbBackend::kSqlite) {
      rc = SqliteControl(db, "begin immediate");
      if (rc == 0) SqliteControl(db, "rollback");
    } else {
      rc = PgControl(db, "select 1");
      // A connection the server dropped while it was away: the next one may do.
      if (rc != 0 && !DbIsOpen(db)) rc = EnsureOpen(db) == 0 ? PgControl(db, "select 1") : -1;
    }
  }
  orvo::HoldLog(false);
  return rc == 0 ? 0 : -1;
}

// --- raw statements ---

long DbSingleStatementLength(std::string_view sql) {
  const size_t n = sql.size();
  long end = -1;          // the first top-level ';'
  bool hasText = false;   // something besides blanks and comments before it
  size_t i = 0;
  auto skipQuoted = [&](char quote, bool backslashes) {
    for (++i; i < n; ++i) {
      if (backslashes && sql[i] == '\\') {
        ++i;
      } else if (sql[i] == quote) {
        if (i + 1 < n && sql[i + 1] == quote) {
          ++i;
        } else {
          ++i;
          return true;
        }
      }
    }
    return false;
  };
  while (i < n) {
    char c = sql[i];
    if (isspace(static_cast<unsigned char>(c))) {
      ++i;
      continue;
    }
    if (c == '-' && i + 1 < n && sql[i + 1] == '-') {
      while (i < n && sql[i] != '\n') ++i;
      continue;
    }
    if (c == '/' && i + 1 < n && sql[i + 1] == '*') {
      // One database nests comments and the other does not: a comment that
      // opens another is refused rather than guessed at.
      size_t close = sql.find("*/", i + 2);
      if (close == std::string_view::npos) return -1;
      if (sql.substr(i + 2, close - i - 2).find("/*") != std::string_view::npos) return -1;
      i = close + 2;
      continue;
    }
    if (end >= 0) return -1;  // text after the terminator: a second statement
    if (c == ';') {
      if (!hasText) return -1;
      end = static_cast<long>(i);
      ++i;
      continue;
    }
    hasText = true;
    if (c == '\'') {
      bool escapes = i > 0 && (sql[i - 1] == 'e' || sql[i - 1] == 'E') &&
                     (i < 2 || !IsIdentChar(sql[i - 2]));
      if (!skipQuoted('\'', escapes)) return -1;
      continue;
    }
    if (c == '"' || c == '`') {
      if (!skipQuoted(c, false)) return -1;
      continue;
    }
    if (c == '$' && (i == 0 || !IsIdentChar(sql[i - 1]))) {
      // A dollar-quoted string: $tag$ ... $tag$. "$1" is a parameter.
      size_t j = i + 1;
      while (j < n && (isalnum(static_cast<unsigned char>(sql[j])) || sql[j] == '_')) ++j;
      if (j < n && sql[j] == '$' && !(j > i + 1 && isdigit(static_cast<unsigned char>(sql[i + 1])))) {
        std::string_view tag = sql.substr(i, j - i + 1);
        size_t close = sql.find(tag, j + 1);
        if (close == std::string_view::npos) return -1;
        i = close + tag.size();
        continue;
      }
    }
    ++i;
  }
  if (!hasText) return -1;
  return end >= 0 ? end : static_cast<long>(n);
}

int ORVODBExecute(ORVODB* db, const char* sql, ORVODBResult** result) {
  if (result != nullptr) *result = nullptr;
  if (db == nullptr || sql == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  long length = DbSingleStatementLength(sql);
  if (length < 0) {
    ORVO_LOG("%s (%d) Refused to execute [%s]: not exactly one statement", sql);
    db->error = "not exactly one statement";
    return -1;
  }
  int rc = DbRun(db, std::string_view(sql, static_cast<size_t>(length)), {}, result);
  if (rc < 0) ORVO_LOG("%s (%d) Failed to execute [%s] (%s)", sql, db->error.c_str());
  return rc;
}

int ORVODBFetchRow(ORVODBResult* result, ORVODBRow* row) {
  if (result == nullptr) return -1;
  const int count = static_cast<int>(result->rows.size());
  if (result->cursor + 1 >= count) {
    result->cursor = count;
    return -1;
  }
  ++result->cursor;
  if (row != nullptr) *row = result->cursor;
  return 0;
}

const char* ORVODBFetchField(ORVODBResult* result, ORVODBRow row, const char* column) {
  if (result == nullptr || column == nullptr || row < 0 ||
      row >= static_cast<int>(result->rows.size()))
    return nullptr;
  for (size_t c = 0; c < result->columns.size(); ++c) {
    if (strcasecmp(result->columns[c].c_str(), column) == 0) {
      const auto& value = result->rows[row][c];
      return value ? value->c_str() : "";
    }
  }
  return nullptr;
}

int ORVODBRowCount(const ORVODBResult* result) {
  return result == nullptr ? 0 : static_cast<int>(result->rows.size());
}

void ORVODBFreeResult(ORVODBResult* result) { delete result; }

const char* ORVODBErrorGet(ORVODB* db) { return db == nullptr ? "" : db->error.c_str(); }

// --- escaping ---

int ORVODBEscapeString(char* out, const char* in, size_t length) {
  if (out == nullptr || in == nullptr) return -1;
  size_t o = 0;
  // Like the client library's own escaping, text ends at a NUL byte.
  for (size_t i = 0; i < length && in[i] != '\0'; ++i) {
    if (in[i] == '\'') out[o++] = '\'';
    out[o++] = in[i];
  }
  out[o] = '\0';
  return static_cast<int>(o);
}

int ORVODBEscapeBackslash(char* out, size_t outSize, const char* in) {
  if (out == nullptr || in == nullptr || outSize == 0) return -1;
  size_t o = 0;
  auto put = [&](char c) {
    if (o + 1 >= outSize) return false;
    out[o++] = c;
    return true;
  };
  for (size_t i = 0; in[i] != '\0';) {
    if (in[i] == '\'') {
      // An odd run of quotes gets one more, so that it reads as quotes
      // inside the literal and never as its end.
      size_t run = 0;
      while (in[i] == '\'') {
        ++run;
        ++i;
      }
      for (size_t k = 0; k < run + (run & 1); ++k)
        if (!put('\'')) return -1;
      continue;
    }
    if (in[i] == '\\' || in[i] == '%' || in[i] == '_') {
      if (!put('\\')) return -1;
    }
    if (!put(in[i])) return -1;
    ++i;
  }
  out[o] = '\0';
  return static_cast<int>(o);
}
