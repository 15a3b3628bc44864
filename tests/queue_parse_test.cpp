#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "daemon/queue.h"
#include "support/log_capture.h"

namespace {

namespace fs = std::filesystem;

struct Parsed {
  QueueLineStatus status;
  char letter = 0;
  std::string argument;
};

Parsed Parse(std::string text) {
  std::vector<char> line(text.begin(), text.end());
  line.push_back('\0');
  QueueCommand command{};
  Parsed parsed;
  parsed.status = ParseQueueLine(line.data(), text.size(), &command);
  if (parsed.status != QueueLineStatus::kBadFormat) {
    parsed.letter = command.letter;
    parsed.argument = command.argument;
  }
  return parsed;
}

TEST(QueueLine, LetterAndArgumentWithoutTheNewline) {
  Parsed p = Parse("a:/volume1/music/song.mp3\n");
  EXPECT_EQ(p.status, QueueLineStatus::kCommand);
  EXPECT_EQ(p.letter, 'a');
  EXPECT_EQ(p.argument, "/volume1/music/song.mp3");
  EXPECT_EQ(Parse("T:\n").argument, "");
}

TEST(QueueLine, MissingColonIsBadFormat) {
  EXPECT_EQ(Parse("a/path\n").status, QueueLineStatus::kBadFormat);
  EXPECT_EQ(Parse("a\n").status, QueueLineStatus::kBadFormat);
  EXPECT_EQ(Parse("\n").status, QueueLineStatus::kBadFormat);
  EXPECT_EQ(Parse("a").status, QueueLineStatus::kBadFormat);
}

TEST(QueueLine, LastLineWithoutNewlineStillRuns) {
  Parsed p = Parse("d:/volume1/music/x.mp3");
  EXPECT_EQ(p.status, QueueLineStatus::kCommandNoNewline);
  EXPECT_EQ(p.argument, "/volume1/music/x.mp3");
}

TEST(QueueLine, CarriageReturnDoesNotReachTheArgument) {
  // "photo\r" would otherwise re-index every share instead of the photo one.
  EXPECT_EQ(Parse("R:photo\r\n").argument, "photo");
}

TEST(QueueLine, EmbeddedNulCutsTheText) {
  Parsed p = Parse(std::string("a:/v/x.mp3\0junk\n", 16));
  EXPECT_EQ(p.status, QueueLineStatus::kCommand);
  EXPECT_EQ(p.argument, "/v/x.mp3");
  EXPECT_EQ(Parse(std::string("\0:x\n", 4)).status, QueueLineStatus::kBadFormat);
}

TEST(RenameSplit, SplitsAsStrtokDoes) {
  char plain[] = "/volume1/photo/b.jpg:/volume1/photo/a.jpg";
  const char* newPath;
  const char* oldPath;
  ASSERT_EQ(SplitRenameArgument(plain, &newPath, &oldPath), 0);
  EXPECT_STREQ(newPath, "/volume1/photo/b.jpg");
  EXPECT_STREQ(oldPath, "/volume1/photo/a.jpg");

  char doubled[] = "::/new::/old";
  ASSERT_EQ(SplitRenameArgument(doubled, &newPath, &oldPath), 0);
  EXPECT_STREQ(newPath, "/new");
  EXPECT_STREQ(oldPath, "/old");

  // A third part is dropped: paths with ':' cannot be renamed.
  char colon[] = "/a:b:/c";
  ASSERT_EQ(SplitRenameArgument(colon, &newPath, &oldPath), 0);
  EXPECT_STREQ(oldPath, "b");
}

TEST(RenameSplit, MissingPathIsRefused) {
  const char* newPath;
  const char* oldPath;
  char one[] = "/only/new";
  EXPECT_EQ(SplitRenameArgument(one, &newPath, &oldPath), -1);
  char none[] = ":::";
  EXPECT_EQ(SplitRenameArgument(none, &newPath, &oldPath), -1);
}

TEST(PhotoSharePath, OnlyTheShareAndBelowOnAShortVolumeName) {
  EXPECT_EQ(IsPhotoSharePath("/volume1/photo"), 1);
  EXPECT_EQ(IsPhotoSharePath("/volume2/PHOTO/album/a.jpg"), 1);
  EXPECT_EQ(IsPhotoSharePath("/volumeX/photo/"), 1);
  EXPECT_EQ(IsPhotoSharePath("/volume1/photos"), 0);
  EXPECT_EQ(IsPhotoSharePath("/volume1/phot"), 0);
  EXPECT_EQ(IsPhotoSharePath("/volume10/photo/a.jpg"), 0);
  EXPECT_EQ(IsPhotoSharePath("/volume1/music/photo"), 0);
  EXPECT_EQ(IsPhotoSharePath("/volume1/"), 0);
  EXPECT_EQ(IsPhotoSharePath(""), 0);
  EXPECT_EQ(IsPhotoSharePath(nullptr), 0);
}

// Reads every piece of `bytes` as the queue run would.
std::vector<std::string> Pieces(const std::string& bytes) {
  FILE* file = fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "r");
  if (bytes.empty()) file = fopen("/dev/null", "r");
  auto reader = std::make_unique<QueueLineReader>(file);
  std::vector<char> line(kQueueLineSize);
  std::vector<std::string> pieces;
  while (size_t length = reader->Next(line.data())) pieces.emplace_back(line.data(), length);
  fclose(file);
  return pieces;
}

TEST(QueueReader, SplitsOnNewlinesKeepingThem) {
  EXPECT_EQ(Pieces("a:/x\nd:/y\nR:music"), (std::vector<std::string>{"a:/x\n", "d:/y\n", "R:music"}));
  EXPECT_TRUE(Pieces("").empty());
  EXPECT_EQ(Pieces("\n\n").size(), 2u);
}

TEST(QueueReader, LongLinesComeInPiecesLikeFgets) {
  const std::string exact(kQueueLineSize - 2, 'x');  // 4110 bytes + newline fits
  auto pieces = Pieces(exact + "\n" + "a:/y\n");
  ASSERT_EQ(pieces.size(), 2u);
  EXPECT_EQ(pieces[0].size(), kQueueLineSize - 1);

  const std::string longer(10000, 'y');
  pieces = Pieces(longer + "\nd:/z\n");
  ASSERT_EQ(pieces.size(), 4u);
  EXPECT_EQ(pieces[0].size(), 4111u);
  EXPECT_EQ(pieces[1].size(), 4111u);
  EXPECT_EQ(pieces[2], std::string(10000 - 2 * 4111, 'y') + "\n");
  EXPECT_EQ(pieces[3], "d:/z\n");
}

TEST(QueueReader, NulBytesDoNotHideLines) {
  const std::string bytes("a:/x\0\0\n\0\nd:/y\n", 14);
  auto pieces = Pieces(bytes);
  ASSERT_EQ(pieces.size(), 3u);
  EXPECT_EQ(pieces[2], "d:/y\n");
}

// A batch run on files of the test's own.
class QueueBatch : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("queue_batch_" + std::to_string(getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    queue_ = (dir_ / "queue").string();
    batch_ = (dir_ / "queue.tmp").string();
    remove_ = "rm -rf " + batch_;
  }
  void TearDown() override { fs::remove_all(dir_); }

  void Write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
  }

  int Run() {
    QueueFiles files{queue_.c_str(), batch_.c_str(), remove_.c_str()};
    return RunQueueBatch(files, Record, &seen_);
  }

  static void Record(const QueueCommand& command, const char*, void* context) {
    static_cast<std::vector<std::string>*>(context)->push_back(std::string(1, command.letter) + "|" +
                                                               command.argument);
  }

  fs::path dir_;
  std::string queue_, batch_, remove_;
  std::vector<std::string> seen_;
  orvo::test::LogCapture log_;
};

TEST_F(QueueBatch, LeftoverBatchRunsFirstAndTheQueueWaits) {
  Write(batch_, "a:/old\n");
  Write(queue_, "a:/new\n");
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(seen_, std::vector<std::string>{"a|/old"});
  EXPECT_TRUE(fs::exists(queue_));
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(seen_, (std::vector<std::string>{"a|/old", "a|/new"}));
}

TEST_F(QueueBatch, AMillionLinesAllArrive) {
  {
    std::ofstream out(queue_, std::ios::binary);
    for (int i = 0; i < 1000000; ++i) out << "d:/volume1/music/" << i << ".mp3\n";
  }
  ASSERT_EQ(Run(), 0);
  ASSERT_EQ(seen_.size(), 1000000u);
  EXPECT_EQ(seen_.back(), "d|/volume1/music/999999.mp3");
}

}  // namespace
