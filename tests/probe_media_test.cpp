// The audio and video handlers (probe, MPEG video) on built and ffmpeg-made files and the corpus.
#include <unistd.h>

#include <set>

#include "formats_testutil.h"
#include "mp3_test_bytes.h"
#include "meta/metamedia.h"
#include "meta/asf_reader.h"
#include "meta/h264_sps.h"
#include "meta/metavideo.h"
#include "meta/mp4_reader.h"
#include "meta/mp4_video.h"
#include "meta/ogg_reader.h"
#include "meta/probe_tuning.h"
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

// Each container's own tag names, as libavformat gives them, fill the same fields. ASF's WM/Year and 0-based
// WM/Track were left out (no year, track 0), and AVI's IPRD comes as "product".
TEST(ProbeTags, EachContainersTagNamesFillTitleAlbumArtistYearGenreAndTrack) {
  REQUIRE_FFMPEG();
  TempDir dir;
  const std::string tags = "-metadata title=T -metadata artist=A -metadata album=B -metadata date=2001 "
                           "-metadata genre=G -metadata track=3/9 ";
  struct Case { const char* file; std::string args; const char* stored; } cases[] = {
      {"f/old.wma", "-c:a wmav2 -metadata title=T -metadata Author=A -metadata WM/AlbumTitle=B -metadata WM/Year=1999 "
                    "-metadata WM/Genre=G -metadata WM/Track=4", "T|B|A|1999|G|5"},
      {"f/new.wma", "-c:a wmav2 -metadata WM/TrackNumber=7 -metadata WM/Track=4", "new|f||||7"},
      {"f/info.wav", "-c:a pcm_s16le " + tags, "T|B|A|2001|G|3"},
      {"f/riff.avi", "-c:a pcm_s16le " + tags, "T|B|A|2001|G|3"},
      {"f/meta.flv", "-c:a mp3 " + tags, "T|B|A|2001|G|3"},
      {"f/udta.mov", "-c:a aac " + tags, "T|B|A|2001|G|0"},
      {"f/real.ra", "-c:a ac3 -f rm -metadata title=T -metadata author=A", "T|f|A|||0"},
  };
  for (const auto& c : cases) {
    std::string path = dir.File(c.file);
    ASSERT_TRUE(Ffmpeg(kSine + "22050:duration=1 " + c.args + " " + path)) << c.file;
    MediaInfo m = Filled(FillAudio, path);
    EXPECT_EQ(std::string(m.title) + "|" + m.album + "|" + m.artist + "|" + m.year + "|" + m.genre + "|" +
                  std::to_string(m.track), c.stored) << c.file;
  }
  // A leading ID3v2 tag on a container without tags of its own: TYER is the year.
  std::string ac3 = dir.File("f/tagged.ac3");
  ASSERT_TRUE(Ffmpeg(kSine + "48000:duration=1 -c:a ac3 " + ac3));
  WriteBytes(ac3, mp3test::Id3v2(3, mp3test::Frame23("TIT2", mp3test::Text("T")) +
                                        mp3test::Frame23("TYER", mp3test::Text("1998"))) + ReadBytes(ac3));
  EXPECT_EQ(Stored(Filled(FillAudio, ac3)).substr(0, 12), "T|f||1998||0");
}

// A transport stream packet on the DVB program guide's PID holding an empty event table (CRC-32/MPEG-2).
std::string ProgramGuidePacket() {
  std::string section("\x4e\xf0\x0f\x00\x01\xc1\x00\x00\x00\x01\x00\x01\x00\x4e", 14);
  uint32_t crc = 0xFFFFFFFF;
  for (unsigned char byte : section) {
    crc ^= uint32_t(byte) << 24;
    for (int bit = 0; bit < 8; ++bit) crc = crc & 0x80000000 ? (crc << 1) ^ 0x04C11DB7 : crc << 1;
  }
  std::string packet = std::string("\x47\x40\x12\x10\x00", 5) + section + Be(crc, 4);
  return packet + std::string(188 - packet.size(), '\xff');
}

// Streams libavformat makes of side data are passed over like cover art: DVD navigation packets, a DVB
// program guide and FLV text data (each first, they stopped the loop before every real stream).
TEST(ProbeStreamType, SubtitleTrackStopsTheLoopButStreamsMadeOfSideDataDoNot) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string srt = dir.File("s.srt"), mkv = dir.File("Films/movie.avi"), dvd = dir.File("g/dvd.vob");
  std::string flv = dir.File("g/text.flv"), dvb = dir.File("g/dvb.mpg");
  std::ofstream(srt) << "1\n00:00:00,000 --> 00:00:00,500\nhello\n";
  ASSERT_TRUE(Ffmpeg(kSine + "8000:duration=1 " + kPicture + "-i " + srt +
                     " -map 0 -map 2 -map 1 -c:a pcm_s16le -c:s srt -c:v mpeg4 -f matroska " + mkv));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=720x480:rate=30000/1001 " + kSine +
                     "48000:duration=2 -ac 2 -target ntsc-dvd " + dvd));
  ASSERT_TRUE(Ffmpeg("-i " + srt + " " + kPicture + kSine + "22050:duration=1 -map 0 -map 1 -map 2 -c:s text "
                     "-c:v flv1 -c:a mp3 -f flv " + flv));
  ASSERT_TRUE(Ffmpeg(kPicture + kSine + "22050:duration=1 -c:v mpeg2video -c:a mp2 -b:a 64k -f mpegts " + dvb));
  WriteBytes(dvb, ProgramGuidePacket() + ReadBytes(dvb));
  orvo::test::LogCapture log;
  EXPECT_EQ(Stored(Filled(FillVideo, dvd)), "dvd|g||||0|2.000|448000|48000|2|720x480");
  EXPECT_EQ(Stored(Filled(FillVideo, flv)), "text|g||||0|1.000|32000|22050|1|64x48");
  EXPECT_EQ(Stored(Filled(FillVideo, dvb)), "dvb|g||||0|1.000|64000|22050|1|64x48");
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

// One ffmpeg run over `inputs` writing every output of `outputs` (file name, its options) into `folder`.
struct Output {
  std::string name, options;
};
bool FfmpegMany(const TempDir& dir, const std::string& folder, const std::string& inputs,
                const std::vector<Output>& outputs, std::vector<std::string>* files) {
  std::string args = inputs;
  for (const auto& o : outputs) {
    files->push_back(dir.File(folder + "/" + o.name));
    args += " " + o.options + " '" + files->back() + "'";
  }
  return Ffmpeg(args);
}

// `raw` behind a WAV header that calls it 16-bit stereo PCM at 48 kHz.
std::string AsPcmWav(const std::string& raw) {
  auto le = [](uint32_t v, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(v >> (8 * i)));
    return out;
  };
  std::string fmt = le(1, 2) + le(2, 2) + le(48000, 4) + le(192000, 4) + le(4, 2) + le(16, 2);
  uint32_t size = static_cast<uint32_t>(raw.size());
  return "RIFF" + le(size + 36, 4) + "WAVEfmt " + le(16, 4) + fmt + "data" + le(size, 4) + raw;
}

// A Vorbis comment holding a 1x1 PNG as cover picture (base64 of a FLAC picture block).
std::string CoverComment() {
  const std::string png(
      "\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\0\x01\0\0\0\x01\x08\x02\0\0\0\x90\x77\x53\xde\0\0\0\x0cIDAT\x78\x9c\x63\xf8"
      "\xcf\xc0\0\0\x03\x01\x01\0\xc9\xfe\x92\xef\0\0\0\0IEND\xae\x42\x60\x82", 69);
  std::string block = Be(3, 4) + Be(9, 4) + "image/png" + Be(0, 4) + Be(1, 4) + Be(1, 4) + Be(24, 4) + Be(0, 4) +
                      Be(png.size(), 4) + png;
  static const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string b64;
  for (size_t i = 0; i < block.size(); i += 3) {
    uint32_t n = uint32_t(uint8_t(block[i])) << 16;
    if (i + 1 < block.size()) n |= uint32_t(uint8_t(block[i + 1])) << 8;
    if (i + 2 < block.size()) n |= uint8_t(block[i + 2]);
    for (size_t k = 0; k < 4; ++k) b64 += i + k <= block.size() ? digits[(n >> (18 - 6 * k)) & 63] : '=';
  }
  return "METADATA_BLOCK_PICTURE=" + b64;
}

// A copy of an MP4 whose picture sample entry (`format`) claims another picture width.
std::string WithSampleEntryWidth(const TempDir& dir, const std::string& mp4, int width,
                                 const std::string& format = "avc1") {
  std::string bytes = ReadBytes(mp4);
  size_t at = bytes.find(format, bytes.find("stsd"));
  if (at == std::string::npos || at + 30 > bytes.size()) return "";
  bytes[at + 28] = static_cast<char>(width >> 8);
  bytes[at + 29] = static_cast<char>(width);
  std::string copy = dir.File("v/width-" + std::to_string(width) + "-" + format + ".mp4");
  WriteBytes(copy, bytes);
  return copy;
}

// A copy of an AVI whose picture stream format claims another width (`width`).
std::string WithStreamFormatWidth(const TempDir& dir, const std::string& avi, int width) {
  std::string bytes = ReadBytes(avi);
  size_t at = bytes.find("strf", bytes.find("vids"));
  if (at == std::string::npos || at + 16 > bytes.size()) return "";
  for (int i = 0; i < 4; ++i) bytes[at + 12 + i] = static_cast<char>(width >> (8 * i));
  std::string copy = dir.File("avi/width-" + std::to_string(width) + ".avi");
  WriteBytes(copy, bytes);
  return copy;
}

// A copy of a mono AAC MP4 whose config leaves SBR open (its sync extension zeroed) and whose first
// frame is a silent channel element followed by an SBR extension: the decoder doubles the rate and
// turns on parametric stereo there, which no header of the file says.
std::string WithImplicitSbr(const TempDir& dir, const std::string& mp4) {
  std::string bytes = ReadBytes(mp4);
  Mp4Movie movie;
  if (ReadMp4MovieMemory(bytes.data(), bytes.size(), &movie) != Mp4Result::kOk) return "";
  const Mp4MovieTrack& sound = movie.tracks[movie.track_count - 1];
  size_t config = bytes.find(sound.config, bytes.find("esds"));
  if (config == std::string::npos || sound.first_size < 7) return "";
  for (size_t i = 2; i < sound.config.size(); ++i) bytes[config + i] = 0;
  const char frame[7] = {0x00, char(0xc8), 0x00, 0x06, 0x2d, 0x00, 0x0e};
  bytes.replace(sound.first_offset, sound.first_size, std::string(sound.first_size, '\0'));
  bytes.replace(sound.first_offset, sizeof frame, frame, sizeof frame);
  std::string copy = dir.File("m/implicit-sbr.mp4");
  WriteBytes(copy, bytes);
  return copy;
}

// A comment header's list: the vendor, the count, each comment behind its length (little-endian).
std::string CommentList(const std::string& vendor, const std::vector<std::string>& comments) {
  auto le = [](size_t v) { return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; };
  std::string list = le(vendor.size()) + vendor + le(comments.size());
  for (const auto& c : comments) list += le(c.size()) + c;
  return list;
}

// Sets the checksum of the Ogg page `page` (CRC-32, polynomial 0x04C11DB7, high bit first, from 0).
void SetPageChecksum(std::string* page) {
  for (int k = 0; k < 4; ++k) (*page)[22 + k] = 0;
  uint32_t crc = 0;
  for (unsigned char c : *page) {
    crc ^= uint32_t{c} << 24;
    for (int k = 0; k < 8; ++k) crc = crc & 0x80000000u ? crc << 1 ^ 0x04C11DB7u : crc << 1;
  }
  for (int k = 0; k < 4; ++k) (*page)[22 + k] = char(crc >> (8 * k));
}

// A copy of an Ogg file whose audio pages' granule positions are all moved by `shift`: a stream that starts
// later, or earlier, than its first packets say.
std::string WithGranulesMoved(const TempDir& dir, const std::string& ogg, int64_t shift, const std::string& name) {
  std::string bytes = ReadBytes(ogg), out;
  for (size_t at = 0; at + 27 <= bytes.size() && bytes.compare(at, 4, "OggS") == 0;) {
    size_t size = 27 + uint8_t(bytes[at + 26]);
    for (size_t i = 0; i < uint8_t(bytes[at + 26]); ++i) size += uint8_t(bytes[at + 27 + i]);
    std::string page = bytes.substr(at, size);
    int64_t granule = 0;
    for (int k = 7; k >= 0; --k) granule = granule << 8 | uint8_t(page[6 + k]);
    if (granule > 0) {
      for (int k = 0; k < 8; ++k) page[6 + k] = char(uint64_t(granule + shift) >> (8 * k));
      SetPageChecksum(&page);
    }
    out += page;
    at += size;
  }
  std::string copy = dir.File("ogg/" + name);
  WriteBytes(copy, out);
  return copy;
}

// A copy of an ffmpeg-made Ogg Vorbis or Opus file whose second page (the comment header, and Vorbis's
// setup header after it) is made again with `comment` as the comment header packet.
std::string WithCommentPacket(const TempDir& dir, const std::string& ogg, const std::string& comment,
                              const std::string& name) {
  std::string bytes = ReadBytes(ogg);
  size_t at = bytes.find("OggS", 4);
  if (at == std::string::npos || at + 27 > bytes.size()) return "";
  size_t segments = uint8_t(bytes[at + 26]), body = at + 27 + segments, size = 0;
  std::vector<std::string> packets(1);
  for (size_t i = 0; i < segments; ++i) {
    size_t lace = uint8_t(bytes[at + 27 + i]);
    packets.back() += bytes.substr(body + size, lace);
    size += lace;
    if (lace < 255 && i + 1 < segments) packets.emplace_back();
  }
  packets[0] = comment;
  std::string lacing, data;
  for (const auto& p : packets) {
    lacing += std::string(p.size() / 255, '\xff') + char(p.size() % 255);
    data += p;
  }
  std::string page = bytes.substr(at, 22) + std::string(4, '\0') + char(lacing.size()) + lacing + data;
  SetPageChecksum(&page);
  std::string copy = dir.File("ogg/" + name);
  WriteBytes(copy, bytes.substr(0, at) + page + bytes.substr(body + size));
  return copy;
}

// MPEG program streams for the short analysis, under "ps/": plain ones it must serve, and ones whose difference
// lies after its 0.8 s but inside what the full analysis reads (5 s), made by joining two 2 s and 3 s pieces,
// by a stream that starts at 2 s, or by a DVD subtitle packet put in at 40 % of the file (at 3 % it is served).
void MakeProgramStreams(const TempDir& dir, std::vector<std::string>* files) {
  ASSERT_TRUE(FfmpegMany(dir, "ps", "-f lavfi -i testsrc=d=6:s=352x288:r=25 -f lavfi -i sine=d=6:sample_rate=48000 "
                         "-itsoffset 2 -f lavfi -i sine=d=3:f=220:sample_rate=48000", {
      {"plain.mpg", "-map 0 -map 1 -c:v mpeg2video -c:a mp2"}, {"plain.vob", "-map 0 -map 1 -c:v mpeg2video -c:a ac3"},
      {"mpeg1.mpg", "-map 0 -map 1 -c:v mpeg1video -c:a mp2 -f mpeg"}, {"vcd.mpg", "-map 0 -map 1 -target pal-vcd"},
      {"dvd.vob", "-map 0 -map 1 -target pal-dvd"}, {"video-only.mpg", "-map 0 -c:v mpeg2video"},
      {"lpcm.vob", "-map 0 -map 1 -c:v mpeg2video -c:a pcm_dvd -ac 2"},
      {"second-audio-late.mpg", "-map 0 -map 1 -map 2 -c:v mpeg2video -c:a mp2"},
      {"audio-late.vob", "-map 0 -map 2 -c:v mpeg2video -c:a ac3"}}, files));
  const char* pieces[][4] = {{"bit-rate-change.mpg", "-c:a mp2 -b:a 192k", "-c:a mp2 -b:a 128k", "mpeg"},
                             {"channels-change.vob", "-c:a ac3 -ac 2", "-c:a ac3 -ac 6", "vob"},
                             {"size-change.mpg", "-c:a mp2", "-c:a mp2 -vf scale=176:144", "mpeg"}};
  for (const auto& p : pieces) {
    std::string list;
    for (int i : {1, 2}) {
      std::string piece = dir.File("ps/piece" + std::to_string(i) + "-" + p[0]);
      ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=d=" + std::to_string(i + 1) + ":s=352x288:r=25 -f lavfi -i sine=d=3:"
                         "sample_rate=48000 -shortest -c:v mpeg2video " + p[i] + " -f " + p[3] + " '" + piece + "'"));
      list += "file '" + piece + "'\n";
    }
    WriteBytes(dir.File("ps/list.txt"), list);
    files->push_back(dir.File(std::string("ps/") + p[0]));
    ASSERT_TRUE(Ffmpeg("-f concat -safe 0 -i '" + dir.File("ps/list.txt") + "' -c copy -f " + p[3] + " '" +
                       files->back() + "'"));
  }
  // A pack holding one 16-byte DVD subtitle unit, put in at 3 % (in the short analysis's part) and at 40 %.
  std::string vob = ReadBytes(dir.File("ps/plain.vob"));
  const std::string pack("\0\0\1\xba\x44\0\4\0\4\1\1\x89\xc3\xf8", 14);
  const std::string subtitle = std::string("\0\0\1\xbd\0\x19\x81\x80\5\x21\0\1\0\1\x20\0\x10", 17) +
                               std::string(14, '\0');
  for (auto [name, share] : {std::pair{"ps/subtitle-early.vob", 3}, {"ps/subtitle-late.vob", 40}}) {
    size_t at = vob.find(std::string("\0\0\1\xba", 4), vob.size() * share / 100);
    ASSERT_NE(at, std::string::npos);
    files->push_back(dir.File(name));
    WriteBytes(files->back(), vob.substr(0, at) + pack + subtitle + vob.substr(at));
  }
  // AC-3 frames that say 5.1 instead of mono from 2 s on (same frame length, 384 bytes), the video untouched.
  std::string es = dir.File("ps/mono.ac3"), edited = dir.File("ps/edited.ac3");
  ASSERT_TRUE(Ffmpeg("-i '" + dir.File("ps/plain.vob") + "' -map 0:a -c copy -f ac3 '" + es + "'"));
  std::string ac3 = ReadBytes(es);
  for (size_t at = 63 * 384; at + 7 <= ac3.size(); at += 384) ac3[at + 6] = '\xe1';  // 3/2 channels and LFE
  WriteBytes(edited, ac3);
  files->push_back(dir.File("ps/six-channels-at-2s.vob"));
  ASSERT_TRUE(Ffmpeg("-i '" + dir.File("ps/plain.vob") + "' -i '" + edited + "' -map 0:v -map 1:a -c copy -f vob '" +
                     files->back() + "'"));
  // A sequence header that says 29.97 frames a second over time stamps 25 a second apart: the analysis's
  // frame-rate guess from the stamps (25) is not the header's, which a short analysis would keep.
  files->push_back(dir.File("ps/rate-unlike-stamps.mpg"));
  ASSERT_TRUE(Ffmpeg("-i '" + dir.File("ps/plain.mpg") + "' -c copy -bsf:v mpeg2_metadata=frame_rate=30000/1001 "
                     "-f mpeg '" + files->back() + "'"));
  // A leading ID3v2 tag, which opening passes over, holding what would be an audio packet to a scan from byte 0.
  files->push_back(dir.File("ps/id3.vob"));
  WriteBytes(files->back(), mp3test::Id3v2(3, mp3test::Frame23("PRIV", std::string("\0\0\1\xc1\0\x10\x0f", 7) +
                                                                            std::string(15, '\x55'))) + vob);
}
// ASF header pieces for crafted WMA files: little-endian numbers, NUL-ended UTF-16 text, objects.
std::string Le(uint64_t v, int bytes) {
  std::string out;
  for (int i = 0; i < bytes; ++i) out.push_back(i < 8 ? static_cast<char>(v >> (8 * i)) : '\0');
  return out;
}
std::string Utf16(const std::string& ascii) {
  std::string out;
  for (char c : ascii) out += std::string{c, '\0'};
  return out + std::string(2, '\0');
}
std::string AsfObject(const char* guid, const std::string& body) {
  return std::string(guid, 16) + Le(24 + body.size(), 8) + body;
}
const char kExtDescription[] = "\x40\xA4\xD0\xD2\x07\xE3\xD2\x11\x97\xF0\x00\xA0\xC9\x5E\xA8\x50";
const char kMetadataObject[] = "\xEA\xCB\xF8\xC5\xAF\x5B\x77\x48\x84\x67\xAA\x8C\x44\xFA\x4C\xCA";
const char kMetadataLibrary[] = "\x94\x1C\x23\x44\x98\x94\xD1\x49\xA1\x41\x1D\x13\x4E\x45\x70\x54";
// An extended content description entry and a metadata record (stream 0): name, value type, value.
// An odd `declared` length of text is one short, as some writers gave it.
std::string ExtEntry(const std::string& name, int type, const std::string& value, int declared = -1) {
  return Le(Utf16(name).size(), 2) + Utf16(name) + Le(type, 2) + Le(declared < 0 ? value.size() : declared, 2) + value;
}
std::string MetaRecord(const std::string& name, int type, const std::string& value) {
  return Le(0, 4) + Le(Utf16(name).size(), 2) + Le(type, 2) + Le(value.size(), 4) + Utf16(name) + value;
}

// A copy of an ffmpeg-made WMA with its file properties' preroll set (when >= 0), `objects` put
// before the data object (the header's size and count made to match) and cut to `keep` bytes.
std::string WmaWith(const TempDir& dir, const std::string& wma, const std::string& name, int64_t preroll,
                    const std::string& objects = "", size_t keep = std::string::npos) {
  std::string bytes = ReadBytes(wma);
  size_t file = bytes.find(std::string("\xA1\xDC\xAB\x8C\x47\xA9\xCF\x11", 8));
  size_t data = bytes.find(std::string("\x36\x26\xB2\x75\x8E\x66\xCF\x11", 8), 30);
  if (file == std::string::npos || data == std::string::npos) return "";
  if (preroll >= 0) bytes.replace(file + 80, 4, Le(preroll, 4));
  bytes.insert(data, objects);
  uint64_t size = 0, count = 0;
  for (int i = 7; i >= 0; --i) size = size << 8 | uint8_t(bytes[16 + i]);
  for (int i = 3; i >= 0; --i) count = count << 8 | uint8_t(bytes[24 + i]);
  bytes.replace(16, 8, Le(size + objects.size(), 8));
  bytes.replace(24, 4, Le(count + (objects.empty() ? 0 : 1), 4));
  std::string copy = dir.File("wma/" + name);
  WriteBytes(copy, bytes.substr(0, keep));
  return copy;
}


// Each container and codec of the generic handlers (bench/gen-corpus's and more: several streams,
// multichannel, VBR, cover pictures, H.264 in every layout the picture size is read from, compressed
// audio stored as PCM), a few seconds long and a few longer ones.
void MakeGeneratedSet(const TempDir& dir, std::vector<std::string>* files) {
  const std::string audio_in = "-f lavfi -i anoisesrc=d=6:c=pink:a=0.3:r=48000 -f lavfi -i sine=d=6:f=330";
  ASSERT_TRUE(FfmpegMany(dir, "a", audio_in, {
      {"s16.wav", "-map 1 -ac 2 -c:a pcm_s16le -metadata title=Song -metadata artist=Band"},
      {"u8.wav", "-map 0 -ar 8000 -c:a pcm_u8"},
      {"s24-6ch.wav", "-map 0 -ac 6 -c:a pcm_s24le"},
      {"f32.wav", "-map 1 -c:a pcm_f32le"},
      {"alaw.wav", "-map 0 -ar 8000 -c:a pcm_alaw"},
      {"mulaw.wav", "-map 0 -ar 8000 -c:a pcm_mulaw"},
      {"adpcm.wav", "-map 0 -c:a adpcm_ms"},
      {"mp3.wav", "-map 1 -c:a libmp3lame"},
      {"vbr.ogg", "-map 0 -ac 2 -c:a libvorbis -q:a 1 -metadata album=Record -metadata date=2010"},
      {"6ch.ogg", "-map 0 -ac 6 -c:a libvorbis"},
      {"cover.ogg", "-map 1 -ar 22050 -c:a libvorbis -metadata " + CoverComment()},
      {"opus.ogg", "-map 1 -c:a libopus"},
      {"opus-6ch.ogg", "-map 0 -ac 6 -c:a libopus -mapping_family 1"},
      {"flac.ogg", "-map 1 -c:a flac"},
      {"speex.ogg", "-map 1 -ar 16000 -c:a libspeex"},
      {"v2.wma", "-map 0 -ac 2 -c:a wmav2 -b:a 128k -metadata title=T -metadata genre=Jazz"},
      {"v1.wma", "-map 1 -c:a wmav1 -b:a 64k"},
      {"2ch.ac3", "-map 1 -ac 2 -c:a ac3 -b:a 192k"},
      {"6ch.ac3", "-map 0 -ac 6 -c:a ac3 -b:a 448k"},
      {"e.ac3", "-map 1 -c:a eac3 -f eac3"},
      {"a.mp2", "-map 1 -c:a mp2 -b:a 192k"},
      {"lsf.mpa", "-map 0 -ar 22050 -c:a mp2 -b:a 64k -f mp2"},
      {"vbr.mpa", "-map 0 -c:a libmp3lame -q:a 4 -f mp3"},
      {"a.ra", "-map 1 -ar 8000 -c:a real_144 -f rm"},
      {"raw-ac3", "-map 0 -ar 48000 -ac 2 -c:a ac3 -f ac3"},
      {"raw-mp2", "-map 0 -ar 48000 -ac 2 -c:a mp2 -f mp2"},
      {"raw-dts", "-map 1 -ar 48000 -ac 2 -c:a dca -strict -2 -f dts"},
      {"raw-truehd", "-map 1 -ar 48000 -ac 2 -c:a truehd -strict -2 -f truehd"},
      {"raw-spdif", "-map 0 -ar 48000 -ac 2 -c:a ac3 -f spdif"}}, files));
  // Compressed audio a WAV header calls PCM: the analysis finds out; the tuned probe must too.
  std::vector<std::string> raw(files->end() - 5, files->end());
  files->resize(files->size() - 5);
  for (const auto& r : raw) {
    files->push_back(r + "-as-pcm.wav");
    WriteBytes(files->back(), AsPcmWav(ReadBytes(r)));
  }
  const std::string video_in = "-f lavfi -i testsrc=d=3:s=320x240:r=25 -f lavfi -i sine=d=3:f=440";
  const std::string x264 = "-c:v libx264 -preset ultrafast ", yuv420 = "-pix_fmt yuv420p ";
  ASSERT_TRUE(FfmpegMany(dir, "v", video_in, {
      {"mpeg4.avi", "-map 0 -map 1 -c:v mpeg4 -c:a libmp3lame -metadata title=Clip"},
      {"xvid.avi", "-map 0 -map 1 -c:v mpeg4 -vtag XVID -c:a ac3"},
      {"msmpeg4.avi", "-map 0 -map 1 -c:v msmpeg4v2 -c:a pcm_s16le"},
      {"h264.avi", "-map 0 -map 1 " + x264 + yuv420 + "-c:a libmp3lame"},
      {"mjpeg.avi", "-map 0 -map 1 -c:v mjpeg -c:a pcm_u8"},
      {"mpeg4.mov", "-map 0 -map 1 -c:v mpeg4 -c:a aac"},
      {"h264.mp4", "-map 0 -map 1 -c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac -metadata title=Clip"},
      {"baseline.mp4", "-map 0 -map 1 " + x264 + yuv420 + "-profile:v baseline -c:a aac -ac 1 -b:a 48k"},
      {"h264-ac3.mov", "-map 0 -map 1 " + x264 + yuv420 + "-c:a ac3"},
      {"h264-eac3.mp4", "-map 0 -map 1 " + x264 + yuv420 + "-c:a eac3 -ac 6"},
      {"h264-alac.mov", "-map 0 -map 1 " + x264 + yuv420 + "-c:a alac"},
      {"h264-pcm.mov", "-map 0 -map 1 " + x264 + yuv420 + "-c:a pcm_s16le"},
      {"h264-mp3.mp4", "-map 0 -map 1 " + x264 + yuv420 + "-c:a libmp3lame"},
      {"h264-only.mp4", "-map 0 " + x264 + yuv420},
      {"h264-10bit.mp4", "-map 0 " + x264 + "-pix_fmt yuv420p10le"},
      {"h264-444.mp4", "-map 0 -map 1 " + x264 + "-pix_fmt yuv444p -c:a aac"},
      {"h264-interlaced.mp4", "-map 0 -map 1 " + x264 + yuv420 + "-flags +ildct+ilme -c:a aac"},
      {"h264-cropped.mp4", "-map 0 -map 1 -vf scale=100:58 " + x264 + yuv420 + "-c:a aac"},
      {"h264-fragmented.mp4", "-map 0 -map 1 " + x264 + yuv420 + "-c:a aac -movflags frag_keyframe+empty_moov"},
      {"h264-two-tracks.mp4", "-map 0 -map 1 -map 1 " + x264 + yuv420 + "-c:a aac"},
      {"mpeg1.mpg", "-map 0 -map 1 -c:v mpeg1video -c:a mp2 -f mpeg"},
      {"mpeg2.vob", "-map 0 -map 1 -c:v mpeg2video -c:a ac3 -f vob"},
      {"flv1.flv", "-map 0 -map 1 -c:v flv1 -c:a libmp3lame -ar 44100"},
      {"h264.flv", "-map 0 -map 1 " + x264 + yuv420 + "-c:a aac"},
      {"wmv2.wmv", "-map 0 -map 1 -c:v wmv2 -c:a wmav2"},
      {"wmv1.asf", "-map 0 -map 1 -c:v wmv1 -c:a wmav1"},
      {"msmpeg4.asf", "-map 0 -map 1 -c:v msmpeg4 -c:a wmav2"},
      {"rv10.rm", "-map 0 -map 1 -c:v rv10 -c:a ac3"},
      {"theora.ogg", "-map 0 -map 1 -c:v libtheora -c:a libvorbis"},
      {"vcd.mpg", "-map 0 -map 1 -target ntsc-vcd"}}, files));
  // The sample entry's width against the sequence's 100 (112 coded): kept below it within the
  // macroblock, replaced by it outside.
  std::string cropped = dir.File("v/h264-cropped.mp4");
  for (int width : {98, 96, 104}) files->push_back(WithSampleEntryWidth(dir, cropped, width));
  // MP4 and QuickTime layouts for the box path: the ones it serves and the ones it leaves to the probe.
  WriteBytes(dir.File("m/cue.srt"), "1\n00:00:00,500 --> 00:00:02,000\nHello\n");
  WriteBytes(dir.File("m/chapters.txt"), ";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=2000\ntitle=One\n"
                                         "[CHAPTER]\nTIMEBASE=1/1000\nSTART=2000\nEND=4000\ntitle=Two\n");
  const std::string movie_in = "-f lavfi -i testsrc=d=4:s=320x240:r=25 -f lavfi -i sine=d=4:f=440:sample_rate=48000 "
                               "-f lavfi -i anoisesrc=d=4:r=44100 -itsoffset 0.5 -f lavfi -i sine=d=3:f=330 "
                               "-itsoffset 2.5 -f lavfi -i sine=d=1:f=330 -f lavfi -i color=c=red:s=32x32:d=0.04 -i '" +
                               dir.File("m/cue.srt") + "' -i '" + dir.File("m/chapters.txt") + "'";
  const std::string h264 = "-map 0 -map_chapters -1 " + x264 + yuv420;
  ASSERT_TRUE(FfmpegMany(dir, "m", movie_in, {
      {"aac-mono-22k.mp4", h264 + "-map 1 -c:a aac -ac 1 -ar 22050"},
      {"aac-stereo-44k.mp4", h264 + "-map 2 -c:a aac -ac 2"},
      {"aac-6ch-48k.mp4", h264 + "-map 1 -c:a aac -ac 6"},
      {"moov-first.mp4", h264 + "-map 1 -c:a aac -movflags +faststart"},
      {"no-edit-list.mp4", h264 + "-map 1 -c:a aac -use_editlist 0"},
      {"two-sound-tracks.mp4", h264 + "-map 1 -map 2 -c:a aac -ac:a:1 1 -ar:a:1 22050"},
      {"sound-only.mp4", "-map 2 -map_chapters -1 -c:a aac -metadata album=Record -metadata title=Song "
                         "-metadata track=3/9 -metadata genre=Jazz -metadata date=1999-03 -metadata artist=Band"},
      {"sound-only-mono.mp4", "-map 1 -map_chapters -1 -c:a aac -ac 1 -ar 22050"},
      {"h264-aac.mov", h264 + "-map 1 -c:a aac -f mov"},
      {"timescale-600.mp4", h264 + "-map 2 -video_track_timescale 600 -c:a aac -ar 11025"},
      {"movie-timescale.mp4", h264 + "-map 1 -c:a aac -movie_timescale 90000"},
      {"sound-starts-late.mp4", h264 + "-map 3 -c:a aac"},
      {"sound-starts-later.mp4", h264 + "-map 4 -c:a aac"},
      {"timecode.mov", h264 + "-map 1 -c:a aac -timecode 01:00:00:00 -f mov"},
      {"cover.mp4", h264 + "-map 1 -map 5 -c:v:1 png -disposition:v:1 attached_pic -c:a aac"},
      {"subtitles.mp4", h264 + "-map 1 -map 6 -c:a aac -c:s mov_text"},
      {"chapters.mp4", "-map 0 -map 1 -map_chapters 7 " + x264 + yuv420 + "-c:a aac"},
      {"tagged.mp4", h264 + "-map 1 -c:a aac -metadata title=Clip -metadata artist=Band -metadata date=2001 "
                         "-metadata album=Collection"},
      {"tagged.mov", h264 + "-map 1 -c:a aac -f mov -metadata title=Clip -metadata artist=Band -metadata date=2001"},
      {"mpeg4-aac.mp4", "-map 0 -map 1 -map_chapters -1 -c:v mpeg4 -c:a aac"}}, files));
  files->push_back(WithImplicitSbr(dir, dir.File("m/sound-only-mono.mp4")));
  // The MPEG-4 decoder takes the layer header's size over the sample entry's.
  files->push_back(WithSampleEntryWidth(dir, dir.File("m/mpeg4-aac.mp4"), 200, "mp4v"));
  // H.264 in AVI and FLV with reordered frames, a cropped size, several audio codecs and 5.1, and
  // picture streams that outlast the sound (their start and length then set the container's
  // duration): leaving the AVI decoder out must not move a time stamp, a size or a bit rate.
  const std::string avi_in = "-f lavfi -i testsrc=d=5:s=320x240:r=25 -f lavfi -i anoisesrc=d=4:r=44100 "
                             "-f lavfi -i sine=d=4:f=330:sample_rate=48000";
  const std::string bframes = "-c:v libx264 -preset veryfast -bf 3 " + yuv420;
  ASSERT_TRUE(FfmpegMany(dir, "avi", avi_in, {
      {"bframes-mp3.avi", "-map 0 -map 1 " + bframes + "-c:a libmp3lame -b:a 128k"},
      {"bframes-vbr-mp3.avi", "-map 0 -map 1 " + bframes + "-c:a libmp3lame -q:a 5"},
      {"bframes-mp2.avi", "-map 0 -map 2 " + bframes + "-c:a mp2"},
      {"bframes-ac3-6ch.avi", "-map 0 -map 1 " + bframes + "-c:a ac3 -ac 6"},
      {"bframes-aac.avi", "-map 0 -map 1 " + bframes + "-c:a aac"},
      {"bframes-pcm.avi", "-map 0 -map 2 " + bframes + "-c:a pcm_s16le"},
      {"bframes-only.avi", "-map 0 " + bframes},
      {"cropped.avi", "-map 0 -map 1 -vf scale=100:58 " + bframes + "-c:a libmp3lame -b:a 96k"},
      {"interlaced.avi", "-map 0 -map 1 " + bframes + "-flags +ildct+ilme -c:a libmp3lame -b:a 64k"},
      {"two-sound-streams.avi", "-map 0 -map 1 -map 2 " + bframes + "-c:a libmp3lame -b:a 128k"},
      {"bframes-aac.flv", "-map 0 -map 1 " + bframes + "-c:a aac"},
      {"bframes-mp3.flv", "-map 0 -map 1 " + bframes + "-c:a libmp3lame -ar 44100"},
      {"cropped-6ch.flv", "-map 0 -map 1 -vf scale=100:58 " + bframes + "-c:a aac -ac 6"}}, files));
  // The stream format's width against the sequence's 100 (112 coded), as for MP4 above.
  for (int width : {98, 96, 104}) files->push_back(WithStreamFormatWidth(dir, dir.File("avi/cropped.avi"), width));
  ASSERT_TRUE(FfmpegMany(dir, "long", "-f lavfi -i testsrc=d=12:s=640x360:r=25 -f lavfi -i anoisesrc=d=12:r=44100", {
      {"mpeg2.mpg", "-map 0 -map 1 -c:v mpeg2video -c:a mp2 -f mpeg"},
      {"h264.mp4", "-map 0 -map 1 " + x264 + yuv420 + "-c:a aac -ac 2"},
      {"s16.wav", "-map 1 -ac 2 -c:a pcm_s16le"},
      {"vorbis.ogg", "-map 1 -c:a libvorbis -q:a 3"},
      {"wmav2.wma", "-map 1 -c:a wmav2"}}, files));
  // Ogg Vorbis and Opus for the page reader: qualities, rates, channel counts, a comment over several pages.
  ASSERT_TRUE(FfmpegMany(dir, "ogg", audio_in, {
      {"q0-mono-8k.ogg", "-map 1 -ac 1 -ar 8000 -c:a libvorbis -q:a 0"},
      {"q6-22k.ogg", "-map 0 -ar 22050 -c:a libvorbis -q:a 6"},
      {"q10-6ch.ogg", "-map 0 -ac 6 -c:a libvorbis -q:a 10"},
      {"96k.ogg", "-map 0 -ar 96000 -c:a libvorbis"},
      {"opus-mono.ogg", "-map 1 -ac 1 -ar 16000 -c:a libopus -b:a 24k"},  // 48 kHz all the same
      {"long-comment.ogg", "-map 1 -c:a libvorbis -metadata title=T -metadata comment=" + std::string(70000, 'x')}},
      files));
  // Comments the way other writers leave them: repeated names in other cases (values joined, the entry moved
  // to the end and the last one into its place, which puts "track" before TRACKNUMBER, renamed "track" after
  // it), non-ASCII and NUL bytes, empty names and values, no '=', and for Vorbis a last comment that runs
  // into the framing byte (dropped). Then an empty list, and a vendor length past the end (no tags at all).
  const std::vector<std::string> comments = {
      "Comment=1", "TRACKNUMBER=7", "track=9", "COMMENT=2", "TITLE=Tune", "title=Again", "ARTIST=B\xc3\xa4nd \xe2\x98\x83",
      "Date=1999-12-31", "GENRE=", "=x", "ALBUM", std::string("genre=Ja\0zz", 11), "Album=First", "ALBUM=Second"};
  std::string vorbis = dir.File("ogg/q6-22k.ogg"), opus = dir.File("ogg/opus-mono.ogg");
  std::vector<std::string> framed = comments;
  framed.push_back("album=Lost\x01");  // its last byte is the packet's framing byte
  files->push_back(WithCommentPacket(dir, vorbis, "\x03vorbis" + CommentList("v", framed), "tags.ogg"));
  files->push_back(WithCommentPacket(dir, opus, "OpusTags" + CommentList("v", comments), "tags-opus.ogg"));
  files->push_back(WithCommentPacket(dir, vorbis, "\x03vorbis" + CommentList("", {}) + "\x01", "no-comments.ogg"));
  files->push_back(WithCommentPacket(dir, opus, "OpusTags\xff\0\0\0", "bad-vendor-opus.ogg"));
  // Streams whose first page says they start later (Vorbis takes that start off its duration, Opus does not)
  // or before their first sample (taken as 0).
  files->push_back(WithGranulesMoved(dir, vorbis, 100000, "starts-late.ogg"));
  files->push_back(WithGranulesMoved(dir, vorbis, -500, "starts-early.ogg"));
  files->push_back(WithGranulesMoved(dir, opus, 100000, "starts-late-opus.ogg"));
  // The end cut off inside a page (the granule position before it counts), and the last page damaged.
  std::string whole = ReadBytes(dir.File("ogg/q6-22k.ogg"));
  files->push_back(dir.File("ogg/truncated.ogg"));
  WriteBytes(files->back(), whole.substr(0, whole.size() - 700));
  files->push_back(dir.File("ogg/bad-checksum-end.ogg"));
  WriteBytes(files->back(), whole.substr(0, whole.size() - 9) + char(whole[whole.size() - 9] ^ 1) + whole.substr(whole.size() - 8));
  // Two streams one after the other.
  files->push_back(dir.File("ogg/chained.ogg"));
  WriteBytes(files->back(), ReadBytes(dir.File("ogg/q0-mono-8k.ogg")) + ReadBytes(opus));
  // WMA for the header reader: both versions at several rates, bit rates and channel counts, tags
  // (non-ASCII, long); a cover picture and two audio streams, which are the probe's.
  const std::string tags = "-metadata title=Song -metadata artist=Band -metadata album=Record -metadata genre=Jazz "
                           "-metadata date=1999 -metadata track=4/12 -metadata comment=Note ";
  ASSERT_TRUE(FfmpegMany(dir, "wma", audio_in + " " + kPicture, {
      {"v1-mono-8k.wma", "-map 1 -ac 1 -ar 8000 -c:a wmav1 -b:a 24k"},
      {"v1-22k.wma", "-map 0 -ar 22050 -c:a wmav1 -b:a 48k " + tags},
      {"v2-44k.wma", "-map 0 -ar 44100 -c:a wmav2 -b:a 192k " + tags},
      {"v2-mono-32k.wma", "-map 1 -ac 1 -ar 32000 -c:a wmav2 -b:a 32k"},
      {"unicode.wma", "-map 1 -c:a wmav2 -metadata title=B\xc3\xa4nd\xe2\x98\x83\xf0\x9d\x84\x9e "
                      "-metadata artist=\xd0\x90\xd0\xb1 -metadata album=\xe6\x97\xa5\xe6\x9c\xac"},
      {"long-tags.wma", "-map 1 -c:a wmav2 -metadata title=" + std::string(3000, 't') + " -metadata album=" +
                        std::string(900, 'a') + "\xc3\xa4 -metadata genre=" + std::string(20000, 'g')},
      {"cover.wma", "-map 1 -map 2 -c:a wmav2 -c:v png -disposition:v attached_pic -frames:v 1"},
      {"two-audio.wma", "-map 0 -map 1 -c:a wmav2"}}, files));
  // Crafted headers: prerolls of 0, a few seconds and longer than the file; a tag of each value type
  // in both description kinds (numbers read as int, so sign-extended; a QWORD year cut to its low
  // half; tags replacing earlier ones of another case); a picture in the metadata library; damage.
  std::string plain = dir.File("wma/v2-44k.wma");
  files->push_back(WmaWith(dir, plain, "preroll-0.wma", 0));
  files->push_back(WmaWith(dir, plain, "preroll-4s.wma", 4000));
  files->push_back(WmaWith(dir, plain, "preroll-past-end.wma", 60000));
  std::string ext = Le(9, 2) + ExtEntry("WM/TrackNumber", 3, Le(0xFFFFFFFE, 4)) +
                    ExtEntry("WM/Year", 4, Le(0x7FFFFFFF000007C6, 8)) + ExtEntry("WM/Genre", 5, Le(17, 2)) +
                    ExtEntry("IsVBR", 2, Le(1, 4)) + ExtEntry("TITLE", 0, Utf16("Other")) +
                    ExtEntry("WM/AlbumTitle", 6, std::string(16, 'g')) + ExtEntry("WM/MCDI", 1, "xyz") +
                    ExtEntry("AUTHOR", 0, Utf16("Odd"), 7) + ExtEntry("xmpTitle", 0, Utf16("x"));
  files->push_back(WmaWith(dir, dir.File("wma/unicode.wma"), "ext-types.wma", -1, AsfObject(kExtDescription, ext)));
  std::string meta = Le(5, 2) + MetaRecord("WM/Track", 3, Le(0x80000000, 4)) + MetaRecord("IsVBR", 2, Le(1, 2)) +
                     MetaRecord("WM/Year", 0, Utf16("2003-01")) + MetaRecord("album", 5, Le(65535, 2)) +
                     MetaRecord("genre", 0, Utf16(""));
  files->push_back(WmaWith(dir, dir.File("wma/v2-mono-32k.wma"), "meta-types.wma", -1, AsfObject(kMetadataObject, meta)));
  std::string picture = Le(1, 2) + MetaRecord("WM/Picture", 1, std::string("\x03\x04\0\0\0", 5) + Utf16("a") + Utf16(""));
  files->push_back(WmaWith(dir, plain, "library-picture.wma", -1, AsfObject(kMetadataLibrary, picture)));
  // A format bit rate of 0 gives way to the leak rate of the stream's extended properties (one
  // stream name, one payload extension system: the walk goes on after them, not at the object's end).
  std::string leak = Le(0, 16) + Le(56000, 4) + Le(0, 28) + Le(1, 2) + Le(0, 2 + 8) + Le(1, 2) + Le(1, 2) + Le(0, 2) +
                     Le(4, 2) + "name" + std::string(16, 'p') + Le(2, 2) + Le(3, 4) + "abc";
  std::string zero = ReadBytes(WmaWith(dir, plain, "leak-rate.wma", -1,
                                       AsfObject("\xCB\xA5\xE6\x14\x72\xC6\x32\x43\x83\x99\xA9\x69\x52\x06\x5B\x5A", leak)));
  size_t format = zero.find(std::string("\x40\x9E\x69\xF8\x4D\x5B\xCF\x11", 8)) + 54;
  zero.replace(format + 8, 4, Le(0, 4));
  files->push_back(dir.File("wma/leak-rate.wma"));
  WriteBytes(files->back(), zero);
  std::string extension = std::string("\xB5\x03\xBF\x5F\x2E\xA9\xCF\x11\x8E\xE3\x00\xC0\x0C\x20\x53\x65", 16) +
                          Le(0x8000000000000030, 8) + std::string(16, '\0') + Le(6, 2) + Le(0, 4);
  files->push_back(WmaWith(dir, plain, "extension-size-past-2-63.wma", -1, extension));  // fails to open
  files->push_back(WmaWith(dir, plain, "truncated-header.wma", -1, "", 200));
  size_t header = ReadBytes(plain).find(std::string("\x36\x26\xB2\x75\x8E\x66\xCF\x11", 8), 30);
  files->push_back(WmaWith(dir, plain, "truncated-data-header.wma", -1, "", header + 40));
  files->push_back(WmaWith(dir, plain, "cut-short.wma", -1, "", header + 2000));  // its size field then too far off
  files->push_back(WmaWith(dir, plain, "truncated-data.wma", -1, "", ReadBytes(plain).size() - 2000));
}

// The tuned probe leaves out only analysis that cannot change a stored value: every field of every
// corpus file and generated file comes out as the untuned probe has it.
TEST(ProbeTuning, SameStoredValuesAsTheUntunedProbe) {
  std::vector<std::string> files;
  for (const char* folder : {"misc-audio", "video", "mpeg", "mp3", "mp4", "flac", "aiff", "playlists", "pictures"})
    for (const auto& f : CorpusFiles(folder)) files.push_back(f);
  TempDir dir;
  if (HaveFfmpeg()) MakeGeneratedSet(dir, &files);
  if (HaveFfmpeg()) MakeProgramStreams(dir, &files);
  if (files.empty()) GTEST_SKIP() << "neither the corpus nor ffmpeg";
  orvo::test::LogCapture quiet;
  std::set<std::string> served;
  for (const auto& f : files) {
    MediaInfo tuned, plain, boxes, pages, header;
    memset(&tuned, 0, sizeof tuned);
    memset(&plain, 0, sizeof plain);
    memset(&boxes, 0, sizeof boxes);
    memset(&pages, 0, sizeof pages);
    memset(&header, 0, sizeof header);
    EXPECT_EQ(ReadMediaInfo(f.c_str(), &tuned, ProbeMode::kTuned),
              ReadMediaInfo(f.c_str(), &plain, ProbeMode::kLibraryDefaults)) << f;
    EXPECT_EQ(memcmp(&tuned, &plain, sizeof tuned), 0) << f << "\n" << Stored(tuned) << "\n" << Stored(plain);
    if (ReadMp4VideoValues(f.c_str(), &boxes)) served.insert(f.substr(f.rfind('/', f.rfind('/') - 1) + 1));
    if (ReadOggValues(f.c_str(), &pages)) served.insert(f.substr(f.rfind('/', f.rfind('/') - 1) + 1));
    if (ReadAsfValues(f.c_str(), &header)) served.insert(f.substr(f.rfind('/', f.rfind('/') - 1) + 1));
  }
  // The WMA header reader likewise: what it cannot vouch for goes to the probe, the plain files do not.
  for (const char* name : {"misc-audio/lossless.wma", "video/matrix_ping_pong.wmv", "video/fixture.asf",
                           "video/fixture.wmv.asf", "v/wmv2.wmv", "v/wmv1.asf", "v/msmpeg4.asf", "wma/cover.wma",
                           "wma/two-audio.wma", "wma/library-picture.wma", "wma/truncated-header.wma",
                           "wma/truncated-data-header.wma", "wma/cut-short.wma",
                           "wma/extension-size-past-2-63.wma"})
    EXPECT_EQ(served.count(name), 0u) << name << " did not go to the probe";
  if (HaveFfmpeg()) {
    for (const char* name : {"a/v2.wma", "a/v1.wma", "long/wmav2.wma", "wma/v1-mono-8k.wma", "wma/v1-22k.wma",
                             "wma/v2-44k.wma", "wma/v2-mono-32k.wma", "wma/unicode.wma", "wma/long-tags.wma",
                             "wma/preroll-0.wma", "wma/preroll-4s.wma", "wma/preroll-past-end.wma",
                             "wma/ext-types.wma", "wma/meta-types.wma", "wma/truncated-data.wma",
                             "wma/leak-rate.wma"})
      EXPECT_EQ(served.count(name), 1u) << name << " went to the probe";
  }
  // Nor would it about the Ogg page reader; the files it cannot vouch for must go to the probe.
  for (const char* name : {"misc-audio/lowercase-fields.ogg", "a/cover.ogg", "a/flac.ogg", "a/speex.ogg",
                           "v/theora.ogg", "ogg/bad-checksum-end.ogg", "ogg/chained.ogg"})
    EXPECT_EQ(served.count(name), 0u) << name << " did not go to the probe";
  if (HaveFfmpeg()) {
    for (const char* name : {"a/vbr.ogg", "a/6ch.ogg", "a/opus.ogg", "a/opus-6ch.ogg", "long/vorbis.ogg",
                             "ogg/q0-mono-8k.ogg", "ogg/q6-22k.ogg", "ogg/q10-6ch.ogg", "ogg/96k.ogg",
                             "ogg/opus-mono.ogg", "ogg/long-comment.ogg", "ogg/tags.ogg", "ogg/tags-opus.ogg",
                             "ogg/no-comments.ogg", "ogg/bad-vendor-opus.ogg", "ogg/truncated.ogg", "ogg/starts-late.ogg",
                             "ogg/starts-early.ogg", "ogg/starts-late-opus.ogg"})
      EXPECT_EQ(served.count(name), 1u) << name << " went to the probe";
  }
  // The box path must really serve the plain layouts, or the comparison above proves nothing about it.
  if (HaveFfmpeg()) {
    for (const char* name : {"m/aac-mono-22k.mp4", "m/aac-stereo-44k.mp4", "m/aac-6ch-48k.mp4", "m/moov-first.mp4",
                             "m/no-edit-list.mp4", "m/two-sound-tracks.mp4", "m/sound-only.mp4", "m/h264-aac.mov",
                             "m/timescale-600.mp4", "m/movie-timescale.mp4", "m/sound-starts-late.mp4",
                             "m/implicit-sbr.mp4", "m/tagged.mp4", "m/tagged.mov", "m/mpeg4-aac.mp4", "v/width-200-mp4v.mp4",
                             "v/mpeg4.mov", "v/h264.mp4", "v/h264-only.mp4",
                             "long/h264.mp4"}) {
      EXPECT_EQ(served.count(name), 1u) << name << " went to the probe";
    }
    // Likewise the AVI files must really go without the H.264 decoder, and keep the analysis made so only
    // where the parameter sets give the size the decoder would report.
    auto tuned_analysis = [&](const char* name, H264Decoder* need) {
      const AvLibrary* av = LoadAv();
      AVFormatContext* raw = nullptr;
      if (av == nullptr || av->openInput(&raw, dir.File(name).c_str(), nullptr, nullptr) < 0) return Analysis::kUnknown;
      AvInput ctx(raw);
      *need = H264DecoderNeed(ctx.get());
      return AnalyseStreams(ctx.get(), ProbeMode::kTuned);
    };
    H264Decoder need;
    for (const char* name : {"avi/bframes-mp3.avi", "avi/bframes-mp2.avi", "avi/bframes-ac3-6ch.avi",
                             "avi/bframes-aac.avi", "avi/bframes-pcm.avi", "avi/bframes-only.avi", "avi/cropped.avi",
                             "avi/width-98.avi", "avi/interlaced.avi", "avi/two-sound-streams.avi"}) {
      EXPECT_EQ(tuned_analysis(name, &need), Analysis::kKnown) << name;
      EXPECT_EQ(need, H264Decoder::kCheckedAfter) << name;
    }
    for (const char* name : {"avi/width-96.avi", "avi/width-104.avi"}) {
      EXPECT_EQ(tuned_analysis(name, &need), Analysis::kOpenAgainUntuned) << name;
      EXPECT_EQ(need, H264Decoder::kCheckedAfter) << name;
    }
    EXPECT_EQ(tuned_analysis("v/h264-mp3.mp4", &need), Analysis::kKnown);
    EXPECT_EQ(need, H264Decoder::kRedundant);
    // MPEG audio without a bit rate in its stream header takes the parser's average over the packets read.
    for (const char* name : {"avi/bframes-vbr-mp3.avi", "v/h264.avi", "avi/bframes-aac.flv", "v/mpeg4.avi"}) {
      EXPECT_EQ(tuned_analysis(name, &need), Analysis::kKnown) << name;
      EXPECT_EQ(need, H264Decoder::kNeeded) << name;
    }
    // MPEG program streams: the plain ones get the short analysis; in the others the scan of the full
    // analysis's part finds the difference, or the short analysis's values disagree with the scan's.
    auto program_stream = [&](const char* name) {
      const AvLibrary* av = LoadAv();
      AVFormatContext* raw = nullptr;
      if (av == nullptr || av->openInput(&raw, dir.File(name).c_str(), nullptr, nullptr) < 0) return Analysis::kUnknown;
      AvInput ctx(raw);
      return ScanAnalysedPart(ctx.get()).doubt != PsDoubt::kNone ? Analysis::kUnknown : tuned_analysis(name, &need);
    };
    for (const char* name : {"ps/plain.mpg", "ps/plain.vob", "ps/mpeg1.mpg", "ps/vcd.mpg", "ps/dvd.vob",
                             "ps/video-only.mpg", "ps/lpcm.vob", "ps/subtitle-early.vob", "ps/id3.vob",
                             "long/mpeg2.mpg"})
      EXPECT_EQ(program_stream(name), Analysis::kKnown) << name << " was not served by the short analysis";
    for (const char* name : {"ps/second-audio-late.mpg", "ps/audio-late.vob", "ps/bit-rate-change.mpg",
                             "ps/channels-change.vob", "ps/six-channels-at-2s.vob", "ps/size-change.mpg",
                             "ps/subtitle-late.vob", "ps/rate-unlike-stamps.mpg"})
      EXPECT_NE(program_stream(name), Analysis::kKnown) << name << " took the short analysis";
    // The decoder, not the headers, gives this file's rate and channels.
    MediaInfo sbr;
    memset(&sbr, 0, sizeof sbr);
    ASSERT_EQ(ReadMediaInfo(dir.File("m/implicit-sbr.mp4").c_str(), &sbr), 0);
    EXPECT_EQ(sbr.frequency, 44100);
    EXPECT_EQ(sbr.channels, 2);
  }
}

// The sequence parameter set of the first stream of an MP4, as the container carries it.
H264PictureSize SequenceSize(const std::string& mp4) {
  H264PictureSize size{};
  const AvLibrary* av = LoadAv();
  AVFormatContext* raw = nullptr;
  if (av == nullptr || av->openInput(&raw, mp4.c_str(), nullptr, nullptr) < 0) return size;
  AvInput ctx(raw);
  const AVCodecParameters* par = ctx->streams[0]->codecpar;
  EXPECT_TRUE(ReadH264PictureSize(par->extradata, par->extradata_size, &size)) << mp4;
  return size;
}

// The picture size the probe relies on to leave the H.264 decoder out: coded size and cropping as the decoder
// reads them in each chroma format, bit depth and field layout, and the container's size kept only where the
// decoder keeps it.
TEST(H264PictureSize, CodedSizeCroppingAndTheContainersSize) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::vector<std::string> files;
  ASSERT_TRUE(FfmpegMany(dir, "h", "-f lavfi -i testsrc=d=0.2:s=100x58:r=25", {
      {"420.mp4", "-c:v libx264 -preset ultrafast -pix_fmt yuv420p"},
      {"444.mp4", "-c:v libx264 -preset ultrafast -pix_fmt yuv444p"},
      {"10bit.mp4", "-c:v libx264 -preset ultrafast -pix_fmt yuv420p10le"},
      {"fields.mp4", "-vf scale=100:60 -c:v libx264 -preset ultrafast -pix_fmt yuv420p -flags +ildct+ilme"}},
                         &files));
  auto text = [](const H264PictureSize& s) {
    return std::to_string(s.coded_width) + "x" + std::to_string(s.coded_height) + " -" + std::to_string(s.crop_left) +
           "-" + std::to_string(s.crop_right) + " -" + std::to_string(s.crop_top) + "-" + std::to_string(s.crop_bottom);
  };
  EXPECT_EQ(text(SequenceSize(files[0])), "112x64 -0-12 -0-6");
  EXPECT_EQ(text(SequenceSize(files[1])), "112x64 -0-12 -0-6");  // 4:4:4 crops in single pixels
  EXPECT_EQ(text(SequenceSize(files[2])), "112x64 -0-12 -0-6");
  EXPECT_EQ(text(SequenceSize(files[3])), "112x64 -0-12 -0-4");  // field pairs: rows counted per frame
  H264PictureSize sps = SequenceSize(files[0]);
  int width = 0, height = 0;
  for (auto [container, expected] : {std::pair{98, 98}, {100, 100}, {96, 100}, {104, 100}, {0, 100}}) {
    H264DecodedSize(sps, container, 58, &width, &height);
    EXPECT_EQ(width * 1000 + height, expected * 1000 + 58) << container;
  }
  sps.crop_left = 2, sps.crop_right = 10;  // cropped at the left: the container's size is not taken
  H264DecodedSize(sps, 98, 58, &width, &height);
  EXPECT_EQ(width, 100);
  const uint8_t two_sets[] = {1, 0x42, 0, 0x1e, 0xff, 0xe2, 0, 1, 0x67, 0, 1, 0x67};
  EXPECT_FALSE(ReadH264PictureSize(two_sets, sizeof two_sets, &sps)) << "which set the slices use is not known";
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

// The generic probe's tags where the tools, the library's own among them, agree: ASF's WM/Year included.
TEST(FormatsCorpus, ContainerTagsMatchTheToolsWhereTheyAgree) {
  if (CorpusFiles("misc-audio").empty()) GTEST_SKIP() << "no corpus under " << CorpusDir();
  int compared = 0;
  for (const char* folder : {"misc-audio", "video", "mpeg"}) {
    for (const auto& path : CorpusFiles(folder)) {
      std::string relative = std::string(folder) + "/" + fs::path(path).filename().string();
      orvo::test::LogCapture quiet;
      MediaInfo m = FillCorpus(folder == std::string("misc-audio") ? FillAudio : FillVideo, relative);
      std::string ref = Reference(relative);
      auto agreed = [&](const char* tag) {
        bool read = m.frequency != 0 && !RefText(ref, {"tags", tag}, "ffprobe").empty();
        return read ? RefText(ref, {"tags", tag}, "value", true) : "";
      };
      const std::pair<const char*, std::string> fields[] = {
          {"title", m.title}, {"artist", m.artist}, {"date", std::to_string(atoi(m.year))}, {"track", std::to_string(m.track)}};
      for (const auto& [tag, ours] : fields) {
        std::string theirs = agreed(tag);
        if (theirs.empty()) continue;
        if (tag == std::string("date") || tag == std::string("track")) theirs = std::to_string(atoi(theirs.c_str()));
        EXPECT_EQ(ours, theirs) << relative << " " << tag;
        ++compared;
      }
    }
  }
  EXPECT_GT(compared, 10);
}

// Deliberately unlike the tools: a refused AIFF keeps channels.
TEST(FormatsCorpus, DeliberateDifferencesFromTheTools) {
  if (CorpusFiles("flac").empty()) GTEST_SKIP() << "no corpus under " << CorpusDir();
  orvo::test::LogCapture log;
  MediaInfo aiff = FillCorpus(FillAiffRecord, "aiff/invalid_sample_rate.aiff");
  EXPECT_EQ(aiff.channels * 100000 + aiff.frequency, 100000);
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


// The MPEG video parser and VCD handler: sequence headers built here, streams made with ffmpeg.
std::string SequenceHeader(unsigned width, unsigned height, int aspect, int rate_code, unsigned bitrate_value) {
  std::string s("\0\0\1\xb3", 4);
  for (unsigned byte : {width >> 4, ((width & 0xF) << 4) | (height >> 8), height & 0xFF,
                        unsigned(aspect << 4 | rate_code), bitrate_value >> 10, (bitrate_value >> 2) & 0xFF,
                        ((bitrate_value & 3) << 6) | 0x20, 0u})
    s.push_back(char(byte));
  return s + std::string("\0\0\1\xb8\0\0\0\0", 8);  // and a group of pictures
}

// A sequence extension with these size and bit-rate extensions, frame-rate extension 1/1.
std::string SequenceExtension(int h_ext, int v_ext, unsigned br_ext) {
  std::string s("\0\0\1\xb5\x14", 5);
  for (unsigned byte : {unsigned(0x48 | (h_ext >> 1)), unsigned((h_ext & 1) << 7 | v_ext << 5) | (br_ext >> 7),
                        ((br_ext & 0x7F) << 1) | 1, 0u, 0x20u})
    s.push_back(char(byte));
  return s;
}

MediaInfo ParseMemory(std::string bytes, size_t size = 0) {
  bytes.resize(std::max(size, bytes.size()), '\0');
  MediaInfo m{};
  EXPECT_EQ(ParseMpegVideoMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &m), 0);
  return m;
}

std::string Values(const MediaInfo& m) {
  return std::string(m.title) + "|" + m.album + "|" + std::to_string(m.width) + "x" + std::to_string(m.height) + "|" +
         std::to_string(m.video_bitrate) + "|" + std::to_string(m.bitrate) + "|" + std::to_string(m.frequency);
}

TEST(MpegVideoElementary, SizeBitRateAndDurationFromFileSizeAlikeFromFileAndMemory) {
  MediaInfo m = ParseMemory(SequenceHeader(352, 240, 1, 4, 2875), 14375000);
  EXPECT_EQ(Values(m), "||352x240|2875000|0|0");  // the 400 bit/s unit times 1000, as stored
  EXPECT_EQ(m.duration, 100.0f);
  TempDir dir;
  std::string path = dir.File("es.m1v");
  WriteBytes(path, SequenceHeader(352, 240, 1, 4, 2875));
  ASSERT_EQ(truncate(path.c_str(), 14375000), 0);
  MediaInfo f{};
  ASSERT_EQ(ParseMpegVideoFile(path.c_str(), &f), 0);
  EXPECT_EQ(memcmp(&f, &m, sizeof m), 0);
  // A bit rate of 0 gives an infinite duration, kept by the parser; aspect 0 is logged and used.
  orvo::test::LogCapture log;
  EXPECT_TRUE(std::isinf(ParseMemory(SequenceHeader(352, 240, 0, 3, 0), 1000).duration));
  EXPECT_TRUE(log.Contains("invalid aspect_ratio."));
}

TEST(MpegVideoSequenceExtension, OnlyWidthBit13AndOnlyBeforeTheGroupOfPictures) {
  std::string seq = SequenceHeader(720, 480, 2, 4, 1000), gop = seq.substr(12);
  seq.resize(12);
  struct { int h_ext, v_ext; int width, height; } cases[] = {
      {1, 0, 720, 480}, {2, 0, 720 | 0x2000, 480}, {0, 3, 720, 480 | 0x3000}};  // the low bit is ignored
  for (const auto& c : cases) {
    MediaInfo m = ParseMemory(seq + SequenceExtension(c.h_ext, c.v_ext, 1) + gop, 4000);
    EXPECT_EQ(m.width, c.width) << c.h_ext;
    EXPECT_EQ(m.height, c.height) << c.v_ext;
    EXPECT_FLOAT_EQ(m.duration, 4000 * 8.0 / (1000 * 400)) << "duration without the extension bits";
  }
  EXPECT_EQ(ParseMemory(seq + gop + SequenceExtension(2, 3, 0), 200).width, 720);
}

TEST(MpegVideoSearchLimit, NothingAfterTheFirst100000BytesIsSeenAndTheFileIsStillSaved) {
  std::string header = SequenceHeader(352, 288, 1, 3, 2875);
  EXPECT_EQ(ParseMemory(std::string(99999, '\x55') + header, 200000).width, 352);
  TempDir dir;
  std::string path = dir.File("VCD/MPEGAV/MUSIC01.DAT");
  WriteBytes(path, std::string(100000, '\x55') + header);
  orvo::test::LogCapture log;
  MediaInfo m = Filled(FillVcdRecord, path);
  EXPECT_EQ(Values(m), "MUSIC01|MPEGAV|0x0|0|0|0");
  EXPECT_TRUE(log.Contains("couldn't find any valid video."));
  EXPECT_TRUE(log.Contains("Did not find video nor audio. Skip meta info"));
  EXPECT_FALSE(log.Contains("Failed to parse music metadata.")) << "a success with zero values";
  EXPECT_EQ(RemoveVcd(path.c_str()), -1);
}

// A system stream whose audio search meets a rejected MPEG-2.5 sync and then only false syncs (MPEG-2
// layer III, 8 kbit/s, frame length 24) after a zero run from byte 25, where the search counts its zeros.
std::string FalseSyncStream(size_t size) {
  std::string bytes = "\x55" + SequenceHeader(352, 240, 1, 4, 2875) + std::string("\0\0\1\xc0\0\0", 6);
  bytes.resize(size / 2, '\0');
  bytes += "\xff\xe3\x14\x00";
  while (bytes.size() + 4 <= size) bytes += std::string("\xff\xf3\x14\x00", 4);
  return bytes;
}

// The zero run was counted again for every candidate: some 10000 times the file's bytes read.
TEST(MpegVideoAudioSearch, FalseSyncsAfterALongZeroRunCostReadsInProportionToTheFile) {
  const size_t size = 256 * 1024;
  TempDir dir;
  std::string path = dir.File("Disc/false.dat");
  WriteBytes(path, FalseSyncStream(size));
  orvo::test::LogCapture log;
  MediaInfo m{};
  long long before = BytesReadSoFar();
  ASSERT_EQ(ParseMpegVideoFile(path.c_str(), &m), 0);
  EXPECT_LT(BytesReadSoFar() - before, 8 * (long long)size);
  EXPECT_EQ(m.width * 1000 + m.height, 352240);
  EXPECT_EQ(std::to_string(m.bitrate) + "|" + std::to_string(m.frequency), "0|0") << "no frame was confirmed";
}

// The audio fields held the last rejected header's bit rate, rate and mode when no frame was found.
TEST(MpegVideoAudioSearch, AudioFieldsStayZeroUnlessAFrameIsFound) {
  const std::string start = "\x55" + SequenceHeader(352, 240, 1, 4, 2875) + std::string("\0\0\1\xc0\0\0\0", 7);
  const std::string mpeg25("\xff\xe3\x14\xc0", 4), frame("\xff\xfb\x90\xc4", 4);  // 128 kbit/s, 417 bytes
  const std::pair<std::string, std::string> cases[] = {  // audio payload, "bitrate|frequency|channels"
      {mpeg25 + std::string(500, '\0'), "0|0|0"},
      {mpeg25 + frame + std::string(500, '\x22'), "0|0|0"},  // found after a rejected one, never confirmed
      {mpeg25 + frame + std::string(413, '\x22') + frame, "128000|44100|3"},
      {frame + std::string(500, '\x22'), "128000|44100|3"},  // the first header after the packet needs no confirmation
  };
  for (const auto& [payload, want] : cases) {
    MediaInfo m = ParseMemory(start + payload, 2000);
    EXPECT_EQ(std::to_string(m.bitrate) + "|" + std::to_string(m.frequency) + "|" + std::to_string(m.channels), want);
    EXPECT_EQ(m.width, 352);
  }
}

TEST(MpegVideoStreams, VcdDvdAndElementaryStreamsMadeByFfmpeg) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string vcd = dir.File("Disc/AVSEQ01.mpg"), dat = dir.File("Disc/AVSEQ01.DAT"), dvd = dir.File("Disc/dvd.vob");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=352x240:rate=30000/1001 "
                     "-f lavfi -i sine=sample_rate=44100:duration=2 -target ntsc-vcd " + vcd));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=720x480:rate=30000/1001 "
                     "-f lavfi -i sine=sample_rate=48000:duration=2 -ac 2 -target ntsc-dvd -c:a mp2 -b:a 192k " + dvd));
  std::string riff = std::string("RIFF\0\0\0\0CDXAfmt ", 16) + std::string(36, '\0') + ReadBytes(vcd);
  WriteBytes(dat, riff);
  MediaInfo m = Filled(FillVcdRecord, dat);
  // The VCD bit rate value 2875 (1150 kbit/s) gives the duration.
  EXPECT_EQ(Values(m), "AVSEQ01|Disc|352x240|2875000|224000|44100");
  EXPECT_NEAR(m.duration, riff.size() * 8.0 / 1150000, 1e-3);

  ASSERT_EQ(FillVcdRecord(dvd.c_str(), &m), 0);  // MPEG-2 packet headers
  m.video_bitrate = 0;  // the encoder's own header figure, here and below
  EXPECT_EQ(Values(m).substr(9), "720x480|0|192000|48000");

  std::string es = dir.File("Disc/clip.m1v");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=1:size=320x240:rate=25 -c:v mpeg1video -b:v 800k -f mpeg1video " + es));
  ASSERT_EQ(FillVcdRecord(es.c_str(), &m), 0);
  m.video_bitrate = 0;
  EXPECT_EQ(Values(m), "clip|Disc|320x240|0|0|0");
}

}  // namespace
