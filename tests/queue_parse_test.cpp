// Queue lines (parsing, rename split, photo share test, long lines, NUL, CR-LF) and the tick decisions.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "daemon/daemon.h"
#include "daemon/queue.h"
#include "platform/share_paths.h"

namespace {

TEST(QueueLine, LetterAndArgumentWithoutLineEnd) {
  const std::pair<std::string, std::string> cases[] = {  // line, "letter|argument" or "bad"
      {"a:/volume1/music/song.mp3\n", "a|/volume1/music/song.mp3"},
      {"T:\n", "T|"},
      {"d:/volume1/x.mp3", "d|/volume1/x.mp3|no newline"},
      // "photo\r" would otherwise re-index every share instead of the photo one.
      {"R:photo\r\n", "R|photo"},
      // The line ends at a NUL, so its newline is not seen: taken with the warning.
      {std::string("a:/v/x.mp3\0junk\n", 16), "a|/v/x.mp3|no newline"},
      {std::string("R:photo\r\0\n", 10), "R|photo\r|no newline"},
      {"a/path\n", "bad"},
      {"\n", "bad"},
      {std::string("\0:x\n", 4), "bad"},
  };
  for (const auto& [text, want] : cases) {
    std::vector<char> line(text.begin(), text.end());
    line.push_back('\0');
    QueueCommand command{};
    QueueLineStatus status = ParseQueueLine(line.data(), text.size(), &command);
    std::string got = "bad";
    if (status != QueueLineStatus::kBadFormat) got = std::string{command.letter, '|'} + command.argument;
    if (status == QueueLineStatus::kCommandNoNewline) got += "|no newline";
    EXPECT_EQ(got, want) << text;
  }
}

TEST(RenameSplit, SplitsAsStrtokDoes) {
  const std::pair<std::string, std::string> cases[] = {  // argument, "new|old" or "" when refused
      {"/volume1/photo/b.jpg:/volume1/photo/a.jpg", "/volume1/photo/b.jpg|/volume1/photo/a.jpg"},
      {"::/new::/old", "/new|/old"},
      {"/a:b:/c", "/a|b"},  // a third part is dropped: paths with ':' cannot be renamed
      {"/only/new", ""},
      {":::", ""},
  };
  for (auto [argument, want] : cases) {
    const char* newPath = nullptr;
    const char* oldPath = nullptr;
    int result = SplitRenameArgument(argument.data(), &newPath, &oldPath);
    EXPECT_EQ(result == 0 ? std::string(newPath) + "|" + oldPath : "", want) << argument;
    EXPECT_EQ(result, want.empty() ? -1 : 0) << argument;
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
  int fd = memfd_create("queue", MFD_CLOEXEC);
  EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  auto reader = std::make_unique<QueueLineReader>(fd, 0);
  std::vector<char> line(kQueueLineSize);
  std::vector<std::string> pieces;
  while (size_t length = reader->Next(line.data())) pieces.emplace_back(line.data(), length);
  close(fd);
  return pieces;
}

TEST(QueueReader, SplitsOnNewlinesKeepingThem) {
  EXPECT_EQ(Pieces("a:/x\r\nd:/y\nR:music"), (std::vector<std::string>{"a:/x\r\n", "d:/y\n", "R:music"}));
  EXPECT_TRUE(Pieces("").empty());
  // NUL bytes do not hide the lines after them.
  EXPECT_EQ(Pieces(std::string("a:/x\0\0\n\0\nd:/y\n", 14)).back(), "d:/y\n");
}

TEST(QueueReader, LinesLongerThanTheBufferComeInPiecesLikeFgets) {
  const std::string fits(kQueueLineSize - 2, 'x'), piece(kQueueLineSize - 1, 'y');
  EXPECT_EQ(Pieces(fits + "\na:/y\n"), (std::vector<std::string>{fits + "\n", "a:/y\n"}));
  EXPECT_EQ(Pieces(std::string(10000, 'y') + "\nd:/z\n"),
            (std::vector<std::string>{piece, piece, std::string(10000 - 2 * piece.size(), 'y') + "\n", "d:/z\n"}));
}

// A writer that still has the batch open may not have written the rest of its last line yet.
TEST(QueueReader, AnUnfinishedLastLineWaitsForItsWriterUnlessTheWriterIsDone) {
  int fd = memfd_create("queue", MFD_CLOEXEC);
  auto append = [&](const std::string& text) { ASSERT_EQ(write(fd, text.data(), text.size()), ssize_t(text.size())); };
  append("a:/x\nd:/y");
  QueueLineReader reader(fd, 0);
  std::vector<char> line(kQueueLineSize);
  auto next = [&](bool takeUnfinished) { return std::string(line.data(), reader.Next(line.data(), takeUnfinished)); };
  EXPECT_EQ(next(false), "a:/x\n");
  EXPECT_EQ(next(false), "");
  EXPECT_EQ(reader.Offset(), 5);
  append("z\nR:music");
  EXPECT_EQ(next(false), "d:/yz\n");
  EXPECT_EQ(next(true), "R:music");
  EXPECT_EQ(reader.Offset(), 18);
  close(fd);
}

// The debounce itself runs in DaemonLifecycle.NoRunWithoutASignalNoneWhileSignalsGoOnThenExactlyOne.
TEST(Debounce, VacuumOnlyAfterStrictlyMoreThanTwelveHoursAndSignalCeiling) {
  const time_t last = 1'000'000;
  EXPECT_FALSE(VacuumDue(last + 12 * 3600, last));
  EXPECT_TRUE(VacuumDue(last + 12 * 3600 + 1, last));
  EXPECT_FALSE(VacuumDue(last - 5, last));  // the clock went back
  EXPECT_FALSE(SignalCeilingPassed(9999));
  EXPECT_TRUE(SignalCeilingPassed(10000));
}

}  // namespace
