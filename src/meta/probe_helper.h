// The probe helper: the one process that runs libavformat for this one.
//
// It is forked from this process when the first file needs the probe and
// lives as long as this process. This process opens each file and hands the
// descriptor over a socket; the helper reads through that descriptor only
// and answers with a plain record: the probed fields and the messages the
// probe logged, which are logged here in the same words. A second, lighter
// request decodes one AAC access unit of the file for the MP4 video path.
//
// The helper ("orvoprobe" in ps) closes every inherited descriptor, loads
// libavformat, drops to user nobody when it runs as root, and then confines
// itself with a seccomp filter that allows reading and writing descriptors
// it holds and memory management, and refuses (EPERM) every other call:
// no open, no socket, no exec, no clone. A file that crashes it, hangs it
// past kProbeDeadlineSeconds or makes it answer nonsense gets it killed and
// reaped; the file counts as one libavformat cannot read, and the next file
// starts a new helper.
#pragma once

#include <sys/types.h>

#include "meta/aac_decode.h"
#include "meta/metamedia.h"
#include "platform/media_info.h"

// Wall time one probe may take, from the request sent to the reply read.
inline constexpr int kProbeDeadlineSeconds = 5;

// Probes the regular file open as `fd` (named `path`) in the helper, as
// ProbeDescriptor would: overwrites only the fields the probe fills and logs
// the probe's own messages. Returns the probe's result, or -1 after logging
// why when the helper could not be started, crashed, ran past the deadline
// or answered nonsense. Never blocks longer than the deadline.
int ProbeInHelper(int fd, const char* path, MediaInfo* info, ProbeMode mode);

// Decodes one AAC access unit of the regular file open as `fd` (named
// `path`) in the helper (see meta/aac_decode.h): true with the decoder's
// rate and channel count; false when the decoder gave none, or after
// logging why the helper failed, with the same deadline and failure
// handling as a probe.
bool DecodeAacInHelper(int fd, const char* path, const AacUnit& unit, int32_t* sample_rate, int32_t* channels);

// The running helper's pid, 0 when none runs (tests and benchmarks).
pid_t ProbeHelperPid();

// Test-only: in a helper started while ORVO_PROBE_HELPER_TEST is set, a file
// starting with one of these makes the helper misbehave on purpose:
//   "ORVO-TEST-CRASH"       crashes it (an illegal instruction)
//   "ORVO-TEST-HANG"        blocks it until it is killed
//   "ORVO-TEST-NONSENSE"    makes it send a short message before its reply
//   "ORVO-TEST-OPEN <path>" makes it try to open <path>, and log the outcome
//                           and its user id, before the normal probe
// Nothing else reads the variable; the daemon never sets it.
inline constexpr const char* kProbeHelperTestVariable = "ORVO_PROBE_HELPER_TEST";
