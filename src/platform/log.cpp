#include "platform/log.h"

#include <cstdarg>
#include <cstdio>
#include <syslog.h>

namespace orvo {

namespace {
// Set only by tests; the daemon itself always logs to syslog.
LogCapture gCapture = nullptr;
void* gCaptureContext = nullptr;
// Set by the daemon's run progress for the life of the process.
LogWatch gWatch = nullptr;
void* gWatchContext = nullptr;
LogAbout gAbout = {false, nullptr};

constexpr size_t kMessageSize = 8192;
bool gHeld = false;
}  // namespace

void HoldLog(bool held) { gHeld = held; }

void SetLogCapture(LogCapture capture, void* context) {
  gCapture = capture;
  gCaptureContext = context;
}

void SetLogWatch(LogWatch watch, void* context) {
  gWatch = watch;
  gWatchContext = context;
}

LogSubject::LogSubject(const char* path) : saved_(gAbout) { gAbout = {true, path}; }

LogSubject::~LogSubject() { gAbout = saved_; }

void Log(const char* format, ...) {
  if (gHeld) return;
  va_list args;
  va_start(args, format);
  if (gWatch != nullptr) {
    va_list again;
    va_copy(again, args);
    char message[kMessageSize];
    vsnprintf(message, sizeof message, format, again);
    va_end(again);
    gWatch(message, gAbout, gWatchContext);
  }
  if (gCapture != nullptr) {
    char message[kMessageSize];
    vsnprintf(message, sizeof message, format, args);
    gCapture(message, gCaptureContext);
  } else {
    vsyslog(LOG_ERR, format, args);
  }
  va_end(args);
}

}  // namespace orvo
