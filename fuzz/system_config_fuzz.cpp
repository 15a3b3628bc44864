// Feeds arbitrary bytes to the configuration and pid file readers through an
// in-memory file, with an output buffer as small as the daemon's and one
// sized by the input, so an overrun shows under ASan.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "platform/system.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static int fd = memfd_create("orvo-config-fuzz", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (fd < 0 || size == 0) return 0;
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data + 1, size - 1, 0) != static_cast<ssize_t>(size - 1)) return 0;

  char small[16];
  for (const char* key : {"supportphoto", "albumdefpublic", ""}) {
    int n = QLIBFileGetKeyValue(path.c_str(), key, small, sizeof small, 0);
    if (n >= static_cast<int>(sizeof small) || (n >= 0 && strlen(small) != static_cast<size_t>(n)))
      __builtin_trap();
  }
  // A buffer of the first byte's size, allocated exactly, to catch off-by-one writes.
  std::vector<char> sized(data[0] + 1);
  int n = QLIBFileGetKeyValue(path.c_str(), "k", sized.data(), static_cast<int>(sized.size()), 0);
  if (n >= static_cast<int>(sized.size())) __builtin_trap();
  QLIBReadPidFile(path.c_str());
  return 0;
}
