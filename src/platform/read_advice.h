// Read-ahead advice for descriptors whose readers know what they read.
#pragma once

#include <fcntl.h>
#include <sys/uio.h>

// For a reader that makes a few small reads at known places (a header, a
// tail, one box): turns the kernel's read-ahead off for this open file, so
// the disk reads the pages asked for and no more. On a cold cache the
// default window (up to the device's read_ahead_kb, megabytes on some disks)
// otherwise costs far more than the reads themselves. Advice only: a
// refusal changes nothing that is read.
inline void AdviseFewReads(int fd) { (void)posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM); }

// Starts reading `length` bytes at `offset` into the page cache without
// waiting, for a read the caller will make after another: the two go to the
// disk together instead of one after the other. Advice only, like the above.
inline void AdviseWillRead(int fd, off_t offset, off_t length) {
  (void)posix_fadvise(fd, offset, length, POSIX_FADV_WILLNEED);
}

// True when the file's first byte can be read without waiting for the disk
// (its first page is in the page cache). A file system that cannot tell
// counts as not cached, so the advice above is still given. Turns the
// descriptor's read-ahead off first (AdviseFewReads): a miss would otherwise
// start a read-ahead window of the device's size.
inline bool PageCached(int fd) {
  AdviseFewReads(fd);
  char byte;
  iovec one{&byte, 1};
  return preadv2(fd, &one, 1, 0, RWF_NOWAIT) >= 0;
}
