#include <gtest/gtest.h>

#include "index/handler_table.h"

namespace {

TEST(HandlerLookup, ExtensionCaseIsIgnored) {
  const MediaHandlerRow* upper = FindMediaHandler("/volume1/music/SONG.MP3");
  ASSERT_NE(upper, nullptr);
  EXPECT_EQ(upper, FindMediaHandler("/volume1/music/song.mp3"));
  EXPECT_EQ(upper->index, IndexMp3);
  EXPECT_EQ(FindMediaHandler("/x/Clip.FlV"), FindMediaHandler("/x/clip.flv"));
}

TEST(HandlerLookup, OnlyTheLastDotOfTheWholePathCounts) {
  EXPECT_EQ(FindMediaHandler("/volume1/music/song.mp3.part"), nullptr);
  EXPECT_EQ(FindMediaHandler("/volume1/a.mp3/file"), nullptr);
  EXPECT_EQ(FindMediaHandler("/volume1/music/noextension"), nullptr);
  EXPECT_EQ(FindMediaHandler("/volume1/music/trailingdot."), nullptr);
  const MediaHandlerRow* bare = FindMediaHandler("/volume1/music/.mp3");
  ASSERT_NE(bare, nullptr);
  EXPECT_EQ(bare->index, IndexMp3);
}

TEST(HandlerLookup, UnlistedFormatsAreIgnored) {
  for (const char* name : {"/a/x.mkv", "/a/x.m4v", "/a/x.3gp", "/a/x.webm", "/a/x.txt"})
    EXPECT_EQ(FindMediaHandler(name), nullptr) << name;
}

// Rows that look like mistakes but are relied on.
TEST(HandlerLookup, DeliberateOddRowsAreKept) {
  const MediaHandlerRow* flac = FindMediaHandler("/a/x.flac");
  ASSERT_NE(flac, nullptr);
  EXPECT_EQ(flac->index, IndexFlac);
  EXPECT_EQ(flac->remove, RemoveAudio);

  EXPECT_EQ(FindMediaHandler("/a/x.mp4")->index, IndexVideo);
  for (const char* name : {"/a/x.m4a", "/a/x.aac", "/a/x.m4p"}) {
    EXPECT_EQ(FindMediaHandler(name)->index, IndexMp4) << name;
    EXPECT_EQ(FindMediaHandler(name)->remove, RemoveMp4) << name;
  }
  EXPECT_EQ(FindMediaHandler("/a/x.dat")->index, IndexVcd);
  EXPECT_EQ(FindMediaHandler("/a/x.ra")->index, IndexAudio);
  EXPECT_EQ(FindMediaHandler("/a/x.rm")->index, IndexVideo);
  EXPECT_EQ(FindMediaHandler("/a/x.wpl")->index, IndexPlaylist);
  EXPECT_EQ(FindMediaHandler("/a/x.ufo")->remove, RemovePhoto);
}

TEST(VideoExtension, ExactlyTheVideoRowsCount) {
  for (const char* name : {"/a/x.avi", "/a/x.dat", "/a/x.DIVX", "/a/x.rm", "/a/x.flv", "/a/x.mp4"})
    EXPECT_EQ(IsVideoExtension(name), 1) << name;
  // Neighbours of the video run, and formats that are not in the table.
  for (const char* name : {"/a/x.wpl", "/a/x.jpg", "/a/x.m4v", "/a/x.mkv", "/a/x.m4a", "/a/novideo"})
    EXPECT_EQ(IsVideoExtension(name), 0) << name;
  EXPECT_EQ(IsVideoExtension(nullptr), 0);
}

}  // namespace
