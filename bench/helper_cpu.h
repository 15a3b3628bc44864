// CPU time of a benchmark's own process and of the probe helper it started,
// which does the generic probe's work for ReadMediaInfo.
#pragma once

#include <time.h>

#include "meta/probe_helper.h"

// Seconds of `clock`, 0 when it cannot be read.
inline double ClockSeconds(clockid_t clock) {
  timespec t;
  if (clock_gettime(clock, &t) != 0) return 0;
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// CPU seconds of this process plus the running probe helper's.
inline double ProcessAndHelperCpuSeconds() {
  double total = ClockSeconds(CLOCK_PROCESS_CPUTIME_ID);
  clockid_t helper;
  pid_t pid = ProbeHelperPid();
  if (pid > 0 && clock_getcpuclockid(pid, &helper) == 0) total += ClockSeconds(helper);
  return total;
}
