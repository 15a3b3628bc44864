// The daemon's process-wide flag words.
//
// gIsDirty, gNewSignal and gSignalCount are written by the SIGUSR1 handler
// while the main loop reads and resets them, so they must be lock-free atomics
// (a signal handler may touch nothing else). The feature switches are in
// platform/features.h, where the index and photo code read them.
#pragma once

#include <atomic>
#include <ctime>

extern std::atomic<int> gIsDirty;      // a SIGUSR1 came and the queue has not run since
extern std::atomic<int> gNewSignal;    // a SIGUSR1 came since the last tick
extern std::atomic<int> gSignalCount;  // SIGUSR1s since the last queue run
extern time_t gLastVacuumTime;         // main thread only

static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs lock-free words");
