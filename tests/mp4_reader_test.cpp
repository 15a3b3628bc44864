// MP4 audio: track choice, tags before defaults, and files that are no MP4 at all.
#include "formats_testutil.h"

using namespace formats_test;

namespace {

const std::string kMono = "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=3 ";

MediaInfo Fill(const std::string& path) { return Filled(FillMp4Record, path); }

std::string Text(const MediaInfo& m) {
  return std::string(m.title) + "|" + m.album + "|" + m.artist + "|" + m.genre + "|" + m.year + "|" +
         std::to_string(m.track);
}

TEST(Mp4Tags, TagsWinAndDefaultsFillOnlyEmptyFields) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string tagged = dir.File("Albums/tagged.m4a"), bare = dir.File("Albums/song.live.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -metadata title=Name -metadata album=Record -metadata artist=Band "
                     "-metadata genre=Pop -metadata date=2011 -metadata track=3/12 " + tagged));
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -metadata artist=Band " + bare));
  EXPECT_EQ(Text(Fill(tagged)), "Name|Record|Band|Pop|2011|3");
  EXPECT_EQ(Text(Fill(bare)), "song.live|Albums|Band|||0");
}

TEST(Mp4Tracks, FirstSoundTrackLastVideoTrackVideoDurationAndNoCoverArt) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string path = dir.File("m/tracks.m4a"), cover = dir.File("c/cover.png"), covered = dir.File("c/covered.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + "-f lavfi -i sine=sample_rate=48000:duration=3 -ac 2 "
                     "-f lavfi -i testsrc=duration=2:size=160x120:rate=10 "
                     "-f lavfi -i testsrc=duration=2:size=320x240:rate=10 -map 0 -map 1 -map 2 -map 3 "
                     "-c:a aac -c:v mpeg4 -f mp4 " + path));
  MediaInfo m = Fill(path);
  EXPECT_EQ(m.channels, 1);       // the first sound track, not the stereo one
  EXPECT_EQ(m.frequency, 44100);  // its time scale
  EXPECT_EQ(m.width * 1000 + m.height, 320240);  // the last video track
  EXPECT_EQ(m.duration, 2.0f);    // the video track's, not the sound track's 3
  EXPECT_GT(m.video_bitrate, 0);
  ASSERT_TRUE(Ffmpeg("-f lavfi -i color=c=red:size=16x16 -frames:v 1 " + cover));
  ASSERT_TRUE(Ffmpeg(kMono + "-i " + cover + " -map 0 -map 1 -c:a aac -c:v png -disposition:v attached_pic " + covered));
  m = Fill(covered);
  EXPECT_EQ(m.width + m.video_bitrate, 0);
  EXPECT_EQ(m.duration, 3.0f);
}

TEST(Mp4NotMp4, AdtsAacIsSavedWithDefaultsAndLoggedTwice) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string path = dir.File("Radio/stream.aac");
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -f adts " + path));
  orvo::test::LogCapture log;
  MediaInfo m = Fill(path);
  EXPECT_EQ(log.Count("Failed to parse music metadata."), 2) << "once by the reader, once by the record filler";
  EXPECT_EQ(Text(m), "stream|Radio||||0");
  EXPECT_EQ(m.frequency, 0);
  EXPECT_EQ(RemoveMp4(path.c_str()), -1);
  EXPECT_TRUE(log.Contains("File exists. Skip remove it from database."));
}

}  // namespace
