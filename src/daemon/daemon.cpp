#include "daemon/daemon.h"

#include <signal.h>
#include <strings.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "daemon/flags.h"
#include "daemon/queue.h"
#include "index/run_progress.h"
#include "platform/log.h"
#include "platform/failure_record.h"
#include "platform/features.h"
#include "platform/media_db.h"
#include "platform/photo_db.h"
#include "platform/run_status.h"
#include "platform/system.h"

namespace {

constexpr unsigned kTickSeconds = 10;
constexpr double kVacuumIntervalHours = 12.0;

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

void VacuumDatabases() {
  // "vaccuum" is how these lines have always read; log watchers match it.
  if (MediaDBVacuum() < 0) ORVO_LOG("%s (%d) vaccuum mediaserver failed.");
  if (PhotoDBVacuum() < 0) ORVO_LOG("%s (%d) vaccuum photodb failed.");
}

void ReadFeatureSwitches() {
  // One zeroed buffer for both keys, not cleared in between: a failed second
  // read leaves the first value in it, and it is judged all the same.
  char value[16];
  memset(value, 0, sizeof value);
  // "valude" is deliberate; log watchers match it.
  if (QLIBFileGetKeyValue(kFeatureConfigFile, "supportcinedock", value, sizeof value, 0) < 0)
    ORVO_LOG("%s(%d) Can't get key valude. key=%s", "supportcinedock");
  if (strcasecmp(value, "yes") == 0) gSupportCinedock = 1;
  if (QLIBFileGetKeyValue(kFeatureConfigFile, "supportphoto", value, sizeof value, 0) < 0)
    ORVO_LOG("%s(%d) Can't get key value. key=%s", "supportphoto");
  if (strcasecmp(value, "yes") == 0) gSupportPhoto = 1;
}

bool Exists(const char* path) {
  struct stat st;
  return stat(path, &st) == 0;
}

// Runs the queue. A run that finishes a batch kept by earlier runs leaves
// the lines queued meanwhile, whose signals those runs used up, to the next
// quiet tick.
void RunIndexingQueue() {
  const bool hadKept = IndexingRetryTicks() > 0;
  ProcessIndexingQueue();
  if (hadKept && IndexingRetryTicks() == 0 && Exists(kIndexingQueuePath)) gIsDirty = 1;
}

void RunMainLoop() {
  int ticksSinceRun = 0;
  for (;;) {
    sleep(kTickSeconds);  // a signal ends the sleep early
    ++ticksSinceRun;
    bool ran = false;
    if (SignalCeilingPassed(gSignalCount)) {
      gSignalCount = 0;
      VacuumDatabases();
      gLastVacuumTime = time(nullptr);
      gIsDirty = 0;
      gNewSignal = 0;
      RunIndexingQueue();
      ran = true;
    }
    switch (DecideTick(gIsDirty, gNewSignal)) {
      case TickAction::kNone:
        break;
      case TickAction::kClearNewSignal:
        gNewSignal = 0;
        break;
      case TickAction::kSetDirty:
        gIsDirty = 1;
        break;
      case TickAction::kRunQueue:
        gSignalCount = 0;
        if (VacuumDue(time(nullptr), gLastVacuumTime)) {
          VacuumDatabases();
          gLastVacuumTime = time(nullptr);
        }
        gIsDirty = 0;
        gNewSignal = 0;
        RunIndexingQueue();
        ran = true;
        break;
    }
    // Deliberate departure: a kept batch runs again after a few quiet ticks, without waiting for a signal.
    const int retryTicks = IndexingRetryTicks();
    if (!ran && retryTicks > 0 && ticksSinceRun >= retryTicks) {
      RunIndexingQueue();
      ran = true;
    }
    if (ran) ticksSinceRun = 0;
  }
}

}  // namespace

void SetDirty(int) {
  gIsDirty = 1;
  gNewSignal = 1;
  ++gSignalCount;
}

void OnTerminate(int) {
  unlink(kDaemonPidFile);
  // _exit rather than exit: only async-signal-safe calls in a handler. Work
  // not yet committed is safe: the batch file stays and runs at next start.
  _exit(0);
}

TickAction DecideTick(int isDirty, int newSignal) {
  if (isDirty == newSignal) return newSignal == 1 ? TickAction::kClearNewSignal : TickAction::kNone;
  if (isDirty == 0) return TickAction::kSetDirty;
  return TickAction::kRunQueue;
}

bool SignalCeilingPassed(int signalCount) { return signalCount > kSignalCeiling; }

bool VacuumDue(time_t now, time_t lastVacuum) {
  return static_cast<double>(now - lastVacuum) / 3600.0 > kVacuumIntervalHours;
}

int IsDaemonAlive(const char* pidFile) {
  if (pidFile == nullptr) return 0;
  const int pid = QLIBReadPidFile(pidFile);
  if (pid <= 0) return 0;
  return kill(pid, 0) == 0 ? 1 : 0;
}

int BecomeDaemon() {
  if (IsDaemonAlive(kDaemonPidFile)) {
    printf("Daemon alive. No need to start\n");
    return -1;
  }
  if (daemon(0, 0) < 0) {
    ORVO_LOG("%s (%d) Failed to become a daemon.(%s)", strerror(errno));
    return -1;
  }
  std::unique_ptr<FILE, FileCloser> pidFile(fopen(kDaemonPidFile, "w"));
  if (!pidFile) {
    ORVO_LOG("%s(%d): Failed to create %s. (%s)", kDaemonPidFile, strerror(errno));
    exit(0);  // status 0 here on purpose, unlike the other start-up failures
  }
  if (fprintf(pidFile.get(), "%d", static_cast<int>(getpid())) == -1)
    ORVO_LOG("%s(%d): fprintf pid failed. (%s)", strerror(errno));
  return 0;
}

int RunDaemon(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], "--help") == 0) {
    QLIBCopyright();
    return 0;
  }
  if (BecomeDaemon() != 0) exit(1);
  setpriority(PRIO_PROCESS, 0, 10);
  StartRunProgress(kRunStatusPath, kFailureRecordPath);
  if (signal(SIGUSR1, SetDirty) == SIG_ERR) {
    ORVO_LOG("%s (%d) signal(SIGUSR1, SetDirty) failed.");
    exit(1);
  }
  signal(SIGTERM, OnTerminate);
  // SIGKILL cannot be caught; the call fails and is kept as it always was.
  signal(SIGKILL, OnTerminate);
  gLastVacuumTime = time(nullptr);
  VacuumDatabases();
  ReadFeatureSwitches();
  // A batch left by an interrupted run goes before the queue itself.
  if (Exists(kIndexingBatchPath)) ProcessIndexingQueue();
  if (Exists(kIndexingQueuePath)) ProcessIndexingQueue();
  RunMainLoop();
  return 0;
}
