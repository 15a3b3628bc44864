// Damaged, truncated and shrinking files end as a logged failure, never a
// crash, a hang or a read past the end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "meta/metaid3.h"
#include "mp3_test_bytes.h"
#include "support/log_capture.h"

using namespace mp3test;

namespace {

// A well-formed file: tags at both ends and a Xing stream.
std::string GoodFile() {
  Id3v1Fields v1;
  v1.title = "v1";
  return Id3v2(3, Frame23("TIT2", Text("Title")) + Frame23("TPE1", Text("Artist")), 64) +
         XingStream(1000, 40) + Id3v1(v1);
}

int ReadFile(const TempDir& dir, const std::string& name, const std::string& bytes, MediaInfo* rec) {
  std::string path = dir.Write(name, bytes);
  memset(rec, 0, sizeof *rec);
  return ReadMp3Info(path.c_str(), rec);
}

TEST(DamagedFile, DegenerateFilesAreRefusedWithAMessage) {
  TempDir dir;
  const std::pair<const char*, std::string> cases[] = {
      {"empty", ""},
      {"one byte", "\xFF"},
      {"all 0xFF", std::string(100000, '\xFF')},
      {"all zero", std::string(100000, '\0')},
      {"only a tag header", "ID3\x03\x00\x00\x7F\x7F\x7F\x7F"},
      {"only TAG", "TAG"},
      {"sync at the very end", std::string(50, '\0') + "\xFF\xFB\x90\x00"},
  };
  for (const auto& [name, bytes] : cases) {
    orvo::test::LogCapture log;
    MediaInfo rec;
    EXPECT_EQ(ReadFile(dir, "f.mp3", bytes, &rec), -1) << name;
    EXPECT_TRUE(log.Contains("Can't find valid mpeg header")) << name;
  }
}

TEST(DamagedFile, EveryTruncationOfAGoodFileIsSafe) {
  std::string good = GoodFile();
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(good, &rec), 0);
  // A header counts only once the next one is there to confirm it.
  size_t confirmable = good.find("\xFF\xFB") + kFrame128Length + 4;
  // Cut at every length from memory (fast) and at a few from files.
  for (size_t n = 0; n < good.size(); n += 3) {
    orvo::test::LogCapture quiet;
    int result = ReadRecord(good.substr(0, n), &rec);
    EXPECT_EQ(result, n < confirmable ? -1 : 0) << n;
  }
  TempDir dir;
  for (size_t n : {size_t(0), size_t(5), size_t(90), size_t(600), good.size() - 100}) {
    orvo::test::LogCapture quiet;
    int result = ReadFile(dir, "cut.mp3", good.substr(0, n), &rec);
    EXPECT_TRUE(result == 0 || result == -1) << n;
  }
}

TEST(DamagedFile, TagSizesPastTheEndStopAtTheEnd) {
  // A tag claiming ~256 MiB and a frame claiming 4 GiB in a tiny file.
  std::string huge_tag = std::string("ID3\x03\x00\x00\x7F\x7F\x7F\x7F", 10) + "TIT2\xFF\xFF\xFF\xFF\0\0x" + Cbr128(4);
  std::string huge_v24 = std::string("ID3\x04\x00\x00\x00\x00\x00\x10", 10) +
                         "APIC\x7F\x7F\x7F\x7F" + std::string(8, '\0') + Cbr128(4);
  MediaInfo rec;
  orvo::test::LogCapture quiet;
  EXPECT_EQ(ReadRecord(huge_tag, &rec), -1);
  EXPECT_EQ(ReadRecord(huge_v24, &rec), 0) << "the search starts after the 26 bytes the tag claims";
}

TEST(DamagedFile, FileThatShrinksWhileBeingReadEndsCleanly) {
  TempDir dir;
  std::string good = GoodFile() + Cbr128(200);
  for (off_t keep : {off_t(0), off_t(40), off_t(2000), off_t(30000)}) {
    std::string path = dir.Write("shrink.mp3", good);
    FILE* f = fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    ByteReader reader;
    ByteReaderAttachFile(&reader, f, int64_t(good.size()));  // the length taken before it shrank
    ASSERT_EQ(truncate(path.c_str(), keep), 0);
    MediaInfo rec;
    memset(&rec, 0, sizeof rec);
    orvo::test::LogCapture log;
    int result = ReadMp3InfoFromReader(&reader, path.c_str(), &rec);
    fclose(f);
    if (keep < 2000) {
      EXPECT_EQ(result, -1) << keep;
      EXPECT_TRUE(log.Contains("Can't find valid mpeg header")) << keep;
    } else {
      EXPECT_EQ(result, 0) << keep;
    }
  }
}

TEST(DamagedFile, UnreadableBytesReadAs17) {
  std::string bytes = "abc";
  ByteReader reader;
  ByteReaderAttachMemory(&reader, bytes.data(), bytes.size());
  EXPECT_EQ(ReadByte(&reader, 2), 'c');
  EXPECT_EQ(ReadByte(&reader, 3), 17);
  EXPECT_EQ(ReadByte(&reader, -1), 17);
  EXPECT_EQ(ReadByte(&reader, int64_t(1) << 40), 17);
  EXPECT_EQ(ReadByte(&reader, 0), 'a') << "a read past the end must not lose the start";
  EXPECT_EQ(ReadPlain32(&reader, 1), uint32_t('b') << 24 | uint32_t('c') << 16);
}

}  // namespace
