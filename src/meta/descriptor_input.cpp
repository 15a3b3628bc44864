// The probe's input over a descriptor, with reads sized for a disk whose
// read-ahead is off.
#include "meta/descriptor_input.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "platform/read_advice.h"

namespace {

ssize_t ReadAt(int fd, uint8_t* out, int64_t count, int64_t at) {
  ssize_t n;
  do {
    n = pread(fd, out, static_cast<size_t>(count), at);
  } while (n < 0 && errno == EINTR);
  return n;
}

}  // namespace

int DescriptorInputRead(void* opaque, uint8_t* buf, int size) {
  auto* in = static_cast<DescriptorInput*>(opaque);
  const int64_t at = in->position;
  if (size <= 0) return 0;
  if (at < in->run_start || at >= in->run_start + in->run_size) {
    const bool continues = at == in->read_end;
    in->run_read = continues ? std::clamp(in->run_read * 2, kFirstRunRead, kLongestRunRead) : 0;
    if (in->run_read <= size) {
      // A read after a seek, or a buffer as large as a refill: straight in.
      ssize_t n = ReadAt(in->fd, buf, size, at);
      if (n < 0) return AVERROR(errno);
      if (n == 0) return AVERROR_EOF;
      in->run_size = 0;
      in->read_end = at + n;
      in->position += n;
      return static_cast<int>(n);
    }
    if (!in->run) in->run = std::make_unique<uint8_t[]>(kLongestRunRead);
    ssize_t n = ReadAt(in->fd, in->run.get(), in->run_read, at);
    if (n < 0) return AVERROR(errno);
    in->run_start = at;
    in->run_size = n;
    in->read_end = at + n;
    if (n == 0) return AVERROR_EOF;
    // From a run's second refill on, the next one goes to the disk now,
    // while this one is parsed: a long run keeps the overlap kernel
    // read-ahead gave it, one refill deep; a short one asks for nothing more.
    if (n == in->run_read && in->run_read > kFirstRunRead)
      AdviseWillRead(in->fd, in->read_end, std::min(in->run_read * 2, kLongestRunRead));
  }
  const int64_t n = std::min<int64_t>(size, in->run_start + in->run_size - at);
  memcpy(buf, in->run.get() + (at - in->run_start), static_cast<size_t>(n));
  in->position += n;
  return static_cast<int>(n);
}

int64_t DescriptorInputSeek(void* opaque, int64_t offset, int whence) {
  auto* in = static_cast<DescriptorInput*>(opaque);
  off_t end = lseek(in->fd, 0, SEEK_END);
  if (end < 0) return AVERROR(errno);
  if ((whence & AVSEEK_SIZE) != 0) return end;
  switch (whence & ~AVSEEK_FORCE) {
    case SEEK_SET: break;
    case SEEK_CUR: offset += in->position; break;
    case SEEK_END: offset += end; break;
    default: return AVERROR(EINVAL);
  }
  if (offset < 0) return AVERROR(EINVAL);
  in->position = offset;
  return offset;
}
