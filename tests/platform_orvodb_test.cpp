// Database access on every backend: one statement per call, escaping, the
// LIKE and boolean rules both backends must share, results, grouped writes,
// and what happens when the database is out of reach.
#include <libpq-fe.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/db_backend.h"
#include "platform/media_db.h"
#include "platform/orvodb.h"
#include "platform/photo_db.h"
#include "support/db_fixture.h"
#include "support/log_capture.h"

namespace {

using orvo::test::QueryAll;

std::string Photo(const std::string& sql) { return QueryAll(OrvoDatabase::kPhoto, sql); }

int Exec(OrvoDatabase which, const std::string& sql) {
  return ORVODBExecute(OrvoDBConnect(which), sql.c_str(), nullptr);
}

MediaInfo Record(const std::string& path) {
  MediaInfo info;
  memset(&info, 0, sizeof info);
  snprintf(info.path, sizeof info.path, "%s", path.c_str());
  return info;
}

std::string EscapeString(const std::string& in) {
  std::string out(2 * in.size() + 1, '\0');
  int n = ORVODBEscapeString(out.data(), in.c_str(), in.size());
  out.resize(n < 0 ? 0 : n);
  return out;
}

std::string EscapeLike(const std::string& in) {
  std::string out(3 * in.size() + 1, '\0');
  int n = ORVODBEscapeBackslash(out.data(), out.size(), in.c_str());
  out.resize(n < 0 ? 0 : n);
  return out;
}

class RawAccess : public orvo::test::DatabaseTest {
 protected:
  void SetUp() override {
    DatabaseTest::SetUp();
    ASSERT_NE(OrvoDBConnect(OrvoDatabase::kPhoto), nullptr);
  }
  // Stores `names` as video_desc paths, the table with the fewest columns.
  void StoreNames(std::initializer_list<std::string> names) {
    for (const auto& name : names) {
      ASSERT_EQ(Exec(OrvoDatabase::kPhoto,
                     "insert into video_desc (path) values ('" + EscapeString(name) + "')"),
                1)
          << name;
    }
  }
  std::string Matching(const std::string& condition) {
    return Photo("select path from video_desc where " + condition + " order by path");
  }
};

TEST_P(RawAccess, TextWithASecondStatementIsRefusedAndNeverRun) {
  StoreNames({"a"});
  orvo::test::LogCapture log;
  for (const char* sql : {"delete from video_desc; drop table video_desc",
                          "delete from video_desc;delete from video_comment;",
                          "select 1;;",
                          "delete from video_desc where path = 'x'; -- a comment\nselect 1",
                          "delete from video_desc where path = 'it''s';select 1",
                          "delete from video_desc where path = 'unterminated",
                          "delete from video_desc /* a /* nested */ ; select 1 */",
                          ";", "", "   "}) {
    EXPECT_EQ(Exec(OrvoDatabase::kPhoto, sql), -1) << sql;
  }
  EXPECT_TRUE(log.Contains("not exactly one statement"));
  EXPECT_EQ(Photo("select path from video_desc"), "a");
  EXPECT_EQ(PhotoDBExec("update video_desc set description = 'x'; delete from video_desc"), -1);
  EXPECT_EQ(Photo("select description from video_desc"), "");

  // Semicolons inside literals, names and comments are not terminators.
  EXPECT_EQ(Exec(OrvoDatabase::kPhoto, "update video_desc set description = 'a;b' where path = 'a';"), 1);
  EXPECT_EQ(Exec(OrvoDatabase::kPhoto, "update video_desc set description = 'it''s;' -- ; x\n"), 1);
  EXPECT_EQ(Exec(OrvoDatabase::kPhoto, "select \"path\" from video_desc /* ; */ ;  -- done"), 1);
  EXPECT_EQ(Photo("select description from video_desc"), "it's;");
}

TEST_P(RawAccess, EscapedTextMatchesOnlyItselfInEqualityAndLike) {
  const std::string tricky[] = {"it's", "it''s", "back\\slash", "100%", "a_b", "'", "x'"};
  StoreNames({"it's", "it''s", "back\\slash", "backXslash", "100%", "1000", "a_b", "aXb", "'",
              "x'", "x''"});
  for (const auto& name : tricky) {
    std::string eq = EscapeString(name);
    EXPECT_EQ(Matching("path = '" + eq + "'"), name) << name;
    // The two-step escape of the photo code: quotes first, then LIKE.
    EXPECT_EQ(Matching("path like '" + EscapeLike(eq) + "'"), name) << name;
    EXPECT_EQ(Matching("path like '" + EscapeLike(eq) + "%'").substr(0, name.size()), name);
  }
  // Escaping unescaped text must not let a lone quote end the literal.
  EXPECT_EQ(Matching("path like '" + EscapeLike("x'") + "'"), "x'");
  EXPECT_EQ(Matching("path like '" + EscapeLike("it's") + "'"), "it's");
}

TEST_P(RawAccess, LikeIsCaseSensitiveBytewiseWithBackslashEscapes) {
  StoreNames({"ABC", "abc", "a%c", "a\\c", "a\xe9z", "a\xe9\xe9z", "_bc"});
  EXPECT_EQ(Matching("path like 'abc'"), "abc");
  EXPECT_EQ(Matching("path like 'A%'"), "ABC");
  EXPECT_EQ(Matching("path like 'a_c'"), "a%c\na\\c\nabc");
  EXPECT_EQ(Matching("path like 'a\\%c'"), "a%c");
  EXPECT_EQ(Matching("path like 'a\\\\c'"), "a\\c");
  EXPECT_EQ(Matching("path like '\\_%'"), "_bc");
  EXPECT_EQ(Matching("path like 'a!%c' escape '!'"), "a%c");
  EXPECT_EQ(Matching("path like 'a_z'"), "a\xe9z");  // '_' is one byte, not one character
  EXPECT_EQ(Matching("path like 'a%z'"), "a\xe9z\na\xe9\xe9z");
  EXPECT_EQ(Matching("path not like '%c'"), "ABC\na\xe9z\na\xe9\xe9z");
  EXPECT_EQ(Matching("path like '%%%' and path like '%\xe9\xe9%'"), "a\xe9\xe9z");
  // A pattern ending in the escape character is an error once the match
  // gets that far.
  orvo::test::LogCapture log;
  EXPECT_EQ(Matching("path like 'ab%\\'"), "ERROR");
}

TEST_P(RawAccess, BooleansTakeEveryLiteralAndReadBackAsTF) {
  ASSERT_EQ(Exec(OrvoDatabase::kPhoto,
                 "insert into photo_share values (1, 'a', '', '', 'true', 0, '', 'true', 'false', '1')"),
            1);
  ASSERT_EQ(Exec(OrvoDatabase::kPhoto,
                 "insert into photo_share values (2, 'a/b', '', '', 'f', 0, '', 't', 'true', '0')"),
            1);
  EXPECT_EQ(Photo("select shareid, public, enabled, is_subdir, updated from photo_share order by shareid"),
            "1|t|t|f|t\n2|f|t|t|f");
  EXPECT_EQ(PhotoDBExec("Update photo_share set updated = '0'"), 2);
  EXPECT_EQ(PhotoDBExec("Update photo_share set public = 't', is_subdir = 'f' where sharename = 'a/b'"), 1);
  EXPECT_EQ(Photo("select public, is_subdir, updated from photo_share where shareid = 2"), "t|f|f");
  EXPECT_EQ(PhotoDBExec("Update photo_share set updated = '1' where sharename = 'a'"), 1);
  EXPECT_EQ(PhotoDBExec("Delete from photo_share where updated = '0' and sharename like 'a/%'"), 1);
  EXPECT_EQ(PhotoDBExec("Delete from photo_share where updated = '0'"), 0);
  EXPECT_EQ(Photo("select * from photo_share"), "1|a|||t|0||t|f|t");
  // Conditions on booleans may use any of the literals too.
  ASSERT_EQ(PhotoDBExec("Update photo_share set is_subdir = 'true' where sharename = 'a'"), 1);
  EXPECT_EQ(Photo("select count(*) from photo_share where public = 't' and updated <> 'false'"
                  " and is_subdir != 'no' and enabled = 'TRUE' and sharename <> 'true'"),
            "1");
  EXPECT_EQ(Photo("select count(*) from photo_share where public='f' or updated = '0'"), "0");
  orvo::test::LogCapture log;
  EXPECT_EQ(PhotoDBExec("Update photo_share set public = 'maybe'"), -1);
  EXPECT_EQ(Photo("select public from photo_share"), "t");
}

TEST_P(RawAccess, ResultsAreWalkedRowByRowWithNullsAsEmptyText) {
  ASSERT_EQ(Exec(OrvoDatabase::kPhoto,
                 "insert into photo_share (shareid, sharename, title) values (5, 'x', null), (6, 'y', 'Y')"),
            2);
  ORVODBResult* result = nullptr;
  ASSERT_EQ(ORVODBExecute(OrvoDBConnect(OrvoDatabase::kPhoto),
                          "select sharename, title from photo_share order by shareid", &result),
            2);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(ORVODBRowCount(result), 2);
  ORVODBRow row = -1;
  ASSERT_EQ(ORVODBFetchRow(result, &row), 0);
  EXPECT_STREQ(ORVODBFetchField(result, row, "sharename"), "x");
  EXPECT_STREQ(ORVODBFetchField(result, row, "title"), "");
  EXPECT_EQ(ORVODBFetchField(result, row, "nosuchcolumn"), nullptr);
  ASSERT_EQ(ORVODBFetchRow(result, &row), 0);
  EXPECT_STREQ(ORVODBFetchField(result, row, "title"), "Y");
  EXPECT_EQ(ORVODBFetchRow(result, &row), -1);
  EXPECT_EQ(ORVODBFetchRow(result, &row), -1);
  EXPECT_EQ(ORVODBFetchField(result, 7, "title"), nullptr);
  ORVODBFreeResult(result);

  orvo::test::LogCapture log;
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kPhoto);
  EXPECT_EQ(ORVODBExecute(db, "select nosuchcolumn from photo_share", &result), -1);
  EXPECT_EQ(result, nullptr);
  EXPECT_STRNE(ORVODBErrorGet(db), "");
  EXPECT_EQ(ORVODBExecute(nullptr, "select 1", nullptr), -1);
  EXPECT_EQ(ORVODBFetchRow(nullptr, &row), -1);
}

TEST_P(RawAccess, GroupedWritesReachOtherReadersOnlyAtAFlushPoint) {
  MediaInfo info = Record("/volume1/music/one.mp3");
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  // The same connection sees its pending write; another one does not.
  EXPECT_EQ(QueryAll(OrvoDatabase::kMedia, "select count(*) from music"), "1");
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music"), "0");
  ASSERT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music"), "1");

  // A full group commits itself.
  for (int i = 0; i < kGroupMaxWrites; ++i) {
    info = Record("/volume1/music/many/" + std::to_string(i) + ".mp3");
    ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  }
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music"),
            std::to_string(kGroupMaxWrites + 1));

  // So does a group that has been open long enough, at the next call of any
  // kind.
  info = Record("/volume1/music/late.mp3");
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  std::this_thread::sleep_for(kGroupMaxAge + std::chrono::milliseconds(100));
  EXPECT_EQ(QueryAll(OrvoDatabase::kMedia, "select count(*) from music where path like '%late%'"), "1");
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music where path like '%late%'"), "1");

  // Closing commits too.
  info = Record("/volume1/music/last.mp3");
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  ORVODBCloseAll();
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music where path like '%last%'"), "1");
}

TEST_P(RawAccess, WorkLostBeforeAFlushIsSafeToReplay) {
  auto batch = [] {
    for (int i = 0; i < 20; ++i) {
      MediaInfo info = Record("/volume1/music/b/" + std::to_string(i) + ".mp3");
      snprintf(info.title, sizeof info.title, "t%d", i);
      MediaInfoDBSave(kMediaMusic, &info);
    }
    MediaInfoDBDelete(kMediaMusic, "/volume1/music/b/3.mp3");
    PhotoDBExec("delete from video_desc where path like '/p/%'");
  };
  ORVODBCloseAll();
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    batch();  // and die without a flush, as a killed daemon would
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music"), "0");

  // The batch runs again, twice over: the outcome is the batch's, once.
  batch();
  ASSERT_EQ(ORVODBFlush(), 0);
  batch();
  ASSERT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*), count(distinct id) from music"),
            "19");
  EXPECT_EQ(QueryAll(OrvoDatabase::kMedia, "select count(*), count(distinct id) from music"), "19|19");
}

TEST_P(RawAccess, AnUnreachableDatabaseFailsEachCallUntilItIsBack) {
  ORVODBCloseAll();
  const std::string good = Location(OrvoDatabase::kMedia);
  const std::string bad = IsPostgres() ? "postgresql://nobody@/orvo_no_such_db?host=/nonexistent"
                                       : "sqlite:/proc/orvo-no-such-folder/media.db";
  setenv("ORVO_MEDIA_DB", bad.c_str(), 1);
  orvo::test::LogCapture log;
  MediaInfo info = Record("/volume1/music/x.mp3");
  EXPECT_EQ(OrvoDBConnect(OrvoDatabase::kMedia), nullptr);
  EXPECT_EQ(MediaInfoDBSave(kMediaMusic, &info), -1);
  EXPECT_EQ(MediaInfoDBDelete(kMediaTree, "/volume1/music"), -1);
  EXPECT_EQ(ORVOTruncateTable("music"), -1);
  EXPECT_EQ(MediaDBVacuum(), -1);
  EXPECT_TRUE(log.Contains("Failed to open the media database"));
  EXPECT_EQ(ORVODBFlush(), 0);  // nothing was pending

  setenv("ORVO_MEDIA_DB", good.c_str(), 1);
  EXPECT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  ASSERT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select path from music"), "/volume1/music/x.mp3");
}

TEST_P(RawAccess, OneRefusedRowCostsOnlyItselfAndIsLogged) {
  // A rule of the database that one row breaks.
  const char* rule = IsPostgres()
      ? "alter table music add constraint no_bad_titles check (title <> 'bad')"
      : "create trigger no_bad_titles before insert on music when new.title = 'bad'"
        " begin select raise(abort, 'no bad titles'); end";
  if (IsPostgres()) {
    ASSERT_EQ(Exec(OrvoDatabase::kMedia, rule), 0);
  } else {
    // A trigger body holds semicolons: made by another program.
    ASSERT_NE(OrvoDBConnect(OrvoDatabase::kMedia), nullptr);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(Location(OrvoDatabase::kMedia).c_str() + 7, &other), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(other, rule, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(other);
  }
  ASSERT_EQ(ORVODBFlush(), 0);
  orvo::test::LogCapture log;
  int failedNow = 0;
  for (int i = 0; i < 11; ++i) {
    MediaInfo info = Record("/volume1/music/r" + std::to_string(i) + ".mp3");
    snprintf(info.title, sizeof info.title, "%s", i == 5 ? "bad" : "good");
    if (MediaInfoDBSave(kMediaMusic, &info) != 0) ++failedNow;
  }
  // The server reports a pipelined row's failure at the next flush.
  int flushed = ORVODBFlush();
  EXPECT_EQ(failedNow + (flushed != 0 ? 1 : 0), 1);
  EXPECT_TRUE(log.Contains("Failed to save /volume1/music/r5.mp3") ||
              log.Contains("Failed to write /volume1/music/r5.mp3"));
  EXPECT_FALSE(log.Contains("r4.mp3"));
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music where title = 'good'"), "10");
  // The connection goes on working.
  MediaInfo info = Record("/volume1/music/after.mp3");
  EXPECT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  EXPECT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music"), "11");
}

TEST_P(RawAccess, ALockedDatabaseFailsTheCallAndTheNextCallTriesAgain) {
  ASSERT_NE(OrvoDBConnect(OrvoDatabase::kMedia), nullptr);
  // Another program holds the lock on the table.
  const std::string& where = Location(OrvoDatabase::kMedia);
  sqlite3* lite = nullptr;
  PGconn* pg = nullptr;
  if (IsPostgres()) {
    pg = PQconnectdb(where.c_str());
    PQclear(PQexec(pg, "begin"));
    PGresult* r = PQexec(pg, "lock table music in access exclusive mode");
    ASSERT_EQ(PQresultStatus(r), PGRES_COMMAND_OK);
    PQclear(r);
  } else {
    ASSERT_EQ(sqlite3_open(where.c_str() + 7, &lite), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(lite, "begin exclusive", nullptr, nullptr, nullptr), SQLITE_OK);
  }
  orvo::test::LogCapture log;
  MediaInfo info = Record("/volume1/music/locked.mp3");
  int saved = MediaInfoDBSave(kMediaMusic, &info);
  int flushed = ORVODBFlush();  // where a pipelined write reports
  EXPECT_TRUE(saved == -1 || flushed == -1);
  EXPECT_TRUE(log.Contains("/volume1/music/locked.mp3"));
  if (pg) {
    PQclear(PQexec(pg, "commit"));
    PQfinish(pg);
  } else {
    ASSERT_EQ(sqlite3_exec(lite, "commit", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(lite);
  }
  EXPECT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  EXPECT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music"), "1");
}

TEST_P(RawAccess, AFileThatIsNotADatabaseFailsEveryCallWithoutHarm) {
  if (IsPostgres()) GTEST_SKIP() << "the server keeps its own files";
  ORVODBCloseAll();
  const std::string file = TempDir() + "/garbage.db";
  std::ofstream(file, std::ios::binary) << std::string(8192, '\x5a');
  setenv("ORVO_MEDIA_DB", ("sqlite:" + file).c_str(), 1);
  orvo::test::LogCapture log;
  MediaInfo info = Record("/volume1/music/x.mp3");
  EXPECT_EQ(MediaInfoDBSave(kMediaMusic, &info), -1);
  EXPECT_EQ(MediaInfoDBDelete(kMediaTree, "/volume1"), -1);
  EXPECT_EQ(MediaDBVacuum(), -1);
  EXPECT_EQ(ORVODBFlush(), 0);
  EXPECT_TRUE(log.Contains("Failed to open the media database"));
}

TEST_P(RawAccess, AConnectionDroppedByTheServerIsReopenedByTheNextCall) {
  if (!IsPostgres()) GTEST_SKIP() << "an embedded database has no server to drop it";
  std::string pid = QueryAll(OrvoDatabase::kMedia, "select pg_backend_pid()");
  ASSERT_NE(pid, "ERROR");
  PGconn* admin = PQconnectdb(Location(OrvoDatabase::kMedia).c_str());
  PQclear(PQexec(admin, ("select pg_terminate_backend(" + pid + ")").c_str()));
  PQfinish(admin);
  orvo::test::LogCapture log;
  MediaInfo info = Record("/volume1/music/dropped.mp3");
  int saved = MediaInfoDBSave(kMediaMusic, &info);
  int flushed = ORVODBFlush();
  EXPECT_TRUE(saved == -1 || flushed == -1);
  EXPECT_FALSE(log.messages().empty());
  EXPECT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  EXPECT_EQ(ORVODBFlush(), 0);
  EXPECT_NE(QueryAll(OrvoDatabase::kMedia, "select pg_backend_pid()"), pid);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music"), "1");
}

TEST_P(RawAccess, StatementsThatChangeNoRowsCountZero) {
  StoreNames({"a", "b"});
  EXPECT_EQ(Exec(OrvoDatabase::kPhoto, "update video_desc set description = 'x'"), 2);
  EXPECT_EQ(Exec(OrvoDatabase::kPhoto, "create table scratch (x integer)"), 0);
  EXPECT_EQ(Exec(OrvoDatabase::kPhoto, "drop table scratch"), 0);
}

INSTANTIATE_TEST_SUITE_P(Backends, RawAccess, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

TEST(EscapeBackslash, QuotesWildcardsAndBackslashesAreMadeLiteral) {
  EXPECT_EQ(EscapeLike("a%b_c\\d"), "a\\%b\\_c\\\\d");
  EXPECT_EQ(EscapeLike("'"), "''");
  EXPECT_EQ(EscapeLike("''"), "''");
  EXPECT_EQ(EscapeLike("'''"), "''''");
  EXPECT_EQ(EscapeLike("a'b''c"), "a''b''c");
  char small[4];
  EXPECT_EQ(ORVODBEscapeBackslash(small, sizeof small, "%%"), -1);
  EXPECT_EQ(ORVODBEscapeBackslash(small, sizeof small, "%a"), 3);
  EXPECT_STREQ(small, "\\%a");
  EXPECT_EQ(EscapeString("it's ''"), "it''s ''''");
  EXPECT_EQ(ORVODBEscapeString(nullptr, "a", 1), -1);
}

TEST(StatementCount, SingleStatementsKeepTheirLengthWithoutTheTerminator) {
  EXPECT_EQ(DbSingleStatementLength("select 1"), 8);
  EXPECT_EQ(DbSingleStatementLength("select 1 ;  "), 9);
  EXPECT_EQ(DbSingleStatementLength("select $$;$$"), 12);
  EXPECT_EQ(DbSingleStatementLength("select $1; select $2"), -1);
  EXPECT_EQ(DbSingleStatementLength("select $tag$ ; $ $tag$"), 22);
  EXPECT_EQ(DbSingleStatementLength("select $tag$ ; "), -1);
  // In E'' strings a backslash escapes the quote; elsewhere it does not.
  EXPECT_EQ(DbSingleStatementLength("select E'\\';x' ;"), 15);
  EXPECT_EQ(DbSingleStatementLength("select '\\';x' ;"), -1);
}

class Location : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/orvo-conf-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    conf_ = dir_ + "/orvoindex.conf";
    if (const char* v = getenv("ORVO_MEDIA_DB")) saved_ = v, had_ = true;
    if (const char* v = getenv("ORVO_PHOTO_DB")) savedPhoto_ = v, hadPhoto_ = true;
    unsetenv("ORVO_MEDIA_DB");
    unsetenv("ORVO_PHOTO_DB");
  }
  void TearDown() override {
    if (had_) setenv("ORVO_MEDIA_DB", saved_.c_str(), 1);
    if (hadPhoto_) setenv("ORVO_PHOTO_DB", savedPhoto_.c_str(), 1);
    unlink(conf_.c_str());
    rmdir(dir_.c_str());
  }
  void Write(const std::string& text) { std::ofstream(conf_, std::ios::binary) << text; }
  std::string Media() { return OrvoDBLocationFrom(OrvoDatabase::kMedia, conf_.c_str()); }
  std::string PhotoDb() { return OrvoDBLocationFrom(OrvoDatabase::kPhoto, conf_.c_str()); }

  std::string dir_, conf_, saved_, savedPhoto_;
  bool had_ = false, hadPhoto_ = false;
};

TEST_F(Location, EnvironmentWinsOverFileWhichWinsOverDefault) {
  EXPECT_EQ(Media(), "sqlite:/var/lib/orvoindex/mediaserver.db");
  EXPECT_EQ(PhotoDb(), "sqlite:/var/lib/orvoindex/photo.db");
  Write("# databases\nmedia_db = \"postgresql://u@h/media\"\nphoto_db=sqlite:/a/p.db\n"
        "media_db=sqlite:/b/m.db\n");
  EXPECT_EQ(Media(), "sqlite:/b/m.db");  // the last occurrence wins
  EXPECT_EQ(PhotoDb(), "sqlite:/a/p.db");
  setenv("ORVO_MEDIA_DB", "postgresql://env/media", 1);
  EXPECT_EQ(Media(), "postgresql://env/media");
  EXPECT_EQ(PhotoDb(), "sqlite:/a/p.db");
}

TEST_F(Location, EmptyOrGarbageFilesGiveTheDefaults) {
  Write("");
  EXPECT_EQ(Media(), "sqlite:/var/lib/orvoindex/mediaserver.db");
  Write(std::string("\x00\xff\x01media_db\n=\nmedia_db=\nmedia_db=nonsense\nphoto_db=sqlite:\n", 46) +
        std::string(70000, 'x'));
  EXPECT_EQ(Media(), "sqlite:/var/lib/orvoindex/mediaserver.db");
  EXPECT_EQ(PhotoDb(), "sqlite:/var/lib/orvoindex/photo.db");
  setenv("ORVO_MEDIA_DB", "", 1);
  EXPECT_EQ(Media(), "sqlite:/var/lib/orvoindex/mediaserver.db");
}

}  // namespace
