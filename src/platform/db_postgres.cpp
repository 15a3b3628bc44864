// The server backend (libpq).
//
// Paths hold the file's own bytes, which need not be UTF-8. The server only
// stores such text in a database created with ENCODING 'SQL_ASCII' (and
// LC_COLLATE/LC_CTYPE 'C', which also makes ordering byte-wise like the
// embedded backend); the client encoding is set to SQL_ASCII so that nothing
// is converted on the way. On a database of another encoding everything but
// non-UTF-8 paths still works; connecting to one logs a warning.
#include <libpq-fe.h>
#include <strings.h>

#include <algorithm>
#include <iterator>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/db_backend.h"
#include "platform/log.h"

namespace {

struct ResultDeleter {
  void operator()(PGresult* r) const { PQclear(r); }
};
using ResultPtr = std::unique_ptr<PGresult, ResultDeleter>;

void IgnoreNotice(void*, const char*) {}

// The failures after which the same statement may succeed later, by
// SQLSTATE: the connection (08), resources such as a full disk (53), the
// server going down (57P0x) or cancelling (57014), a lock that was not
// granted in time (55P03), serialization and deadlock (40001, 40P01), a
// read-only transaction (25006) and system errors (58). Anything else, the
// constraints (23) and bad data (22) first, was refused. A failure without a
// state came from the connection itself.
DbFailure FailureOf(const char* state) {
  if (state == nullptr || strlen(state) != 5) return DbFailure::kTransient;
  for (const char* prefix : {"08", "53", "57P0", "57014", "55P03", "40001", "40P01", "25006", "58"}) {
    if (strncmp(state, prefix, strlen(prefix)) == 0) return DbFailure::kTransient;
  }
  return DbFailure::kRefused;
}

void SetError(ORVODB* db, const PGresult* r) {
  const char* message = r ? PQresultErrorMessage(r) : nullptr;
  if (message == nullptr || *message == '\0') message = PQerrorMessage(db->pg);
  db->error = message ? message : "";
  while (!db->error.empty() && isspace(static_cast<unsigned char>(db->error.back())))
    db->error.pop_back();
  db->failure = FailureOf(r ? PQresultErrorField(r, PG_DIAG_SQLSTATE) : nullptr);
}

void CopyRows(const PGresult* r, ORVODBResult* result) {
  const int columns = PQnfields(r);
  const int rows = PQntuples(r);
  for (int c = 0; c < columns; ++c) result->columns.emplace_back(PQfname(r, c));
  result->rows.reserve(rows);
  for (int i = 0; i < rows; ++i) {
    auto& row = result->rows.emplace_back();
    row.reserve(columns);
    for (int c = 0; c < columns; ++c) {
      if (PQgetisnull(r, i, c)) row.emplace_back(std::nullopt);
      else row.emplace_back(std::string(PQgetvalue(r, i, c), PQgetlength(r, i, c)));
    }
  }
}

// Statements whose rows are what the caller wants and that change nothing.
bool IsReadStatement(std::string_view sql) {
  size_t i = 0;
  while (i < sql.size() && (isspace(static_cast<unsigned char>(sql[i])) || sql[i] == '(')) ++i;
  size_t j = i;
  while (j < sql.size() && isalpha(static_cast<unsigned char>(sql[j]))) ++j;
  std::string word(sql.substr(i, j - i));
  for (char& c : word) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return word == "select" || word == "show" || word == "explain" || word == "values" ||
         word == "table";
}

ResultPtr Exec(ORVODB* db, const char* sql) { return ResultPtr(PQexec(db->pg, sql)); }

bool Succeeded(const PGresult* r) {
  ExecStatusType s = PQresultStatus(r);
  return s == PGRES_COMMAND_OK || s == PGRES_TUPLES_OK;
}

// Collects results of the queued pipeline entries. Without `wait` it stops
// as soon as the next result has not arrived yet. -1 when the connection
// failed.
int Drain(ORVODB* db, bool wait) {
  while (!db->pipelineQueue.empty()) {
    if (!wait) {
      if (!PQconsumeInput(db->pg)) return -1;
      if (PQisBusy(db->pg)) return 0;
    }
    PGresult* raw = PQgetResult(db->pg);
    DbPipelineEntry& entry = db->pipelineQueue.front();
    if (raw == nullptr) {
      if (wait && PQstatus(db->pg) == CONNECTION_BAD) return -1;
      db->pipelineQueue.pop_front();
      continue;
    }
    ResultPtr r(raw);
    ExecStatusType status = PQresultStatus(raw);
    if (status == PGRES_PIPELINE_SYNC) {
      db->pipelineQueue.pop_front();
      continue;
    }
    if (status == PGRES_FATAL_ERROR || status == PGRES_PIPELINE_ABORTED) {
      db->pipelineAborted = true;
      if (entry.kind == DbPipelineEntry::kPrepare) db->pgStatements.erase(entry.prepareSql);
      if (status == PGRES_FATAL_ERROR) {
        SetError(db, raw);
        if (db->failure == DbFailure::kTransient) {
          // The group's transaction is gone and the same would befall a replay.
          db->pipelineLost = true;
          DbMarkLost(db, db->groupFirst);
        }
        if (entry.kind == DbPipelineEntry::kWrite && entry.groupIndex >= 0 &&
            entry.groupIndex < static_cast<int>(db->groupLog.size())) {
          db->pipelineFailed.push_back(entry.groupIndex);
          const auto& write = db->groupLog[entry.groupIndex];
          const char* what = !write.params.empty() && write.params[0] ? write.params[0]->c_str() : "";
          orvo::LogSubject aboutTheRow(what);  // reported later than its own file's handling
          ORVO_LOG("%s (%d) Failed to write %s (%s)", what, db->error.c_str());
        }
      }
    }
  }
  return 0;
}

int RunWrite(ORVODB* db, const DbGroupWrite& write) {
  std::vector<const char*> values;
  for (const auto& p : write.params) values.push_back(p ? p->c_str() : nullptr);
  ResultPtr r(PQexecParams(db->pg, write.sql.c_str(), static_cast<int>(values.size()), nullptr,
                           values.data(), nullptr, nullptr, 0));
  if (Succeeded(r.get())) return 0;
  SetError(db, r.get());
  return -1;
}

// The group was aborted by a failed write: roll it back and write the others
// again, each on its own, so that one bad row costs only itself. When the
// failure was transient (db->pipelineLost) the group is lost instead: the
// replay would meet the same lock or outage once per row.
void ReplayGroup(ORVODB* db) {
  Exec(db, "rollback");
  db->inGroup = false;
  std::vector<bool> skip(db->groupLog.size(), false);
  for (int i : db->pipelineFailed) skip[i] = true;
  for (size_t i = 0; i < db->groupLog.size() && !db->pipelineLost; ++i) {
    if (skip[i]) continue;
    const DbGroupWrite& write = db->groupLog[i];
    if (RunWrite(db, write) != 0) {
      // The writes replayed so far are committed each on its own.
      if (db->failure == DbFailure::kTransient) DbMarkLost(db, write.number);
      // A row is named by its path, the first parameter; a raw statement by itself.
      const std::string& what = !write.params.empty() && write.params[0] ? *write.params[0] : write.sql;
      orvo::LogSubject aboutTheRow(what.c_str());
      ORVO_LOG("%s (%d) Failed to write %s (%s)", what.c_str(), db->error.c_str());
      if (db->failure == DbFailure::kTransient) break;
    }
  }
  db->groupLog.clear();
  db->pipelineFailed.clear();
  db->pipelineAborted = false;
  db->pipelineLost = false;
}

// The group's transaction ended with the connection: its work is lost.
void LoseGroupWithConnection(ORVODB* db) {
  if (db->inGroup) {
    db->failure = DbFailure::kTransient;
    DbMarkLost(db, db->groupFirst);
  }
}

}  // namespace

int PgOpen(ORVODB* db, const std::string& uri) {
  // The URI is expanded first; the settings after it win over its own.
  const char* keys[] = {"dbname", "client_encoding", "connect_timeout", nullptr};
  const char* values[] = {uri.c_str(), "SQL_ASCII", "5", nullptr};
  PGconn* pg = PQconnectdbParams(keys, values, 1);
  if (pg == nullptr || PQstatus(pg) != CONNECTION_OK) {
    // An unreachable server, or one that refuses us now: try again later.
    db->failure = DbFailure::kTransient;
    db->error = pg ? PQerrorMessage(pg) : "out of memory";
    while (!db->error.empty() && isspace(static_cast<unsigned char>(db->error.back())))
      db->error.pop_back();
    PQfinish(pg);
    return -1;
  }
  PQsetNoticeProcessor(pg, IgnoreNotice, nullptr);
  db->pg = pg;
  // A locked table fails the call after a short wait instead of hanging the
  // daemon; the work is run again later.
  PQclear(PQexec(pg, "set lock_timeout = '2s'"));
  // A commit returns once it is on disk, whatever the server's default: the
  // daemon deletes a batch once its last commit has returned.
  PQclear(PQexec(pg, "set synchronous_commit = on"));
  const char* encoding = PQparameterStatus(pg, "server_encoding");
  if (encoding == nullptr || strcmp(encoding, "SQL_ASCII") != 0) {
    ORVO_LOG("%s (%d) Database encoding is %s, not SQL_ASCII: paths that are not UTF-8 cannot be stored",
             encoding ? encoding : "unknown");
  }
  return 0;
}

void PgClose(ORVODB* db) {
  PQfinish(db->pg);
  db->pg = nullptr;
  db->pgStatements.clear();
  db->pipeline = false;
  db->pipelineQueue.clear();
  db->pipelineFailed.clear();
  db->pipelineAborted = false;
  db->pipelineLost = false;
  db->inGroup = false;
}

bool PgConnectionLost(ORVODB* db) {
  if (db->pg == nullptr) return true;
  if (PQstatus(db->pg) != CONNECTION_BAD) return false;
  LoseGroupWithConnection(db);
  PgClose(db);
  return true;
}

int PgControl(ORVODB* db, const char* sql) {
  if (db->pipeline && PgSyncPipeline(db, false) != 0 && db->pg == nullptr) return -1;
  ResultPtr r = Exec(db, sql);
  if (!Succeeded(r.get())) {
    SetError(db, r.get());
    PgConnectionLost(db);
    return -1;
  }
  // A commit of an aborted transaction answers ROLLBACK without an error.
  if (strcasecmp(sql, "commit") == 0 && strcmp(PQcmdStatus(r.get()), "ROLLBACK") == 0) {
    db->error = "the transaction was rolled back";
    return -1;
  }
  return 0;
}

int PgRun(ORVODB* db, std::string_view sql, std::span<const DbParam> params,
          ORVODBResult* result, int* changes, bool* isWrite) {
  // The result is needed now: collect what is still in the pipeline first.
  if (db->pipeline) {
    PgSyncPipeline(db, false);
    if (db->pg == nullptr) return -1;
  }
  const bool write = !IsReadStatement(sql);
  if (isWrite) *isWrite = write;
  if (write && isWrite && !db->inGroup && DbBeginGroup(db) != 0) return -1;

  std::string text(sql);
  ResultPtr r(PQexecParams(db->pg, text.c_str(), static_cast<int>(params.size()), nullptr,
                           params.data(), nullptr, nullptr, 0));
  if (!Succeeded(r.get())) {
    SetError(db, r.get());
    if (!PgConnectionLost(db) && db->inGroup) {
      // The failure aborted the group's transaction. Statements fail here
      // only by mistake, so rather than a savepoint around every statement
      // the group's writes are written again without it: it costs only itself.
      const std::string error = db->error;
      const DbFailure failure = db->failure;
      if (failure == DbFailure::kTransient) {
        db->pipelineLost = true;
        DbMarkLost(db, db->groupFirst);
      }
      db->pipelineFailed.clear();
      ReplayGroup(db);
      db->error = error;
      db->failure = failure;
    }
    return -1;
  }
  if (PQresultStatus(r.get()) == PGRES_TUPLES_OK) {
    if (result) CopyRows(r.get(), result);
    if (changes) *changes = PQntuples(r.get());
  } else if (changes) {
    *changes = atoi(PQcmdTuples(r.get()));
  }
  return 0;
}

int PgQueueWrite(ORVODB* db, int groupIndex) {
  auto fail = [&]() {
    SetError(db, nullptr);
    if (!PgConnectionLost(db)) {
      // Still connected: give up the pipelined group cleanly.
      PgSyncPipeline(db, false);
    }
    return -1;
  };
  if (!db->pipeline) {
    if (PQenterPipelineMode(db->pg) != 1) return fail();
    db->pipeline = true;
  }
  if (!db->inGroup) {
    if (PQsendQueryParams(db->pg, "begin", 0, nullptr, nullptr, nullptr, nullptr, 0) != 1)
      return fail();
    db->pipelineQueue.push_back({DbPipelineEntry::kControl, -1, {}});
    db->inGroup = true;
  }
  const DbGroupWrite& write = db->groupLog[groupIndex];
  auto it = db->pgStatements.find(write.sql);
  if (it == db->pgStatements.end()) {
    std::string name = "orvo_" + std::to_string(db->pgNextStatement++);
    if (PQsendPrepare(db->pg, name.c_str(), write.sql.c_str(),
                      static_cast<int>(write.params.size()), nullptr) != 1)
      return fail();
    db->pipelineQueue.push_back({DbPipelineEntry::kPrepare, -1, write.sql});
    it = db->pgStatements.emplace(write.sql, std::move(name)).first;
  }
  const char* values[64];
  const size_t count = std::min(write.params.size(), std::size(values));
  for (size_t i = 0; i < count; ++i)
    values[i] = write.params[i] ? write.params[i]->c_str() : nullptr;
  if (PQsendQueryPrepared(db->pg, it->second.c_str(), static_cast<int>(count), values, nullptr,
                          nullptr, 0) != 1)
    return fail();
  db->pipelineQueue.push_back({DbPipelineEntry::kWrite, groupIndex, {}});
  // Take in what has arrived so that neither side's buffers fill up.
  if (Drain(db, false) != 0) return fail();
  return 0;
}

int PgSyncPipeline(ORVODB* db, bool commit) {
  if (!db->pipeline) return commit ? PgControl(db, "commit") : 0;
  int rc = 0;
  if (commit) {
    if (PQsendQueryParams(db->pg, "commit", 0, nullptr, nullptr, nullptr, nullptr, 0) == 1)
      db->pipelineQueue.push_back({DbPipelineEntry::kControl, -1, {}});
    else
      rc = -1;
  }
  if (PQpipelineSync(db->pg) == 1) db->pipelineQueue.push_back({DbPipelineEntry::kSync, -1, {}});
  else rc = -1;
  if (rc != 0 || Drain(db, true) != 0) {
    SetError(db, nullptr);
    LoseGroupWithConnection(db);
    orvo::LogSubject aboutTheGroup(nullptr);
    ORVO_LOG("%s (%d) Lost the connection with writes pending (%s)", db->error.c_str());
    PgClose(db);
    return -1;
  }
  if (PQexitPipelineMode(db->pg) != 1) {
    // Results left over mean the accounting above went wrong: start afresh
    // rather than leave the connection in a state no call can use.
    SetError(db, nullptr);
    LoseGroupWithConnection(db);
    orvo::LogSubject aboutTheGroup(nullptr);
    ORVO_LOG("%s (%d) Failed to leave pipeline mode (%s)", db->error.c_str());
    PgClose(db);
    return -1;
  }
  db->pipeline = false;
  if (db->pipelineAborted) {
    ReplayGroup(db);
    return -1;
  }
  if (commit) {
    db->inGroup = false;
    db->groupLog.clear();
  }
  return 0;
}
