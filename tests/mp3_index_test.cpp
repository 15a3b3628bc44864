// The MP3 handler pair on a real media database: what reaches the music row,
// the file-name and folder defaults, and what is never saved or removed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "handlers/handlers.h"
#include "mp3_test_bytes.h"
#include "platform/media_db.h"
#include "platform/orvodb.h"
#include "support/db_fixture.h"
#include "support/log_capture.h"

using namespace mp3test;

namespace {

using orvo::test::QueryAll;

class Mp3Index : public orvo::test::DatabaseTest {
 protected:
  // Writes `bytes` at `relative` under the test's folder and returns the path.
  std::string Put(const std::string& relative, const std::string& bytes) {
    std::string path = TempDir() + "/" + relative;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    FILE* f = fopen(path.c_str(), "wb");
    fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    return path;
  }
  std::string Row(const std::string& columns, const std::string& path) {
    ORVODBFlush();
    return QueryAll(OrvoDatabase::kMedia, "select " + columns + " from music where path = '" + path + "'");
  }
  std::string Count() {
    ORVODBFlush();
    return QueryAll(OrvoDatabase::kMedia, "select count(*) from music");
  }
};

TEST_P(Mp3Index, TagsAndStreamReachTheMusicRow) {
  std::string title = "\xFF\xFE" + std::string("S\0o\0n\0g\0", 8);
  std::string bytes = Id3v2(3, Frame23("TIT2", std::string(1, '\x01') + title) +
                                   Frame23("TPE1", Text("Caf\xE9 Band")) + Frame23("TALB", Text("Album")) +
                                   Frame23("TYER", Text("2004")) + Frame23("TCON", Text("(17)")) +
                                   Frame23("TRCK", Text("07/12"))) +
                      XingStream(10000, 30, true);
  std::string path = Put("Music/one.mp3", bytes);
  ASSERT_EQ(IndexMp3(path.c_str()), 0);
  EXPECT_EQ(Row("title, artist, album, year, genre, track, bitrate, frequency, channels, filesize", path),
            "Song|Caf\xC3\xA9 Band|Album|2004|Rock|7|128000|44100|1|" + std::to_string(bytes.size()));
  EXPECT_EQ(Row("round(duration * 10)", path), "2612");
  EXPECT_NE(Row("mtime", path), "0");
}

TEST_P(Mp3Index, UntaggedFileTakesItsNameAndFolder) {
  std::string plain = Put("Best Of/song.mp3", Cbr128(10));
  std::string dotted = Put("Best Of/archive.tar.mp3", Cbr128(10));
  std::string bare = Put("Best Of/.mp3", Cbr128(10));
  std::string noext = Put("Best Of/noext", Cbr128(10));
  for (const std::string& p : {plain, dotted, bare, noext}) ASSERT_EQ(IndexMp3(p.c_str()), 0) << p;
  EXPECT_EQ(Row("title, album, artist, year, genre", plain), "song|Best Of|||");
  EXPECT_EQ(Row("title", dotted), "archive.tar");
  EXPECT_EQ(Row("title", bare), "");
  EXPECT_EQ(Row("title", noext), "noext");
}

TEST_P(Mp3Index, FolderNameLongerThanTheAlbumFieldIsCutAndLogged) {
  std::string folder(255, 'f');
  std::string path = Put(folder + "/a.mp3", Cbr128(10));
  orvo::test::LogCapture log;
  ASSERT_EQ(IndexMp3(path.c_str()), 0);
  EXPECT_TRUE(log.Contains("Impossible error."));
  EXPECT_EQ(Row("album", path), std::string(254, 'f'));
}

TEST_P(Mp3Index, FileWithoutAudioIsNeverSaved) {
  std::string path = Put("x/tagonly.mp3", Id3v2(3, Frame23("TIT2", Text("Only a tag"))) + Id3v1({}));
  orvo::test::LogCapture log;
  EXPECT_EQ(IndexMp3(path.c_str()), -1);
  EXPECT_TRUE(log.Contains("Can't find valid mpeg header: " + path));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata."));
  EXPECT_EQ(Count(), "0");
}

TEST_P(Mp3Index, MissingFileIsSilentAndBadPathIsLogged) {
  orvo::test::LogCapture log;
  EXPECT_EQ(IndexMp3((TempDir() + "/gone.mp3").c_str()), -1);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(IndexMp3(""), -1);
  EXPECT_EQ(IndexMp3(nullptr), -1);
  EXPECT_EQ(log.Count("Bad parameter."), 2);
}

TEST_P(Mp3Index, RemoveOnlyOnceTheFileIsGone) {
  std::string path = Put("x/r.mp3", Cbr128(10));
  ASSERT_EQ(IndexMp3(path.c_str()), 0);
  orvo::test::LogCapture log;
  EXPECT_EQ(RemoveMp3(path.c_str()), -1);
  EXPECT_TRUE(log.Contains("File exists. Skip remove it from database."));
  EXPECT_EQ(Count(), "1");
  unlink(path.c_str());
  EXPECT_EQ(RemoveMp3(path.c_str()), 0);
  EXPECT_EQ(Count(), "0");
}

INSTANTIATE_TEST_SUITE_P(Backends, Mp3Index, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
