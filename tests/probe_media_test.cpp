// The generic probe, the MP4 reader and the handlers on ffmpeg-made files, and every corpus folder
// through its filler.
#include "formats_testutil.h"
#include "meta/metamedia.h"
#include "platform/orvodb.h"

using namespace formats_test;

namespace {

const std::string kSine = "-f lavfi -i sine=frequency=440:sample_rate=";
const std::string kPicture = "-f lavfi -i testsrc=duration=1:size=64x48:rate=5 ";

int FillAudio(const char* path, MediaInfo* m) { return FillMediaRecord(path, kMediaMusic, m); }
int FillVideo(const char* path, MediaInfo* m) { return FillMediaRecord(path, kMediaVideo, m); }

std::string Stored(const MediaInfo& m) {
  char buf[1400];
  snprintf(buf, sizeof buf, "%s|%s|%s|%s|%s|%d|%.3f|%d|%d|%d|%dx%d", m.title, m.album, m.artist, m.year, m.genre,
           m.track, m.duration, m.bitrate, m.frequency, m.channels, m.width, m.height);
  return buf;
}

TEST(ProbeAudioValues, PcmBitRateByCodecIdAndWholeSecondDuration) {
  REQUIRE_FFMPEG();
  TempDir dir;
  const char* cases[][3] = {{"44100:duration=1 -ac 2", "pcm_s16le", "0|1.000|1411200|44100|2|0x0"},
                            {"8000:duration=59.9 -ac 1", "pcm_u8", "0|59.000|64000|8000|1|0x0"},  // whole seconds
                            {"8000:duration=1 -ac 1", "pcm_s24le", "0|1.000|192000|8000|1|0x0"}};  // the codec's figure
  for (const auto& c : cases) {
    std::string wav = dir.File(std::string("a/") + c[1] + ".wav");
    ASSERT_TRUE(Ffmpeg(kSine + c[0] + " -c:a " + c[1] + " " + wav));
    EXPECT_EQ(Stored(Filled(FillAudio, wav)), c[1] + std::string("|a||||") + c[2]);
  }
}

TEST(ProbeTags, OggStreamCommentsAndTheAudioOnlyAlbumRule) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string ogg = dir.File("Folder/song.ogg"), mkv = dir.File("Holiday/clip.final.avi");
  ASSERT_TRUE(Ffmpeg(kSine + "44100:duration=1 -c:a libvorbis -metadata title=Tune -metadata artist=Band "
                     "-metadata album=Record -metadata date=2009-05-01 -metadata track=3/12 -metadata genre=Jazz " + ogg));
  ASSERT_TRUE(Ffmpeg(kPicture + kSine + "8000:duration=1 -c:v mpeg4 -c:a pcm_s16le -metadata album=Collection "
                     "-metadata year=0 -f matroska " + mkv));
  EXPECT_EQ(Stored(Filled(FillAudio, ogg)).substr(0, 35), "Tune|Record|Band|2009|Jazz|3|1.000|");
  // A video keeps its folder name, no year 0, and the audio bit rate after the video stream.
  EXPECT_EQ(Stored(Filled(FillVideo, mkv)), "clip.final|Holiday||||0|1.000|128000|8000|1|64x48");
}

TEST(ProbeStreamType, SubtitleStopsTheLoopButDvdNavigationPacketsAreNoStream) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string srt = dir.File("s.srt"), mkv = dir.File("Films/movie.avi"), dvd = dir.File("g/dvd.vob");
  std::ofstream(srt) << "1\n00:00:00,000 --> 00:00:00,500\nhello\n";
  ASSERT_TRUE(Ffmpeg(kSine + "8000:duration=1 " + kPicture + "-i " + srt +
                     " -map 0 -map 2 -map 1 -c:a pcm_s16le -c:s srt -c:v mpeg4 -f matroska " + mkv));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=720x480:rate=30000/1001 " + kSine +
                     "48000:duration=2 -ac 2 -target ntsc-dvd " + dvd));
  orvo::test::LogCapture log;
  EXPECT_EQ(Stored(Filled(FillVideo, dvd)), "dvd|g||||0|2.000|448000|48000|2|720x480");
  EXPECT_FALSE(log.Contains("Invalid stream type."));
  // The audio stream before the subtitle is read, the video stream after it never; the record is still saved.
  EXPECT_EQ(Stored(Filled(FillVideo, mkv)), "movie|Films||||0|1.000|128000|8000|1|0x0");
  EXPECT_TRUE(log.Contains("Invalid stream type."));
  EXPECT_TRUE(log.Contains("Failed to get Misc Media Info from [" + mkv + "]."));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata."));  // the video handler's wording
}

TEST(GenericHandlers, UnreadableFileIsSavedWithDefaultsAndNotRemovedWhileThere) {
  TempDir dir;
  std::string junk = dir.File("music/junk.wma");
  WriteBytes(junk, std::string(300, 'Z'));
  orvo::test::LogCapture log;
  MediaInfo m = Filled(FillAudio, junk);
  EXPECT_TRUE(log.Contains("Failed to av_open_input_file() file [" + junk + "]."));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata from file [" + junk + "]."));
  EXPECT_EQ(Stored(m), "junk|music||||0|0.000|0|0|0|0x0");
  EXPECT_EQ(m.reserved0, 0);  // zeroed before anything was written
  EXPECT_EQ(RemoveAudio(junk.c_str()) + RemoveVideo(junk.c_str()), -2);
  EXPECT_EQ(log.Count("File exists. Skip remove it from database."), 2);
}

// The tuned probe reads less of PCM files; nothing stored changes, even for WAVs holding AC-3 or MPEG.
TEST(ProbeTuning, SameStoredValuesAsTheUntunedProbe) {
  std::vector<std::string> files;
  for (const char* folder : {"misc-audio", "video", "mpeg"})
    for (const auto& f : CorpusFiles(folder)) files.push_back(f);
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
    MediaInfo tuned, plain;
    memset(&tuned, 0, sizeof tuned);
    memset(&plain, 0, sizeof plain);
    EXPECT_EQ(ReadMediaInfo(f.c_str(), &tuned, ProbeMode::kTuned),
              ReadMediaInfo(f.c_str(), &plain, ProbeMode::kLibraryDefaults)) << f;
    EXPECT_EQ(memcmp(&tuned, &plain, sizeof tuned), 0) << f << "\n" << Stored(tuned) << "\n" << Stored(plain);
  }
}

using Fill = int (*)(const char*, MediaInfo*);
MediaInfo FillCorpus(Fill fill, const std::string& relative) { return Filled(fill, CorpusDir() + "/" + relative); }

// Every corpus file, damaged too, goes through its filler; where the tools agree, so do we.
TEST(FormatsCorpus, EveryFileFillsAndMatchesTheToolsWhereTheyAgree) {
  if (CorpusFiles("flac").empty()) GTEST_SKIP() << "no corpus under " << CorpusDir();
  // The MPEG parser stores the channel-mode code and MP4 the time scale: not compared.
  struct { const char* folder; Fill fill; bool rate, channels; const char* seconds_by; } folders[] = {
      {"misc-audio", FillAudio, true, true, "ffprobe"}, {"video", FillVideo, true, true, "ffprobe"},
      {"mpeg", FillVideo, true, true, "ffprobe"},       {"mpeg", FillVcdRecord, true, false, nullptr},
      {"flac", FillFlacRecord, true, true, "mutagen"},  {"aiff", FillAiffRecord, true, true, nullptr},
      {"mp4", FillMp4Record, false, true, nullptr},     {"playlists", FillPlaylistRecord, false, false, nullptr}};
  int compared = 0;
  for (const auto& d : folders) {
    for (const auto& path : CorpusFiles(d.folder)) {
      std::string relative = std::string(d.folder) + "/" + fs::path(path).filename().string();
      orvo::test::LogCapture log;
      MediaInfo m = FillCorpus(d.fill, relative);
      std::string ref = Reference(relative);
      if (d.fill == FillPlaylistRecord) {
        EXPECT_EQ(m.title, fs::path(path).stem().string());
      }
      // No stream the library can read, or a data stream ending the loop: our rules, asserted below.
      if (m.frequency == 0 || log.Contains("Invalid stream type.")) continue;
      auto agree = [&](bool compare, double ours, double theirs) {
        if (compare && !std::isnan(theirs)) {
          EXPECT_EQ(ours, theirs) << relative;
        }
      };
      agree(d.rate, m.frequency, Agreed(ref, "sample_rate"));
      agree(d.channels, m.channels, Agreed(ref, "channels"));
      agree(m.width != 0, m.width, Agreed(ref, "width"));
      // The same library, or the same stream information: whole seconds of theirs.
      agree(d.seconds_by, m.duration, std::floor(d.seconds_by ? Agreed(ref, "duration_s", d.seconds_by) + 1e-9 : NAN));
      ++compared;
    }
  }
  EXPECT_GT(compared, 60);
}

// Deliberate differences from the tools: this FLV's data stream ends our stream loop; the AIFF they
// refuse keeps its channels, its audio values 0 for the negative rate; the M4A stores its time scale.
TEST(FormatsCorpus, DeliberateDifferencesFromTheTools) {
  if (CorpusFiles("flac").empty()) GTEST_SKIP() << "no corpus under " << CorpusDir();
  orvo::test::LogCapture log;
  EXPECT_EQ(FillCorpus(FillVideo, "video/Flash.flv").width, 0);
  EXPECT_TRUE(log.Contains("Invalid stream type."));
  MediaInfo aiff = FillCorpus(FillAiffRecord, "aiff/invalid_sample_rate.aiff");
  EXPECT_EQ(aiff.channels * 100000 + aiff.frequency, 100000);
  EXPECT_EQ(FillCorpus(FillMp4Record, "mp4/QuickTime.m4a").frequency, 90000) << "the tools report 32000";
}

// The playlist handler: name, folder and size only; its remover says 0 even when the database fails.
TEST(PlaylistRecord, NameFolderAndSizeOnly) {
  TempDir dir;
  std::string path = dir.File("music/Party Mix.m3u");
  std::ofstream(path) << "#EXTM3U\nsong.mp3\n";
  MediaInfo m = Filled(FillPlaylistRecord, path);
  EXPECT_EQ(std::string(m.title) + "|" + m.album + "|" + m.artist, "Party Mix|music|");
  EXPECT_EQ(m.filesize, 17);
  EXPECT_EQ(m.mtime, 0);  // playlists carry no modification time
  EXPECT_EQ(m.duration, 0.0f);
}

TEST(PlaylistRemover, ExistingFileRefusedGoneFileAlwaysSucceeds) {
  TempDir dir;
  std::string path = dir.File("music/list.wpl");
  std::ofstream(path) << "<smil/>";
  orvo::test::LogCapture log;
  EXPECT_EQ(RemovePlaylist(path.c_str()), -1);
  EXPECT_TRUE(log.Contains("File exists. Skip remove it from database."));
  fs::remove(path);
  // A media database that cannot open: logged in the playlist's own wording, and still 0.
  const char* saved = getenv("ORVO_MEDIA_DB");
  std::string keep = saved != nullptr ? saved : "", blocker = dir.File("blocker");  // a file where a folder would go
  std::ofstream(blocker) << "x";
  ORVODBCloseAll();
  setenv("ORVO_MEDIA_DB", ("sqlite:" + blocker + "/media.db").c_str(), 1);
  EXPECT_EQ(RemovePlaylist(path.c_str()), 0);
  ORVODBCloseAll();
  saved != nullptr ? setenv("ORVO_MEDIA_DB", keep.c_str(), 1) : unsetenv("ORVO_MEDIA_DB");
  EXPECT_TRUE(log.Contains("playlist.cpp"));
  EXPECT_TRUE(log.Contains("Failed to remove " + path + " from database."));
}


// MP4 audio: track choice, tags before defaults, and files that are no MP4 at all.
const std::string kMono = kSine + "44100:duration=3 ";

MediaInfo Mp4(const std::string& path) { return Filled(FillMp4Record, path); }

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
  EXPECT_EQ(Text(Mp4(tagged)), "Name|Record|Band|Pop|2011|3");
  EXPECT_EQ(Text(Mp4(bare)), "song.live|Albums|Band|||0");
}

TEST(Mp4Tracks, FirstSoundTrackLastVideoTrackVideoDurationAndNoCoverArt) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string path = dir.File("m/tracks.m4a"), cover = dir.File("c/cover.png"), covered = dir.File("c/covered.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + "-f lavfi -i sine=sample_rate=48000:duration=3 -ac 2 "
                     "-f lavfi -i testsrc=duration=2:size=160x120:rate=10 "
                     "-f lavfi -i testsrc=duration=2:size=320x240:rate=10 -map 0 -map 1 -map 2 -map 3 "
                     "-c:a aac -c:v mpeg4 -f mp4 " + path));
  MediaInfo m = Mp4(path);
  EXPECT_EQ(m.channels, 1);       // the first sound track, not the stereo one
  EXPECT_EQ(m.frequency, 44100);  // its time scale
  EXPECT_EQ(m.width * 1000 + m.height, 320240);  // the last video track
  EXPECT_EQ(m.duration, 2.0f);    // the video track's, not the sound track's 3
  EXPECT_GT(m.video_bitrate, 0);
  ASSERT_TRUE(Ffmpeg("-f lavfi -i color=c=red:size=16x16 -frames:v 1 " + cover));
  ASSERT_TRUE(Ffmpeg(kMono + "-i " + cover + " -map 0 -map 1 -c:a aac -c:v png -disposition:v attached_pic " + covered));
  m = Mp4(covered);
  EXPECT_EQ(m.width + m.video_bitrate, 0);
  EXPECT_EQ(m.duration, 3.0f);
}

TEST(Mp4NotMp4, AdtsAacIsSavedWithDefaultsAndLoggedTwice) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string path = dir.File("Radio/stream.aac");
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -f adts " + path));
  orvo::test::LogCapture log;
  MediaInfo m = Mp4(path);
  EXPECT_EQ(log.Count("Failed to parse music metadata."), 2) << "once by the reader, once by the record filler";
  EXPECT_EQ(Text(m), "stream|Radio||||0");
  EXPECT_EQ(m.frequency, 0);
  EXPECT_EQ(RemoveMp4(path.c_str()), -1);
  EXPECT_TRUE(log.Contains("File exists. Skip remove it from database."));
}

}  // namespace
