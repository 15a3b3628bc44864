// The ASF header reader on arbitrary bytes: from memory, and from a
// descriptor, whose reads follow the header's declared size; both must
// vouch for the same files with the same values.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "meta/asf_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  AsfValues values;
  bool from_memory = ReadAsfMemory(data, size, static_cast<int64_t>(size), &values);
  if (from_memory && (values.duration < 0 || values.channels <= 0 || values.sample_rate <= 0)) abort();
  static int fd = memfd_create("asf", 0);
  if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
  MediaInfo info;
  memset(&info, 0, sizeof info);
  bool from_file = ReadAsfValues(fd, static_cast<int64_t>(size), &info);
  // The descriptor path reads at most the declared header and the data
  // object's header, so it may refuse what the whole buffer allows, never
  // the other way round.
  if (from_file && !from_memory) abort();
  if (from_file && (info.channels != values.channels || info.frequency != values.sample_rate)) abort();
  return 0;
}
