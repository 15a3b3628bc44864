// The MP4 reader and record filler: ffmpeg-made files (some patched), boxes built byte by byte, the corpus.
#include "formats_testutil.h"
#include "meta/mp4_reader.h"

using namespace formats_test;

namespace {

const std::string kSine = "-f lavfi -i sine=frequency=440:sample_rate=";
const std::string kMono = kSine + "44100:duration=3 ";

MediaInfo Mp4(const std::string& path) { return Filled(FillMp4Record, path); }

std::string Text(const MediaInfo& m) {
  return std::string(m.title) + "|" + m.album + "|" + m.artist + "|" + m.genre + "|" + m.year + "|" +
         std::to_string(m.track);
}

// duration|frequency|channels
std::string Audio(const MediaInfo& m) {
  return std::to_string(static_cast<int>(m.duration)) + "|" + std::to_string(m.frequency) + "|" +
         std::to_string(m.channels);
}

// Boxes built byte by byte.
std::string Box(const std::string& type, const std::string& body) { return Be(8 + body.size(), 4) + type + body; }
std::string FullBox(const std::string& type, int version, const std::string& body) {
  return Box(type, std::string(1, char(version)) + std::string(3, '\0') + body);
}
std::string Mdhd(uint32_t scale, uint64_t duration, int version = 0) {
  if (version == 1) return FullBox("mdhd", 1, std::string(16, '\0') + Be(scale, 4) + Be(duration, 8) + Be(0, 4));
  return FullBox("mdhd", 0, std::string(8, '\0') + Be(scale, 4) + Be(duration, 4) + Be(0, 4));
}
std::string Hdlr(const std::string& type) { return FullBox("hdlr", 0, Be(0, 4) + type + std::string(13, '\0')); }
std::string Esds(uint32_t avg_bitrate) {
  std::string config = std::string("\x04\x0d\x40\x15", 4) + Be(0, 3) + Be(avg_bitrate, 4) + Be(avg_bitrate, 4);
  return FullBox("esds", 0, "\x03" + std::string(1, char(3 + config.size())) + Be(1, 2) + '\0' + config);
}
// A sound sample entry; version 2 carries the real channel count in its extension.
std::string Sound(int channels, const std::string& children, int version = 0, uint32_t v2_channels = 0) {
  std::string body = std::string(6, '\0') + Be(1, 2) + Be(version, 2) + std::string(6, '\0') + Be(channels, 2) +
                     Be(16, 2) + Be(0, 4) + Be(44100u << 16, 4);
  if (version == 1) body += std::string(16, '\0');
  if (version == 2) body += Be(72, 4) + std::string(8, '\0') + Be(v2_channels, 4) + std::string(20, '\0');
  return Box("mp4a", body + children);
}
std::string Visual(int width, int height, const std::string& children) {
  return Box("avc1", std::string(6, '\0') + Be(1, 2) + std::string(16, '\0') + Be(width, 2) + Be(height, 2) +
                         std::string(50, '\0') + children);
}
std::string Trak(const std::string& handler, const std::string& mdhd, const std::string& entry,
                 const std::string& more_stbl = "") {
  std::string stbl = Box("stbl", FullBox("stsd", 0, Be(1, 4) + entry) + more_stbl);
  return Box("trak", FullBox("tkhd", 0, std::string(80, '\0')) + Box("mdia", mdhd + Hdlr(handler) + Box("minf", stbl)));
}
std::string Item(const std::string& name, const std::string& value) {
  return Box(name, Box("data", Be(1, 4) + Be(0, 4) + value));
}
std::string Udta(const std::string& items) { return Box("udta", FullBox("meta", 0, Hdlr("mdir") + Box("ilst", items))); }
std::string Ftyp() { return Box("ftyp", "M4A " + Be(0, 4)); }
std::string Moov(const std::string& children) { return Box("moov", FullBox("mvhd", 0, std::string(96, '\0')) + children); }
std::string SoundTrak(uint32_t scale, uint64_t duration) { return Trak("soun", Mdhd(scale, duration), Sound(2, Esds(96000))); }

Mp4Result Read(const std::string& bytes, Mp4Info* info) { return ReadMp4Memory(bytes.data(), bytes.size(), info); }

// The first media header of an ffmpeg-made file, patched to say `seconds` at its own time scale.
void PatchMediaDuration(std::string* bytes, uint32_t seconds) {
  size_t at = bytes->find("mdhd");
  ASSERT_NE(at, std::string::npos);
  ASSERT_EQ((*bytes)[at + 4], '\0') << "a version 0 media header";
  uint32_t scale = 0;
  for (int i = 0; i < 4; ++i) scale = scale << 8 | static_cast<uint8_t>((*bytes)[at + 16 + i]);
  bytes->replace(at + 20, 4, Be(uint64_t{scale} * seconds, 4));
}

TEST(Mp4Headers, FragmentedPatchedAndMonoFilesStoreWhatTheHeadersSay) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string frag = dir.File("m/frag.m4a"), patched = dir.File("m/patched.m4a"), iso = dir.File("m/mono.m4a"),
              mov = dir.File("m/mono-mov.m4a");
  ASSERT_TRUE(Ffmpeg(kSine + "44100:duration=7 -c:a aac -movflags frag_keyframe+empty_moov " + frag));
  ASSERT_TRUE(Ffmpeg(kSine + "22050:duration=5 -c:a aac " + patched));
  ASSERT_TRUE(Ffmpeg(kMono + "-ac 1 -c:a aac " + iso));
  ASSERT_TRUE(Ffmpeg(kMono + "-ac 1 -c:a aac -f mov " + mov));
  // The fragmented file's media header says 0: no duration, whatever its fragments hold.
  EXPECT_EQ(Audio(Mp4(frag)), "0|44100|2");
  // A media header longer than the sample table wins over it.
  std::string bytes = ReadBytes(patched);
  PatchMediaDuration(&bytes, 9);
  WriteBytes(patched, bytes);
  EXPECT_EQ(Audio(Mp4(patched)), "9|22050|2");
  // ffmpeg writes 2 into an MP4 sound entry whatever the stream holds, the real count into a QuickTime one.
  EXPECT_EQ(Audio(Mp4(iso)), "3|44100|2");
  MediaInfo m = Mp4(mov);
  EXPECT_EQ(Audio(m), "3|44100|1");
  EXPECT_GT(m.bitrate, 0);
}

TEST(Mp4Headers, UnknownDurationsZeroTimeScaleAndQuickTimeSoundEntries) {
  Mp4Info info;
  ASSERT_EQ(Read(Ftyp() + Moov(Trak("soun", Mdhd(48000, UINT64_MAX, 1), Sound(3, Esds(1), 2, 6))), &info),
            Mp4Result::kOk);
  EXPECT_EQ(Mp4TrackSeconds(info.sound), 0);
  EXPECT_EQ(info.sound.channels, 6) << "version 2: the count of the extension";
  // Version 1: 16 more bytes, the descriptor inside a 'wave' box.
  std::string wave = Box("wave", Box("frma", "mp4a") + Esds(77000) + Be(8, 4) + std::string(4, '\0'));
  ASSERT_EQ(Read(Ftyp() + Moov(Trak("soun", Mdhd(48000, 48000), Sound(1, wave, 1))), &info), Mp4Result::kOk);
  EXPECT_EQ(Mp4TrackBitRate(info.sound) + info.sound.channels, 77001u);
  ASSERT_EQ(Read(Ftyp() + Moov(SoundTrak(44100, UINT32_MAX)), &info), Mp4Result::kOk);
  EXPECT_EQ(Mp4TrackSeconds(info.sound), 0);
  ASSERT_EQ(Read(Ftyp() + Moov(SoundTrak(0, 1000)), &info), Mp4Result::kOk);
  EXPECT_EQ(Mp4TrackSeconds(info.sound) + Mp4TrackBitRate(info.sound), 96000u) << "the descriptor's rate only";
  // 2^33 units at 1 Hz: the 64-bit duration of a version 1 header.
  ASSERT_EQ(Read(Ftyp() + Moov(Trak("soun", Mdhd(1, 1ull << 33 | 5, 1), Sound(2, Esds(1)))), &info), Mp4Result::kOk);
  EXPECT_EQ(Mp4TrackSeconds(info.sound), 5) << "narrowed to 32 bits as it always was";
}

TEST(Mp4Tracks, FirstSoundTrackLastVideoTrackVideoDurationAndNoCoverArt) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string path = dir.File("m/tracks.m4a"), cover = dir.File("c/cover.png"), covered = dir.File("c/covered.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + "-f lavfi -i sine=sample_rate=48000:duration=3 "
                     "-f lavfi -i testsrc=duration=2:size=160x120:rate=10 "
                     "-f lavfi -i testsrc=duration=2:size=320x240:rate=10 -map 0 -map 1 -map 2 -map 3 "
                     "-ac:0 1 -ac:1 2 -c:a aac -c:v mpeg4 -f mov " + path));
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

// Without a descriptor (ALAC, H.264) the rate is the sample sizes over the duration in whole milliseconds.
TEST(Mp4Tracks, BitRateWithoutDescriptorFromTheSampleSizes) {
  std::string sizes = FullBox("stsz", 0, Be(0, 4) + Be(3, 4) + Be(1000, 4) + Be(2000, 4) + Be(3000, 4));
  std::string fixed = FullBox("stsz", 0, Be(500, 4) + Be(4, 4));
  Mp4Info info;
  ASSERT_EQ(Read(Ftyp() + Moov(Trak("vide", Mdhd(600, 900), Visual(640, 360, ""), sizes) +
                               Trak("soun", Mdhd(8000, 4000), Sound(2, ""), fixed)), &info), Mp4Result::kOk);
  EXPECT_EQ(Mp4TrackBitRate(info.video), 6000u * 8000 / 1500);
  EXPECT_EQ(info.video.width * 1000 + info.video.height, 640360);
  EXPECT_EQ(Mp4TrackBitRate(info.sound), 2000u * 8000 / 500);
  EXPECT_EQ(info.tracks, 2);
}

TEST(Mp4Tags, TagsWinAndDefaultsFillOnlyEmptyFields) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string tagged = dir.File("Albums/tagged.m4a"), bare = dir.File("Albums/song.live.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -metadata title=Name -metadata album=Record -metadata artist=Band "
                     "-metadata genre=Pop -metadata date=2011-05-04T10:00:00Z -metadata track=3/12 " + tagged));
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -metadata artist=Band " + bare));
  EXPECT_EQ(Text(Mp4(tagged)), "Name|Record|Band|Pop|2011-05-04T10:0|3");  // the year field holds 15 bytes
  EXPECT_EQ(Text(Mp4(bare)), "song.live|Albums|Band|||0");
}

TEST(Mp4Tags, NumericGenreNamesAnId3GenreAndOutOfRangeLeavesTheText) {
  Mp4Info info;
  std::string text = Item("\xA9gen", "Text");
  ASSERT_EQ(Read(Ftyp() + Moov(SoundTrak(44100, 0) + Udta(text + Item("gnre", Be(22, 2)))), &info), Mp4Result::kOk);
  EXPECT_EQ(info.tags.genre, "Ska");
  ASSERT_EQ(Read(Ftyp() + Moov(SoundTrak(44100, 0) + Udta(Item("gnre", Be(149, 2)) + text)), &info), Mp4Result::kOk);
  EXPECT_EQ(info.tags.genre, "Text");
}

// 104 characters of 3 bytes: the field takes 84 whole ones (252 bytes), not 254 bytes read as Latin-1.
const std::string kJapanese = [] {
  std::string s;
  for (int i = 0; i < 13; ++i) s += "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xAE\xE6\xAD\x8C\xE3\x81\xA7\xE3\x81\x99\xE3\x80\x82";
  return s;
}();

TEST(Mp4Tags, LongJapaneseTitleIsCutAtAWholeCharacter) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string path = dir.File("m/jp.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -metadata title=" + kJapanese + " -metadata artist=" + kJapanese + " " + path));
  MediaInfo m = Mp4(path);
  EXPECT_EQ(std::string(m.title), kJapanese.substr(0, 252));
  EXPECT_EQ(std::string(m.artist), kJapanese.substr(0, 252));
  // A tag longer than the reader's limit still ends on a whole character.
  Mp4Info info;
  std::string long_text = std::string(kMp4TagTextLimit - 1, 'a') + kJapanese;
  ASSERT_EQ(Read(Ftyp() + Moov(SoundTrak(44100, 0) + Udta(Item("\xA9nam", long_text))), &info), Mp4Result::kOk);
  EXPECT_EQ(info.tags.title, std::string(kMp4TagTextLimit - 1, 'a'));
}

TEST(Mp4Boxes, MovieAfterMediaDataWithLargeAndOpenEndedSizes) {
  // A 64-bit 'mdat' size, then a movie box of size 0 running to the end of the file.
  std::string mdat = Be(1, 4) + "mdat" + Be(16 + 5000, 8) + std::string(5000, '\x11');
  std::string moov = Moov(SoundTrak(32000, 32000 * 61 + 5) + Udta(Item("\xA9nam", "Late") + Item("trkn", Be(0, 2) + Be(7, 2) + Be(9, 2) + Be(0, 2))));
  moov.replace(0, 4, Be(0, 4));
  Mp4Info info;
  ASSERT_EQ(Read(Ftyp() + mdat + moov, &info), Mp4Result::kOk);
  EXPECT_EQ(Mp4TrackSeconds(info.sound), 61);
  EXPECT_EQ(info.tags.title + "|" + std::to_string(info.tags.track), "Late|7");
}

TEST(Mp4Boxes, DamagedBoxesKeepWhatCameBeforeThem) {
  Mp4Info info;
  // A child too short for its own header ends the walk of its parent; earlier tracks stay.
  ASSERT_EQ(Read(Ftyp() + Moov(SoundTrak(44100, 44100) + Be(4, 4) + "junk" + SoundTrak(8000, 1)), &info), Mp4Result::kOk);
  EXPECT_EQ(info.tracks, 1);
  // A track claiming more than the movie holds is cut at the movie's end.
  std::string trak = SoundTrak(44100, 44100 * 2);
  trak.replace(0, 4, Be(0x7FFFFFFF, 4));
  ASSERT_EQ(Read(Ftyp() + Moov(trak), &info), Mp4Result::kOk);
  EXPECT_EQ(Mp4TrackSeconds(info.sound), 2);
  // A 'trak' without a media header is no track.
  EXPECT_EQ(Read(Ftyp() + Moov(Box("trak", FullBox("tkhd", 0, std::string(80, '\0')))), &info), Mp4Result::kNoTracks);
  EXPECT_EQ(Read(Ftyp() + Moov(Trak("soun", FullBox("mdhd", 0, Be(0, 8)), Sound(2, ""))), &info), Mp4Result::kNoTracks);
  // Every cut of a whole file reads without fault; the movie box counts once its header is there.
  std::string whole = Ftyp() + Moov(SoundTrak(44100, 44100 * 3) + Udta(Item("\xA9nam", "Cut"))) + Box("mdat", "xyz");
  int not_mp4 = 0;
  for (size_t n = 0; n <= whole.size(); ++n) not_mp4 += Read(whole.substr(0, n), &info) == Mp4Result::kNotMp4;
  EXPECT_EQ(not_mp4, static_cast<int>(Ftyp().size()) + 8) << "only cuts before the movie box's header";
}

// The movie as the video path reads it, built byte by byte: one picture track of ten 1-second samples
// whose sizes are 100..1000, in chunks the sample-to-chunk runs describe, and its edit list.
std::string Words(std::initializer_list<uint32_t> words) {
  std::string out;
  for (uint32_t w : words) out += Be(w, 4);
  return out;
}
std::string Mvhd(uint32_t scale, uint32_t duration) {
  return FullBox("mvhd", 0, std::string(8, '\0') + Be(scale, 4) + Be(duration, 4) + std::string(80, '\0'));
}
std::string PictureTrak(const std::string& stsc, int chunks, const std::string& extra_trak = "",
                        const std::string& edits = "") {
  std::string sizes;
  for (uint32_t i = 1; i <= 10; ++i) sizes += Be(100 * i, 4);
  std::string offsets;
  for (int i = 0; i < chunks; ++i) offsets += Be(5000 + 1000 * i, 4);
  std::string stbl = Box("stbl", FullBox("stsd", 0, Be(1, 4) + Visual(320, 240, Box("avcC", "any"))) +
                                     FullBox("stts", 0, Words({1, 10, 1000})) + FullBox("stsc", 0, stsc) +
                                     FullBox("stsz", 0, Words({0, 10}) + sizes) +
                                     FullBox("stco", 0, Be(chunks, 4) + offsets));
  std::string edts = edits.empty() ? "" : Box("edts", FullBox("elst", 0, edits));
  return Box("trak", FullBox("tkhd", 0, std::string(80, '\0')) + edts + extra_trak +
                         Box("mdia", Mdhd(1000, 9500) + Hdlr("vide") + Box("minf", stbl)));
}
Mp4Movie Movie(const std::string& bytes) {
  Mp4Movie movie;
  EXPECT_EQ(ReadMp4MovieMemory(bytes.data(), bytes.size(), &movie), Mp4Result::kOk);
  return movie;
}

// What the bit rates, the first frame and the read-ahead bound are worked out from.
TEST(Mp4Movie, SampleTablesGiveTotalsFirstSampleAndTheBytesOfTheFirstSecondsAfterTheEdit) {
  // Runs of 3 samples per chunk from chunk 1 and 2 from chunk 3: 3 + 3 + 2 + 2 samples in 4 chunks.
  const std::string runs = Words({2, 1, 3, 1, 3, 2, 1});
  Mp4Movie m = Movie(Ftyp() + Box("moov", Mvhd(600, 6000) + PictureTrak(runs, 4, "", Words({1, 9000, 2000, 0x10000}))));
  ASSERT_TRUE(m.plain);
  const Mp4MovieTrack& t = m.tracks[0];
  EXPECT_EQ(t.first_offset, 5000u);
  EXPECT_EQ(t.first_size, 100u);
  EXPECT_EQ(t.table_duration, 10000u);
  EXPECT_EQ(t.duration, 9500u);
  EXPECT_EQ(t.media_time, 2000);
  EXPECT_EQ(t.early_bytes, 1500u) << "samples starting before 2 s + 3 s";
  EXPECT_EQ(std::to_string(t.width) + "x" + std::to_string(t.height), "320x240");
  EXPECT_EQ(m.time_scale * 10 + m.duration, 600u * 10 + 6000u);

  // An empty first edit delays the media; the next edit says where it starts.
  m = Movie(Ftyp() + Box("moov", Mvhd(600, 6000) + PictureTrak(runs, 4, "", Words({2, 300, 0xFFFFFFFF, 0x10000, 9000, 0, 0x10000}))));
  EXPECT_TRUE(m.plain);
  EXPECT_EQ(m.tracks[0].empty_edit * 1000 + m.tracks[0].media_time, 300000);
}

// Whatever would make the probe's values depend on more than these tables leaves the file to the probe.
TEST(Mp4Movie, InconsistentTablesUnaccountedBoxesAndOtherTagsLeaveTheFileToTheProbe) {
  const std::string runs = Words({2, 1, 3, 1, 3, 2, 1});
  auto movie = [](const std::string& trak, const std::string& more_moov = "", const std::string& after = "") {
    return Ftyp() + Box("moov", Mvhd(600, 6000) + trak + more_moov) + after;
  };
  const std::string plain = PictureTrak(runs, 4);
  EXPECT_TRUE(Movie(movie(plain)).plain);
  std::string nine;
  for (int i = 0; i < 9; ++i) nine += plain;
  struct { const char* fault; std::string bytes; } cases[] = {
      {"runs place 12 samples, sizes say 10", movie(PictureTrak(runs, 5))},
      {"runs not from chunk 1", movie(PictureTrak(Words({1, 2, 5, 1}), 2))},
      {"a second sample description", movie(PictureTrak(Words({2, 1, 3, 2, 3, 2, 1}), 4))},
      {"an edit at another rate", movie(PictureTrak(runs, 4, "", Words({1, 9000, 0, 0x20000})))},
      {"a reference to a chapter track", movie(PictureTrak(runs, 4, Box("tref", Box("chap", Be(2, 4)))))},
      {"fragments", movie(plain, Box("mvex", ""))},
      {"a movie fragment after the movie", movie(plain, "", Box("moof", ""))},
      {"no movie duration", Ftyp() + Box("moov", Mvhd(600, 0) + plain)},
      {"a track claiming more than the movie holds", movie(std::string(plain).replace(0, 4, Be(0xFFFF, 4)))},
      {"nine tracks", movie(nine)},
      // Tags the record would take in any other form, or anywhere else.
      {"Mac-encoded text", movie(plain, Udta(Box("\xA9" "day", Box("data", Be(0, 4) + Be(0, 4) + "\xA9 2001"))))},
      {"an ID3 genre", movie(plain, Udta(Item("gnre", Be(8, 2))))},
      {"a free-form item", movie(plain, Udta(Item("----", "title")))},
      {"items before the handler, which the probe passes over",
       movie(plain, Box("udta", FullBox("meta", 0, Box("ilst", Item("\xA9nam", "Clip")) + Hdlr("mdir"))))},
      {"a Mac Roman QuickTime string", movie(plain, Box("udta", Box("\xA9nam", Be(5, 2) + Be(0, 2) + "Caf\xC3\xA9")))},
      {"a QuickTime string in the track", movie(PictureTrak(runs, 4, Box("udta", Box("\xA9" "ART", Be(4, 2) + Be(0, 2) + "Band"))))},
      {"cover art", movie(plain, Udta(Item("covr", "\x89PNG")))},
  };
  for (const auto& c : cases) {
    Mp4Movie m;
    Mp4Result r = ReadMp4MovieMemory(c.bytes.data(), c.bytes.size(), &m);
    EXPECT_TRUE(r != Mp4Result::kOk || !m.plain || m.tagged) << c.fault;
  }
  // The movie's UTF-8 items are read as the probe names them, the later of two names winning, and
  // QuickTime strings beside them: ASCII, or any text under a language code not taken for Mac Roman.
  Mp4Movie m = Movie(movie(plain, Udta(Item("\xA9too", "Lavf") + Item("\xA9nam", std::string("Cl\0ip", 5)) +
                                       Item("\xA9" "ART", "One") + Item("\xA9" "aut", "Two") +
                                       Item("trkn", Be(0, 2) + Be(0xFFFE, 2) + Be(9, 2)))));
  EXPECT_FALSE(m.tagged);
  EXPECT_EQ(m.tags.title + "|" + m.tags.artist + "|" + m.tags.track, "Cl|Two|-2");
  m = Movie(movie(plain, Box("udta", Box("\xA9nam", Be(4, 2) + Be(0, 2) + "Clip") +
                                     Box("\xA9" "ART", Be(5, 2) + Be(0x55C4, 2) + "Caf\xC3\xA9"))));
  EXPECT_FALSE(m.tagged);
  EXPECT_EQ(m.tags.title + "|" + m.tags.artist, "Clip|Caf\xC3\xA9");
}

TEST(Mp4Boxes, NoMovieOrNoTrackIsSavedWithDefaultsAndLogged) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string adts = dir.File("Radio/stream.aac"), empty = dir.File("Radio/empty.m4a");
  ASSERT_TRUE(Ffmpeg(kMono + "-c:a aac -f adts " + adts));
  WriteBytes(empty, Ftyp() + Moov(Udta(Item("\xA9nam", "Ignored"))));
  orvo::test::LogCapture log;
  MediaInfo m = Mp4(adts);
  EXPECT_EQ(log.Count("Failed to parse music metadata."), 2) << "once by the reader, once by the record filler";
  EXPECT_EQ(Text(m), "stream|Radio||||0");
  EXPECT_EQ(m.frequency, 0);
  log.Clear();
  m = Mp4(empty);
  EXPECT_EQ(log.Count("No tracks in mp4."), 1);
  EXPECT_EQ(log.Count("Failed to parse music metadata."), 1);
  EXPECT_EQ(Text(m), "empty|Radio||||0") << "no tags without a track";
  EXPECT_EQ(RemoveMp4(adts.c_str()), -1);
  EXPECT_TRUE(log.Contains("File exists. Skip remove it from database."));
}

// Every MP4 of the corpus against the tool that reads the same header fields (mutagen): time scale, sample
// entry's channels, the descriptor's bit rate, media header seconds, and the tags; the picture size where tools agree.
TEST(Mp4Corpus, EveryFileMatchesTheHeaderReaderWhereItReadsTheSameFields) {
  std::vector<std::string> files = CorpusFiles("mp4");
  if (files.empty()) GTEST_SKIP() << "no corpus under " << CorpusDir();
  int compared = 0;
  for (const auto& path : files) {
    std::string relative = "mp4/" + fs::path(path).filename().string(), ref = Reference(relative);
    orvo::test::LogCapture quiet;
    MediaInfo m = Mp4(path);
    Mp4Info info;
    ASSERT_EQ(ReadMp4File(path.c_str(), &info), Mp4Result::kOk) << relative;
    auto same = [&](double ours, double theirs, const char* what) {
      if (!std::isnan(theirs)) {
        EXPECT_EQ(ours, theirs) << relative << " " << what;
        ++compared;
      }
    };
    same(m.frequency, Agreed(ref, "sample_rate", "mutagen"), "rate");
    same(m.channels, Agreed(ref, "channels", "mutagen"), "channels");
    if (info.sound.has_esds) same(m.bitrate, Agreed(ref, "bitrate", "mutagen"), "bitrate");
    if (!info.video.found) same(m.duration, std::floor(Agreed(ref, "duration_s", "mutagen") + 1e-9), "seconds");
    same(m.width, m.width != 0 ? Agreed(ref, "width") : NAN, "width");
    same(m.height, m.height != 0 ? Agreed(ref, "height") : NAN, "height");
    for (auto [key, field] : {std::pair{"title", m.title}, {"artist", m.artist}, {"album", m.album},
                              {"date", m.year}, {"genre", m.genre}}) {
      std::string theirs = RefText(ref, {"tags", key}, "mutagen");
      if (!theirs.empty() && theirs[0] != '[') {  // a list of values: the first is ours
        EXPECT_EQ(field, theirs) << relative << " " << key;
        ++compared;
      }
    }
    std::string track = RefText(ref, {"tags", "track"}, "mutagen");
    if (!track.empty()) same(m.track, atoi(track.c_str()), "track");
  }
  EXPECT_GE(compared, 90);
}

}  // namespace
