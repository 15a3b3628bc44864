// The incremental re-index on each backend: unchanged files stay unread and unwritten, changed and new
// ones are read, rows of gone files go, ids stay; and the switch that turns it on.
#include <map>
#include <sstream>

#include "formats_testutil.h"
#include "index/handler_table.h"
#include "index/reindex.h"
#include "mp3_test_bytes.h"
#include "platform/media_db.h"
#include "support/db_fixture.h"

namespace {

using namespace mp3test;
using orvo::test::QueryAll;

constexpr time_t kStamp = 1500000000;

// A share two components deep like /volume1/<share>; '%' and '_' in its name match only themselves.
class IncrementalReindex : public orvo::test::DatabaseTest {
 protected:
  void SetUp() override {
    DatabaseTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    share_ = "/tmp/orvo%incr_" + std::to_string(getpid());
    fs::remove_all(share_);
    fs::create_directories(share_);
  }
  void TearDown() override {
    if (!share_.empty()) fs::remove_all(share_);
    DatabaseTest::TearDown();
  }
  // Writes the file and gives it (and so its row) a known modification time.
  void Write(const std::string& relative, const std::string& bytes, time_t mtime = kStamp) {
    formats_test::WriteBytes(share_ + "/" + relative, bytes, mtime);
  }
  void Reindex() {
    ReindexTreeIncrementally(share_.c_str());
    ASSERT_EQ(ORVODBFlush(), 0);
  }
  // "relative path|columns..." per row of `table` under the share, in path order.
  std::map<std::string, std::string> Rows(const std::string& table, const std::string& columns) {
    std::map<std::string, std::string> rows;
    std::istringstream in(QueryAll(OrvoDatabase::kMedia, "select path, " + columns + " from " + table + " order by path"));
    for (std::string line; std::getline(in, line);) {
      const std::string path = line.substr(0, line.find('|'));
      const std::string key = path == share_ ? "." : path.rfind(share_ + "/", 0) == 0 ? path.substr(share_.size() + 1) : path;
      rows[key] = line.substr(line.find('|') + 1);
    }
    return rows;
  }
  void Save(const std::string& path) {
    const MediaInfo record = orvo::test::MediaRecord(path);
    ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &record), 0) << path;
  }
  void Mark(const std::string& table) {
    ASSERT_NE(QueryAll(OrvoDatabase::kMedia, "update " + table + " set genre = 'marked'"), "ERROR");
    ASSERT_EQ(ORVODBFlush(), 0);
  }
  std::string share_;
};

// The row of an unchanged file is neither rewritten (its marker stays) nor read again: the file's
// tags were replaced behind the same size and time, and the row still holds the old ones.
TEST_P(IncrementalReindex, UnchangedFilesAreNeitherReadNorWritten) {
  Write("Band/Album/01 Song.mp3", TaggedMp3("First title"));
  Write("Band/Album/Caf\xE9.mp3", TaggedMp3("Latin-1 name"));
  Write("Band/Album/list.m3u", "01 Song.mp3\n");
  Write("Band/cover.png", "not really a picture");
  Reindex();
  const auto ids = Rows("music", "id");
  const auto folderIds = Rows("directory", "id");
  ASSERT_EQ(ids.size(), 2u);
  ASSERT_EQ(folderIds.size(), 3u);
  for (const char* table : {"music", "playlist", "photo"}) Mark(table);

  Write("Band/Album/01 Song.mp3", TaggedMp3("Other title"));  // same length, same time
  Reindex();
  EXPECT_EQ(Rows("music", "id"), ids);
  EXPECT_EQ(Rows("music", "title, genre"),
            (std::map<std::string, std::string>{{"Band/Album/01 Song.mp3", "First title|marked"},
                                                {"Band/Album/Caf\xE9.mp3", "Latin-1 name|marked"}}));
  EXPECT_EQ(Rows("playlist", "genre"), (std::map<std::string, std::string>{{"Band/Album/list.m3u", "marked"}}));
  EXPECT_EQ(Rows("photo", "genre"), (std::map<std::string, std::string>{{"Band/cover.png", "marked"}}));
  EXPECT_EQ(Rows("directory", "id"), folderIds);
}

// A new size or a new time gets the file read again under the same id; new files and folders are
// added; the rows of a removed file and of everything in a removed folder go.
TEST_P(IncrementalReindex, ChangedNewAndVanishedFilesAreBroughtInStep) {
  Write("a/size.mp3", TaggedMp3("Short"));
  Write("a/time.mp3", TaggedMp3("Before"));
  Write("a/gone.mp3", TaggedMp3("Gone"));
  Write("a/list.wpl", "<smil/>");
  Write("old/deep/x.mp3", TaggedMp3("Old"));
  Reindex();
  const auto ids = Rows("music", "id");

  Write("a/size.mp3", TaggedMp3("Much longer title"));
  Write("a/time.mp3", TaggedMp3("Behind"), kStamp + 1);
  Write("a/list.wpl", "<smil></smil>");
  fs::remove(share_ + "/a/gone.mp3");
  fs::remove_all(share_ + "/old");
  Write("new/n.mp3", TaggedMp3("New"));
  Reindex();

  const auto rows = Rows("music", "id, title, mtime");
  EXPECT_EQ(rows, (std::map<std::string, std::string>{
                      {"a/size.mp3", ids.at("a/size.mp3") + "|Much longer title|" + std::to_string(kStamp)},
                      {"a/time.mp3", ids.at("a/time.mp3") + "|Behind|" + std::to_string(kStamp + 1)},
                      {"new/n.mp3", rows.count("new/n.mp3") ? rows.at("new/n.mp3") : "missing"}}));
  EXPECT_EQ(Rows("playlist", "filesize, mtime"), (std::map<std::string, std::string>{{"a/list.wpl", "13|0"}}));
  std::set<std::string> folders;
  for (const auto& [path, id] : Rows("directory", "id")) folders.insert(path);
  EXPECT_EQ(folders, (std::set<std::string>{".", "a", "new"}));
}

// Exactly what a full re-index would leave: rows of "._" companions, of files no handler takes, of the
// recycle bin, of a file in the wrong table, and of gone folders go; rows outside the share stay, even
// where a careless prefix would take them along.
TEST_P(IncrementalReindex, RowsAFullReindexWouldDropGoAndOthersStay) {
  Write("a/._x.mp3", TaggedMp3("Companion"));
  Write("a/notes.txt", "text");
  Write("#recycle/r.mp3", TaggedMp3("Binned"));
  Write("a/clip.avi", "not really a video");
  Write("a/kept.mp3", TaggedMp3("Kept"));
  Reindex();
  const std::string outside[] = {"/tmp/orvoXXincrY" + std::to_string(getpid()) + "/a.mp3",
                                 share_ + "2/a.mp3", "/tmp/elsewhere.mp3"};
  for (const std::string& path : outside) Save(path);
  for (const char* relative : {"a/._x.mp3", "a/notes.txt", "#recycle/r.mp3", "a/clip.avi"}) Save(share_ + "/" + relative);
  ASSERT_NE(QueryAll(OrvoDatabase::kMedia, "insert into directory (path, mtime) values ('" + share_ + "/gone', 1)"), "ERROR");
  ASSERT_EQ(ORVODBFlush(), 0);
  auto before = Rows("music", "id");

  Reindex();
  for (const char* relative : {"a/._x.mp3", "a/notes.txt", "#recycle/r.mp3", "a/clip.avi"}) before.erase(relative);
  EXPECT_EQ(Rows("music", "id"), before);
  EXPECT_EQ(before.size(), 4u);  // a/kept.mp3 and the three outside
  EXPECT_EQ(Rows("video", "title"), (std::map<std::string, std::string>{{"a/clip.avi", "clip"}}));
  EXPECT_EQ(Rows("directory", "id").count("gone"), 0u);
}

// A share whose folder is not there (a volume not mounted) keeps every row.
TEST_P(IncrementalReindex, MissingShareKeepsItsRows) {
  Write("a/song.mp3", TaggedMp3("Song"));
  Reindex();
  fs::remove_all(share_);
  Reindex();
  EXPECT_EQ(Rows("music", "title"), (std::map<std::string, std::string>{{"a/song.mp3", "Song"}}));
  EXPECT_EQ(Rows("directory", "id").size(), 2u);
}

// A file that changed into something its handler refuses loses its row, as in a full re-index.
TEST_P(IncrementalReindex, ChangedFileItsHandlerRefusesLosesItsRow) {
  Write("a/song.mp3", TaggedMp3("Song"));
  Reindex();
  ASSERT_EQ(Rows("music", "title").size(), 1u);
  Write("a/song.mp3", std::string(3000, '\0'));
  orvo::test::LogCapture log;
  Reindex();
  EXPECT_TRUE(Rows("music", "title").empty());
}

INSTANTIATE_TEST_SUITE_P(Backends, IncrementalReindex, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

TEST(IncrementalReindexSwitch, OnlyReindexIncrementalTurnsItOn) {
  formats_test::TempDir dir;
  const std::string conf = dir.File("orvoindex.conf");
  EXPECT_FALSE(IncrementalReindexWanted(conf.c_str()));  // no file
  const std::pair<const char*, bool> cases[] = {
      {"media_db=sqlite:/x.db\nreindex=\"Incremental\"\n", true},
      {"reindex=full\n", false},
      {"reindexing=incremental\n", false},
  };
  for (const auto& [text, on] : cases) {
    std::ofstream(conf) << text;
    EXPECT_EQ(IncrementalReindexWanted(conf.c_str()), on) << text;
  }
}

// Every handler row must name the table its handler saves into, or its rows would never be
// matched and every such file read again.
TEST(IncrementalReindexSwitch, EveryHandlerRowHasItsTable) {
  for (const MediaHandlerRow* row = kMediaHandlerTable; row->extension != nullptr; ++row)
    EXPECT_GE(MediaTypeOfHandler(row), 0) << row->extension;
}

}  // namespace
