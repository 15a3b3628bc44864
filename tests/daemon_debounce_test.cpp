// The main loop's decisions: a run due after signals, a vacuum due, endless signals forcing a run.
#include <gtest/gtest.h>

#include "daemon/daemon.h"

namespace {

// The loop itself runs in DaemonLifecycle.NoRunWithoutASignalNoneWhileSignalsGoOnThenExactlyOne.
TEST(Debounce, ARunOnlyAfterAWholeQuietSleepFollowingASignal) {
  EXPECT_EQ(DecideTick(0, 0), TickAction::kNone);
  EXPECT_EQ(DecideTick(0, 1), TickAction::kSetDirty);
  EXPECT_EQ(DecideTick(1, 1), TickAction::kClearNewSignal) << "a signal during the sleep postpones the run";
  EXPECT_EQ(DecideTick(1, 0), TickAction::kRunQueue);
}

TEST(Debounce, VacuumOnlyAfterStrictlyMoreThanTwelveHoursAndSignalCeiling) {
  const time_t last = 1'000'000;
  EXPECT_FALSE(VacuumDue(last + 12 * 3600, last));
  EXPECT_TRUE(VacuumDue(last + 12 * 3600 + 1, last));
  EXPECT_FALSE(VacuumDue(last - 5, last));  // the clock went back
  EXPECT_FALSE(SignalCeilingPassed(9999));
  EXPECT_TRUE(SignalCeilingPassed(10000));
}

}  // namespace
