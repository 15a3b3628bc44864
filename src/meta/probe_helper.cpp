#include "meta/probe_helper.h"

#include <fcntl.h>
#include <grp.h>
#include <malloc.h>
#include <poll.h>
#include <pwd.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/log.h"
#include "platform/read_advice.h"

namespace {

// ---------------------------------------------------------------------------
// The protocol: one request (with the file's descriptor attached) and one
// reply per file, each a single message on a SOCK_SEQPACKET pair. The
// request has a fixed size; the reply is sent up to the end of its text.

constexpr uint32_t kRequestMagic = 0x4f525251;  // "ORRQ"
constexpr int32_t kProbeRequest = 0;            // probe the file
constexpr int32_t kAacRequest = 1;              // decode one AAC access unit of it
constexpr uint32_t kReplyMagic = 0x4f525250;    // "ORRP"
constexpr size_t kMaxMessages = 4;              // the probe logs one message at most today
constexpr size_t kMessageBytes = 8192;          // orvo::Log's own bound

struct ProbeRequest {
  uint32_t magic;
  uint32_t sequence;
  int32_t kind;      // kProbeRequest or kAacRequest
  int32_t mode;      // ProbeMode
  char path[4096];   // a longer path cannot have been opened
  MediaInfo info;    // the record as the caller holds it: the probe only overwrites
  AacUnit unit;      // kAacRequest: the unit; the reply's frequency and channels answer
};

struct ProbeReply {
  uint32_t magic;
  uint32_t sequence;  // the request's
  int32_t result;     // 0 or -1
  uint32_t message_count;
  uint32_t text_bytes;  // of `text` that were sent
  MediaInfo info;
  char text[kMaxMessages * kMessageBytes];  // the messages, each ending in '\0'
};

size_t ReplySize(const ProbeReply& reply) { return offsetof(ProbeReply, text) + reply.text_bytes; }

// The socket's descriptor number inside the helper, fixed so that the
// filter can allow messages on it and on nothing else.
constexpr int kHelperSocket = 3;

// ---------------------------------------------------------------------------
// The helper's side.

// Messages logged in the helper go into the reply being built.
void CaptureIntoReply(const char* message, void* context) {
  auto* reply = static_cast<ProbeReply*>(context);
  size_t length = strnlen(message, kMessageBytes - 1);
  if (reply->message_count >= kMaxMessages || reply->text_bytes + length + 1 > sizeof reply->text) return;
  memcpy(reply->text + reply->text_bytes, message, length);
  reply->text[reply->text_bytes + length] = '\0';
  reply->text_bytes += static_cast<uint32_t>(length + 1);
  ++reply->message_count;
}

// Closes every descriptor but standard error (where sanitizer reports go; the
// daemon's is /dev/null) and the socket, which moves to kHelperSocket.
bool KeepOnlySocket(int socket) {
  if (socket != kHelperSocket && dup2(socket, kHelperSocket) != kHelperSocket) return false;
  if (socket < kHelperSocket) close(socket);
  close(STDIN_FILENO);
  close(STDOUT_FILENO);
  if (syscall(SYS_close_range, kHelperSocket + 1, ~0U, 0) == 0) return true;
  // Kernels before 5.9: close them one by one, up to the limit.
  long limit = sysconf(_SC_OPEN_MAX);
  for (long fd = kHelperSocket + 1; fd < limit && fd < 65536; ++fd) close(static_cast<int>(fd));
  return true;
}

// The daemon's handlers (SIGTERM removes its pid file) must not run here.
void ResetSignals() {
  for (int sig : {SIGTERM, SIGUSR1, SIGHUP, SIGINT, SIGCHLD, SIGPIPE}) signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Root gives way to nobody. In a user namespace that maps no such user the
// drop fails; the filter still holds, and the first reply says so.
void DropPrivileges() {
  if (geteuid() != 0) return;
  uid_t uid = 65534;
  gid_t gid = 65534;
  if (const passwd* pw = getpwnam("nobody")) {
    uid = pw->pw_uid;
    gid = pw->pw_gid;
  }
  if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) {
    ORVO_LOG("%s (%d) The probe helper could not become user nobody (%s).", strerror(errno));
  }
}

struct FilterReleaser {
  void operator()(void* filter) const { seccomp_release(filter); }
};

// libseccomp's SCMP_A0..SCMP_A5 leave the second datum to zero-initialisation,
// which clang reports; the rules below rely on that zero.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

// Allows what reading a descriptor, building the reply and managing memory
// need; every other call fails with EPERM (not a kill: a call we did not
// foresee, say in a sanitizer build, fails softly).
bool Confine() {
  std::unique_ptr<void, FilterReleaser> filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)));
  if (!filter) return false;
  void* f = filter.get();
  // A rule that cannot be added leaves its call refused: never less strict.
  auto allow = [f](int nr) { seccomp_rule_add(f, SCMP_ACT_ALLOW, nr, 0); };
  auto allowIf = [f](int nr, scmp_arg_cmp cmp) { seccomp_rule_add_array(f, SCMP_ACT_ALLOW, nr, 1, &cmp); };
  for (int nr : {SCMP_SYS(read), SCMP_SYS(pread64), SCMP_SYS(lseek), SCMP_SYS(close), SCMP_SYS(munmap),
                 SCMP_SYS(mremap), SCMP_SYS(brk), SCMP_SYS(madvise), SCMP_SYS(futex), SCMP_SYS(sched_yield),
                 SCMP_SYS(clock_gettime), SCMP_SYS(gettimeofday), SCMP_SYS(getpid), SCMP_SYS(gettid),
                 SCMP_SYS(getuid), SCMP_SYS(getrandom), SCMP_SYS(rt_sigreturn),
                 SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigaction), SCMP_SYS(sigaltstack), SCMP_SYS(exit),
                 SCMP_SYS(exit_group)}) {
    allow(nr);
  }
  // Memory, but never executable memory.
  allowIf(SCMP_SYS(mmap), SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0));
  allowIf(SCMP_SYS(mprotect), SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0));
  // Messages on the socket only; standard error for sanitizer reports.
  allowIf(SCMP_SYS(recvmsg), SCMP_A0(SCMP_CMP_EQ, kHelperSocket));
  allowIf(SCMP_SYS(sendmsg), SCMP_A0(SCMP_CMP_EQ, kHelperSocket));
  allowIf(SCMP_SYS(write), SCMP_A0(SCMP_CMP_EQ, STDERR_FILENO));
  allowIf(SCMP_SYS(writev), SCMP_A0(SCMP_CMP_EQ, STDERR_FILENO));
  // Read-ahead of the input's next refill (the advice that only starts reads).
  allowIf(SCMP_SYS(fadvise64), SCMP_A3(SCMP_CMP_EQ, POSIX_FADV_WILLNEED));
  // abort() signals itself, and only itself.
  allowIf(SCMP_SYS(tgkill), SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(getpid())));
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  return seccomp_load(f) == 0;
}
#pragma GCC diagnostic pop

// Test-only faults, see kProbeHelperTestVariable.
void RunTestFault(int fd) {
  char head[4200];
  ssize_t n = pread(fd, head, sizeof head - 1, 0);
  if (n <= 0) return;
  head[n] = '\0';
  std::string_view text(head, static_cast<size_t>(n));
  if (text.starts_with("ORVO-TEST-CRASH")) __builtin_trap();
  if (text.starts_with("ORVO-TEST-HANG")) {
    char byte;
    iovec iov{&byte, 1};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    // Nothing comes until the daemon gives up on us; its end of the socket closing ends us.
    while (recvmsg(kHelperSocket, &msg, 0) != 0) {
    }
    _exit(0);
  }
  if (text.starts_with("ORVO-TEST-NONSENSE")) {
    iovec iov{head, 8};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    sendmsg(kHelperSocket, &msg, MSG_NOSIGNAL);  // then the real reply, which must never be taken for the next file's
    return;
  }
  constexpr std::string_view kOpen = "ORVO-TEST-OPEN ";
  if (text.starts_with(kOpen)) {
    std::string_view target = text.substr(kOpen.size());
    target = target.substr(0, target.find('\n'));
    head[kOpen.size() + target.size()] = '\0';
    const char* path = head + kOpen.size();
    int opened = open(path, O_RDONLY);
    ORVO_LOG("%s (%d) Test open of [%s] in the probe helper: %s, user %d.", path,
             opened >= 0 ? "opened" : strerror(errno), static_cast<int>(getuid()));
    if (opened >= 0) close(opened);
  }
}

// The file's descriptor attached to a request, or -1.
int AttachedDescriptor(msghdr* msg) {
  int fd = -1;
  for (cmsghdr* c = CMSG_FIRSTHDR(msg); c != nullptr; c = CMSG_NXTHDR(msg, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int received;
      memcpy(&received, CMSG_DATA(c) + i * sizeof(int), sizeof received);
      if (fd < 0) {
        fd = received;
      } else {
        close(received);
      }
    }
  }
  return fd;
}

[[noreturn]] void ServeProbes(int socket, pid_t daemon) {
  static ProbeRequest request;
  static ProbeReply reply;  // 38 KiB: not on the stack
  // Goes when the daemon goes, even if it never closes its end.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != daemon) _exit(0);
  prctl(PR_SET_NAME, "orvoprobe");
  ResetSignals();
  if (!KeepOnlySocket(socket)) _exit(1);
  // A crafted file that crashes the helper leaves no core behind.
  const rlimit noCore{0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  const bool testFaults = getenv(kProbeHelperTestVariable) != nullptr;
  // Every probe allocates and frees about the same memory: keep it rather
  // than hand it back to the system and fault it in again for the next file
  // (a tenth of a small probe's time; with blocks over 1 MiB mapped apart an
  // FLV probe took twice as long). Blocks past 32 MiB still come and go. The
  // one heap setting of the probe's process: nothing else sets one.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);

  // Forked in the middle of a walk, perhaps of a cached folder: the helper's
  // refills always give their advice.
  ReadAdviceWanted() = true;
  memset(&reply, 0, sizeof reply);
  orvo::SetLogCapture(CaptureIntoReply, &reply);
  // Everything that opens files comes before the filter: the library and its
  // dependencies, the user database.
  LoadAv();
  LoadAacDecoder();
  DropPrivileges();
  const bool confined = Confine();
  if (!confined) {
    ORVO_LOG("%s (%d) The probe helper could not confine itself (%s); files are not probed.", strerror(errno));
  }

  // Until the daemon closes its end or goes; every request is one file.
  for (;;) {
    iovec iov{&request, sizeof request};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n = recvmsg(kHelperSocket, &msg, MSG_CMSG_CLOEXEC);
    if (n < 0 && errno == EINTR) continue;
    int fd = n > 0 ? AttachedDescriptor(&msg) : -1;
    if (n != static_cast<ssize_t>(sizeof request) || request.magic != kRequestMagic || fd < 0) _exit(n == 0 ? 0 : 1);

    reply.magic = kReplyMagic;
    reply.sequence = request.sequence;
    request.path[sizeof request.path - 1] = '\0';
    reply.info = request.info;
    reply.result = -1;
    if (confined) {
      if (testFaults) RunTestFault(fd);
      if (request.kind == kAacRequest) {
        reply.result = DecodeAacUnit(fd, request.unit, &reply.info.frequency, &reply.info.channels) ? 0 : -1;
      } else {
        ProbeMode mode = request.mode == static_cast<int32_t>(ProbeMode::kLibraryDefaults)
                             ? ProbeMode::kLibraryDefaults
                             : ProbeMode::kTuned;
        reply.result = ProbeDescriptor(fd, request.path, &reply.info, mode);
      }
    }
    close(fd);
    iovec out{&reply, ReplySize(reply)};
    msghdr sent{};
    sent.msg_iov = &out;
    sent.msg_iovlen = 1;
    if (sendmsg(kHelperSocket, &sent, MSG_NOSIGNAL) != static_cast<ssize_t>(out.iov_len)) _exit(0);
    memset(&reply, 0, offsetof(ProbeReply, text));
  }
}

// ---------------------------------------------------------------------------
// The daemon's side.

struct Helper {
  pid_t pid = 0;
  int socket = -1;
  pid_t owner = 0;  // the process that started it; a fork of that one starts its own
  uint32_t sequence = 0;
};
Helper gHelper;

// Kills and reaps the helper; its wait status, or -1.
int StopHelper() {
  int status = -1;
  if (gHelper.pid > 0) {
    kill(gHelper.pid, SIGKILL);
    while (waitpid(gHelper.pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (gHelper.socket >= 0) close(gHelper.socket);
  gHelper = Helper{};
  return status;
}

bool StartHelper() {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
    ORVO_LOG("%s (%d) Failed to start the probe helper (%s).", strerror(errno));
    return false;
  }
  const pid_t daemon = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    close(pair[0]);
    ServeProbes(pair[1], daemon);
  }
  close(pair[1]);
  if (pid < 0) {
    ORVO_LOG("%s (%d) Failed to start the probe helper (%s).", strerror(errno));
    close(pair[0]);
    return false;
  }
  gHelper.pid = pid;
  gHelper.socket = pair[0];
  gHelper.owner = daemon;
  return true;
}

bool EnsureHelper() {
  if (gHelper.pid > 0 && gHelper.owner != getpid()) {
    // A fork of the process that owns the helper: leave that one alone.
    close(gHelper.socket);
    gHelper = Helper{};
  }
  return gHelper.pid > 0 || StartHelper();
}

bool SendRequest(const ProbeRequest& request, int fd) {
  iovec iov{const_cast<ProbeRequest*>(&request), sizeof request};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  c->cmsg_len = CMSG_LEN(sizeof(int));
  memcpy(CMSG_DATA(c), &fd, sizeof fd);
  ssize_t n;
  do {
    n = sendmsg(gHelper.socket, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(sizeof request);
}

int64_t NowMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// True once the reply (or the helper's end) can be read; false when the
// deadline passed first.
bool WaitForReply(int64_t deadline) {
  for (;;) {
    int64_t left = deadline - NowMs();
    if (left <= 0) return false;
    pollfd p{gHelper.socket, POLLIN, 0};
    int rc = poll(&p, 1, static_cast<int>(left));
    if (rc > 0) return true;
    if (rc == 0 || errno != EINTR) return rc != 0;
  }
}

// How a helper that went away ended, for the log.
void DescribeEnd(int status, char* out, size_t size) {
  if (status >= 0 && WIFSIGNALED(status)) {
    snprintf(out, size, "signal %d", WTERMSIG(status));
  } else if (status >= 0 && WIFEXITED(status)) {
    snprintf(out, size, "exit status %d", WEXITSTATUS(status));
  } else {
    snprintf(out, size, "unknown status");
  }
}

template <size_t N>
void CopyText(char (&to)[N], const char (&from)[N]) {
  memcpy(to, from, N);
  to[N - 1] = '\0';
}

// Only the fields the probe fills: whatever else the helper sent (the path,
// the size) stays as the caller had it.
void CopyProbedFields(const MediaInfo& from, MediaInfo* to) {
  to->track = from.track;
  CopyText(to->title, from.title);
  CopyText(to->album, from.album);
  CopyText(to->artist, from.artist);
  CopyText(to->year, from.year);
  CopyText(to->genre, from.genre);
  to->duration = from.duration;
  to->bitrate = from.bitrate;
  to->video_bitrate = from.video_bitrate;
  to->frequency = from.frequency;
  to->channels = from.channels;
  to->width = from.width;
  to->height = from.height;
}

// Reads the reply to request `sequence` into `reply`: 1 read, 0 the helper is gone, -1 malformed.
int ReadReply(uint32_t sequence, ProbeReply& reply) {
  iovec iov{&reply, sizeof reply};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  // No control buffer: descriptors the helper might attach are dropped.
  ssize_t n;
  do {
    n = recvmsg(gHelper.socket, &msg, MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) return 0;
  if (n < static_cast<ssize_t>(offsetof(ProbeReply, text)) || (msg.msg_flags & MSG_TRUNC) != 0 ||
      reply.magic != kReplyMagic || reply.sequence != sequence ||
      (reply.result != 0 && reply.result != -1) || reply.message_count > kMaxMessages ||
      reply.text_bytes > sizeof reply.text || static_cast<size_t>(n) != ReplySize(reply) ||
      (reply.text_bytes > 0 && reply.text[reply.text_bytes - 1] != '\0')) {
    return -1;
  }
  return 1;
}

// Hands `request` and the file to the helper and reads the reply: the
// reply, or null after logging why the helper failed (it is then stopped).
const ProbeReply* Ask(ProbeRequest* request, int fd, const char* path) {
  request->magic = kRequestMagic;
  snprintf(request->path, sizeof request->path, "%s", path);
  // A helper that went away while idle is replaced, and the file sent again.
  bool sent = false;
  for (int attempt = 0; attempt < 2 && !sent; ++attempt) {
    if (!EnsureHelper()) return nullptr;
    request->sequence = ++gHelper.sequence;
    sent = SendRequest(*request, fd);
    if (!sent) StopHelper();
  }
  if (!sent) {
    ORVO_LOG("%s (%d) Failed to hand [%s] to the probe helper.", path);
    return nullptr;
  }

  if (!WaitForReply(NowMs() + kProbeDeadlineSeconds * 1000)) {
    StopHelper();
    ORVO_LOG("%s (%d) The probe helper took more than %d seconds on [%s] and was stopped.", kProbeDeadlineSeconds,
             path);
    return nullptr;
  }
  static ProbeReply reply;
  int read = ReadReply(request->sequence, reply);
  if (read <= 0) {
    int status = StopHelper();
    if (read == 0) {
      char how[64];
      DescribeEnd(status, how, sizeof how);
      ORVO_LOG("%s (%d) The probe helper ended (%s) while reading [%s].", how, path);
    } else {
      ORVO_LOG("%s (%d) The probe helper answered nonsense for [%s] and was stopped.", path);
    }
    return nullptr;
  }
  // The text ends in '\0' (checked), so every message does.
  const char* message = reply.text;
  for (uint32_t i = 0; i < reply.message_count && message < reply.text + reply.text_bytes; ++i) {
    orvo::Log("%s", message);
    message += strlen(message) + 1;
  }
  return &reply;
}

}  // namespace

int ProbeInHelper(int fd, const char* path, MediaInfo* info, ProbeMode mode) {
  // Deliberate departure: libavformat no longer runs in the daemon, so no file can crash, hang or steer it.
  static ProbeRequest request;
  memset(&request, 0, sizeof request);
  request.kind = kProbeRequest;
  request.mode = static_cast<int32_t>(mode);
  request.info = *info;
  const ProbeReply* reply = Ask(&request, fd, path);
  if (reply == nullptr) return -1;
  CopyProbedFields(reply->info, info);
  return reply->result;
}

bool DecodeAacInHelper(int fd, const char* path, const AacUnit& unit, int32_t* sample_rate, int32_t* channels) {
  static ProbeRequest request;
  memset(&request, 0, sizeof request);
  request.kind = kAacRequest;
  request.unit = unit;
  const ProbeReply* reply = Ask(&request, fd, path);
  if (reply == nullptr || reply->result != 0) return false;
  *sample_rate = reply->info.frequency;
  *channels = reply->info.channels;
  return true;
}

pid_t ProbeHelperPid() { return gHelper.owner == getpid() ? gHelper.pid : 0; }
