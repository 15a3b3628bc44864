// Read-ahead advice for descriptors whose readers know what they read.
#pragma once

#include <fcntl.h>
#include <sys/uio.h>

// Whether the advice below is given. A walk turns it off for the files of a
// folder whose first file is in the page cache already: there each advice is
// a system call that changes nothing, two per MP3 file, about 3 % of a warm
// re-index of an MP3 share. On everywhere else.
inline bool& ReadAdviceWanted() {
  static bool wanted = true;
  return wanted;
}

// For a reader that makes a few small reads at known places (a header, a
// tail, one box): turns the kernel's read-ahead off for this open file, so
// the disk reads the pages asked for and no more. On a cold cache the
// default window (up to the device's read_ahead_kb, megabytes on some disks)
// otherwise costs far more than the reads themselves. Advice only: a
// refusal changes nothing that is read.
inline void AdviseFewReads(int fd) {
  if (ReadAdviceWanted()) (void)posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
}

// Starts reading `length` bytes at `offset` into the page cache without
// waiting, for a read the caller will make after another: the two go to the
// disk together instead of one after the other. Advice only, like the above.
inline void AdviseWillRead(int fd, off_t offset, off_t length) {
  if (ReadAdviceWanted()) (void)posix_fadvise(fd, offset, length, POSIX_FADV_WILLNEED);
}

// True when the file's first byte can be read without waiting for the disk
// (its first page is in the page cache). A file system that cannot tell
// counts as not cached, so the advice above is still given. Turns the
// descriptor's read-ahead off first (AdviseFewReads): a miss would otherwise
// start a read-ahead window of the device's size.
inline bool PageCached(int fd) {
  (void)posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
  char byte;
  iovec one{&byte, 1};
  return preadv2(fd, &one, 1, 0, RWF_NOWAIT) >= 0;
}
