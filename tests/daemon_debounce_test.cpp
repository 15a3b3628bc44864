// The main loop's decisions: a run due after signals, a vacuum due, endless signals forcing a run.
#include <gtest/gtest.h>

#include "daemon/daemon.h"

namespace {

// The ticks (from 1) that run the queue when `signals[i]` says a SIGUSR1 came during tick i's sleep.
std::vector<int> TicksThatRun(const std::vector<bool>& signals) {
  int dirty = 0, fresh = 0;
  std::vector<int> runs;
  for (size_t tick = 0; tick < signals.size(); ++tick) {
    if (signals[tick]) dirty = fresh = 1;
    switch (DecideTick(dirty, fresh)) {
      case TickAction::kNone: break;
      case TickAction::kClearNewSignal: fresh = 0; break;
      case TickAction::kSetDirty: dirty = 1; break;
      case TickAction::kRunQueue:
        dirty = fresh = 0;
        runs.push_back(static_cast<int>(tick) + 1);
        break;
    }
  }
  return runs;
}

TEST(Debounce, OneSignalRunsOnceAfterAQuietTickAndSteadySignalsPostpone) {
  EXPECT_EQ(TicksThatRun({true, false, false, false, false}), std::vector<int>{2});
  EXPECT_TRUE(TicksThatRun({true, true, true, true, true}).empty());
  EXPECT_EQ(TicksThatRun({true, true, true, false, false}), std::vector<int>{4});
  EXPECT_EQ(TicksThatRun({true, false, true, false}), (std::vector<int>{2, 4}));
  EXPECT_TRUE(TicksThatRun({false, false, false}).empty());
  EXPECT_EQ(DecideTick(0, 1), TickAction::kSetDirty);  // a signal raced the reset
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
