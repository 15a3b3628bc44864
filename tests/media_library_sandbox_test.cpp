// libavformat is loaded only when a file first needs it (by the probe helper). When it cannot be
// loaded, the daemon says so once and still saves every file by its name.
#include "support/sandbox.h"

namespace {

using namespace orvo::test;
using MediaLibrary = DaemonSandboxTest;

TEST_F(MediaLibrary, WithoutLibavformatFilesAreStillSavedByName) {
  const std::string folder = "/volume1/music/nolib";
  fs::create_directories(folder);
  const std::string make = "ffmpeg -v error -y -f lavfi -i sine=duration=1 -c:a aac -f adts '" + folder + "/Song One.mp2' </dev/null";
  ASSERT_EQ(system(make.c_str()), 0);
  fs::copy_file(folder + "/Song One.mp2", folder + "/Song Two.ogg");
  // A library of the right name that cannot be loaded comes first in the search.
  const std::string libraries = "/var/lib/orvoindex-nolib";
  fs::create_directories(libraries);
  std::ofstream(libraries + "/libavutil.so.57") << "not a library";
  ASSERT_GT(pid_ = StartOnQueue({"A:" + folder}, {"LD_LIBRARY_PATH=" + libraries}), 0);
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select title from music order by title"),
            (std::vector<std::vector<std::string>>{{"Song One"}, {"Song Two"}}));
  EXPECT_EQ(SandboxLogCount("Failed to load libavformat"), 1);
}

}  // namespace
