// MP4 audio through the MOV demuxer: track choice, time scale, tags before
// defaults, and files that are no MP4 at all.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "formats_testutil.h"
#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "platform/media_info.h"
#include "support/log_capture.h"

using namespace formats_test;

namespace {

const std::string kMono = "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=3 ";
const std::string kStereo = "-f lavfi -i sine=frequency=220:sample_rate=48000:duration=3 -ac 2 ";

MediaInfo Fill(const std::string& path) {
  MediaInfo info;
  memset(&info, 0xAB, sizeof info);
  EXPECT_EQ(FillMp4Record(path.c_str(), &info), 0) << path;
  return info;
}

TEST(Mp4Tags, TagsWinAndDefaultsFillOnlyEmptyFields) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string tagged = dir.File("Albums/tagged.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -metadata title=Name -metadata album=Record -metadata artist=Band "
                     "-metadata genre=Pop -metadata date=2011 -metadata track=3/12 " + tagged));
  MediaInfo m = Fill(tagged);
  EXPECT_STREQ(m.title, "Name");
  EXPECT_STREQ(m.album, "Record");
  EXPECT_STREQ(m.artist, "Band");
  EXPECT_STREQ(m.genre, "Pop");
  EXPECT_STREQ(m.year, "2011");
  EXPECT_EQ(m.track, 3);

  std::string bare = dir.File("Albums/song.live.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -metadata artist=Band " + bare));
  m = Fill(bare);
  EXPECT_STREQ(m.title, "song.live");
  EXPECT_STREQ(m.album, "Albums");
  EXPECT_STREQ(m.artist, "Band");
}

TEST(Mp4Tracks, FirstSoundTrackLastVideoTrackAndVideoDurationWins) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string path = dir.File("m/tracks.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + kStereo + "-f lavfi -i testsrc=duration=2:size=160x120:rate=10 "
                     "-f lavfi -i testsrc=duration=2:size=320x240:rate=10 -map 0 -map 1 -map 2 -map 3 "
                     "-c:a aac -c:v mpeg4 -f mp4 " + path));
  MediaInfo m = Fill(path);
  EXPECT_EQ(m.channels, 1);         // the first sound track, not the stereo one
  EXPECT_EQ(m.frequency, 44100);    // its time scale
  EXPECT_EQ(m.width, 320);          // the last video track
  EXPECT_EQ(m.height, 240);
  EXPECT_EQ(m.duration, 2.0f);      // the video track's, not the sound track's 3
  EXPECT_GT(m.bitrate, 0);
  EXPECT_GT(m.video_bitrate, 0);
}

TEST(Mp4Tracks, TimeScaleIsStoredAsSampleRate) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string path = dir.File("m/rate.m4a");
  ASSERT_TRUE(Ffmpeg(kStereo + "-c:a aac " + path));
  MediaInfo m = Fill(path);
  EXPECT_EQ(m.frequency, 48000);
  EXPECT_EQ(m.channels, 2);
  EXPECT_EQ(m.duration, 3.0f);
}

TEST(Mp4Tracks, CoverArtIsNoVideoTrack) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string cover = dir.File("c/cover.png"), path = dir.File("c/covered.m4a");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i color=c=red:size=16x16 -frames:v 1 " + cover));
  ASSERT_TRUE(Ffmpeg(kMono + "-i " + cover + " -map 0 -map 1 -c:a aac -c:v png -disposition:v attached_pic " + path));
  MediaInfo m = Fill(path);
  EXPECT_EQ(m.width, 0);
  EXPECT_EQ(m.video_bitrate, 0);
  EXPECT_EQ(m.duration, 3.0f);
}

TEST(Mp4NotMp4, AdtsAacIsSavedWithDefaultsAndLoggedTwice) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string path = dir.File("Radio/stream.aac");
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -f adts " + path));
  orvo::test::LogCapture log;
  MediaInfo m = Fill(path);
  // Once by the reader, once by the record filler.
  EXPECT_EQ(log.Count("Failed to parse music metadata."), 2);
  EXPECT_TRUE(log.Contains("mp4.cpp"));
  EXPECT_STREQ(m.title, "stream");
  EXPECT_STREQ(m.album, "Radio");
  EXPECT_EQ(m.frequency, 0);
  EXPECT_EQ(m.duration, 0.0f);
  EXPECT_EQ(RemoveMp4(path.c_str()), -1);
  EXPECT_TRUE(log.Contains("File exists. Skip remove it from database."));
}

TEST(Mp4Corpus, EveryFileFillsAndChannelsMatchTheTools) {
  REQUIRE_CORPUS("mp4");
  orvo::test::LogCapture quiet;
  int compared = 0;
  std::vector<std::string> files = CorpusFiles("mp4");
  for (const auto& f : CorpusFiles("misc-audio")) {
    if (fs::path(f).extension() == ".aac") files.push_back(f);  // ADTS: no MP4, defaults only
  }
  for (const auto& f : files) {
    MediaInfo m = Fill(f);
    if (fs::path(f).extension() == ".aac") {
      EXPECT_EQ(m.frequency, 0) << f;
      continue;
    }
    double channels = Agreed(Reference(Relative(f)), "channels");
    if (!std::isnan(channels)) {
      EXPECT_EQ(m.channels, channels) << f;
      ++compared;
    }
  }
  EXPECT_GT(compared, 8);
}

// The tools report the sound's sample rate (32000); the record takes the
// track's time scale, which this file sets to 90000.
TEST(Mp4Corpus, TimeScaleNotSampleRateAsToolsReport) {
  std::string f = CorpusDir() + "/mp4/QuickTime.m4a";
  if (!fs::exists(f)) GTEST_SKIP() << "corpus absent";
  orvo::test::LogCapture quiet;
  MediaInfo m = Fill(f);
  EXPECT_EQ(m.frequency, 90000);
  EXPECT_STREQ(m.title, "Sample");
  EXPECT_STREQ(m.artist, "Phil Harvey");
}

}  // namespace
