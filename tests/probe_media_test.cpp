// The generic probe and the generic audio/video handlers, on files made with
// ffmpeg and on the corpus.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "formats_testutil.h"
#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "meta/metamedia.h"
#include "platform/media_info.h"
#include "support/log_capture.h"

using namespace formats_test;

namespace {

const char* kSine = "-f lavfi -i sine=frequency=440:sample_rate=";

MediaInfo Probe(const std::string& path, int type = kMediaMusic) {
  MediaInfo info;
  memset(&info, 0xAB, sizeof info);
  EXPECT_EQ(FillMediaRecord(path.c_str(), type, &info), 0) << path;
  return info;
}

// The fields the probe writes, for comparing two probes of one file.
std::string Stored(const MediaInfo& m) {
  char buf[1400];
  snprintf(buf, sizeof buf, "t=%s|al=%s|ar=%s|y=%s|g=%s|tr=%d|d=%.3f|br=%d|vbr=%d|f=%d|ch=%d|%dx%d", m.title,
           m.album, m.artist, m.year, m.genre, m.track, m.duration, m.bitrate, m.video_bitrate, m.frequency,
           m.channels, m.width, m.height);
  return buf;
}

TEST(ProbePcmBitRate, WorkedOutFromFormatNotFromCodecFigure) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string s16 = dir.File("a/s16.wav"), u8 = dir.File("a/u8.wav"), ulaw = dir.File("a/ulaw.wav");
  std::string s24 = dir.File("a/s24.wav");
  ASSERT_TRUE(Ffmpeg(std::string(kSine) + "44100:duration=1 -ac 2 -c:a pcm_s16le " + s16));
  ASSERT_TRUE(Ffmpeg(std::string(kSine) + "8000:duration=1 -ac 1 -c:a pcm_u8 " + u8));
  ASSERT_TRUE(Ffmpeg(std::string(kSine) + "8000:duration=1 -ac 1 -c:a pcm_mulaw " + ulaw));
  ASSERT_TRUE(Ffmpeg(std::string(kSine) + "8000:duration=1 -ac 1 -c:a pcm_s24le " + s24));

  MediaInfo m = Probe(s16);
  EXPECT_EQ(m.bitrate, 1411200);
  EXPECT_EQ(m.frequency, 44100);
  EXPECT_EQ(m.channels, 2);
  EXPECT_EQ(Probe(u8).bitrate, 64000);
  EXPECT_EQ(Probe(ulaw).bitrate, 64000);
  // Outside the 8/16-bit PCM range the codec's own figure is taken.
  EXPECT_EQ(Probe(s24).bitrate, 192000);
}

TEST(ProbeDuration, TruncatedToWholeSeconds) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string wav = dir.File("d/long.wav");
  ASSERT_TRUE(Ffmpeg(std::string(kSine) + "8000:duration=59.9 -ac 1 -c:a pcm_u8 " + wav));
  EXPECT_EQ(Probe(wav).duration, 59.0f);
}

TEST(ProbeTags, OggCommentsOnTheStreamAreUsed) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string ogg = dir.File("Folder/song.ogg");
  ASSERT_TRUE(Ffmpeg(std::string(kSine) + "44100:duration=1 -c:a libvorbis -metadata title=Tune -metadata "
                     "artist=Band -metadata album=Record -metadata date=2009-05-01 -metadata track=3/12 "
                     "-metadata genre=Jazz " + ogg));
  MediaInfo m = Probe(ogg);
  EXPECT_STREQ(m.title, "Tune");
  EXPECT_STREQ(m.artist, "Band");
  EXPECT_STREQ(m.album, "Record");  // audio only: the container's album wins over the folder
  EXPECT_STREQ(m.year, "2009");
  EXPECT_STREQ(m.genre, "Jazz");
  EXPECT_EQ(m.track, 3);
}

TEST(ProbeAlbum, VideoKeepsFolderNameAndAudioWithoutTagsKeepsDefaults) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string mkv = dir.File("Holiday/clip.final.avi");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=1:size=64x48:rate=5 " + std::string(kSine) +
                     "8000:duration=1 -c:v mpeg4 -c:a pcm_s16le -metadata album=Collection -metadata year=0 -f matroska " +
                     mkv));
  MediaInfo m = Probe(mkv, kMediaVideo);
  EXPECT_STREQ(m.album, "Holiday");
  EXPECT_STREQ(m.title, "clip.final");
  EXPECT_EQ(m.width, 64);
  EXPECT_EQ(m.height, 48);
  EXPECT_STREQ(m.year, "");  // a year of 0 is not written
  EXPECT_EQ(m.track, 0);
  // The audio figure is kept when the video stream follows.
  EXPECT_EQ(m.bitrate, 128000);
}

TEST(ProbeStreamType, SubtitleStopsTheLoopButTheRecordIsSaved) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string srt = dir.File("s.srt");
  std::ofstream(srt) << "1\n00:00:00,000 --> 00:00:00,500\nhello\n";
  std::string mkv = dir.File("Films/movie.avi");
  // Streams in the order audio, subtitle, video.
  ASSERT_TRUE(Ffmpeg(std::string(kSine) + "8000:duration=1 -f lavfi -i testsrc=duration=1:size=64x48:rate=5 -i " +
                     srt + " -map 0 -map 2 -map 1 -c:a pcm_s16le -c:s srt -c:v mpeg4 -f matroska " + mkv));
  orvo::test::LogCapture log;
  MediaInfo m = Probe(mkv, kMediaVideo);
  EXPECT_TRUE(log.Contains("Invalid stream type."));
  EXPECT_TRUE(log.Contains("Failed to get Misc Media Info from [" + mkv + "]."));
  EXPECT_TRUE(log.Contains("media.cpp"));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata."));
  EXPECT_STREQ(m.title, "movie");
  EXPECT_STREQ(m.album, "Films");
  EXPECT_EQ(m.frequency, 8000);  // copied before the subtitle stream
  EXPECT_EQ(m.width, 0);         // the video stream after it is never reached
}

TEST(ProbeFailure, UnreadableFileIsStillRecordedWithDefaults) {
  TempDir dir;
  std::string junk = dir.File("music/junk.wma");
  WriteBytes(junk, std::vector<uint8_t>(300, 0x5A));
  orvo::test::LogCapture log;
  MediaInfo m = Probe(junk);
  EXPECT_TRUE(log.Contains("Failed to av_open_input_file() file [" + junk + "]."));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata from file [" + junk + "]."));
  EXPECT_STREQ(m.title, "junk");
  EXPECT_STREQ(m.album, "music");
  EXPECT_EQ(m.filesize, 300);
  EXPECT_EQ(m.duration, 0.0f);
  EXPECT_EQ(m.reserved0, 0);  // the whole record was zeroed first
}

TEST(HandlerDefaults, FolderNameEdgeCases) {
  TempDir dir;
  // A folder name longer than the album field leaves no '/' to cut at.
  std::string longdir(254, 'f');
  std::string path = dir.File(longdir + "/x.wav");
  WriteBytes(path, {1, 2, 3});
  orvo::test::LogCapture log;
  MediaInfo m = Probe(path);
  EXPECT_TRUE(log.Contains("Impossible error."));
  EXPECT_EQ(std::string(m.album), longdir);
  // Only the last '.' ends the title; a name without one is kept whole.
  std::string nodot = dir.File("a.b/noext");
  WriteBytes(nodot, {1});
  EXPECT_STREQ(Probe(nodot).title, "noext");
  EXPECT_STREQ(Probe(nodot).album, "a.b");
}

TEST(HandlerParameters, BadOrMissingPathSavesNothing) {
  orvo::test::LogCapture log;
  MediaInfo m;
  EXPECT_EQ(FillMediaRecord(nullptr, kMediaMusic, &m), -1);
  EXPECT_EQ(FillMediaRecord("", kMediaVideo, &m), -1);
  EXPECT_EQ(log.Count("Bad parameter."), 2);
  log.Clear();
  EXPECT_EQ(IndexAudio("/nonexistent/folder/x.wav"), -1);
  EXPECT_TRUE(log.messages().empty());  // a missing file is silent
}

TEST(GenericRemovers, ExistingFileIsNeverRemoved) {
  TempDir dir;
  std::string path = dir.File("v/x.avi");
  WriteBytes(path, {1});
  orvo::test::LogCapture log;
  EXPECT_EQ(RemoveVideo(path.c_str()), -1);
  EXPECT_EQ(RemoveAudio(path.c_str()), -1);
  EXPECT_EQ(log.Count("File exists. Skip remove it from database."), 2);
}

// The tuned probe reads less of PCM-only files; nothing stored may change,
// including for WAV files whose "PCM" data is really AC-3 or MPEG audio.
TEST(ProbeTuning, SameStoredValuesAsTheUntunedProbe) {
  std::vector<std::string> files;
  for (const char* folder : {"misc-audio", "video", "mpeg"}) {
    for (const auto& f : CorpusFiles(folder)) files.push_back(f);
  }
  TempDir dir;
  if (HaveFfmpeg()) {
    const std::string ten = std::string(kSine) + "48000:duration=10 -ac 2 ";
    for (const char* codec : {"pcm_s16le", "pcm_u8", "pcm_mulaw", "pcm_alaw", "pcm_s24le", "pcm_f32le"}) {
      std::string wav = dir.File(std::string("w/") + codec + ".wav");
      ASSERT_TRUE(Ffmpeg(ten + "-c:a " + codec + " -metadata title=T " + wav));
      files.push_back(wav);
    }
    std::string ac3 = dir.File("w/ac3.spdif"), mp2 = dir.File("w/a.mp2");
    std::string ac3wav = dir.File("w/ac3-as-pcm.wav"), mp2wav = dir.File("w/mp2-as-pcm.wav");
    ASSERT_TRUE(Ffmpeg(ten + "-c:a ac3 -f spdif " + ac3));
    ASSERT_TRUE(Ffmpeg("-f s16le -ar 48000 -ac 2 -i " + ac3 + " -c copy " + ac3wav));
    ASSERT_TRUE(Ffmpeg(ten + "-c:a mp2 " + mp2));
    ASSERT_TRUE(Ffmpeg("-f s16le -ar 48000 -ac 2 -i " + mp2 + " -c copy " + mp2wav));
    files.push_back(ac3wav);
    files.push_back(mp2wav);
  }
  if (files.empty()) GTEST_SKIP() << "neither the corpus nor ffmpeg";
  orvo::test::LogCapture quiet;
  for (const auto& f : files) {
    MediaInfo tuned{}, plain{};
    EXPECT_EQ(ReadMediaInfo(f.c_str(), &tuned, ProbeMode::kTuned),
              ReadMediaInfo(f.c_str(), &plain, ProbeMode::kLibraryDefaults)) << f;
    EXPECT_EQ(Stored(tuned), Stored(plain)) << f;
  }
}

TEST(ProbeProgramStreams, VcdAndDvdStreamsGiveVideoAndAudioValues) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string vcd = dir.File("g/vcd.mpg"), dvd = dir.File("g/dvd.vob");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=352x240:rate=30000/1001 " + std::string(kSine) +
                     "44100:duration=2 -target ntsc-vcd " + vcd));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=720x480:rate=30000/1001 " + std::string(kSine) +
                     "48000:duration=2 -ac 2 -target ntsc-dvd " + dvd));
  MediaInfo v = Probe(vcd, kMediaVideo);
  EXPECT_EQ(v.width, 352);
  EXPECT_EQ(v.height, 240);
  EXPECT_EQ(v.frequency, 44100);
  EXPECT_EQ(v.bitrate, 224000);
  EXPECT_EQ(v.duration, 2.0f);
  // The DVD muxer writes navigation packets first; they must not end the loop.
  orvo::test::LogCapture log;
  MediaInfo d = Probe(dvd, kMediaVideo);
  EXPECT_FALSE(log.Contains("Invalid stream type."));
  EXPECT_EQ(d.width, 720);
  EXPECT_EQ(d.height, 480);
  EXPECT_EQ(d.frequency, 48000);
  EXPECT_EQ(d.channels, 2);
  EXPECT_EQ(d.bitrate, 448000);
}

// The tools list every stream of this FLV; our loop stops at its data stream
// by rule, so nothing but the container values is stored.
TEST(ProbeCorpus, FlvWithDataStreamEndsAsInvalidStreamTypeNotAsToolsReport) {
  std::string flv = CorpusDir() + "/video/Flash.flv";
  if (!fs::exists(flv)) GTEST_SKIP() << "corpus absent";
  orvo::test::LogCapture log;
  MediaInfo m = Probe(flv, kMediaVideo);
  EXPECT_TRUE(log.Contains("Invalid stream type."));
  EXPECT_EQ(m.width, 0);
  EXPECT_EQ(m.duration, 3.0f);
}

// Every corpus file goes through its handler's fill; where the tools agree,
// our values match theirs.
TEST(ProbeCorpus, MatchesReferenceWhereToolsAgree) {
  REQUIRE_CORPUS("misc-audio");
  int compared = 0;
  for (const char* folder : {"misc-audio", "video", "mpeg"}) {
    for (const auto& f : CorpusFiles(folder)) {
      orvo::test::LogCapture log;
      MediaInfo m = Probe(f, std::string(folder) == "misc-audio" ? kMediaMusic : kMediaVideo);
      if (log.Contains("Invalid stream type.")) continue;  // our rule, asserted above
      const Json& ref = Reference(Relative(f));
      if (ref.IsNull()) continue;
      if (ref["diagnostics"]["ffprobe_failed"].boolean) {
        // What the library cannot read ends as the probe's logged failure.
        EXPECT_TRUE(log.Contains("Failed to get Misc Media Info from [" + f + "].")) << f;
        continue;
      }
      const Json& rate = Agreed(ref["sample_rate"]);
      if (rate.kind == Json::kNumber) { EXPECT_EQ(m.frequency, rate.number) << f; }
      const Json& ch = Agreed(ref["channels"]);
      if (ch.kind == Json::kNumber) { EXPECT_EQ(m.channels, ch.number) << f; }
      const Json& w = Agreed(ref["width"]);
      if (w.kind == Json::kNumber) { EXPECT_EQ(m.width, w.number) << f; }
      const Json& dur = ref["duration_s"]["by_tool"]["ffprobe"];
      // Same library, so our whole seconds are ffprobe's duration truncated.
      if (dur.kind == Json::kNumber) { EXPECT_EQ(m.duration, std::floor(dur.number)) << f; }
      ++compared;
    }
  }
  EXPECT_GT(compared, 20);
}

}  // namespace
