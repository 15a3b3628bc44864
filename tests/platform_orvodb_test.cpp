// Database access on every backend: statements, escaping, LIKE, booleans, results, groups, outages.
#include <sqlite3.h>
#include <sys/wait.h>

#include <thread>

#include "platform/db_backend.h"
#include "platform/media_db.h"
#include "platform/photo_db.h"
#include "support/db_fixture.h"

namespace {

using orvo::test::QueryAll;

std::string Photo(const std::string& sql) { return QueryAll(OrvoDatabase::kPhoto, sql); }
int Exec(const std::string& sql) { return ORVODBExecute(OrvoDBConnect(OrvoDatabase::kPhoto), sql.c_str(), nullptr); }

int SaveMusic(const std::string& path, const char* title = "") {
  MediaInfo info = orvo::test::MediaRecord(path);
  snprintf(info.title, sizeof info.title, "%s", title);
  return MediaInfoDBSave(kMediaMusic, &info);
}

std::string EscapeString(const std::string& in) {
  std::string out(2 * in.size() + 1, '\0');
  out.resize(std::max(0, ORVODBEscapeString(out.data(), in.c_str(), in.size())));
  return out;
}

std::string EscapeLike(const std::string& in) {
  std::string out(3 * in.size() + 1, '\0');
  out.resize(std::max(0, ORVODBEscapeBackslash(out.data(), out.size(), in.c_str())));
  return out;
}

class RawAccess : public orvo::test::DatabaseTest {
 protected:
  // Stores `names` as video_desc paths, the table with the fewest columns.
  void StoreNames(const std::vector<std::string>& names) {
    for (const auto& name : names)
      ASSERT_EQ(Exec("insert into video_desc (path) values ('" + EscapeString(name) + "')"), 1) << name;
  }
  std::string Matching(const std::string& condition) {
    return Photo("select path from video_desc where " + condition + " order by path");
  }
  std::string Elsewhere(const std::string& sql) { return QueryElsewhere(OrvoDatabase::kMedia, sql); }
};

TEST_P(RawAccess, TextWithASecondStatementIsRefusedAndNeverRun) {
  StoreNames({"a"});
  orvo::test::LogCapture log;
  for (const char* sql : {"delete from video_desc; drop table video_desc", "select 1;;",
                          "delete from video_desc where path = 'x'; -- a comment\nselect 1",
                          "delete from video_desc where path = 'it''s';select 1",
                          "delete from video_desc where path = 'unterminated",
                          "delete from video_desc /* a /* nested */ ; select 1 */", ";", "   "})
    EXPECT_EQ(Exec(sql), -1) << sql;
  EXPECT_TRUE(log.Contains("not exactly one statement"));
  EXPECT_EQ(PhotoDBExec("update video_desc set description = 'x'; delete from video_desc"), -1);
  EXPECT_EQ(Photo("select path, description from video_desc"), "a|");
  // Semicolons inside literals, names and comments are not terminators.
  EXPECT_EQ(Exec("update video_desc set description = 'a;b' where path = 'a';"), 1);
  EXPECT_EQ(Exec("update video_desc set description = 'it''s;' -- ; x\n"), 1);
  EXPECT_EQ(Exec("select \"path\" from video_desc /* ; */ ;  -- done"), 1);
  EXPECT_EQ(Photo("select description from video_desc"), "it's;");
  // Dollar quotes, and E'' strings where a backslash escapes the quote.
  EXPECT_EQ(DbSingleStatementLength("select $tag$ ; $ $tag$"), 22);
  EXPECT_EQ(DbSingleStatementLength("select $1; select $2"), -1);
  EXPECT_EQ(DbSingleStatementLength("select E'\\';x' ;"), 15);
  EXPECT_EQ(DbSingleStatementLength("select '\\';x' ;"), -1);
}

// Escaped text (quotes first, then LIKE, as the photo code does) matches only itself in equality and LIKE,
// and as a prefix exactly the rows that start with it, at the ends of the byte range too (where the prefix
// LIKE may go through the path index).
TEST_P(RawAccess, EscapedTextMatchesOnlyItselfAndAsPrefixExactlyTheRowsStartingWithIt) {
  std::vector<std::string> names = {"it's", "it''s", "back\\slash", "backXslash", "100%", "1000", "a_b", "aXb", "'",
                                    "x'", "x''", "a", "a/", "a/b", "a/b/c", "a0", "a.", "a\xff", "a\xff\xff",
                                    "a\xff\xffz", "b", "&", "&x", "'x", "%x", "\\x", "\xff"};
  StoreNames(names);
  std::sort(names.begin(), names.end());  // bytewise, as the query orders them
  for (const std::string prefix : {"it's", "it''s", "back\\slash", "100%", "a_b", "'", "x'", "a/", "a", "a\xff",
                                   "a\xff\xff", "&", "%", "\\", "\xff"}) {
    SCOPED_TRACE(prefix);
    std::string joined;
    for (const auto& name : names)
      if (name.compare(0, prefix.size(), prefix) == 0) joined += (joined.empty() ? "" : "\n") + name;
    const std::string eq = EscapeString(prefix), pattern = EscapeLike(eq);
    if (std::find(names.begin(), names.end(), prefix) != names.end()) {
      EXPECT_EQ(Matching("path = '" + eq + "'"), prefix);
      EXPECT_EQ(Matching("path like '" + pattern + "'"), prefix);
    }
    EXPECT_EQ(Matching("path like '" + pattern + "%'"), joined);
    EXPECT_EQ(Matching("(path like '" + pattern + "%') and not path like '" + pattern + "%/%'"),
              Matching("path like '" + pattern + "%' and path not like '" + pattern + "%/%'"));
  }
  if (!IsPostgres()) {
    EXPECT_NE(Photo("explain query plan select path from photo_image where path like 'a/%'").find("USING"),
              std::string::npos);
  }
  // LIKE-escaping unescaped text must not let a lone quote end the literal.
  EXPECT_EQ(Matching("path like '" + EscapeLike("it's") + "'"), "it's");
  EXPECT_EQ(EscapeLike("a%b_c\\d'e''"), "a\\%b\\_c\\\\d''e''");
  char small[4];
  EXPECT_EQ(ORVODBEscapeBackslash(small, sizeof small, "%%"), -1);
  EXPECT_EQ(ORVODBEscapeString(nullptr, "a", 1), -1);
}

TEST_P(RawAccess, LikeIsCaseSensitiveBytewiseWithBackslashEscapes) {
  StoreNames({"ABC", "abc", "a%c", "a\\c", "a\xe9z", "a\xe9\xe9z", "_bc"});
  EXPECT_EQ(Matching("path like 'abc'"), "abc");
  EXPECT_EQ(Matching("path like 'A%'"), "ABC");
  EXPECT_EQ(Matching("path like 'a_c'"), "a%c\na\\c\nabc");
  EXPECT_EQ(Matching("path like '\\_%'"), "_bc");
  EXPECT_EQ(Matching("path like 'a!%c' escape '!'"), "a%c");
  EXPECT_EQ(Matching("path like 'a_z'"), "a\xe9z");  // '_' is one byte, not one character
  EXPECT_EQ(Matching("path not like '%c' and path like '%\xe9\xe9%'"), "a\xe9\xe9z");
  orvo::test::LogCapture log;
  EXPECT_EQ(Matching("path like 'ab%\\'"), "ERROR");  // ends in the escape character
}

TEST_P(RawAccess, BooleansTakeEveryLiteralAndReadBackAsTF) {
  ASSERT_EQ(Exec("insert into photo_share values (1, 'a', '', '', 'true', 0, '', 'true', 'false', '1')"), 1);
  ASSERT_EQ(Exec("insert into photo_share values (2, 'a/b', '', '', 'f', 0, '', 't', 'true', '0')"), 1);
  EXPECT_EQ(Photo("select shareid, public, enabled, is_subdir, updated from photo_share order by shareid"),
            "1|t|t|f|t\n2|f|t|t|f");
  EXPECT_EQ(PhotoDBExec("Update photo_share set updated = '0'"), 2);
  EXPECT_EQ(PhotoDBExec("Update photo_share set public = 't', is_subdir = 'f' where sharename = 'a/b'"), 1);
  EXPECT_EQ(PhotoDBExec("Delete from photo_share where updated = '0' and sharename like 'a/%'"), 1);
  EXPECT_EQ(PhotoDBExec("Delete from photo_share where updated = 'true'"), 0);
  // Conditions on booleans may use any of the literals too.
  EXPECT_EQ(Photo("select count(*) from photo_share where public = 't' and updated <> 'true'"
                  " and is_subdir = 'no' and enabled = 'TRUE' and sharename <> 'true'"),
            "1");
  orvo::test::LogCapture log;
  EXPECT_EQ(PhotoDBExec("Update photo_share set public = 'maybe'"), -1);
  EXPECT_EQ(Photo("select * from photo_share"), "1|a|||t|0||t|f|f");
}

TEST_P(RawAccess, ResultsGiveNullsAsEmptyTextAndNothingForWhatIsNotThere) {
  ASSERT_EQ(Exec("insert into photo_share (shareid, sharename, title) values (5, 'x', null), (6, 'y', 'Y')"), 2);
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kPhoto);
  ORVODBResult* result = nullptr;
  ASSERT_EQ(ORVODBExecute(db, "select sharename, title from photo_share order by shareid", &result), 2);
  EXPECT_EQ(ORVODBRowCount(result), 2);
  ORVODBRow row = -1;  // the walk to the end is every QueryAll's
  ASSERT_EQ(ORVODBFetchRow(result, &row), 0);
  EXPECT_STREQ(ORVODBFetchField(result, row, "title"), "");
  EXPECT_EQ(ORVODBFetchField(result, row, "nosuchcolumn"), nullptr);
  EXPECT_EQ(ORVODBFetchField(result, 7, "title"), nullptr);
  ORVODBFreeResult(result);
  orvo::test::LogCapture log;
  EXPECT_EQ(ORVODBExecute(db, "select nosuchcolumn from photo_share", &result), -1);
  EXPECT_EQ(result, nullptr);
  EXPECT_STRNE(ORVODBErrorGet(db), "");
  EXPECT_EQ(ORVODBExecute(nullptr, "select 1", nullptr), -1);
}

TEST_P(RawAccess, GroupedWritesReachOtherReadersOnlyAtAFlushPoint) {
  const std::string count = "select count(*) from music";
  ASSERT_EQ(SaveMusic("/m/one.mp3"), 0);
  EXPECT_EQ(QueryAll(OrvoDatabase::kMedia, count), "1");  // the same connection sees it
  EXPECT_EQ(Elsewhere(count), "0");
  ASSERT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(Elsewhere(count), "1");
  for (int i = 0; i < kGroupMaxWrites; ++i) ASSERT_EQ(SaveMusic("/m/many/" + std::to_string(i)), 0);
  EXPECT_EQ(Elsewhere(count), std::to_string(kGroupMaxWrites + 1));  // a full group
  ASSERT_EQ(SaveMusic("/m/late.mp3"), 0);
  std::this_thread::sleep_for(kGroupMaxAge + std::chrono::milliseconds(100));
  EXPECT_EQ(QueryAll(OrvoDatabase::kMedia, "select 1"), "1");  // an old group, at the next call
  EXPECT_EQ(Elsewhere(count), std::to_string(kGroupMaxWrites + 2));
  ASSERT_EQ(SaveMusic("/m/vacuum.mp3"), 0);
  ASSERT_EQ(PhotoDBExec("insert into video_desc (path) values ('/p/v.avi')"), 1);
  ASSERT_EQ(MediaDBVacuum(), 0);
  ASSERT_EQ(PhotoDBVacuum(), 0);
  EXPECT_EQ(Elsewhere(count), std::to_string(kGroupMaxWrites + 3));
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kPhoto, "select count(*) from video_desc"), "1");
  ASSERT_EQ(SaveMusic("/m/last.mp3"), 0);
  ORVODBCloseAll();
  EXPECT_EQ(Elsewhere(count), std::to_string(kGroupMaxWrites + 4));
}

TEST_P(RawAccess, WorkLostBeforeAFlushIsSafeToReplay) {
  auto batch = [] {
    for (int i = 0; i < 20; ++i) SaveMusic("/m/b/" + std::to_string(i) + ".mp3", "t");
    MediaInfoDBDelete(kMediaMusic, "/m/b/3.mp3");
  };
  ORVODBCloseAll();
  pid_t child = fork();
  if (child == 0) { batch(); _exit(0); }  // dies without a flush, as a killed daemon would
  ASSERT_GT(child, 0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_EQ(Elsewhere("select count(*) from music"), "0");
  // The batch runs again, twice over: the outcome is the batch's, once.
  for (int i = 0; i < 2; ++i) {
    batch();
    ASSERT_EQ(ORVODBFlush(), 0);
  }
  EXPECT_EQ(QueryAll(OrvoDatabase::kMedia, "select count(*), count(distinct id) from music"), "19|19");
}

TEST_P(RawAccess, AnUnreachableDatabaseFailsEachCallUntilItIsBack) {
  ORVODBCloseAll();
  const std::string good = Location(OrvoDatabase::kMedia);
  setenv("ORVO_MEDIA_DB", IsPostgres() ? "postgresql://nobody@/orvo_no_such_db?host=/nonexistent"
                                       : "sqlite:/proc/orvo-no-such-folder/media.db", 1);
  orvo::test::LogCapture log;
  EXPECT_EQ(OrvoDBConnect(OrvoDatabase::kMedia), nullptr);
  EXPECT_EQ(SaveMusic("/m/x.mp3"), -1);
  EXPECT_EQ(MediaInfoDBDelete(kMediaTree, "/m"), -1);
  EXPECT_EQ(ORVOTruncateTable("music"), -1);
  EXPECT_EQ(MediaDBVacuum(), -1);
  EXPECT_TRUE(log.Contains("Failed to open the media database"));
  EXPECT_EQ(ORVODBFlush(), 0);  // nothing was pending
  setenv("ORVO_MEDIA_DB", good.c_str(), 1);
  EXPECT_EQ(SaveMusic("/m/x.mp3"), 0);
  ASSERT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(Elsewhere("select path from music"), "/m/x.mp3");
}

// A refused row costs only itself and is logged by its path (at the flush, when pipelined).
TEST_P(RawAccess, OneRefusedRowCostsOnlyItselfAndIsLogged) {
  const char* rule = IsPostgres() ? "alter table music add constraint no_bad_titles check (title <> 'bad')"
                                  : "create trigger no_bad_titles before insert on music when new.title = 'bad'"
                                    " begin select raise(abort, 'no bad titles'); end";
  ASSERT_NE(OrvoDBConnect(OrvoDatabase::kMedia), nullptr);
  if (IsPostgres()) {
    ASSERT_EQ(ORVODBExecute(OrvoDBConnect(OrvoDatabase::kMedia), rule, nullptr), 0);
  } else {  // a trigger body holds semicolons: made by another program
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(Location(OrvoDatabase::kMedia).c_str() + 7, &other), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(other, rule, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(other);
  }
  ASSERT_EQ(ORVODBFlush(), 0);
  orvo::test::LogCapture log;
  int failed = 0;
  ORVODBBeginRun();
  for (int i = 0; i < 11; ++i)
    if (SaveMusic("/m/r" + std::to_string(i) + ".mp3", i == 5 ? "bad" : "good") != 0) ++failed;
  if (ORVODBFlush() != 0) ++failed;
  ORVODBEndRun();
  EXPECT_EQ(ORVODBRunLoss().from, 0u) << "refused: running it again would not help";
  EXPECT_EQ(failed, 1);
  EXPECT_TRUE(log.Contains("/m/r5.mp3"));
  EXPECT_FALSE(log.Contains("/m/r4.mp3"));
  EXPECT_EQ(Elsewhere("select count(*) from music where title = 'good'"), "10");
  EXPECT_EQ(SaveMusic("/m/after.mp3"), 0);  // the connection goes on working
  EXPECT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(Elsewhere("select count(*) from music"), "11");
}

// A lock another program holds past the wait is the run's loss from the write it stopped (PostgreSQL: from the
// group's first write, the group is lost); the statements after it fail at once and say nothing, until the run ends.
TEST_P(RawAccess, ALockedTableIsTheRunsLossAndHoldsTheRestOfTheRunSilently) {
  ASSERT_EQ(SaveMusic("/m/before.mp3"), 0);
  ASSERT_EQ(ORVODBFlush(), 0);
  LockMediaTables("music");
  orvo::test::LogCapture log;
  ORVODBBeginRun();
  const uint64_t first = ORVODBLastNumber() + 1;
  SaveMusic("/m/a.mp3");  // pipelined on PostgreSQL: its failure comes at the flush
  SaveMusic("/m/b.mp3");
  ORVODBFlush();
  EXPECT_EQ(ORVODBRunLoss().from, first);
  EXPECT_EQ(ORVODBRunLoss().database, OrvoDatabase::kMedia);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(SaveMusic("/m/c.mp3"), -1);
  EXPECT_EQ(OrvoDBConnect(OrvoDatabase::kPhoto), nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500)) << "held, not waiting again";
  EXPECT_EQ(ORVODBProbe(OrvoDatabase::kMedia), IsPostgres() ? 0 : -1) << "a table lock lets the server answer";
  ORVODBEndRun();
  EXPECT_TRUE(log.messages().empty()) << log.messages().front();
  UnlockMediaTables();
  EXPECT_EQ(ORVODBProbe(OrvoDatabase::kMedia), 0);
  EXPECT_EQ(SaveMusic("/m/a.mp3"), 0);
  ASSERT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(Elsewhere("select count(*) from music"), "2");
}

// A server that ends the connection mid-group (a restart, an administrator) loses the whole open group; the probe
// and the calls after the run reconnect.
TEST_P(RawAccess, AConnectionTheServerEndsLosesItsOpenGroupAndTheNextCallsReconnect) {
  if (!IsPostgres()) GTEST_SKIP() << "a server's connection";
  const std::string backend = QueryAll(OrvoDatabase::kMedia, "select pg_backend_pid()");
  ORVODBBeginRun();
  const uint64_t first = ORVODBLastNumber() + 1;
  ASSERT_EQ(SaveMusic("/m/a.mp3"), 0);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select pg_terminate_backend(" + backend + ")"), "t");
  SaveMusic("/m/b.mp3");
  ORVODBFlush();
  ORVODBEndRun();
  EXPECT_EQ(ORVODBRunLoss().from, first);
  EXPECT_EQ(ORVODBProbe(OrvoDatabase::kMedia), 0);
  EXPECT_EQ(SaveMusic("/m/a.mp3"), 0);
  ASSERT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(Elsewhere("select count(*) from music"), "1");
}

INSTANTIATE_TEST_SUITE_P(Backends, RawAccess, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

// Where the databases live: environment over /etc/orvoindex.conf over default.
TEST(Location, EnvironmentOverFileOverDefaultAndBadFilesGiveDefaults) {
  const std::string conf = testing::TempDir() + "orvoindex-" + std::to_string(getpid()) + ".conf";
  auto where = [&](OrvoDatabase which) { return OrvoDBLocationFrom(which, conf.c_str()); };
  const std::string mediaDefault = "sqlite:/var/lib/orvoindex/mediaserver.db";
  unsetenv("ORVO_MEDIA_DB");  // the database fixtures set both for each case
  unsetenv("ORVO_PHOTO_DB");
  EXPECT_EQ(where(OrvoDatabase::kMedia), mediaDefault);  // no file
  std::ofstream(conf) << "# databases\nmedia_db = \"postgresql://u@h/media\"\nphoto_db=sqlite:/a/p.db\n"
                         "media_db=sqlite:/b/m.db\n";
  EXPECT_EQ(where(OrvoDatabase::kMedia), "sqlite:/b/m.db");  // the last occurrence wins
  EXPECT_EQ(where(OrvoDatabase::kPhoto), "sqlite:/a/p.db");
  setenv("ORVO_MEDIA_DB", "postgresql://env/media", 1);
  EXPECT_EQ(where(OrvoDatabase::kMedia), "postgresql://env/media");
  setenv("ORVO_MEDIA_DB", "", 1);
  EXPECT_EQ(where(OrvoDatabase::kMedia), "sqlite:/b/m.db");
  std::ofstream(conf) << "";
  EXPECT_EQ(where(OrvoDatabase::kMedia), mediaDefault);
  std::ofstream(conf, std::ios::binary)
      << std::string("\x00\xff\x01media_db\n=\nmedia_db=\nmedia_db=nonsense\nphoto_db=sqlite:\n", 46)
      << std::string(70000, 'x');
  EXPECT_EQ(where(OrvoDatabase::kMedia), mediaDefault);
  EXPECT_EQ(where(OrvoDatabase::kPhoto), "sqlite:/var/lib/orvoindex/photo.db");
  unsetenv("ORVO_MEDIA_DB");
  unlink(conf.c_str());
}

}  // namespace
