// Start-up, signals and the debounced main loop of orvoindexd.
#pragma once

#include <ctime>

inline constexpr const char kDaemonPidFile[] = "/var/run/orvoindexd.pid";

// The whole program: --help, start-up, then the main loop, which never
// returns. Returns only for --help (0).
int RunDaemon(int argc, char** argv);

// 1 when the pid file names a live process, else 0.
int IsDaemonAlive(const char* pidFile);

// Detaches and writes the pid file; -1 when another instance runs or the
// daemon cannot detach.
int BecomeDaemon();

// SIGUSR1: marks the queue dirty and counts the signal. Flag words only.
void SetDirty(int signo);

// SIGTERM: removes the pid file and ends the process with status 0.
void OnTerminate(int signo);

// What one tick of the main loop does, by the two flag words as it finds them.
enum class TickAction {
  kNone,            // idle
  kClearNewSignal,  // a signal came during the last sleep: wait one more tick
  kSetDirty,        // a signal raced the reset of the flags
  kRunQueue,        // a whole sleep passed after a signal
};
TickAction DecideTick(int isDirty, int newSignal);

// More signals than this without a run force a vacuum and a run.
inline constexpr int kSignalCeiling = 9999;
bool SignalCeilingPassed(int signalCount);

// True when more than 12 hours have passed since the last vacuum.
bool VacuumDue(time_t now, time_t lastVacuum);
