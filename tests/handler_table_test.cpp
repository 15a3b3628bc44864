// Which handler a path gets: by the last dot of the whole path, any case.
#include <gtest/gtest.h>

#include "index/handler_table.h"

namespace {

TEST(HandlerLookup, ExtensionCaseIsIgnoredAndOnlyTheLastDotCounts) {
  const MediaHandlerRow* mp3 = FindMediaHandler("/volume1/music/song.mp3");
  ASSERT_NE(mp3, nullptr);
  EXPECT_EQ(mp3->index, IndexMp3);
  for (const char* name : {"/volume1/music/SONG.MP3", "/volume1/music/.mp3"}) EXPECT_EQ(FindMediaHandler(name), mp3) << name;
  EXPECT_EQ(FindMediaHandler("/x/Clip.FlV"), FindMediaHandler("/x/clip.flv"));
  for (const char* name : {"/volume1/music/song.mp3.part", "/volume1/a.mp3/file", "/volume1/music/noextension",
                           "/volume1/music/trailingdot.", "/a/x.mkv", "/a/x.m4v", "/a/x.txt"})
    EXPECT_EQ(FindMediaHandler(name), nullptr) << name;
}

// Deliberate rows: FLAC removed as plain audio, .mp4 indexed as video but .m4a by the MP4 reader.
TEST(HandlerLookup, DeliberateOddRowsAreKept) {
  EXPECT_EQ(FindMediaHandler("/a/x.flac")->remove, RemoveAudio);
  EXPECT_EQ(FindMediaHandler("/a/x.mp4")->index, IndexVideo);
  EXPECT_EQ(FindMediaHandler("/a/x.m4a")->index, IndexMp4);
}

TEST(VideoExtension, ExactlyTheVideoRowsCount) {
  for (const char* name : {"/a/x.avi", "/a/x.dat", "/a/x.DIVX", "/a/x.rm", "/a/x.flv", "/a/x.mp4"})
    EXPECT_EQ(IsVideoExtension(name), 1) << name;
  for (const char* name : {"/a/x.wpl", "/a/x.jpg", "/a/x.m4v", "/a/x.m4a", "/a/novideo", static_cast<const char*>(nullptr)})
    EXPECT_EQ(IsVideoExtension(name), 0) << (name ? name : "(null)");
}

}  // namespace
