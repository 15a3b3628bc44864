#include <gtest/gtest.h>

#include "daemon/daemon.h"

namespace {

// Plays the main loop's flag handling over a number of ticks: `signalsBefore`
// lists, per tick, whether a SIGUSR1 arrived during that tick's sleep. Returns
// the tick numbers (from 1) at which the queue ran.
std::vector<int> TicksThatRun(const std::vector<bool>& signalsBefore) {
  int dirty = 0;
  int fresh = 0;
  std::vector<int> runs;
  for (size_t tick = 0; tick < signalsBefore.size(); ++tick) {
    if (signalsBefore[tick]) {
      dirty = 1;
      fresh = 1;
    }
    switch (DecideTick(dirty, fresh)) {
      case TickAction::kNone:
        break;
      case TickAction::kClearNewSignal:
        fresh = 0;
        break;
      case TickAction::kSetDirty:
        dirty = 1;
        break;
      case TickAction::kRunQueue:
        dirty = 0;
        fresh = 0;
        runs.push_back(static_cast<int>(tick) + 1);
        break;
    }
  }
  return runs;
}

TEST(Debounce, EachFlagStateHasItsAction) {
  EXPECT_EQ(DecideTick(0, 0), TickAction::kNone);
  EXPECT_EQ(DecideTick(1, 1), TickAction::kClearNewSignal);
  EXPECT_EQ(DecideTick(0, 1), TickAction::kSetDirty);
  EXPECT_EQ(DecideTick(1, 0), TickAction::kRunQueue);
}

TEST(Debounce, OneSignalRunsOnceAfterOneQuietTick) {
  EXPECT_EQ(TicksThatRun({true, false, false, false, false}), std::vector<int>{2});
}

TEST(Debounce, SteadySignalsPostponeTheRun) {
  EXPECT_TRUE(TicksThatRun({true, true, true, true, true}).empty());
  EXPECT_EQ(TicksThatRun({true, true, true, false, false}), std::vector<int>{4});
}

TEST(VacuumSchedule, OnlyStrictlyMoreThanTwelveHours) {
  const time_t last = 1'000'000;
  EXPECT_FALSE(VacuumDue(last + 12 * 3600, last));
  EXPECT_TRUE(VacuumDue(last + 12 * 3600 + 1, last));
  EXPECT_FALSE(VacuumDue(last - 5, last));  // the clock went back
}

TEST(SignalCeiling, TenThousandthSignalForcesTheRun) {
  EXPECT_FALSE(SignalCeilingPassed(9999));
  EXPECT_TRUE(SignalCeilingPassed(10000));
}

}  // namespace
