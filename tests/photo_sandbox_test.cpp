// The photo share through the daemon's queue, inside the appliance sandbox.
#include "photo/photo_index.h"
#include "photo/photo_share.h"
#include "platform/orvodb.h"
#include "support/sandbox.h"

namespace {

using namespace orvo::test;

const std::string kShare = "/volume1/photo";

void Picture(const std::string& relative) {
  std::string path = kShare + "/" + relative;
  fs::create_directories(fs::path(path).parent_path());
  std::string command = "ffmpeg -v error -y -f lavfi -i color=c=red:s=8x8 -frames:v 1 -f mjpeg '" + path + "' </dev/null";
  ASSERT_EQ(system(command.c_str()), 0) << command;
}

// The photo database file as the daemon left it, "a|b" lines.
std::string Rows(const std::string& sql) {
  std::string out;
  for (const auto& row : QuerySqlite(kPhotoDbFile, sql)) {
    if (!out.empty()) out += "\n";
    for (size_t i = 0; i < row.size(); ++i) out += (i > 0 ? "|" : "") + row[i];
  }
  return out;
}
std::string PhotoPaths() { return Rows("select path from photo_image order by path"); }
std::string Albums() { return Rows("select sharename, public from photo_share order by sharename"); }

// R:photo adds new pictures (only they go for thumbnails), drops vanished ones
// and skips #recycle, @eaDir, names without '.' and a link back up; new albums
// follow albumdefpublic (any case), sub-albums their album; hidden and level-2
// folders are no albums. Then N, U, d, D and A keep both tables in step.
using PhotoShareInSandbox = DaemonSandboxTest;

TEST_F(PhotoShareInSandbox, DaemonReindexAndRenameThroughQueue) {
  for (const char* name : {"Trip/day1/a.jpg", "Trip/b.jpg", "Trip/gone.jpg", "Trip/noext", "Trip/@eaDir/t.jpg",
                           "#recycle/r.jpg"}) {
    Picture(name);
  }
  for (const char* name : {"Other", "Trip/day1/deep", "@eaDir", ".hidden", "q'x%_\\"}) fs::create_directories(kShare + "/" + name);
  fs::create_directory_symlink("..", kShare + "/Trip/day1/up");
  for (const char* album : {"/Trip", "/gone", "/Trip/gone"}) ASSERT_EQ(ORVOPhotoShareUpdate((kShare + album).c_str(), 1), 0);
  for (const char* known : {"/Trip/b.jpg", "/Trip/gone.jpg"}) ASSERT_EQ(ORVOPhotoIndexAdd((kShare + known).c_str(), 1), 0);
  fs::remove(kShare + "/Trip/gone.jpg");
  ORVODBCloseAll();
  std::ofstream("/etc/orvoinfo.conf") << "albumdefpublic=YES\n";
  pid_ = StartDaemon(kFastClock);
  ASSERT_GT(pid_, 0);
  ASSERT_TRUE(AppendQueueLine("R:photo") && SignalDaemon() && WaitForHups(1));
  EXPECT_EQ(PhotoPaths(), kShare + "/Trip/b.jpg\n" + kShare + "/Trip/day1/a.jpg");
  EXPECT_EQ(Albums(), "Other|1\nTrip|0\nTrip/day1|0\nq'x%_\\|1");
  EXPECT_EQ(ReadFile("/var/spool/orvo_thumb_queue"), "3:" + kShare + "/Trip/day1/a.jpg\n");

  fs::rename(kShare + "/Trip", kShare + "/Voyage");
  ASSERT_TRUE(AppendQueueLine("N:" + kShare + "/Voyage:" + kShare + "/Trip") && SignalDaemon() && WaitForHups(2));
  EXPECT_EQ(PhotoPaths(), kShare + "/Voyage/b.jpg\n" + kShare + "/Voyage/day1/a.jpg");
  EXPECT_EQ(Albums(), "Other|1\nVoyage|0\nVoyage/day1|0\nq'x%_\\|1");

  Picture("Voyage/c.jpg");
  ASSERT_TRUE(AppendQueueLine("U:photo") && SignalDaemon() && WaitForHups(3));
  EXPECT_EQ(PhotoPaths(), kShare + "/Voyage/b.jpg\n" + kShare + "/Voyage/c.jpg\n" + kShare + "/Voyage/day1/a.jpg");
  fs::remove(kShare + "/Voyage/b.jpg");
  fs::remove_all(kShare + "/Voyage/day1");
  Picture("Other/o.jpg");
  ASSERT_TRUE(AppendQueueLine("d:" + kShare + "/Voyage/b.jpg") && AppendQueueLine("D:" + kShare + "/Voyage/day1") &&
              AppendQueueLine("A:" + kShare + "/Other") && SignalDaemon() && WaitForHups(4));
  EXPECT_EQ(PhotoPaths(), kShare + "/Other/o.jpg\n" + kShare + "/Voyage/c.jpg");
}

}  // namespace
