// Queue lines as the daemon reads them: parsing, the rename split, the photo
// share test, and a reader that survives long lines, NUL bytes and CR-LF.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "daemon/queue.h"

namespace {

TEST(QueueLine, LetterAndArgumentWithoutLineEnd) {
  struct Case {
    std::string line;
    QueueLineStatus status;
    std::string argument;  // with the letter before it
  };
  const Case cases[] = {
      {"a:/volume1/music/song.mp3\n", QueueLineStatus::kCommand, "a/volume1/music/song.mp3"},
      {"T:\n", QueueLineStatus::kCommand, "T"},
      {"d:/volume1/x.mp3", QueueLineStatus::kCommandNoNewline, "d/volume1/x.mp3"},
      // "photo\r" would otherwise re-index every share instead of the photo one.
      {"R:photo\r\n", QueueLineStatus::kCommand, "Rphoto"},
      {std::string("a:/v/x.mp3\0junk\n", 16), QueueLineStatus::kCommand, "a/v/x.mp3"},
      {"a/path\n", QueueLineStatus::kBadFormat, ""},
      {"a\n", QueueLineStatus::kBadFormat, ""},
      {"\n", QueueLineStatus::kBadFormat, ""},
      {std::string("\0:x\n", 4), QueueLineStatus::kBadFormat, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    std::vector<char> line(c.line.begin(), c.line.end());
    line.push_back('\0');
    QueueCommand command{};
    QueueLineStatus status = ParseQueueLine(line.data(), c.line.size(), &command);
    EXPECT_EQ(status, c.status);
    if (status != QueueLineStatus::kBadFormat) {
      EXPECT_EQ(command.letter + std::string(command.argument), c.argument);
    }
  }
}

TEST(RenameSplit, SplitsAsStrtokDoes) {
  struct Case {
    const char* argument;
    int result;
    const char* newPath;
    const char* oldPath;
  };
  const Case cases[] = {
      {"/volume1/photo/b.jpg:/volume1/photo/a.jpg", 0, "/volume1/photo/b.jpg", "/volume1/photo/a.jpg"},
      {"::/new::/old", 0, "/new", "/old"},
      {"/a:b:/c", 0, "/a", "b"},  // a third part is dropped: paths with ':' cannot be renamed
      {"/only/new", -1, nullptr, nullptr},
      {":::", -1, nullptr, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argument);
    std::string argument = c.argument;
    const char* newPath = nullptr;
    const char* oldPath = nullptr;
    ASSERT_EQ(SplitRenameArgument(argument.data(), &newPath, &oldPath), c.result);
    if (c.result == 0) {
      EXPECT_STREQ(newPath, c.newPath);
      EXPECT_STREQ(oldPath, c.oldPath);
    }
  }
}

TEST(PhotoSharePath, OnlyTheShareAndBelowOnAShortVolumeName) {
  for (const char* path : {"/volume1/photo", "/volume2/PHOTO/album/a.jpg", "/volumeX/photo/"})
    EXPECT_EQ(IsPhotoSharePath(path), 1) << path;
  for (const char* path : {"/volume1/photos", "/volume1/phot", "/volume10/photo/a.jpg", "/volume1/music/photo",
                           "/volume1/", "", static_cast<const char*>(nullptr)})
    EXPECT_EQ(IsPhotoSharePath(path), 0) << (path ? path : "(null)");
}

// Reads every piece of `bytes` as the queue run would.
std::vector<std::string> Pieces(const std::string& bytes) {
  FILE* file = bytes.empty() ? fopen("/dev/null", "r") : fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "r");
  auto reader = std::make_unique<QueueLineReader>(file);
  std::vector<char> line(kQueueLineSize);
  std::vector<std::string> pieces;
  while (size_t length = reader->Next(line.data())) pieces.emplace_back(line.data(), length);
  fclose(file);
  return pieces;
}

TEST(QueueReader, SplitsOnNewlinesKeepingThem) {
  EXPECT_EQ(Pieces("a:/x\r\nd:/y\nR:music"), (std::vector<std::string>{"a:/x\r\n", "d:/y\n", "R:music"}));
  EXPECT_TRUE(Pieces("").empty());
  // NUL bytes do not hide the lines after them.
  EXPECT_EQ(Pieces(std::string("a:/x\0\0\n\0\nd:/y\n", 14)).back(), "d:/y\n");
}

TEST(QueueReader, LinesLongerThanTheBufferComeInPiecesLikeFgets) {
  auto pieces = Pieces(std::string(kQueueLineSize - 2, 'x') + "\na:/y\n");  // just fits
  ASSERT_EQ(pieces.size(), 2u);
  EXPECT_EQ(pieces[0].size(), kQueueLineSize - 1);
  pieces = Pieces(std::string(10000, 'y') + "\nd:/z\n");
  ASSERT_EQ(pieces.size(), 4u);
  EXPECT_EQ(pieces[0].size(), 4111u);
  EXPECT_EQ(pieces[1].size(), 4111u);
  EXPECT_EQ(pieces[2], std::string(10000 - 2 * 4111, 'y') + "\n");
  EXPECT_EQ(pieces[3], "d:/z\n");
}

}  // namespace
