#include "platform/log.h"

#include <cstdarg>
#include <cstdio>
#include <syslog.h>

namespace orvo {

namespace {
// Set only by tests; the daemon itself always logs to syslog.
LogCapture gCapture = nullptr;
void* gCaptureContext = nullptr;
bool gHeld = false;
}  // namespace

void HoldLog(bool held) { gHeld = held; }

void SetLogCapture(LogCapture capture, void* context) {
  gCapture = capture;
  gCaptureContext = context;
}

void Log(const char* format, ...) {
  if (gHeld) return;
  va_list args;
  va_start(args, format);
  if (gCapture != nullptr) {
    char message[8192];
    vsnprintf(message, sizeof message, format, args);
    gCapture(message, gCaptureContext);
  } else {
    vsyslog(LOG_ERR, format, args);
  }
  va_end(args);
}

}  // namespace orvo
