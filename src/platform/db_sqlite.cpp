// The embedded backend. Statements are written in the PostgreSQL dialect, so
// this file makes SQLite answer them the same way: like() with PostgreSQL's
// rules, and boolean columns read back as "t"/"f" (db_schema.cpp stores them
// as 1/0).
#include <sqlite3.h>
#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/db_backend.h"

namespace {

struct StatementDeleter {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

// Creates every missing folder above `file`.
void MakeParentFolders(const std::string& file) {
  for (size_t slash = file.find('/', 1); slash != std::string::npos;
       slash = file.find('/', slash + 1)) {
    std::string folder = file.substr(0, slash);
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return;
  }
}

enum class LikeOutcome { kMatch, kNoMatch, kBadPattern };

// PostgreSQL's LIKE on bytes: case-sensitive, '%' any run, '_' one byte,
// `escape` (or none when negative) quoting the next pattern byte.
LikeOutcome LikeMatch(const unsigned char* s, size_t sn, const unsigned char* p, size_t pn,
                      int escape) {
  size_t si = 0, pi = 0;
  size_t starPattern = SIZE_MAX, starText = 0;
  while (si < sn) {
    if (pi < pn) {
      unsigned char c = p[pi];
      if (c == '%') {
        starPattern = ++pi;
        starText = si;
        continue;
      }
      if (c == '_') {
        ++pi;
        ++si;
        continue;
      }
      size_t step = 1;
      if (c == escape) {
        // Like the server, a trailing escape is an error only when reached.
        if (pi + 1 == pn) return LikeOutcome::kBadPattern;
        c = p[pi + 1];
        step = 2;
      }
      if (s[si] == c) {
        pi += step;
        ++si;
        continue;
      }
    }
    if (starPattern == SIZE_MAX) return LikeOutcome::kNoMatch;
    pi = starPattern;
    si = ++starText;
  }
  while (pi < pn && p[pi] == '%') ++pi;
  return pi == pn ? LikeOutcome::kMatch : LikeOutcome::kNoMatch;
}

// like(pattern, text [, escape]): what "text LIKE pattern [ESCAPE e]" calls.
void LikeFunction(sqlite3_context* context, int argc, sqlite3_value** argv) {
  for (int i = 0; i < argc; ++i) {
    if (sqlite3_value_type(argv[i]) == SQLITE_NULL) {
      sqlite3_result_null(context);
      return;
    }
  }
  int escape = '\\';
  if (argc == 3) {
    int length = sqlite3_value_bytes(argv[2]);
    if (length > 1) {
      sqlite3_result_error(context, "invalid escape string", -1);
      return;
    }
    escape = length == 0 ? -1 : sqlite3_value_text(argv[2])[0];
  }
  const unsigned char* pattern = sqlite3_value_text(argv[0]);
  size_t patternLength = static_cast<size_t>(sqlite3_value_bytes(argv[0]));
  const unsigned char* text = sqlite3_value_text(argv[1]);
  size_t textLength = static_cast<size_t>(sqlite3_value_bytes(argv[1]));
  if (pattern == nullptr || text == nullptr) {
    sqlite3_result_error_nomem(context);
    return;
  }
  switch (LikeMatch(text, textLength, pattern, patternLength, escape)) {
    case LikeOutcome::kMatch: sqlite3_result_int(context, 1); break;
    case LikeOutcome::kNoMatch: sqlite3_result_int(context, 0); break;
    case LikeOutcome::kBadPattern:
      sqlite3_result_error(context, "LIKE pattern must not end with escape character", -1);
      break;
  }
}

// The boolean columns of the schema (db_schema.cpp).
bool IsBooleanColumn(std::string_view name) {
  for (const char* column : {"public", "enabled", "is_subdir", "updated"}) {
    if (name.size() == strlen(column) && strncasecmp(name.data(), column, name.size()) == 0)
      return true;
  }
  return false;
}

// 1 or 0 for a text the server takes as a boolean, -1 for anything else.
int BooleanWord(std::string_view word) {
  while (!word.empty() && isspace(static_cast<unsigned char>(word.front()))) word.remove_prefix(1);
  while (!word.empty() && isspace(static_cast<unsigned char>(word.back()))) word.remove_suffix(1);
  for (const char* yes : {"t", "true", "y", "yes", "on", "1"}) {
    if (word.size() == strlen(yes) && strncasecmp(word.data(), yes, word.size()) == 0) return 1;
  }
  for (const char* no : {"f", "false", "n", "no", "off", "0"}) {
    if (word.size() == strlen(no) && strncasecmp(word.data(), no, word.size()) == 0) return 0;
  }
  return -1;
}

// The next quoted literal of `sql` at or after `from`, comments passed over:
// the positions of its opening and closing quote, or false when there is none.
bool NextLiteral(std::string_view sql, size_t from, size_t* open, size_t* close) {
  for (size_t i = from; i < sql.size(); ++i) {
    char c = sql[i];
    if (c == '-' && i + 1 < sql.size() && sql[i + 1] == '-') {
      while (i < sql.size() && sql[i] != '\n') ++i;
      continue;
    }
    if (c == '/' && i + 1 < sql.size() && sql[i + 1] == '*') {
      size_t end = sql.find("*/", i + 2);
      if (end == std::string_view::npos) return false;
      i = end + 1;
      continue;
    }
    if (c != '\'') continue;
    size_t j = i + 1;
    while (j < sql.size()) {
      if (sql[j] == '\'' && (j + 1 >= sql.size() || sql[j + 1] != '\'')) break;
      j += sql[j] == '\'' ? 2 : 1;
    }
    if (j >= sql.size()) return false;
    *open = i;
    *close = j;
    return true;
  }
  return false;
}

bool IsWordChar(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// The word that ends just before `end`, spaces before `end` skipped; `*start`
// gets where it begins.
std::string_view WordBefore(std::string_view sql, size_t end, size_t* start) {
  while (end > 0 && isspace(static_cast<unsigned char>(sql[end - 1]))) --end;
  size_t k = end;
  while (k > 0 && IsWordChar(sql[k - 1])) --k;
  *start = k;
  return sql.substr(k, end - k);
}

bool SameWord(std::string_view word, const char* expected) {
  return word.size() == strlen(expected) && strncasecmp(word.data(), expected, word.size()) == 0;
}

// Booleans are stored as 1/0, and SQLite never finds the integer 1 equal to
// the text 't'. So "<boolean column> = 't'" (also <> and !=, in conditions
// and in set clauses) gets 1 or 0 in place of the quoted word, which gives
// the answer the server gives for the same text. True, with "1" or "0" in
// *replacement, when the literal at [open, close] is such a word.
bool BooleanAsNumber(std::string_view sql, size_t open, size_t close, std::string* replacement) {
  // Look back over the operator to the column name.
  size_t k = open;
  while (k > 0 && isspace(static_cast<unsigned char>(sql[k - 1]))) --k;
  if (k >= 2 && (sql.substr(k - 2, 2) == "<>" || sql.substr(k - 2, 2) == "!=")) {
    k -= 2;
  } else if (k >= 1 && sql[k - 1] == '=' && (k < 2 || (sql[k - 2] != '<' && sql[k - 2] != '>'))) {
    k -= 1;
  } else {
    return false;
  }
  if (!IsBooleanColumn(WordBefore(sql, k, &k))) return false;
  int value = BooleanWord(sql.substr(open + 1, close - open - 1));
  if (value < 0) return false;
  replacement->assign(1, value ? '1' : '0');
  return true;
}

// The fixed bytes every match of a LIKE pattern begins with: the pattern's
// text up to its first unescaped wildcard, escapes (backslash) resolved.
// `quoted` is the literal's inside, quotes still doubled.
std::string LikePrefix(std::string_view quoted) {
  std::string prefix;
  for (size_t i = 0; i < quoted.size(); ++i) {
    char c = quoted[i];
    if (c == '%' || c == '_') break;
    if (c == '\\') {
      if (++i == quoted.size()) return {};  // a bad pattern: like() reports it
      c = quoted[i];
    } else if (c == '\'') {
      ++i;  // the second of a doubled quote
    }
    prefix += c;
  }
  return prefix;
}

void AppendQuoted(std::string& out, std::string_view text) {
  out += '\'';
  for (char c : text) {
    out += c;
    if (c == '\'') out += '\'';
  }
  out += '\'';
}

// Our like() is a function SQLite knows nothing about, so "path like 'DIR/%'"
// reads the whole table. Every row it matches starts with the pattern's fixed
// prefix, and the index orders rows byte by byte as like() compares them: the
// condition becomes "(path >= 'DIR/' and path < 'DIR0' and path like 'DIR/%')",
// the same rows found through the index. Only the indexed text columns that
// the photo statements search by prefix take part. True, with the text that
// replaces [*start, close] in *replacement, when the literal at [open, close]
// is such a pattern.
bool PrefixLikeAsRange(std::string_view sql, size_t open, size_t close, size_t* start,
                       std::string* replacement) {
  size_t likeStart = 0;
  if (!SameWord(WordBefore(sql, open, &likeStart), "like")) return false;
  size_t columnStart = 0;
  std::string_view column = WordBefore(sql, likeStart, &columnStart);
  if (!SameWord(column, "path") && !SameWord(column, "sharename")) return false;
  if (columnStart > 0 && (sql[columnStart - 1] == '.' || sql[columnStart - 1] == '"')) return false;
  size_t next = close + 1;
  while (next < sql.size() && isspace(static_cast<unsigned char>(sql[next]))) ++next;
  size_t afterWord = next;
  while (afterWord < sql.size() && IsWordChar(sql[afterWord])) ++afterWord;
  if (SameWord(sql.substr(next, afterWord - next), "escape")) return false;

  std::string low = LikePrefix(sql.substr(open + 1, close - open - 1));
  if (low.empty()) return false;
  // The least text above every text that starts with `low`.
  std::string high = low;
  while (!high.empty() && static_cast<unsigned char>(high.back()) == 0xFF) high.pop_back();
  if (!high.empty()) high.back() = static_cast<char>(static_cast<unsigned char>(high.back()) + 1);

  std::string& out = *replacement;
  out.assign(1, '(');
  out.append(column);
  out += " >= ";
  AppendQuoted(out, low);
  if (!high.empty()) {
    out += " and ";
    out.append(column);
    out += " < ";
    AppendQuoted(out, high);
  }
  out += " and ";
  out.append(sql.substr(columnStart, close + 1 - columnStart));
  out += ')';
  *start = columnStart;
  return true;
}

// A one-off statement in the server's dialect made to answer the same on
// SQLite, in one pass over its literals (see the two rewrites above).
std::string RewriteForSqlite(std::string_view sql) {
  std::string out;
  std::string replacement;
  size_t copied = 0;
  size_t open = 0;
  size_t close = 0;
  for (size_t from = 0; NextLiteral(sql, from, &open, &close); from = close + 1) {
    size_t start = open;
    if (!BooleanAsNumber(sql, open, close, &replacement) &&
        !PrefixLikeAsRange(sql, open, close, &start, &replacement)) {
      continue;
    }
    out.append(sql.substr(copied, start - copied));
    out += replacement;
    copied = close + 1;
  }
  if (copied == 0) return std::string(sql);
  out.append(sql.substr(copied));
  return out;
}

// The failures after which the same statement may succeed later: the
// database was busy or locked by another program, could not be opened,
// written or read, or the disk was full. Anything else was refused.
DbFailure FailureOf(int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_READONLY:
    case SQLITE_IOERR:
    case SQLITE_FULL:
    case SQLITE_CANTOPEN:
    case SQLITE_PROTOCOL:
    case SQLITE_NOMEM:
      return DbFailure::kTransient;
    default:
      return DbFailure::kRefused;
  }
}

void SetError(ORVODB* db, const char* message) {
  db->error = message ? message : sqlite3_errmsg(db->lite);
  db->failure = FailureOf(sqlite3_extended_errcode(db->lite));
}

bool IsBlank(const char* text) {
  for (; *text; ++text) {
    if (!isspace(static_cast<unsigned char>(*text))) return false;
  }
  return true;
}

void ReadRow(sqlite3_stmt* stmt, ORVODBResult* result, const std::vector<bool>& boolean) {
  const int count = sqlite3_column_count(stmt);
  auto& row = result->rows.emplace_back();
  row.reserve(count);
  for (int c = 0; c < count; ++c) {
    switch (sqlite3_column_type(stmt, c)) {
      case SQLITE_NULL:
        row.emplace_back(std::nullopt);
        break;
      case SQLITE_INTEGER:
        if (boolean[c]) {
          row.emplace_back(sqlite3_column_int64(stmt, c) ? "t" : "f");
          break;
        }
        row.emplace_back(std::to_string(sqlite3_column_int64(stmt, c)));
        break;
      case SQLITE_FLOAT: {
        // The way the server prints a number: 3 rather than 3.0.
        char text[32];
        snprintf(text, sizeof text, "%.15g", sqlite3_column_double(stmt, c));
        row.emplace_back(text);
        break;
      }
      default: {
        auto text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, c));
        row.emplace_back(std::string(text ? text : "", sqlite3_column_bytes(stmt, c)));
        break;
      }
    }
  }
}

}  // namespace

int SqliteOpen(ORVODB* db, const std::string& file) {
  MakeParentFolders(file);
  sqlite3* lite = nullptr;
  int rc = sqlite3_open_v2(file.c_str(), &lite,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                           nullptr);
  if (rc != SQLITE_OK) {
    db->error = lite ? sqlite3_errmsg(lite) : sqlite3_errstr(rc);
    db->error += " (" + file + ")";
    db->failure = FailureOf(rc);
    sqlite3_close(lite);
    return -1;
  }
  db->lite = lite;
  // A locked database fails the call after a short wait; the caller goes on.
  sqlite3_busy_timeout(lite, 1000);
  const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  if (sqlite3_create_function(lite, "like", 2, flags, nullptr, LikeFunction, nullptr, nullptr) ||
      sqlite3_create_function(lite, "like", 3, flags, nullptr, LikeFunction, nullptr, nullptr) ||
      SqliteControl(db, "pragma synchronous = normal") ||
      SqliteControl(db, "pragma journal_mode = wal")) {
    if (db->error.empty()) SetError(db, nullptr);
    SqliteClose(db);
    return -1;
  }
  return 0;
}

void SqliteClose(ORVODB* db) {
  for (auto& [sql, stmt] : db->liteStatements) sqlite3_finalize(stmt);
  db->liteStatements.clear();
  sqlite3_close_v2(db->lite);
  db->lite = nullptr;
  db->inGroup = false;
}

int SqliteControl(ORVODB* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db->lite, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    SetError(db, message);
    sqlite3_free(message);
    return -1;
  }
  return 0;
}

int SqliteSyncLog(ORVODB* db) {
  // A commit in WAL mode with synchronous=normal leaves the log unsynced; one
  // sync of the log makes every commit before it durable, without making
  // every commit pay for a sync of its own.
  sqlite3_file* log = nullptr;
  int rc = sqlite3_file_control(db->lite, "main", SQLITE_FCNTL_JOURNAL_POINTER, &log);
  // No log open: not in WAL mode, where commits are synced as they are made.
  if (rc != SQLITE_OK || log == nullptr || log->pMethods == nullptr) return 0;
  rc = log->pMethods->xSync(log, SQLITE_SYNC_NORMAL);
  if (rc != SQLITE_OK) {
    db->error = std::string("sync of the write-ahead log failed: ") + sqlite3_errstr(rc);
    db->failure = DbFailure::kTransient;
    return -1;
  }
  return 0;
}

int SqliteRun(ORVODB* db, std::string_view sql, std::span<const DbParam> params,
              ORVODBResult* result, int* changes, bool* isWrite) {
  if (isWrite) *isWrite = false;
  // Parameterised statements are the repeated ones: keep them prepared.
  StatementPtr owned;
  sqlite3_stmt* stmt = nullptr;
  const bool cached = !params.empty();
  if (cached) {
    auto it = db->liteStatements.find(sql);
    if (it != db->liteStatements.end()) stmt = it->second;
  }
  std::string rewritten;
  if (!cached) {
    rewritten = RewriteForSqlite(sql);
    sql = rewritten;
  }
  if (stmt == nullptr) {
    const char* tail = nullptr;
    if (sqlite3_prepare_v2(db->lite, sql.data(), static_cast<int>(sql.size()), &stmt, &tail) !=
        SQLITE_OK) {
      SetError(db, nullptr);
      return -1;
    }
    if (stmt == nullptr || (tail && !IsBlank(std::string(tail, sql.data() + sql.size() - tail).c_str()))) {
      sqlite3_finalize(stmt);
      db->error = "not exactly one statement";
      db->failure = DbFailure::kRefused;
      return -1;
    }
    if (cached) db->liteStatements.emplace(std::string(sql), stmt);
    else owned.reset(stmt);
  }
  struct Reset {
    sqlite3_stmt* s;
    ~Reset() {
      sqlite3_reset(s);
      sqlite3_clear_bindings(s);
    }
  } reset{stmt};

  const bool write = !sqlite3_stmt_readonly(stmt);
  if (isWrite) *isWrite = write;
  // A raw write joins the group; the grouped path has opened it already.
  if (write && isWrite && !db->inGroup && sqlite3_get_autocommit(db->lite) &&
      DbBeginGroup(db) != 0)
    return -1;

  for (size_t i = 0; i < params.size(); ++i) {
    int rc = params[i] ? sqlite3_bind_text(stmt, static_cast<int>(i + 1), params[i], -1, SQLITE_STATIC)
                       : sqlite3_bind_null(stmt, static_cast<int>(i + 1));
    if (rc != SQLITE_OK) {
      SetError(db, nullptr);
      return -1;
    }
  }

  std::vector<bool> boolean;
  if (result != nullptr) {
    const int count = sqlite3_column_count(stmt);
    for (int c = 0; c < count; ++c) {
      const char* name = sqlite3_column_name(stmt, c);
      const char* type = sqlite3_column_decltype(stmt, c);
      result->columns.emplace_back(name ? name : "");
      boolean.push_back(type != nullptr && strcasecmp(type, "boolean") == 0);
    }
  }
  const long long changesBefore = sqlite3_total_changes64(db->lite);
  int rows = 0;
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    ++rows;
    if (result != nullptr) ReadRow(stmt, result, boolean);
  }
  if (rc != SQLITE_DONE) {
    SetError(db, nullptr);
    // Some failures (a full disk, a lost lock) roll the whole group back:
    // the work of every statement since it opened is lost.
    if (db->inGroup && sqlite3_get_autocommit(db->lite)) {
      db->inGroup = false;
      db->failure = DbFailure::kTransient;
      DbMarkLost(db, db->groupFirst);
    }
    if (result != nullptr) {
      result->rows.clear();
    }
    return -1;
  }
  // sqlite3_changes() keeps the count of the last insert, update or delete,
  // which is stale after any other statement.
  if (changes) {
    if (!write) *changes = rows;
    else *changes = sqlite3_total_changes64(db->lite) != changesBefore ? sqlite3_changes(db->lite) : 0;
  }
  return 0;
}
