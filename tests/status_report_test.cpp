// The status file's text and what the client makes of it: any path survives both, the JSON is
// valid whatever bytes a path holds, a dead daemon's run is not shown as live, and a watched
// frame never wraps on the terminal.
#include <gtest/gtest.h>

#include "platform/run_status.h"
#include "support/json_reader.h"
#include "tools/status_report.h"

namespace {

using orvo::test::ParseJson;

RunStatus Running() {
  RunStatus s;
  s.running = true;
  s.pid = 42;
  s.updated = 1718000100;
  s.run = {1718000000, 0, 100.5, 5, 10, 1200, 3, 2};
  s.filesPerSecond = 11.9;
  s.secondsLeft = -1;
  s.path = "/volume1/music/new\nline\\caf\xe9.mp3";
  s.hasLastRun = true;
  s.lastRun = {1717990000, 1717990065, 65.0, 7, 7, 5000, 1, 4};
  return s;
}

TEST(StatusFile, RoundTripsAnyPathAndSkipsWhatItDoesNotKnow) {
  const RunStatus s = Running();
  const std::string text = FormatRunStatus(s);
  EXPECT_NE(text.find("seconds_left=unknown\n"), std::string::npos);
  RunStatus back;
  ASSERT_TRUE(ParseRunStatus("future_key=1\n" + text + "garbage line\n", &back));
  EXPECT_EQ(FormatRunStatus(back), text);
  EXPECT_EQ(back.path, s.path);

  RunStatus idle = s;
  idle.running = false;
  ASSERT_TRUE(ParseRunStatus(FormatRunStatus(idle), &back));
  EXPECT_FALSE(back.running);
  EXPECT_EQ(back.run.linesTotal, 0u);  // no live figures in an idle file
  EXPECT_EQ(back.lastRun.filesIndexed, 5000u);
  EXPECT_FALSE(ParseRunStatus("pid=1\n", &back));
}

TEST(StatusJsonText, ValidWhateverBytesAPathHolds) {
  // Valid UTF-8 stays, a Latin-1 byte is read as its character, control bytes are escaped.
  EXPECT_EQ(ParseJson(JsonString("caf\xc3\xa9 caf\xe9 \"q\" \\ \x01\n\xf0\x9f")),
            "caf\xc3\xa9 caf\xc3\xa9 \"q\" \\ \x01\n\xc3\xb0\xc2\x9f");

  StatusSnapshot snapshot{42, false, true, true, Running()};
  nlohmann::json json = ParseJson(StatusJson(snapshot));
  ASSERT_FALSE(json.is_discarded()) << StatusJson(snapshot);
  EXPECT_EQ(json["state"], "running");
  EXPECT_EQ(json["run"]["lines_done"], 5);
  EXPECT_EQ(json["run"]["files_removed"], 3);
  EXPECT_TRUE(json["run"]["seconds_left"].is_null());
  EXPECT_EQ(json["run"]["path"], "/volume1/music/new\nline\\caf\xc3\xa9.mp3");
  EXPECT_EQ(json["last_run"]["lines"], 7);
}

TEST(StatusJsonText, ADeadDaemonsRunIsNotShownAsGoingOn) {
  StatusSnapshot dead{0, false, true, true, Running()};
  EXPECT_EQ(StateOf(dead), RunState::kInterrupted);
  EXPECT_NE(StatusText(dead).find("run: cut short at 5 of 10 queue lines"), std::string::npos);
  EXPECT_EQ(StatusText(dead).find("speed:"), std::string::npos);
  // A status file left by an earlier daemon says nothing of the one that runs now.
  StatusSnapshot other{77, false, false, true, Running()};
  EXPECT_EQ(StateOf(other), RunState::kUnknown);
  EXPECT_EQ(StatusText(other).find("\nrun:"), std::string::npos);
  StatusSnapshot live{42, false, true, true, Running()};
  EXPECT_NE(StatusText(live).find("run: 5 of 10 queue lines, 1200 files indexed, 3 removed, 2 failed\n"
                                  "file: /volume1/music/new\\nline\\\\caf\xe9.mp3\n"),
            std::string::npos)
      << StatusText(live);
}

TEST(StatusWatchFrame, EveryLineFitsTheTerminalAndTheBarFollowsTheLines) {
  StatusSnapshot snapshot{42, true, true, true, Running()};
  snapshot.status.path = "/volume1/music/" + std::string(300, 'x') + "/\xc3\xa9\xc3\xa9.mp3";
  const std::string frame = ProgressFrame(snapshot, 40);
  size_t start = 0;
  for (size_t end; (end = frame.find('\n', start)) != std::string::npos; start = end + 1)
    EXPECT_LE(end - start, 40u) << frame.substr(start, end - start);
  EXPECT_EQ(start, frame.size());
  EXPECT_EQ(frame.find("[###############---------------]  50%"), 0u) << frame;
  EXPECT_NE(frame.find("\xc3\xa9\xc3\xa9.mp3\n"), std::string::npos);  // the file name's end is kept
}

}  // namespace
