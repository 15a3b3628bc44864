// The MP3 handler on both backends: file-name and folder defaults, and what is never saved.
#include <fcntl.h>

#include "handlers/handlers.h"
#include "mp3_test_bytes.h"
#include "support/db_fixture.h"

using namespace mp3test;

namespace {

class Mp3Index : public orvo::test::DatabaseTest {
 protected:
  // Writes `bytes` at `relative` under the test's folder and indexes it.
  std::string Index(const std::string& relative, const std::string& bytes, int expected = 0) {
    std::string path = TempDir() + "/" + relative;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
    EXPECT_EQ(IndexMp3(path.c_str()), expected) << path;
    return path;
  }
  std::string Row(const std::string& columns, const std::string& where) {
    ORVODBFlush();
    return orvo::test::QueryAll(OrvoDatabase::kMedia, "select " + columns + " from music" + where);
  }
};

TEST_P(Mp3Index, UntaggedFileTakesItsNameAndFolder) {
  for (const char* name : {"song.mp3", "archive.tar.mp3", ".mp3", "noext"}) Index(std::string("Best Of/") + name, Cbr128(10));
  EXPECT_EQ(Row("title, album, artist, year, genre", " order by title"),
            "|Best Of|||\narchive.tar|Best Of|||\nnoext|Best Of|||\nsong|Best Of|||");
  // A folder name longer than the album field is cut, and logged.
  orvo::test::LogCapture log;
  Index(std::string(255, 'f') + "/a.mp3", Cbr128(10));
  EXPECT_TRUE(log.Contains("Impossible error."));
  EXPECT_EQ(Row("count(*)", " where album = '" + std::string(254, 'f') + "'"), "1");
}

TEST_P(Mp3Index, RowCarriesTheFilesModificationTime) {
  std::string path = TempDir() + "/dated.mp3";
  std::ofstream(path, std::ios::binary) << Cbr128(10);
  const timespec times[2] = {{1234567890, 0}, {1234567890, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  ASSERT_EQ(IndexMp3(path.c_str()), 0);
  EXPECT_EQ(Row("mtime", ""), "1234567890");
}

TEST_P(Mp3Index, FileWithoutAudioIsNeverSavedAndMissingFileIsSilent) {
  orvo::test::LogCapture log;
  std::string path = Index("x/tagonly.mp3", Id3v2(3, Frame23("TIT2", Text("Only a tag"))) + Id3v1(), -1);
  EXPECT_TRUE(log.Contains("Can't find valid mpeg header: " + path));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata."));
  EXPECT_EQ(Row("count(*)", ""), "0");
  log.Clear();
  EXPECT_EQ(IndexMp3((TempDir() + "/gone.mp3").c_str()), -1);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(IndexMp3(nullptr), -1);
  EXPECT_EQ(log.Count("Bad parameter."), 1);
}

INSTANTIATE_TEST_SUITE_P(Backends, Mp3Index, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
