// The one logging entry point. Every message goes to syslog at LOG_ERR.
//
// Messages carry their own prefix as the system has always written it
// ("%s (%d) ", and in the daemon also "%s(%d): " and "%s(%d) "); the macro
// fills the first two conversions with this source file's base name and line:
//
//   ORVO_LOG("%s (%d) Failed to open directory %s ", path);
//
// Keep every message text exactly as it stands, misspellings included: other
// tools on the appliance grep the log for them.
#pragma once

namespace orvo {

// Sends one formatted message to syslog(LOG_ERR), or to the capture that a
// test installed with SetLogCapture.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Test seam: while a capture is set, Log appends each formatted message to it
// instead of calling syslog. Pass nullptr to go back to syslog.
using LogCapture = void (*)(const char* message, void* context);
void SetLogCapture(LogCapture capture, void* context);

// What a message is about. Unnamed (the usual case): whatever file is being
// handled when it is logged. Named: `path`, or no file at all when null.
struct LogAbout {
  bool named;
  const char* path;
};

// Progress seam: while a watch is set, Log also hands it each formatted
// message (besides syslog or the capture), with what the message is about.
// The daemon's run progress uses it to remember why a file failed.
using LogWatch = void (*)(const char* message, const LogAbout& about, void* context);
void SetLogWatch(LogWatch watch, void* context);

// While one lives, the messages logged name what they are about: a deferred
// write failure names its own row's path, a failure of a whole group of
// writes names no file (nullptr), rather than the file handled at the time.
class LogSubject {
 public:
  explicit LogSubject(const char* path);
  ~LogSubject();
  LogSubject(const LogSubject&) = delete;
  LogSubject& operator=(const LogSubject&) = delete;

 private:
  LogAbout saved_;
};

// While the log is held, messages are dropped. The database layer holds it
// for the rest of a queue line whose work a database failure put back: that
// work runs again later, and its messages come then, once.
void HoldLog(bool held);

}  // namespace orvo

#define ORVO_LOG(format, ...) ::orvo::Log(format, __FILE_NAME__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
