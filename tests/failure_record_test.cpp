// The failure record: what a power cut or a stranger leaves in it is skipped, what the daemon
// writes comes back byte for byte, and the file stays within its bound.
#include <fcntl.h>
#include <unistd.h>

#include "formats_testutil.h"
#include "platform/failure_record.h"

namespace {

using formats_test::ReadBytes;
using formats_test::TempDir;
using formats_test::WriteBytes;

std::vector<std::string> PathsOf(const std::vector<FailureEntry>& entries) {
  std::vector<std::string> paths;
  for (const auto& e : entries) paths.push_back(e.path);
  return paths;
}

std::string Numbered(std::string prefix, size_t n) { return prefix.append(std::to_string(n)); }

size_t LinesIn(const std::string& file) {
  const std::string text = ReadBytes(file);
  return std::count(text.begin(), text.end(), '\n');
}

TEST(FailureRecordFile, TornLastLineIsSkippedAndCutBeforeTheNextAppend) {
  TempDir dir;
  const std::string file = dir.File("failures");
  WriteBytes(file, "100\t/v/a.mp3\tfirst\n200\t/v/b.mp3\tsecond\n300\t/v/c.mp");
  EXPECT_EQ(PathsOf(ReadFailureRecord(file.c_str())), (std::vector<std::string>{"/v/b.mp3", "/v/a.mp3"}));

  FailureRecord record;
  ASSERT_EQ(OpenFailureRecord(&record, file.c_str()), 0);
  ASSERT_EQ(AppendFailure(&record, {400, "/v/d.mp3", "fourth"}), 0);
  ASSERT_EQ(SyncFailureRecord(&record), 0);
  // Appended after the torn piece, the entry would have been glued to it and lost.
  EXPECT_EQ(PathsOf(ReadFailureRecord(file.c_str())), (std::vector<std::string>{"/v/d.mp3", "/v/b.mp3", "/v/a.mp3"}));
  EXPECT_EQ(ReadBytes(file), "100\t/v/a.mp3\tfirst\n200\t/v/b.mp3\tsecond\n400\t/v/d.mp3\tfourth\n");
}

TEST(FailureRecordFile, LinesThatAreNotEntriesAreSkipped) {
  using namespace std::string_literals;
  const std::string text = "1\t/ok/1\tfine\n"s +
                           "\n"s +                      // empty
                           "2\t/no/reason\n"s +          // a field short
                           "3\t/x\ty\tz\n"s +            // a field too many
                           "4x\t/bad/time\tr\n"s +       // not a number
                           "-5\t/negative\tr\n"s +
                           "6\t\treason\n"s +            // no path
                           "7\t/bad\\qescape\tr\n"s +    // unknown escape
                           "8\t/cut\\x4\tr\n"s +         // cut escape
                           "9\t/raw\x01" "control\tr\n"s +
                           "10\t/zero\0byte\tr\n"s +
                           "11\t/ok/2\tfine\n"s;
  EXPECT_EQ(PathsOf(NewestFailures(text, 100)),
            (std::vector<std::string>{"/ok/2", "/ok/1"}));
}

TEST(FailureRecordFile, AnyBytesOfPathAndReasonComeBackOnOneLine) {
  const FailureEntry entry{1718000000, "/v/tab\there/new\nline/back\\slash/\x01\x7f/caf\xe9.mp3",
                           "reason with \r\n and \xc3\xa9"};
  std::string line;
  AppendFailureLine(line, entry);
  ASSERT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
  ASSERT_EQ(std::count(line.begin(), line.end(), '\t'), 2);
  FailureEntry back;
  ASSERT_TRUE(ParseFailureLine(std::string_view(line).substr(0, line.size() - 1), &back));
  EXPECT_EQ(back.time, entry.time);
  EXPECT_EQ(back.path, entry.path);
  EXPECT_EQ(back.reason, entry.reason);

  // A long reason is cut between characters: 'a' then two-byte characters across the cut.
  std::string reason = "a";
  while (reason.size() < kFailureReasonMax + 10) reason += "\xc3\xa9";
  line.clear();
  AppendFailureLine(line, {1, "/p", reason});
  line.pop_back();
  ASSERT_TRUE(ParseFailureLine(line, &back));
  EXPECT_EQ(back.reason.size(), kFailureReasonMax - 1);
  EXPECT_EQ(back.reason, reason.substr(0, kFailureReasonMax - 1));
}

// Twice the kept number of lines triggers the rewrite: the newest failure of each path, newest first.
TEST(FailureRecordFile, CompactionKeepsTheNewestOfEachPathWithinTheBound) {
  TempDir dir;
  const std::string file = dir.File("failures");
  FailureRecord record;
  ASSERT_EQ(OpenFailureRecord(&record, file.c_str()), 0);
  const size_t total = 2 * kFailureRecordKeep;
  // Paths 1000 to 1498 fail again near the end.
  for (size_t i = 0; i + 1 < total; ++i) {
    const size_t n = i >= 1500 ? i - 500 : i;
    ASSERT_EQ(AppendFailure(&record, {static_cast<int64_t>(i), Numbered("/f/", n), Numbered("r", i)}), 0);
  }
  EXPECT_EQ(LinesIn(file), total - 1);
  ASSERT_EQ(AppendFailure(&record, {9999, "/f/last", "newest"}), 0);
  EXPECT_EQ(LinesIn(file), kFailureRecordKeep);
  std::vector<FailureEntry> kept = ReadFailureRecord(file.c_str());
  ASSERT_EQ(kept.size(), kFailureRecordKeep);
  EXPECT_EQ(kept.front().path, "/f/last");
  // One place each for the paths that failed twice: last, 1498..1000, 1499, then 999 down to 501.
  EXPECT_EQ(kept.back().path, "/f/501");
  const auto again = std::find_if(kept.begin(), kept.end(), [](auto& e) { return e.path == "/f/1000"; });
  ASSERT_NE(again, kept.end());
  EXPECT_EQ(again->reason, "r1500");
  // The appends after the rewrite go on at the end of the new file.
  ASSERT_EQ(AppendFailure(&record, {10000, "/f/0", "again"}), 0);
  kept = ReadFailureRecord(file.c_str());
  EXPECT_EQ(kept.front().reason, "again");
  EXPECT_EQ(kept.size(), kFailureRecordKeep);
  EXPECT_FALSE(formats_test::fs::exists(file + ".tmp"));

  // A record found past the bound at start is compacted before anything is added.
  FailureRecord reopened;
  std::string big;
  for (size_t i = 0; i < 3 * kFailureRecordKeep; ++i) AppendFailureLine(big, {1, Numbered("/g/", i), "r"});
  WriteBytes(file, big);
  ASSERT_EQ(OpenFailureRecord(&reopened, file.c_str()), 0);
  EXPECT_EQ(LinesIn(file), kFailureRecordKeep);
}

}  // namespace
