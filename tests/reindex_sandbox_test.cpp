// R: through the client and the real daemon, on each backend: with reindex=incremental in
// /etc/orvoindex.conf the rows of unchanged files are kept unread with their ids; without it every
// row is made again.
#include <map>
#include <sstream>

#include "formats_testutil.h"
#include "mp3_test_bytes.h"
#include "support/db_fixture.h"
#include "support/sandbox.h"

namespace {

using namespace mp3test;
using namespace orvo::test;
using Rows = std::map<std::string, std::string>;

constexpr time_t kStamp = 1500000000;
const std::string kMusic = "/volume1/music", kVideo = "/volume1/video";

void Write(const std::string& path, const std::string& bytes, time_t mtime = kStamp) {
  formats_test::WriteBytes(path, bytes, mtime);
}

// path -> the other columns, "|"-joined, read on a connection of the test's own.
Rows Query(const std::string& table, const std::string& columns) {
  Rows rows;
  std::istringstream in(QueryAll(OrvoDatabase::kMedia, "select path, " + columns + " from " + table));
  for (std::string line; std::getline(in, line);) rows[line.substr(0, line.find('|'))] = line.substr(line.find('|') + 1);
  ORVODBCloseAll();
  return rows;
}

class ReindexSandbox : public SandboxDatabaseTest {
 protected:
  void Start() { ASSERT_GT(pid_ = StartOnQueue(), 0); }
  // `orvoindex reindex WORD`, then the run it asked for.
  void Reindex(const std::string& word) {
    const int hups = SandboxHupCount();
    CommandResult r = RunCommand({std::string(ORVO_BINARY_DIR) + "/orvoindex", "reindex", word});
    ASSERT_EQ(r.status, 0) << r.output;
    ASSERT_TRUE(WaitForHups(hups + 1));
  }
  void Mark(const std::string& table) {
    ASSERT_NE(QueryAll(OrvoDatabase::kMedia, "update " + table + " set genre = 'marked'"), "ERROR");
    ASSERT_EQ(ORVODBFlush(), 0);
    ORVODBCloseAll();
  }
};

// Which rows an incremental walk keeps or redoes is reindex_test's; here the key, the client's word and
// the share it names.
TEST_P(ReindexSandbox, IncrementalKeepsUnchangedRowsUnreadAndEveryId) {
  std::ofstream("/etc/orvoindex.conf") << "reindex=incremental\n";
  Write(kMusic + "/a/keep.mp3", TaggedMp3("Kept title"));
  Write(kMusic + "/a/time.mp3", TaggedMp3("Before"));
  Write(kVideo + "/v/clip.avi", "not really a video");
  Write(kVideo + "/v/gone.avi", "not really a video either");
  Start();
  Reindex("all");
  const Rows ids = Query("music", "id");
  ASSERT_EQ(ids.size(), 2u);
  Mark("music");
  Mark("video");

  Write(kMusic + "/a/keep.mp3", TaggedMp3("Swap title"));  // same size, same time: must not be read
  Write(kMusic + "/a/time.mp3", TaggedMp3("Behind"), kStamp + 60);
  fs::remove(kVideo + "/v/gone.avi");
  Reindex("music");
  EXPECT_EQ(Query("music", "id, title, genre"),
            (Rows{{kMusic + "/a/keep.mp3", ids.at(kMusic + "/a/keep.mp3") + "|Kept title|marked"},
                  {kMusic + "/a/time.mp3", ids.at(kMusic + "/a/time.mp3") + "|Behind|"}}));
  EXPECT_EQ(Query("video", "genre").size(), 2u) << "R:music left the video share alone";

  Reindex("all");
  EXPECT_EQ(Query("video", "genre"), (Rows{{kVideo + "/v/clip.avi", "marked"}}));
  EXPECT_EQ(Query("directory", "id").count(kVideo + "/v"), 1u);
}

// Without the key R: empties the share and reads every file again: new ids, new tags. (The row
// outside the share keeps SQLite from handing the freed id out again.)
TEST_P(ReindexSandbox, WithoutTheKeyEveryRowIsMadeAgain) {
  const std::string keep = kMusic + "/a/keep.mp3", outside = "/volume1/photo/x.mp3";
  Write(keep, TaggedMp3("Kept title"));
  Write(outside, TaggedMp3("Outside"));
  Start();
  Reindex("all");
  const Rows before = Query("music", "id");
  ASSERT_EQ(before.size(), 2u);
  Write(keep, TaggedMp3("Other title"));
  Reindex("music");
  const Rows after = Query("music", "id, title");
  ASSERT_EQ(after.size(), 2u);
  EXPECT_EQ(after.at(outside), before.at(outside) + "|Outside");
  EXPECT_NE(after.at(keep).substr(0, after.at(keep).find('|')), before.at(keep));
  EXPECT_EQ(after.at(keep).substr(after.at(keep).find('|')), "|Other title");
}

INSTANTIATE_TEST_SUITE_P(Backends, ReindexSandbox, ::testing::ValuesIn(DatabaseBackends()));

}  // namespace
