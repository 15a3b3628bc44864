// The generic probe and the generic audio/video handlers, on files made with
// ffmpeg and on the corpus.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "formats_testutil.h"
#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "meta/metamedia.h"
#include "support/log_capture.h"

using namespace formats_test;

namespace {

const std::string kSine = "-f lavfi -i sine=frequency=440:sample_rate=";
const std::string kPicture = "-f lavfi -i testsrc=duration=1:size=64x48:rate=5 ";

MediaInfo Probe(const std::string& path, int type = kMediaMusic) {
  MediaInfo info;
  memset(&info, 0xAB, sizeof info);
  EXPECT_EQ(FillMediaRecord(path.c_str(), type, &info), 0) << path;
  return info;
}

std::string Stored(const MediaInfo& m) {
  char buf[1400];
  snprintf(buf, sizeof buf, "%s|%s|%s|%s|%s|%d|%.3f|%d|%d|%d|%d|%dx%d", m.title, m.album, m.artist, m.year, m.genre,
           m.track, m.duration, m.bitrate, m.video_bitrate, m.frequency, m.channels, m.width, m.height);
  return buf;
}

TEST(ProbeAudioValues, PcmBitRateByCodecIdAndWholeSecondDuration) {
  REQUIRE_FFMPEG();
  TempDir dir;
  const char* cases[][3] = {{"44100:duration=1 -ac 2", "pcm_s16le", "1411200"},
                            {"8000:duration=59.9 -ac 1", "pcm_u8", "64000"},
                            {"8000:duration=1 -ac 1", "pcm_mulaw", "64000"},
                            {"8000:duration=1 -ac 1", "pcm_s24le", "192000"}};  // the codec's own figure
  for (const auto& c : cases) {
    std::string wav = dir.File(std::string("a/") + c[1] + ".wav");
    ASSERT_TRUE(Ffmpeg(kSine + c[0] + " -c:a " + c[1] + " " + wav));
    EXPECT_EQ(Probe(wav).bitrate, atoi(c[2])) << c[1];
  }
  MediaInfo m = Probe(dir.path() + "/a/pcm_u8.wav");
  EXPECT_EQ(m.duration, 59.0f);  // 59.9 s
  EXPECT_EQ(m.frequency, 8000);
  EXPECT_EQ(m.channels, 1);
}

TEST(ProbeTags, OggStreamCommentsAndTheAudioOnlyAlbumRule) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string ogg = dir.File("Folder/song.ogg"), mkv = dir.File("Holiday/clip.final.avi");
  ASSERT_TRUE(Ffmpeg(kSine + "44100:duration=1 -c:a libvorbis -metadata title=Tune -metadata artist=Band "
                     "-metadata album=Record -metadata date=2009-05-01 -metadata track=3/12 -metadata genre=Jazz " + ogg));
  ASSERT_TRUE(Ffmpeg(kPicture + kSine + "8000:duration=1 -c:v mpeg4 -c:a pcm_s16le -metadata album=Collection "
                     "-metadata year=0 -f matroska " + mkv));
  MediaInfo m = Probe(ogg);
  EXPECT_EQ(Stored(m).substr(0, 35), "Tune|Record|Band|2009|Jazz|3|1.000|");
  m = Probe(mkv, kMediaVideo);
  EXPECT_STREQ(m.album, "Holiday");  // a video keeps its folder name
  EXPECT_STREQ(m.title, "clip.final");
  EXPECT_STREQ(m.year, "");          // a year of 0 is not written
  EXPECT_EQ(m.width, 64);
  EXPECT_EQ(m.bitrate, 128000);      // the audio figure again after the video stream
}

TEST(ProbeStreamType, SubtitleStopsTheLoopAndTheRecordIsStillSaved) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string srt = dir.File("s.srt"), mkv = dir.File("Films/movie.avi");
  std::ofstream(srt) << "1\n00:00:00,000 --> 00:00:00,500\nhello\n";
  ASSERT_TRUE(Ffmpeg(kSine + "8000:duration=1 " + kPicture + "-i " + srt +
                     " -map 0 -map 2 -map 1 -c:a pcm_s16le -c:s srt -c:v mpeg4 -f matroska " + mkv));
  orvo::test::LogCapture log;
  MediaInfo m = Probe(mkv, kMediaVideo);
  EXPECT_TRUE(log.Contains("metamedia.cpp"));
  EXPECT_TRUE(log.Contains("Invalid stream type."));
  EXPECT_TRUE(log.Contains("Failed to get Misc Media Info from [" + mkv + "]."));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata."));  // the video handler's wording
  EXPECT_STREQ(m.title, "movie");
  EXPECT_EQ(m.frequency, 8000);  // the audio stream before the subtitle
  EXPECT_EQ(m.width, 0);         // the video stream after it is never reached
}

TEST(ProbeStreamType, DvdNavigationPacketsAreNoStream) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string dvd = dir.File("g/dvd.vob");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=720x480:rate=30000/1001 " + kSine +
                     "48000:duration=2 -ac 2 -target ntsc-dvd " + dvd));
  orvo::test::LogCapture log;
  MediaInfo m = Probe(dvd, kMediaVideo);
  EXPECT_FALSE(log.Contains("Invalid stream type."));
  EXPECT_EQ(m.width, 720);
  EXPECT_EQ(m.frequency, 48000);
  EXPECT_EQ(m.bitrate, 448000);
  EXPECT_EQ(m.duration, 2.0f);
}

TEST(GenericHandlers, UnreadableFileMissingFileAndRemoval) {
  TempDir dir;
  std::string junk = dir.File("music/junk.wma");
  WriteBytes(junk, std::vector<uint8_t>(300, 0x5A));
  orvo::test::LogCapture log;
  MediaInfo m = Probe(junk);
  EXPECT_TRUE(log.Contains("Failed to av_open_input_file() file [" + junk + "]."));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata from file [" + junk + "]."));
  EXPECT_EQ(Stored(m), "junk|music||||0|0.000|0|0|0|0|0x0");
  EXPECT_EQ(m.filesize, 300);
  EXPECT_EQ(m.reserved0, 0);  // zeroed before anything was written
  EXPECT_EQ(RemoveAudio(junk.c_str()), -1);
  EXPECT_EQ(RemoveVideo(junk.c_str()), -1);
  EXPECT_EQ(log.Count("File exists. Skip remove it from database."), 2);
  log.Clear();
  EXPECT_EQ(IndexAudio("/nonexistent/folder/x.wav"), -1);
  EXPECT_TRUE(log.messages().empty());  // a missing file is silent
}

TEST(GenericHandlers, FolderNameTooLongForTheAlbumIsTheImpossibleError) {
  TempDir dir;
  std::string longdir(254, 'f');
  std::string path = dir.File(longdir + "/x.wav"), nodot = dir.File("a.b/noext");
  WriteBytes(path, {1, 2, 3});
  WriteBytes(nodot, {1});
  orvo::test::LogCapture log;
  EXPECT_EQ(std::string(Probe(path).album), longdir);
  EXPECT_TRUE(log.Contains("Impossible error."));
  EXPECT_EQ(Stored(Probe(nodot)).substr(0, 11), "noext|a.b||");  // a '.' in the folder is no extension
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
    const std::string ten = kSine + "48000:duration=10 -ac 2 ";
    for (const char* codec : {"pcm_s16le", "pcm_u8", "pcm_alaw", "pcm_f32le"}) {
      files.push_back(dir.File(std::string("w/") + codec + ".wav"));
      ASSERT_TRUE(Ffmpeg(ten + "-c:a " + codec + " -metadata title=T " + files.back()));
    }
    for (const char* codec : {"ac3 -f spdif", "mp2 -f mp2"}) {
      std::string raw = dir.File("w/raw"), wav = dir.File(std::string("w/") + codec[0] + "c-as-pcm.wav");
      ASSERT_TRUE(Ffmpeg(ten + "-c:a " + codec + " " + raw));
      ASSERT_TRUE(Ffmpeg("-f s16le -ar 48000 -ac 2 -i " + raw + " -c copy " + wav));
      files.push_back(wav);
    }
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

// Every corpus file goes through its handler's fill; where the tools agree,
// our values match theirs. Files the library cannot read end as the probe's
// logged failure.
TEST(ProbeCorpus, MatchesReferenceWhereToolsAgree) {
  REQUIRE_CORPUS("misc-audio");
  int compared = 0;
  for (const char* folder : {"misc-audio", "video", "mpeg"}) {
    for (const auto& f : CorpusFiles(folder)) {
      orvo::test::LogCapture log;
      MediaInfo m = Probe(f, std::string(folder) == "misc-audio" ? kMediaMusic : kMediaVideo);
      std::string ref = Reference(Relative(f));
      if (ToolFailed(ref)) {
        EXPECT_TRUE(log.Contains("Failed to get Misc Media Info from [" + f + "].")) << f;
        continue;
      }
      if (ref.empty() || log.Contains("Invalid stream type.")) continue;  // our rule, asserted below
      if (!std::isnan(Agreed(ref, "sample_rate"))) { EXPECT_EQ(m.frequency, Agreed(ref, "sample_rate")) << f; }
      if (!std::isnan(Agreed(ref, "channels"))) { EXPECT_EQ(m.channels, Agreed(ref, "channels")) << f; }
      if (!std::isnan(Agreed(ref, "width"))) { EXPECT_EQ(m.width, Agreed(ref, "width")) << f; }
      // Same library, so our whole seconds are ffprobe's duration truncated.
      double seconds = ByTool(ref, "duration_s", "ffprobe");
      if (!std::isnan(seconds)) { EXPECT_EQ(m.duration, std::floor(seconds)) << f; }
      ++compared;
    }
  }
  EXPECT_GT(compared, 20);
}

// The tools list every stream of this FLV; our loop stops at its data stream
// by rule, so only the container values are stored.
TEST(ProbeCorpus, FlvDataStreamEndsAsInvalidStreamTypeNotAsToolsReport) {
  std::string flv = CorpusDir() + "/video/Flash.flv";
  if (!fs::exists(flv)) GTEST_SKIP() << "corpus absent";
  orvo::test::LogCapture log;
  MediaInfo m = Probe(flv, kMediaVideo);
  EXPECT_TRUE(log.Contains("Invalid stream type."));
  EXPECT_EQ(m.width, 0);
  EXPECT_EQ(m.duration, 3.0f);
}

}  // namespace
