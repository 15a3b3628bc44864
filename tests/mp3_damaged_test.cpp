// Damaged, truncated and shrinking files end as a logged failure, never a
// crash, a hang or a read past the end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "meta/metaid3.h"
#include "mp3_test_bytes.h"
#include "support/log_capture.h"

using namespace mp3test;

namespace {

TEST(DamagedFile, DegenerateFilesAreRefusedWithAMessage) {
  std::string zero_runs;  // many candidates whose frames all end in one long run of zeros
  for (int i = 0; i < 400; ++i) zero_runs += std::string("\xFF\xFB\x90\x00", 4);
  const std::pair<const char*, std::string> cases[] = {
      {"empty", ""}, {"one byte", "\xFF"}, {"all 0xFF", std::string(100000, '\xFF')},
      {"all zero", std::string(100000, '\0')}, {"sync at the very end", std::string(50, '\0') + "\xFF\xFB\x90\x00"},
      {"tag claiming 256 MiB", std::string("ID3\x03\0\0\x7F\x7F\x7F\x7FTIT2\xFF\xFF\xFF\xFF\0\0x", 21) + Cbr128(4)},
      {"zero runs", zero_runs + std::string(2 << 20, '\0')}};
  for (const auto& [name, bytes] : cases) {
    orvo::test::LogCapture log;
    std::string path = WriteTemp(bytes);
    MediaInfo rec = {};
    EXPECT_EQ(ReadMp3Info(path.c_str(), &rec), -1) << name;
    EXPECT_TRUE(log.Contains("Can't find valid mpeg header")) << name;
    unlink(path.c_str());
  }
}

// Tags at both ends around a Xing stream.
std::string GoodFile() {
  return Id3v2(3, Frame23("TIT2", Text("Title")), 64) + XingStream(1000, 40) + Id3v1("v1");
}

TEST(DamagedFile, EveryTruncationOfAGoodFileIsSafe) {
  std::string good = GoodFile();
  // A header counts only once the next one confirms it; bytes past the end
  // read as 17, so the next header's two sync bytes already complete one.
  size_t confirmable = good.find("\xFF\xFB") + kFrame128Length + 2;
  for (size_t n = 0; n < good.size(); ++n) {
    orvo::test::LogCapture quiet;
    MediaInfo rec;
    EXPECT_EQ(ReadRecord(good.substr(0, n), &rec), n < confirmable ? -1 : 0) << n;
  }
}

TEST(DamagedFile, FileThatShrinksWhileBeingReadEndsCleanly) {
  std::string good = GoodFile() + Cbr128(200);
  for (off_t keep : {off_t(0), off_t(40), off_t(2000), off_t(30000)}) {
    std::string path = WriteTemp(good);
    FILE* f = fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    ByteReader reader;
    ByteReaderAttachFile(&reader, f, int64_t(good.size()));  // the length taken before it shrank
    ASSERT_EQ(truncate(path.c_str(), keep), 0);
    MediaInfo rec = {};
    orvo::test::LogCapture log;
    int result = ReadMp3InfoFromReader(&reader, path.c_str(), &rec);
    fclose(f);
    unlink(path.c_str());
    EXPECT_EQ(result, keep < 2000 ? -1 : 0) << keep;
    EXPECT_EQ(log.Contains("Can't find valid mpeg header"), keep < 2000) << keep;
  }
}

}  // namespace
